#include "estimation/covs2parvec.h"

#include "control/numbers.h"
#include "control/options.h"
#include "estimation/bestpoint.h"
#include "estimation/parlists.h"
#include "estimation/searchstate.h"
#include "likelihood/likelihood.h"
#include "parameters/parunits.h"
#include "parameters/parvec.h"
#include "parameters/variances.h"
#include "support/stop.h"

namespace tarvex {

void covs2parvec() {
    if (!estimates.allocated) {
        lay_out_parameters();
        allocate("all nnparm", search_state.parnew, estimates.nparm);
        if (options.continew || options.bestonly) take_stored_point();
        if (options.bestonly) {
            bestpoint.xbest = bestpoint.xlike_file;
            set_units_from_covariances();
        }
    }
    search_state.method = {
        .aireml = options.aireml, .em_scale = options.emalgorithm, .pxem = options.pxem, .by_gain = false};
    change_scale();
}

void change_scale() {
    // a stored point may lie at the border: its pivots are lifted; the user's matrices have to be positive definite
    parvec_from_covs(search_state.method.em_scale, bestpoint.from_best ? numbers.zero : 0.0);
    write_listofcovs();
    list_parameters();
    bestpoint.parbest = estimates.parvec;
    // the same numbers would mean another point
    forget_likelihoods();
}

void switch_to_logs(int irand) {
    // both points, so that they stay comparable; log L of either is the same as before
    diagonals_to_logs(irand, estimates.parvec);
    diagonals_to_logs(irand, bestpoint.parbest);
    forget_likelihoods();
}

} // namespace tarvex
