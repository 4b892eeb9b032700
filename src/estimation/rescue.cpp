#include "estimation/rescue.h"

#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "estimation/bestpoint.h"
#include "estimation/covs2parvec.h"
#include "estimation/emsteps.h"
#include "estimation/evaluate.h"
#include "estimation/lastpoint.h"
#include "estimation/pxem.h"
#include "parameters/parunits.h"
#include "parameters/parvec.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"

#include <vector>

namespace tarvex {

namespace {

// Adds a change of parameters on the covariance scale to model.cov, which is in the units of the data; the repeat
// effect is left as it is.
void add_change(const std::vector<parameter_change>& change, double factor) {
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        if (irand == residualvars.ipeq && irand > 0) continue;
        const std::vector<double> units = block_units(irand);
        for (const parameter_change& c : change) {
            const int k = c.par - block_start(irand) + 1;
            if (k >= 1 && k <= cov_length(irand))
                model.cov(k, irand) += factor * c.change * units[static_cast<std::size_t>(k - 1)];
        }
    }
}

} // namespace

void from_best_point() {
    readbestpoint(true);
    covs2parvec();
}

void leave_border() {
    const auto lifts = verdict.last.lifts;
    for (const auto& lift : lifts) {
        const double before = bestpoint.xbest;
        for (double factor = 1.0; factor > 0.01 && !(bestpoint.xbest > before); factor *= 0.25) {
            from_best_point();
            add_change(lift, factor);
            covs2parvec();
            evaluate_point(estimates.parvec, 0);
        }
    }
}

void expanded_rounds(int rounds, double least_gain, bool off_border, int& iround, double& xlike) {
    const options_module kept = options;
    const int search_type = maximise.search_type;
    options.emalgorithm = true;
    options.aireml = options.algorithm_set = false; // rounds end by their gain
    options.pxem = !options.sigam;
    maximise.search_type = 6;
    if (options.pxem) pxem_setup();
    if (off_border) leave_border();
    from_best_point();
    em_algorithm(rounds, iround, xlike, least_gain);
    options.emalgorithm = kept.emalgorithm;
    options.aireml = kept.aireml;
    options.algorithm_set = kept.algorithm_set;
    options.pxem = kept.pxem;
    maximise.search_type = search_type;
}

} // namespace tarvex
