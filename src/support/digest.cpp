#include "support/digest.h"

#include <charconv>
#include <cstdio>
#include <new>
#include <xxhash.h>

namespace tarvex {

struct digest_maker::state {
    XXH3_state_t* xxh = XXH3_createState(); // aligned as the library wants it
    state() {
        if (!xxh) throw std::bad_alloc();
        XXH3_128bits_reset(xxh);
    }
    ~state() { XXH3_freeState(xxh); }
    state(const state&) = delete;
    state& operator=(const state&) = delete;
};

digest_maker::digest_maker() : state_(std::make_unique<state>()) {}
digest_maker::~digest_maker() = default;

void digest_maker::bytes(const void* p, std::size_t n) {
    // an empty span may come with a null pointer
    if (n > 0) XXH3_128bits_update(state_->xxh, p, n);
}

digest digest_maker::value() const {
    const XXH128_hash_t h = XXH3_128bits_digest(state_->xxh);
    return {h.high64, h.low64};
}

std::string hex(const digest& d) {
    char text[40];
    std::snprintf(text, sizeof text, "%016llx%016llx", static_cast<unsigned long long>(d.high),
                  static_cast<unsigned long long>(d.low));
    return text;
}

bool from_hex(std::string_view text, digest& d) {
    if (text.size() != 32) return false;
    std::uint64_t part[2] = {};
    for (int k = 0; k < 2; ++k) {
        const char *from = text.data() + 16 * k, *to = from + 16;
        const auto [end, fault] = std::from_chars(from, to, part[k], 16);
        if (fault != std::errc() || end != to) return false;
    }
    if (hex({part[0], part[1]}) != text) return false; // capitals
    d = {part[0], part[1]};
    return true;
}

} // namespace tarvex
