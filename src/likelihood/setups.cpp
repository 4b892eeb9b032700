#include "likelihood/setups.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/datavecs.h"
#include "equations/mmmatrix.h"
#include "likelihood/likelihood.h"
#include "likelihood/solutions.h"
#include "parameters/parvec.h"
#include "parameters/residualvars.h"
#include "support/screen.h"
#include "support/stop.h"

#include <algorithm>

namespace tarvex {

namespace {

void numeric_store() {
    const int n = numbers.nsrow;
    allocate("alloc sparse", sparse.diag, n);
    allocate("alloc sparse", sparse.xrhs, n);
    sparse.xspars.deallocate(); // the old store goes before the new one comes
    allocate_large("XSPARS", sparse.xspars, sparse.maxlnz);
    sparse.state = store_state::empty;
    if (options.blup) allocate("alloc solerrs", solutions.solerrs, n);
}

} // namespace

void setup4mmm() {
    numeric_store();
    if (options.details) print_list(screen(), "maxlnz", sparse.maxlnz);
    solutions.nsolerrs = options.blup ? 1 : 0;
}

void resize_store() {
    if (!sparse.diag.allocated()) return; // not set up yet
    numeric_store();
}

void setup4like() {
    const int ncombi = std::max(1, combinations.ncombi);
    // log|R| by patterns, or one sum over subjects (random regression)
    if (residualvars.detres.size() != ncombi) allocate("detres", residualvars.detres, ncombi);
    if (!likelihoods.likesav.allocated()) {
        allocate("all likesav", likelihoods.likesav, estimates.nparm + 1, likelihood_rows);
        likelihoods.nlike = 0;
    }
}

} // namespace tarvex
