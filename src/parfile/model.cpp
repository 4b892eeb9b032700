#include "parfile/model.h"

#include "control/filenames.h"
#include "control/options.h"
#include "dense/numroutines.h"
#include "parfile/mudmap.h"
#include "support/edit_form.h"

namespace tarvex {

int steps_of(int irand) { return irand == 0 ? model.rr_resteps : 1; }

int matrix_covs(int irand) {
    const int n = model.kkfit(irand);
    return model.diagonal(irand) != 0 ? n : triangle(n);
}

int cov_length(int irand) { return steps_of(irand) * matrix_covs(irand); }

int cov_place(int irand, int i, int j, int step) {
    const int within = model.diagonal(irand) != 0 ? i : ihmssf(i, j, model.kkfit(irand));
    return (step - 1) * matrix_covs(irand) + within;
}

int nfit(int irand) { return options.principal ? model.krfit(irand) : model.kkfit(irand); }

void write_tvxfiles(text_out& out) {
    constexpr edit_form entry{"(1x,a,t25,1h:,3x,1h\",a,1h\") "};
    if (options.comment) write(out, "(1x,a/) ", model.commentline);
    write(out, entry, "Analysis type", model.analysis);
    write(out, entry, "Data file", filenames.datfile);
    if (options.pedigrees) write(out, entry, "Pedigree file", filenames.pedfile);
    write(out, entry, "Parameter file", filenames.parfile);
    write(out, "(/) ");
}

} // namespace tarvex
