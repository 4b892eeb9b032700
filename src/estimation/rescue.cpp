#include "estimation/rescue.h"

#include "control/numbers.h"
#include "control/options.h"
#include "estimation/bestpoint.h"
#include "estimation/covs2parvec.h"
#include "estimation/emsteps.h"
#include "estimation/evaluate.h"
#include "estimation/lastpoint.h"
#include "estimation/pxem.h"
#include "estimation/searchstate.h"
#include "parameters/parunits.h"
#include "parameters/parvec.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"

#include <vector>

namespace tarvex {

namespace {

constexpr double shorter = 0.25, least_lift = 0.01; // of a step off the border that has not gained

// Adds a change of parameters on the covariance scale to model.cov, which is in the units of the data; the repeat
// effect is left as it is.
void add_change(const std::vector<parameter_change>& change, double factor) {
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        if (irand == residualvars.ipeq && irand > 0) continue;
        const std::vector<double> units = block_units(irand);
        for (const parameter_change& c : change) {
            // parameters of blocks that are covariances themselves have the layout of model.cov
            const int k = c.par - block_start(irand) + 1;
            if (k >= 1 && k <= cov_length(irand)) model.cov(k, irand) += factor * c.change * units[k - 1];
        }
    }
}

} // namespace

void from_best_point() {
    readbestpoint(true);
    change_scale();
}

void leave_border() {
    const auto lifts = verdict.last.lifts;
    for (const auto& lift : lifts) {
        const double before = bestpoint.xbest;
        // shorter steps until one gains
        for (double factor = 1.0; factor > least_lift && !(bestpoint.xbest > before); factor *= shorter) {
            from_best_point();
            add_change(lift, factor);
            change_scale();
            evaluate_point(estimates.parvec, 0);
        }
    }
}

void expanded_rounds(int rounds, double least_gain, bool off_border, int& iround, double& xlike) {
    const search_method kept = search_state.method;
    search_state.method = {.aireml = false, .em_scale = true, .pxem = !options.sigam, .by_gain = true};
    if (search_state.method.pxem) pxem_setup();
    if (off_border) leave_border();
    from_best_point();
    em_algorithm(rounds, iround, xlike, least_gain);
    search_state.method = kept;
}

} // namespace tarvex
