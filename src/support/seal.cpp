#include "support/seal.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

namespace tarvex {

namespace {

constexpr std::size_t mark_bytes = 8, head_bytes = seal_bytes - sizeof(digest);

struct closer {
    void operator()(std::FILE* f) const { std::fclose(f); }
};

// Adds the next n bytes of the file to the sum.
bool add_bytes(std::FILE* f, std::uint64_t n, digest_maker& sum) {
    // 1 MB at a time
    std::vector<char> buffer(static_cast<std::size_t>(std::min<std::uint64_t>(n, std::uint64_t{1} << 20)));
    while (n > 0) {
        const auto m = static_cast<std::size_t>(std::min<std::uint64_t>(n, buffer.size()));
        if (std::fread(buffer.data(), 1, m, f) != m) return false;
        sum.bytes(buffer.data(), m);
        n -= m;
    }
    return true;
}

} // namespace

// mark, sum over the origin, notes, and the sum over all that stands before it
std::string seal_text(const seal& s, digest_maker& content) {
    std::string text(seal_mark, mark_bytes);
    text.append(reinterpret_cast<const char*>(&s.made_from), sizeof s.made_from);
    text.append(reinterpret_cast<const char*>(s.note), sizeof s.note);
    content.bytes(text.data(), text.size());
    const digest sum = content.value();
    return text.append(reinterpret_cast<const char*>(&sum), sizeof sum);
}

bool read_seal(const std::string& name, seal& s) {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(name, ec)) return false;
    const std::uint64_t size = std::filesystem::file_size(name, ec);
    if (ec || size < seal_bytes) return false;
    const std::unique_ptr<std::FILE, closer> file(std::fopen(name.c_str(), "rb"));
    if (!file) return false;
    // read in large pieces already
    std::setvbuf(file.get(), nullptr, _IONBF, 0);
    digest_maker sum;
    if (!add_bytes(file.get(), size - seal_bytes, sum)) return false;
    char text[seal_bytes];
    if (std::fread(text, 1, seal_bytes, file.get()) != seal_bytes) return false;
    if (std::memcmp(text, seal_mark, mark_bytes) != 0) return false;
    sum.bytes(text, head_bytes);
    const digest found = sum.value();
    if (std::memcmp(text + head_bytes, &found, sizeof found) != 0) return false;
    std::memcpy(&s.made_from, text + mark_bytes, sizeof s.made_from);
    std::memcpy(s.note, text + mark_bytes + sizeof s.made_from, sizeof s.note);
    return true;
}

bool sealed(const std::string& name, const digest& made_from) {
    seal s;
    return read_seal(name, s) && s.made_from == made_from;
}

} // namespace tarvex
