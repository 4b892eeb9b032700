// Run options: defaults, the file RunOptions and the command line.
//
// Leaves all run flags in options and maximise, and: orders.order_type, orders.metis_opts, estimates.reorder,
// numbers.zero, simulation.nrepsim, simulation.newseeds, filenames.parfile.
#pragma once
#include <span>
#include <string>
#include <string_view>

namespace tarvex {

inline constexpr int option_length = 40;  // characters of an option that are read
inline constexpr int parfile_length = 30; // characters of the name of the parameter file

// One option. An argument matches a spelling when its first n characters, blanks behind its end, are those of the
// spelling; what follows is free and is passed to `apply`.
struct option_record {
    std::string_view lower;
    int n_lower; // characters compared with the lower-case spelling
    std::string_view upper;
    int n_upper;
    void (*apply)(std::string_view rest, std::string_view arg);
};
std::span<const option_record> option_table();

// Sets all defaults, applies the lines of RunOptions and then the arguments 1 to argc-1, so that the command line wins,
// and settles the algorithm of a continued run. Under the developer's trace the options and the settings wait for
// write_trace. False: --limit has told the limits, and the run ends with that. A number that cannot be read stops the
// run.
bool runoptions(int argc, const char* const* argv);

// Lines for unit 1, which wait until the inputs of the run are known.
struct run_trace_module {
    std::string waiting;
};
inline run_trace_module run_trace;

// Writes what waits for unit 1 ("fort.1"), if there is anything.
void write_trace();

// Applies one argument; `last` tells that it may be the name of the parameter file. An unknown option gives a message
// only.
void get_option(std::string_view text, bool last);

// Name of the parameter file from an argument: ".par" is added unless it is there or the name has 26 or more
// characters.
std::string parfile_name(std::string_view arg);

} // namespace tarvex
