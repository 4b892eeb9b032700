#include "support/replace_file.h"

#include <cstdio>
#include <unistd.h>

namespace tarvex {

bool replace_file(const std::string& name, std::string_view text) {
    const std::string temporary = name + ".tmp";
    std::FILE* file = std::fopen(temporary.c_str(), "wb");
    if (!file) return false;
    bool good = text.empty() || std::fwrite(text.data(), 1, text.size(), file) == text.size();
    good = std::fflush(file) == 0 && good;
    // on the disk before the name changes: a crash leaves the old file or the new one
    good = good && fsync(fileno(file)) == 0;
    good = std::fclose(file) == 0 && good;
    good = good && std::rename(temporary.c_str(), name.c_str()) == 0;
    if (!good) std::remove(temporary.c_str());
    return good;
}

} // namespace tarvex
