// Sums over the recoded subjects, kept in memory from their writing on: a pass takes a subject for what was written
// only if its bytes have that sum. What another process does to the files between two passes cannot change a number.
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace tarvex {

// Bit 0 tells that a pass has looked at the indices too. 0: not written in this run.
struct recoded_sums_module {
    std::vector<std::uint64_t> heads;     // [isubj-1] recoded1.bin
    std::vector<std::uint64_t> old_lists; // [isubj-1] recoded2.bin
    std::vector<std::uint64_t> new_lists; // [isubj-1] recoded3.bin
};
inline recoded_sums_module recoded_sums;

// Of recoded1.bin, what belongs to a subject.
struct recoded_parts {
    int icombi, nobs;
    std::span<const double> yvec, xcov;
    std::span<const int> ynq, imeta, icov, ieqnr, iraand;
};
std::uint64_t head_sum(const recoded_parts& s);
std::uint64_t list_sum(std::span<const int> jvec);
inline bool same_sum(std::uint64_t a, std::uint64_t b) { return (a ^ b) <= 1; }

} // namespace tarvex
