// Where a fuzz target works: a folder of its own, a screen that only the target sees, and the phases of an analysis in
// the same process.
#pragma once
#include "app/phases.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::fuzz {

// Writes a file of the folder, which is made at the first call.
void bring(const std::string& name, std::string_view text);
// The same for a file that no run writes: nothing is done where it lies there already.
void bring_input(const std::string& name, std::string_view text);
void take_away(const std::string& name);      // such a file
std::string content(const std::string& name); // empty where there is none
void clear_folder();

// Walks through the phases up to `last` in new modules, with these options and parameter file. False: the run has
// stopped. A stop that tells no reason, and any other exception, ends the process: the fuzzer has found something.
// `then` is done behind the last phase, as a part of the run.
bool walk(run_stage last, const std::vector<std::string>& arguments, const std::function<void()>& then = {});
// The same without what a run does for its folder: options, parameter file and columns, then `then`. Most executions of
// a target go this way, one in some the whole way.
bool read_model(const std::vector<std::string>& arguments, const std::function<void()>& then = {});
// Steps of the next phase, in this order.
void read_pedigree();
void read_data();                                                    // and inverses
bool one_in(unsigned n, const std::uint8_t* data, std::size_t size); // by the bytes of the input

// A whole analysis, reports included. Returns its status.
int analyse(const std::vector<std::string>& arguments);
const std::string& told(); // screen of the last run

// The input as `n` parts, parted by lines "%%"; those that are not there are empty.
std::vector<std::string> parts_of(const std::uint8_t* data, std::size_t size, std::size_t n);

[[noreturn]] void found(const std::string& what);

// A small sound analysis: a parameter file with two traits or one, data and pedigree.
std::string two_traits();
std::string one_trait();
std::string records();
std::string pedigree();

} // namespace tarvex::fuzz
