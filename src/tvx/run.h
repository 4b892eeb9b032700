// Runs of an analysis in folders of their own.
//
// runs/NNN-<sum>/ beside the parameter file: copies of all inputs, the files of the program, tarvex.log, and
//   run.json        sum, source, sum of the study, attempts with options, status, seconds, log L and verdict;
//   "finished" study/          study.json and tables of the study that the inputs belong to estimates.json Results.json
//   of the search, blup.json that of the BLUP run at the estimates
#pragma once
#include "tvx/results.h"

#include <string>
#include <vector>

namespace tvx {

struct run_outcome {
    std::string folder;
    bool known = false; // the same inputs have been run before: nothing was computed
    judgement verdict;
};

// Runs an analysis to its verdict: the search, further attempts where it has not arrived, breeding values at the
// estimates. `place` as for parameter_file; `options` go to the program in front of its own; `again`: also if the same
// inputs have been run; `checked`: the caller has checked the inputs. A program that stops is a fault of status 4,
// Ctrl-C too.
run_outcome run_analysis(const std::string& place, const std::vector<std::string>& options = {}, bool again = false,
                         bool checked = false);

} // namespace tvx
