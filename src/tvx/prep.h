// From a table of records, a formula and a pedigree to the files of an analysis.
#pragma once
#include "tvx/study.h"

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tvx {

struct prep_request {
    std::string data, formula, pedigree, out;
    std::string pedcols, na, zero_missing, born, start, candidates;
    int rank = 0;
    double blend = 0.0;      // share of the identity in matrices of gin()
    bool keep_units = false; // no powers of ten
    bool keep_codes = false; // -999 and its like are values
    bool force = false;      // an existing study is replaced
    std::string command;     // the command line
};

// Options of prep, for all commands that prepare.
void add_prep_options(CLI::App& app, prep_request& request);

// Makes the study and writes its folder. All faults of a stage are told at once.
study prepare(const prep_request& request);

// What prep tells of a study: records, traits, classes, remarks.
std::string study_summary(const study& s);

} // namespace tvx
