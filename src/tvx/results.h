// Results of a run as Results.json has them, with the user's own names and units where the run belongs to a study, and
// the verdict on the search.
#pragma once
#include "tvx/study.h"

#include <nlohmann/json.hpp>

#include <memory>
#include <string>
#include <vector>

namespace tvx {

using json = nlohmann::json;

// A JSON file that a run has left; one that is missing or torn is a fault.
json read_json_file(const std::string& file);

// Number, or NaN where the run has none (null).
double number(const json& value);

// What the end of a search says.
struct judgement {
    std::string verdict; // "arrived", "boundary", "unidentified", "not arrived", or "given" for covariances as given
    std::string text;    // one sentence
    std::vector<std::string> details; // what lies at the boundary or is not identified, what to do
    int status = 0;                   // exit status
};

// A run: its folder with what was read from it.
struct run_results {
    std::string folder;
    json estimates;                 // of the search
    json solutions;                 // of the BLUP run at the estimates; null where there is none
    json run;                       // run.json: attempts, sum; null where the folder was not made by "tvx run"
    std::unique_ptr<study> made_by; // study of the run, none
};

// Folder of a run, or of a study (then its last finished run). What is none is a fault. Names are those that the run
// has kept; a study that has been replaced since does not lend it others.
run_results read_run(const std::string& place);
// Is the study from which the run was made still in its place, with the same contents ? Also where there was none.
bool study_stands(const run_results& r);

// Words for rows of the covariance blocks.
std::string trait_name(const run_results& r, int trait);
double trait_unit(const run_results& r, int trait); // factor of solutions to the user's units
const study_effect* effect_of(const run_results& r, const std::string& column, int trait);
std::string effect_name(const run_results& r, const std::string& column, int trait); // without bracket
// Identifier of code `code` of an effect; the code itself outside studies.
std::string level_id(const run_results& r, const std::string& column, int trait, std::int64_t code);

// Row `row` (from 1) of block `block` in words: "animal, weight" or "animal, day 2".
std::string row_words(const run_results& r, int block, int row);

judgement judge(const run_results& r);

} // namespace tvx
