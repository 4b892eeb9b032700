// Sparse row store: a symmetric matrix, or its pattern, while it is built element by element.
#pragma once
#include "support/array.h"

#include <span>

namespace tarvex {

struct row_store {
    int nrczhz = 0;    // elements in use
    array<int> ifirst; // (rows) first element of the row's chain, 0: empty row
    array<int> inext;  // (cap)  next element of the row, 0 ends the chain
    array<int> ivcol;  // (cap)  column, ascending along a chain
    array<double> zhz; // (cap)  value; not allocated in a pattern-only pass
    array<int> ilast;  // (rows) element where the last merge into the row ended: start of the next walk where it serves
};

constexpr int growth_stride = 200000; // new elements between two calls for progress

// Told of every growth_stride-th element as it is linked: its number and the room of the store. Not to be null.
using growth_teller = void (*)(long long element, long long capacity);

// Merges elements with ascending columns into row irow, values summed; without values (an empty span) the pattern
// alone. All arrays but ilast are allocated by the caller, the chains as earlier merges have left them. False: there
// was no room; chains are intact, and hold what was linked before.
[[nodiscard]] bool merge_row(row_store& store, int irow, std::span<const int> icols, std::span<const double> xvals,
                             growth_teller tell);

} // namespace tarvex
