#include "app/inputfiles.h"

#include "basis/phimatrix.h"
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/runlock.h"
#include "control/tvxroutines.h"
#include "estimation/bestpoint.h"
#include "parfile/model.h"
#include "reports/writesolns.h"
#include "simulation/simulation.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace tarvex {

namespace {

using name_list = std::vector<std::string>;

// Files of the user.
name_list inputs() {
    const auto& f = filenames;
    name_list list{f.parfile, f.runopfile};
    // a report of the stored best point reads no data
    if (!options.bestonly) list.push_back(f.datfile);
    if (options.pedigrees) list.push_back(f.pedfile);
    if (options.start_vals) list.push_back(f.stvalfile);
    if (model.me_type == residual_kind::ind) list.push_back(f.me_varfile);
    for (int iq = 1; iq <= numbers.nq; ++iq)
        for (int i = 1; i <= model.nrnd(iq); ++i)
            if (model.rnd_opt(i, iq) == covariance_kind::gin)
                for (const char* end : {".gin", ".codes"})
                    // the order of fit is not part of the name
                    list.push_back(model.random(i, iq).substr(0, model.random(i, iq).find('(')) + end);
    if (!options.bestonly)
        for (auto& name : basis_files(true)) list.push_back(name);
    return list;
}

// Reports of the run, those of a failed one among them.
name_list reports() {
    const auto& f = filenames;
    if (options.bestonly) return {f.best2file};
    if (options.simulation) {
        name_list list;
        for (int i = 1; i <= simulation.nrepsim && i <= 999; ++i) {
            const std::string digits = std::to_string(i);
            // as simulate_data names them
            list.push_back("SimData" + std::string(3 - digits.size(), '0') + digits + ".dat");
        }
        return list;
    }
    name_list list{f.summodfile};
    // from here on by the stages of a run: set-up, solutions, estimates
    if (options.setup_only) return list;
    for (const auto* name : {&f.fixsolfile, &f.residsfile}) list.push_back(*name);
    for (auto& name : curve_files()) list.push_back(name);
    for (int irand = 1; irand <= numbers.krand; ++irand)
        for (const char* start : {"RnSoln_", "EBV_"}) list.push_back(start + model.krandom(irand) + ".dat");
    if (options.blup) return list;
    for (const auto* name : {&f.estfile, &f.rrcorrelfile, &f.rrratiosfile, &f.rrvarsfile, &f.aicovsfile, &f.aiparsfile})
        list.push_back(*name);
    return list;
}

// Files that a run makes under a temporary name, "<name>.tmp".
name_list made_whole() {
    const auto& f = filenames;
    name_list list{f.bestfile, f.inbrdfile, f.ordersfile, f.adjacfile, f.symfacfile};
    if (options.json) list.push_back(f.resultsfile);
    // copies of rounds
    for (int iround = 1; options.devtrace && iround <= 999; ++iround) list.push_back(bestpoint_copy(iround));
    for (int i = 1; i <= numbers.krand; ++i) {
        list.push_back(nrminv_name(i));
        list.push_back(cholnrm_name(i));
    }
    return list;
}

// Everything else that a run may write.
name_list working_files() {
    const auto& f = filenames;
    name_list list{f.best2file,  f.covlstfile,   f.curoptfile, f.newpedfile,
                   f.sumpedfile, f.iteratesfile, lock_name,    "OperationCounts"};
    for (const char* name : {"logL.dat", "AIiterates", "EMrounds", "Estimates", "directions", "fort.1"})
        list.push_back(name);
    for (int i = 1; i <= 5; ++i) list.push_back("recoded" + std::to_string(i) + ".bin");
    if (options.simulation) list.push_back(f.rnseedfile);
    for (auto& name : basis_files(false)) list.push_back(name);
    for (const auto& name : made_whole())
        for (const char* end : {"", ".tmp"}) list.push_back(name + end);
    // where reports of an earlier run are put
    for (const auto& name : reports()) list.push_back(name + ".old");
    return list;
}

using identity = std::pair<dev_t, ino_t>;

bool identify(const std::string& name, identity& id) {
    struct stat s = {};
    if (stat(name.c_str(), &s) != 0) return false;
    id = {s.st_dev, s.st_ino};
    return true;
}

[[noreturn]] void refuse(const std::string& input, const std::string& output) {
    print_list(screen(),
               "***** ERROR : Input file \"" + input + "\" is the output file \"" + output + "\" of this run");
    print_list(screen(), "      Give the input file another name !");
    stoptarvex();
}

} // namespace

void check_inputs() {
    name_list outputs_of_run = reports();
    for (auto& name : working_files()) outputs_of_run.push_back(name);
    std::map<identity, std::string> there;
    identity id;
    // files by what they are, not by name: links and other paths are found too
    for (const auto& output : outputs_of_run)
        if (identify(output, id)) there.emplace(id, output);
    for (const auto& input : inputs()) {
        // a file that is not there yet is known by its name alone
        if (std::find(outputs_of_run.begin(), outputs_of_run.end(), input) != outputs_of_run.end())
            refuse(input, input);
        if (!identify(input, id)) continue;
        if (const auto at = there.find(id); at != there.end()) refuse(input, at->second);
    }
}

void put_old_reports_aside() {
    for (const auto& name : reports()) {
        struct stat s = {};
        // devices and folders stay where they are
        if (stat(name.c_str(), &s) != 0 || !S_ISREG(s.st_mode)) continue;
        if (std::rename(name.c_str(), (name + ".old").c_str()) != 0) stop_with("Cannot rename file \"" + name + "\"");
    }
}

} // namespace tarvex
