// Runs of the program as a child process, and what belongs to an analysis on file.
#pragma once
#include <string>
#include <vector>

namespace tvx {

// Parameter file that an argument names: "NAME.par", "NAME", or the folder of a study. What is none is a fault.
std::string parameter_file(const std::string& place);

// Files that an analysis reads, as their names stand in its parameter file, that one first; only those that exist.
// Names that lead out of the folder are a fault.
std::vector<std::string> files_of_analysis(const std::string& parameter_file);

// The program beside this one, or the one that the shell finds.
std::string program_path();
// This program.
std::string own_path();

// Sum over names and bytes of the files of an analysis, the options, and the program: 32 hexadecimal digits.
std::string sum_of_analysis(const std::string& parameter_file, const std::vector<std::string>& options);

struct program_run {
    int status = 0; // exit status, 128 + signal
    double seconds = 0.0;
};
// Runs the program in `folder`; what it says is added to `log` there. On a terminal a line shows the last round of
// what takes more than two seconds. Throws `interrupted` where the user has stopped it by Ctrl-C.
program_run run_program(const std::string& folder, const std::vector<std::string>& args, const std::string& log);

struct interrupted {};

// Last lines of a log, for a message.
std::string last_lines(const std::string& file, int n);

} // namespace tvx
