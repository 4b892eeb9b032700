#include "app/phases.h"

#include "app/choices.h"
#include "app/forecast.h"
#include "app/inputfiles.h"
#include "app/new_analysis.h"
#include "app/runoptions.h"
#include "control/filenames.h"
#include "control/interrupts.h"
#include "control/options.h"
#include "control/runlock.h"
#include "control/tvxroutines.h"
#include "control/warnings.h"
#include "data/data.h"
#include "data/pedigrees.h"
#include "data/recodedata.h"
#include "data/reducepeds.h"
#include "data/remarks.h"
#include "equations/eqnorders.h"
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
#include "reports/ebvs.h"
#include "reports/modelsum.h"
#include "reports/residuals.h"
#include "reports/results_json.h"
#include "reports/summary.h"
#include "reports/writesolns.h"
#include "simulation/simulation.h"
#include "support/freed_memory.h"
#include "support/screen.h"
#include "support/stop.h"

#include <exception>
#include <filesystem>
#include <new>
#include <utility>

namespace tarvex {

namespace {

// The last line of a run that ends with a phase; nothing: the run goes on.
using ending = std::optional<std::string>;

// The trace of the options must not replace an input, and so waits for the names of those.
void read_model() {
    try {
        read_parfile();
    } catch (const program_stop&) {
        if (filenames.datfile.empty()) write_trace();
        throw;
    }
}

ending read_analysis() {
    // a report writes no working file: it may run beside a search
    if (!options.bestonly) lock_folder();
    // order: names of files must be known before inputs are checked, inputs before anything is written
    read_model();
    choose_algorithm();
    choose_reconstruct();
    model2mudmap();
    check_inputs();
    write_trace();
    put_old_reports_aside();
    // before the search changes what it was given
    sum_model();
    note_inputs();
    return {};
}

// Report of the stored best point: neither data nor pedigree are looked at.
ending report_best_point() {
    if (!options.bestonly) return {};
    covs2parvec();
    check_usrdefcovs();
    write_estimates();
    write_given_loadings();
    write_results(run_kind::best_point);
    return finish_run();
}

ending read_pedigree_and_data() {
    if (options.pedigrees || any_nrm_effect()) {
        if (!options.allped) reducepeds();
        pedigree_list();
        secateurs();
    }
    // levels of genetic effects are those of the pruned list
    data_scan1st();
    remark_on_input();
    gen_inverses();
    sum_up_warnings();
    // needs relationships, but no equations
    if (options.simulation) {
        simulate_data();
        write_given_loadings();
        return finish_run();
    }
    if (options.write_factor) cholnrm_animal();
    end_if_asked(false);
    return {};
}

ending set_up_equations() {
    equation_nos();
    // records by equations as numbered
    data_recode(starts_of_equations());
    end_if_asked(false);
    sum_inputs();
    write_modelsum();
    // matrices decide which equations and records are linked
    covs2parvec();
    check_usrdefcovs();
    // dependent equations must be known before the others are ordered
    lsq_fixed();
    end_if_asked(false);
    eqnorders();
    end_if_asked(false);
    // the same records by the final order
    new_eqnnos();
    forecast();
    if (options.details || options.setup_only) screen().line("Set-up complete");
    if (!options.setup_only) return {};
    write_given_loadings();
    return finish_run();
}

ending set_up_stores() {
    // the number of parameters is known only now; another algorithm has another scale
    if (choose_small_problem(estimates.nparm)) covs2parvec();
    if (options.pxem || (options.emalgorithm && options.principal)) pxem_setup();
    setup4like();
    setup4mmm();
    end_if_asked(false);
    keep_freed_memory();
    return {};
}

ending solve_or_estimate() {
    if (options.blup) {
        get_ebvs();
        screen().line("\"Tarvex\" has finished !");
        return "\"Tarvex\" done";
    }
    get_estimates();
    // solutions before estimates: an error in sampling covariances leaves these
    write_fixsolns();
    write_randsolns();
    write_residuals();
    write_estimates();
    write_results(run_kind::search);
    return finish_run();
}

struct phase {
    run_stage stage; // that the phase belongs to
    ending (*run)();
};
constexpr phase phases[] = {
    {run_stage::model, read_analysis},         {run_stage::data, report_best_point},
    {run_stage::data, read_pedigree_and_data}, {run_stage::equations, set_up_equations},
    {run_stage::stores, set_up_stores},        {run_stage::reports, solve_or_estimate},
};

// Working directory and screen of an analysis; its end puts back what was there.
class at_place {
public:
    explicit at_place(const run_place& place) : before_(std::filesystem::current_path()) {
        if (!place.directory.empty()) std::filesystem::current_path(place.directory);
        if (place.screen) sink_ = screen().redirect(*place.screen);
    }
    ~at_place() {
        if (sink_) screen().redirect(*sink_);
        unlock_folder();
        std::error_code gone;
        std::filesystem::current_path(before_, gone);
    }
    at_place(const at_place&) = delete;
    at_place& operator=(const at_place&) = delete;

private:
    std::filesystem::path before_;
    std::ostream* sink_ = nullptr;
};

// Tells the end of a finished run. A run that could not write all of its reports is none.
int tell_end(std::string last_line) {
    flush_all();
    // a full disk is told late, but told
    const bool good = outputs.failed.empty();
    if (!good) {
        screen().line("Error writing file \"" + outputs.failed + "\"");
        last_line = "exit \"Tarvex\"";
    }
    if (!last_line.empty()) screen().line(last_line);
    return good ? 0 : 1;
}

int run_here(int argc, const char* const* argv) {
    int status = 1;
    try {
        status = tell_end(*run_to(run_stage::reports, argc, argv));
    } catch (const program_stop& stopped) {
        if (!stopped.text.empty()) screen().line(stopped.text);
        status = stopped.status;
    } catch (const std::bad_alloc&) { // in a small allocation; large ones are named
        screen().line("not enough memory");
    } catch (const std::exception& fault) {
        screen().line(fault.what());
    }
    flush_all();
    return outputs.failed.empty() ? status : 1;
}

} // namespace

std::optional<std::string> run_to(run_stage last, int argc, const char* const* argv) {
    return_freed_memory();
    tvxtimes(1);
    if (!runoptions(argc, argv)) return finish_run();
    for (const phase& p : phases) {
        // tests and benchmarks leave here
        if (p.stage > last) return {};
        if (auto end = p.run()) return end;
    }
    return {};
}

int run_phases(int argc, const char* const* argv, const run_place& place) {
    try {
        const at_place here(place);
        catch_signals();
        new_analysis();
        return run_here(argc, argv);
    } catch (const std::filesystem::filesystem_error&) {
        screen().line("Cannot work in directory \"" + place.directory + "\"");
        screen().flush();
        return 1;
    }
}

} // namespace tarvex
