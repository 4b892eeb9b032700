#include "support/paths.h"

namespace tarvex {

const std::string& program_path() {
    static const std::string path = TVX_PROGRAM;
    return path;
}

const std::string& source_dir() {
    static const std::string path = TVX_SOURCE_DIR;
    return path;
}

} // namespace tarvex
