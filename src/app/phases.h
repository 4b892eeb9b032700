// The corridor: every analysis walks once through the phases, in one order.
#pragma once
#include <iosfwd>
#include <optional>
#include <string>

namespace tarvex {

// What is ready at the end of each stage.
enum class run_stage {
    model,     // options and parameter file, algorithm, columns of the effects
    data,      // pedigrees, codes of all effects, relationship inverses
    equations, // numbers of the equations in their final order, recoded data, parameter vector
    stores,    // stores of the likelihood
    reports    // estimates and all reports
};

// Runs an analysis to the end of `last`, from modules as new_analysis() leaves them. argv[1] to argv[argc-1] are the
// options and the parameter file. Returns the last line of a run that has come to its end, empty where there is none to
// print, or nothing if the run halts behind `last`; a kind of run that leaves earlier (--limit, --best, --simul,
// --setup) has come to its end. An error stops.
std::optional<std::string> run_to(run_stage last, int argc, const char* const* argv);

// Where an analysis runs. Both hold until its end, and what was there before is put back.
struct run_place {
    std::string directory;          // working directory, empty: that of the process
    std::ostream* screen = nullptr; // sink of the screen lines, null: as it is
};

// One whole analysis in new modules. Returns the exit status: 0 for a finished run, 1 for an error, whose message is on
// the screen; also 1 if a report could not be written in full. Nothing is thrown.
int run_phases(int argc, const char* const* argv, const run_place& place = {});

} // namespace tarvex
