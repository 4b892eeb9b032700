#include "app/phases.h"
#include "equations/eqnorders.h"

#include "app/choices.h"
#include "app/forecast.h"
#include "app/inputfiles.h"
#include "app/runoptions.h"
#include "control/interrupts.h"
#include "control/options.h"
#include "control/runlock.h"
#include "control/tvxroutines.h"
#include "data/data.h"
#include "data/pedigrees.h"
#include "data/recodedata.h"
#include "data/reducepeds.h"
#include "equations/equations.h"
#include "equations/lsqfixed.h"
#include "estimation/covs2parvec.h"
#include "estimation/estimates.h"
#include "estimation/modelsums.h"
#include "estimation/pxem.h"
#include "likelihood/setups.h"
#include "parameters/variances.h"
#include "parfile/mudmap_build.h"
#include "parfile/readparfile.h"
#include "relations/cholnrm.h"
#include "relations/nrminverse.h"
#include "reports/apprxaicovs.h"
#include "reports/blup.h"
#include "reports/modelsum.h"
#include "reports/residuals.h"
#include "reports/results_json.h"
#include "reports/summary.h"
#include "reports/writesolns.h"
#include "simulation/simulation.h"
#include "sparse/orderings.h"
#include "support/screen.h"

namespace tarvex {

namespace {

void read_analysis(int argc, const char* const* argv) {
    tvxtimes(1);
    runoptions(argc, argv);
    if (!options.bestonly) lock_folder();
    read_parfile();
    check_inputs();
    choose_algorithm();
    choose_reconstruct();
    model2mudmap();
    put_old_reports_aside();
    sum_model();
}

// Report of the stored best point: neither data nor pedigree are looked at.
[[noreturn]] void report_best_point() {
    covs2parvec();
    check_usrdefcovs();
    write_estimates();
    write_results(run_kind::best_point);
    finish_run();
}

void read_pedigree_and_data() {
    if (options.pedigrees || any_nrm_effect()) {
        reducepeds();
        pedigree_list();
        secateurs();
    }
    data_scan1st();
    gen_inverses();
    if (options.simulation) simulate_data();
    if (options.write_factor && !options.siremodel) cholnrm_animal();
}

void set_up_equations() {
    equation_nos();
    data_recode(starts_of_equations());
    sum_inputs();
    write_modelsum();
    covs2parvec();
    check_usrdefcovs();
    lsq_fixed();
    eqnorders();
    new_eqnnos();
    forecast();
    if (options.details || options.setup_only) screen().line("Set-up complete");
    if (options.setup_only) finish_run();
    if (choose_small_problem(estimates.nparm)) covs2parvec();
    if (options.pxem || (options.emalgorithm && options.principal)) pxem_setup();
    setup4like();
    setup4mmm();
}

void estimate_and_report() {
    get_estimates();
    write_fixsolns();
    write_randsolns();
    write_residuals();
    write_estimates();
    write_results(run_kind::search);
}

} // namespace

void run_phases(int argc, const char* const* argv) {
    catch_signals();
    read_analysis(argc, argv);
    note_inputs();
    if (options.bestonly) report_best_point();
    read_pedigree_and_data();
    end_if_asked(false);
    set_up_equations();
    end_if_asked(false);
    if (options.blup) get_ebvs();
    estimate_and_report();
    finish_run();
}

} // namespace tarvex
