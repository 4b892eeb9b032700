// Places that the tests need: known to one translation unit only, so that builds elsewhere share the compiled others.
#pragma once
#include <string>

namespace tarvex {

const std::string& program_path();       // the program as users have it; that of another build: variable TVX_TESTED
const std::string& fault_library_path(); // to be loaded before others: lets calls fail
const std::string& source_dir();         // root of the source tree
// Folder of reference data outside the tree: environment variable TVX_DATA, else shared/data beside the project; empty
// where there is none.
const std::string& data_dir();

} // namespace tarvex
