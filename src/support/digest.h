// 128-bit sums over content: what a file was made from, and what it holds. XXH3 of libxxhash; the sum of the same bytes
// is the same on every machine.
#pragma once
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace tarvex {

struct digest {
    std::uint64_t high = 0, low = 0; // both 0: not known
    bool operator==(const digest&) const = default;
};

std::string hex(const digest& d);                // 32 hexadecimal digits
bool from_hex(std::string_view text, digest& d); // false, and d kept, if the text is no such number

// A sum that grows by what is added. Lists and texts go in with their length, so that neighbours cannot be mistaken for
// one another.
class digest_maker {
public:
    digest_maker();
    ~digest_maker();
    digest_maker(const digest_maker&) = delete;
    digest_maker& operator=(const digest_maker&) = delete;

    void bytes(const void* p, std::size_t n); // as they stand, without a length
    template <class T>
    requires std::is_arithmetic_v<T>
    void add(const T& x) { bytes(&x, sizeof x); }
    template <class T> void add(std::span<const T> s) {
        add(static_cast<std::uint64_t>(s.size()));
        bytes(s.data(), s.size_bytes());
    }
    template <class T> void add(std::span<T> s) { add(std::span<const T>(s)); }
    template <class T> void add(const std::vector<T>& v) { add(std::span<const T>(v)); }
    void add(std::string_view s) { add(std::span<const char>(s.data(), s.size())); }
    void add(const std::string& s) { add(std::string_view(s)); }
    void add(const char* s) { add(std::string_view(s)); }
    void add(const digest& d) { bytes(&d, sizeof d); }
    digest value() const; // of all that was added so far

private:
    struct state;
    std::unique_ptr<state> state_;
};

} // namespace tarvex
