#include "data/recodedsums.h"

#include "support/quicksum.h"

namespace tarvex {

namespace {

template <class T> std::uint64_t plus(std::uint64_t sum, std::span<const T> s) {
    return quick_sum(sum, s.data(), s.size_bytes());
}

} // namespace

std::uint64_t head_sum(const recoded_parts& s) {
    // each part seeds the sum of the next
    std::uint64_t sum = static_cast<std::uint64_t>(s.icombi) << 32 | static_cast<std::uint32_t>(s.nobs);
    sum = plus(plus(sum, s.yvec), s.xcov);
    for (const auto& part : {s.ynq, s.imeta, s.icov, s.ieqnr, s.iraand}) sum = plus(sum, part);
    return sum & ~std::uint64_t{1};
}

std::uint64_t list_sum(std::span<const int> jvec) { return plus(std::uint64_t{jvec.size()}, jvec) & ~std::uint64_t{1}; }

} // namespace tarvex
