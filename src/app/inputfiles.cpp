#include "app/inputfiles.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/runlock.h"
#include "control/tvxroutines.h"
#include "parfile/model.h"
#include "simulation/simulation.h"

#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace tarvex {

namespace {

using name_list = std::vector<std::string>;

// Files of the user.
name_list inputs() {
    const auto& f = filenames;
    name_list list{f.parfile};
    if (!options.bestonly) list.push_back(f.datfile);
    if (options.pedigrees) list.push_back(f.pedfile);
    if (options.start_vals) list.push_back(f.stvalfile);
    if (model.me_type == "IND") list.push_back(f.me_varfile);
    for (int iq = 1; iq <= numbers.nq; ++iq)
        for (int i = 1; i <= model.nrnd(iq); ++i)
            if (model.rnd_opt(i, iq) == covariance_kind::gin)
                for (const char* end : {".gin", ".codes"})
                    list.push_back(model.random(i, iq).substr(0, model.random(i, iq).find('(')) + end);
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
            list.push_back("SimData" + std::string(3 - digits.size(), '0') + digits + ".dat");
        }
        return list;
    }
    name_list list{f.summodfile};
    if (options.setup_only) return list;
    for (const auto* name : {&f.fixsolfile, &f.residsfile}) list.push_back(*name);
    for (int irand = 1; irand <= numbers.krand; ++irand)
        for (const char* start : {"RnSoln_", "EBV_"}) list.push_back(start + model.krandom(irand) + ".dat");
    if (options.blup) return list;
    for (const auto* name : {&f.estfile, &f.rrcorrelfile, &f.rrratiosfile, &f.rrvarsfile, &f.aicovsfile, &f.aiparsfile})
        list.push_back(*name);
    return list;
}

// Everything else that a run may write.
name_list working_files() {
    const auto& f = filenames;
    name_list list{f.best2file,  f.bestfile,     f.bestfile + ".tmp", f.covlstfile,     f.curoptfile,
                   f.inbrdfile,  f.newpedfile,   f.ordersfile,        f.adjacfile,      f.symfacfile,
                   f.sumpedfile, f.iteratesfile, lock_name,           "OperationCounts"};
    for (const char* name : {"logL.dat", "AIiterates", "EMrounds", "Estimates", "directions"}) list.push_back(name);
    if (options.json) list.push_back(f.resultsfile);
    for (int i = 1; i <= 5; ++i) list.push_back("recoded" + std::to_string(i) + ".bin");
    for (int i = 1; i <= numbers.krand; ++i) {
        list.push_back(nrminv_name(i));
        list.push_back(cholnrm_name(i));
    }
    if (options.simulation) list.push_back(f.rnseedfile);
    return list;
}

bool same_file(const std::string& a, const std::string& b) {
    if (a == b) return true;
    struct stat x = {}, y = {};
    return stat(a.c_str(), &x) == 0 && stat(b.c_str(), &y) == 0 && x.st_dev == y.st_dev && x.st_ino == y.st_ino;
}

} // namespace

void check_inputs() {
    name_list outputs_of_run = reports();
    for (auto& name : working_files()) outputs_of_run.push_back(name);
    for (const auto& input : inputs())
        for (const auto& output : outputs_of_run)
            if (same_file(input, output)) {
                print_list(screen(), "***** ERROR : Input file \"" + input + "\" is the output file \"" + output +
                                         "\" of this run");
                print_list(screen(), "      Give the input file another name !");
                stoptarvex();
            }
}

void put_old_reports_aside() {
    for (const auto& name : reports()) {
        struct stat s = {};
        if (stat(name.c_str(), &s) != 0 || !S_ISREG(s.st_mode)) continue;
        if (std::rename(name.c_str(), (name + ".old").c_str()) != 0) stop_with("Cannot rename file \"" + name + "\"");
    }
}

} // namespace tarvex
