#include "app/new_analysis.h"

#include "app/runoptions.h"
#include "basis/legendre.h"
#include "basis/phimatrix.h"
#include "basis/splines.h"
#include "control/filenames.h"
#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/runlock.h"
#include "control/tvxroutines.h"
#include "control/warnings.h"
#include "data/data.h"
#include "data/datavecs.h"
#include "data/levels.h"
#include "data/pedigreelist.h"
#include "data/recodedsums.h"
#include "equations/adjacency.h"
#include "equations/lsqfixed.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "estimation/aireml.h"
#include "estimation/bestpoint.h"
#include "estimation/estimates.h"
#include "estimation/iteratelog.h"
#include "estimation/lastpoint.h"
#include "estimation/modelsums.h"
#include "estimation/pxem.h"
#include "estimation/searchstate.h"
#include "estimation/stepcontrol.h"
#include "likelihood/buildmmm.h"
#include "likelihood/ddvecs.h"
#include "likelihood/derivatives.h"
#include "likelihood/likelihood.h"
#include "likelihood/solutions.h"
#include "parameters/randomvars.h"
#include "parameters/residualvars.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "parfile/randasfix.h"
#include "relations/cholnrm.h"
#include "relations/geninverse.h"
#include "relations/linkedlist.h"
#include "relations/nrminverse.h"
#include "reports/apprxaicovs.h"
#include "reports/finalpoint.h"
#include "reports/results_json.h"
#include "simulation/ignlgi.h"
#include "simulation/simulation.h"
#include "support/screen.h"

#include <memory>

namespace tarvex {

namespace {

// In its place: pointers to members that others hold, if any, stay good.
template <class... M> void anew(M&... modules) {
    (std::destroy_at(&modules), ...);
    (std::construct_at(&modules), ...);
}

} // namespace

void new_analysis() {
    // of an analysis that ended before
    unlock_folder();
    // every module of the table in ARCHITECTURE.md: one left out carries state into the next analysis
    anew(outputs);
    anew(filenames, maximise, numbers, options, times, warnings);
    anew(datafile, model, mudmap, randasfix, usrdefcovs, zerout);
    anew(legpolynomials, phimat, splines);
    anew(combinations, covmeans, datalines, levels, means, pedigreelist, recoded_sums);
    anew(cholnrm, geninverse, gin_store, nrminverse);
    anew(randomvars, residualvars);
    anew(adjacency, kernels, lsqsolutions, mmequations, orders, sparse);
    anew(ddvecs, derivs, likelihoods, places, solutions);
    anew(aireml_terms, bestpoint, estimates, iterate_log, linesearch, modelsums, pxempc, search_state, verdict);
    anew(final_point, noted_inputs, sampling);
    anew(run_trace);
    anew(randomgen, simulation);
    anew(linked_list);
}

} // namespace tarvex
