#include "data/rowlayout.h"

#include "control/numbers.h"
#include "control/options.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"

#include <algorithm>

namespace tarvex {

int lead_positions(int iq) { return model.nfix(iq) + (model.fitmean(iq) != 0 ? 1 : 0); }

int position_width(int i, int iq) {
    const int irand = mudmap.rn_irand(i, iq);
    // a repeat effect is part of R: no equations
    if (mudmap.kovrnd(irand) == covariance_kind::peq) return 0;
    return options.principal ? model.krfit(irand) : mudmap.kfitrnd(i, iq);
}

int row_length(int iq) {
    int n = lead_positions(iq);
    for (int i = 1; i <= model.nrnd(iq); ++i) n += position_width(i, iq);
    return n;
}

int max_row_length() {
    int n = 0;
    for (int iq = 1; iq <= numbers.nq; ++iq) n = std::max(n, row_length(iq));
    return n;
}

int covariable_width(int iq) {
    int n = 0;
    for (int i = 1; i <= model.ncov(iq); ++i) n += mudmap.cv_order(i, iq);
    return n;
}

int max_covariable_width() {
    int n = 0;
    for (int iq = 1; iq <= numbers.nq; ++iq) n = std::max(n, covariable_width(iq));
    return n;
}

} // namespace tarvex
