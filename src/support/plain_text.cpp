#include "support/plain_text.h"

#include <filesystem>
#include <fstream>
#include <vector>

namespace tarvex {

namespace {

constexpr std::string_view mark = "\xEF\xBB\xBF";

bool digit(char c) { return c >= '0' && c <= '9'; }

} // namespace

const char* text_fault(const std::string& name) {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(name, ec)) return nullptr;
    std::ifstream in(name, std::ios::binary);
    std::vector<char> head(std::size_t{1} << 16);
    in.read(head.data(), static_cast<std::streamsize>(head.size()));
    const std::string_view text(head.data(), in.gcount());
    // byte order marks of UTF-16, or every other byte 0
    if (text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF") ||
        (text.size() > 1 && (text[0] == '\0') != (text[1] == '\0')))
        return "is in UTF-16 - save it as plain text (ASCII or UTF-8)";
    const auto cr = text.find('\r');
    // within the first 64 kB
    if (text.find('\n') == std::string_view::npos && cr != std::string_view::npos && cr + 1 < text.size())
        return "has lines that end with a carriage return alone - save it with line ends of Unix or Windows";
    return nullptr;
}

void skip_mark(std::istream& in) {
    std::size_t n = 0;
    while (n < mark.size() && in.peek() == static_cast<unsigned char>(mark[n])) {
        in.get();
        ++n;
    }
    if (n > 0 && n < mark.size()) { // something else that begins alike
        in.clear();
        in.seekg(0);
    }
    if (in.eof()) in.clear(in.rdstate() & ~std::ios::eofbit); // peeking at an empty file
}

int comma_in_number(std::string_view line) {
    for (std::size_t i = 1; i + 1 < line.size(); ++i)
        if (line[i] == ',' && digit(line[i - 1]) && digit(line[i + 1])) return static_cast<int>(i) + 1;
    return 0;
}

} // namespace tarvex
