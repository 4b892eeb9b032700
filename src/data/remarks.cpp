#include "data/remarks.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/warnings.h"
#include "data/levels.h"
#include "dense/numroutines.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"

#include <algorithm>
#include <string>

namespace tarvex {

namespace {

constexpr int often_absent = -999; // what files often hold where there is no value

std::string of_trait(int iq) { return ", trait " + std::to_string(iq); }

void class_codes(int iq) {
    for (int i = 1; i <= model.nfix(iq); ++i) {
        const auto& codes = levels.fx_codes(i, iq);
        // codes are sorted: 0 would be the first
        if (mudmap.fx_dcolno2(i, iq) == 0 && !codes.empty() && codes.front() == 0)
            warn("class code 0", "code 0 is taken as a class of \"" + model.fixed(i, iq) + "\"" + of_trait(iq));
    }
}

void means_fitted(int iq) {
    if (model.nfix(iq) == 0 && model.fitmean(iq) == 0)
        warn("no mean",
             "neither a mean nor a fixed effect in the model for \"" + model.trait(iq) + "\"" + of_trait(iq));
}

void covariable_values(int iq) {
    for (int i = 1; i <= model.ncov(iq); ++i) {
        const auto& values = covmeans.cv_values(i, iq);
        for (const int absent : {often_absent, datafile.missvalue[iq]}) // the latter by the run itself
            if (std::binary_search(values.begin(), values.end(), static_cast<double>(absent))) {
                warn("covariable with a code for absent values", std::to_string(absent) +
                                                                     " is taken as a value of covariable \"" +
                                                                     model.covar(i, iq) + "\"" + of_trait(iq));
                break;
            }
    }
}

void control_values(int iq) {
    for (int i = 1; options.randreg && i <= model.nmeta(iq); ++i) {
        const auto& codes = levels.mm_codes(i, iq);
        if (std::binary_search(codes.begin(), codes.end(), often_absent))
            warn("control variable with a code for absent values",
                 "-999 is taken as a value of control variable \"" + model.rricontrol(i, iq) + "\"" + of_trait(iq));
    }
}

// Element (iq,jq) of the residual covariances in every class.
bool starts_at_zero(int iq, int jq) {
    const int n = model.kkfit(0);
    for (int step = 0; step < model.rr_resteps; ++step)
        if (model.cov(step * triangle(n) + ihmssf(iq, jq, n), 0) != 0.0) return false;
    return true;
}

void residual_covariances() {
    const int nq = numbers.nq;
    if (options.randreg || model.kkfit(0) != nq) return;
    for (int iq = 1, ij = 0; iq <= nq; ++iq)
        for (int jq = iq; jq <= nq; ++jq)
            if (const int pairs = means.pairs(++ij); iq != jq && pairs > 0 && starts_at_zero(iq, jq))
                warn("residual covariance 0", "residual covariance of traits " + std::to_string(iq) + " and " +
                                                  std::to_string(jq) + " starts at 0 and is kept there, though " +
                                                  std::to_string(pairs) + " pairs of records are in the data");
}

} // namespace

void remark_on_input() {
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        class_codes(iq);
        means_fitted(iq);
        covariable_values(iq);
        control_values(iq);
    }
    residual_covariances();
}

} // namespace tarvex
