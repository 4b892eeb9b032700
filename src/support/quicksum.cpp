#include "support/quicksum.h"

#include <xxhash.h>

namespace tarvex {

std::uint64_t quick_sum(std::uint64_t sum, const void* p, std::size_t n) {
    return n > 0 ? XXH3_64bits_withSeed(p, n, sum) : sum;
}

} // namespace tarvex
