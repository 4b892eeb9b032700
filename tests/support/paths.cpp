#include "support/paths.h"

#include <cstdlib>
#include <filesystem>

namespace tarvex {

const std::string& fault_library_path() {
    static const std::string path = TVX_FAULTS;
    return path;
}
const std::string& program_path() {
    static const char* other = std::getenv("TVX_TESTED");
    static const std::string path = other ? other : TVX_PROGRAM;
    return path;
}

const std::string& source_dir() {
    static const std::string path = TVX_SOURCE_DIR;
    return path;
}

const std::string& data_dir() {
    static const std::string path = [] {
        if (const char* told = std::getenv("TVX_DATA")) return std::string(told);
        for (const char* place : {"/../shared/data", "/../../shared/data"})
            if (std::filesystem::exists(source_dir() + place)) return source_dir() + place;
        return std::string();
    }();
    return path;
}

} // namespace tarvex
