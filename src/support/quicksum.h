// A 64-bit sum over bytes in memory, for passes that ask whether a record is the one that they have seen before (XXH3).
#pragma once
#include <cstddef>
#include <cstdint>

namespace tarvex {

// The sum so far, with n further bytes.
std::uint64_t quick_sum(std::uint64_t sum, const void* p, std::size_t n);

} // namespace tarvex
