// Results.json: what a run found, at full precision, for other programs. Written with --json beside the reports.
//
// Top level: format, program, run, inputs, traits, effects, blocks, estimates, covariance_of_estimates, functions,
// phenotype, user_functions, likelihood, iterates, end, equations, resources, solutions. docs/results.md describes
// each.
#pragma once
#include <string>
#include <vector>

namespace tarvex {

enum class run_kind { search, best_point, blup_run };

struct input_file {
    std::string role, name, sum;
    long long bytes = 0;
};
// Files of the analysis as they were at the start.
struct noted_inputs_module {
    std::vector<input_file> files;
};
inline noted_inputs_module noted_inputs;

// With --json: takes the sums over the input files as they stand at the start, and removes an earlier Results.json, so
// that one that is there belongs to a run that came to its end.
void note_inputs();

// With --json: writes the file; the run stops where it cannot be opened. Last of all reports.
void write_results(run_kind kind);

} // namespace tarvex
