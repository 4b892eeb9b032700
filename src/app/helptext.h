// What the program tells without an analysis: --help and --version.
#pragma once

#include <optional>
#include <string>

namespace tarvex {

// The text, one screen at most, that one of these arguments asks for; nothing: an analysis is to be run.
std::optional<std::string> told_without_run(int argc, const char* const* argv);

} // namespace tarvex
