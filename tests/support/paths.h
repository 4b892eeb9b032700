// Places that the tests need: known to one translation unit only, so that builds elsewhere share the compiled others.
#pragma once
#include <string>

namespace tarvex {

const std::string& program_path(); // the program as users have it
const std::string& source_dir();   // root of the source tree

} // namespace tarvex
