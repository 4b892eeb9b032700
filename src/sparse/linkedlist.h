// Sparse row store: a symmetric matrix, or its pattern, while it is built element by element.
#pragma once
#include "support/array.h"

#include <span>

namespace tarvex {

struct linked_list_module {
    int nrczhz = 0;    // elements in use
    array<int> ifirst; // (rows) first element of the row's chain, 0: empty row
    array<int> inext;  // (cap)  next element of the row, 0 ends the chain
    array<int> ivcol;  // (cap)  column, ascending along a chain
    array<double> zhz; // (cap)  value; not allocated in a pattern-only pass
    array<int> ilast;  // (rows) element where the last merge into the row ended: start of the next walk where it serves
};
inline linked_list_module linked_list;

// Merges elements with ascending columns into row irow. Without addval no values are touched. ierr 1: a counting call
// ran out of room (a value call stops).
void lnkzhz(int irow, std::span<const int> icols, std::span<const double> xvals, bool addval, int& ierr);
// The same with values always summed; stops when the store is full.
void llnkzhz(int irow, std::span<const int> icols, std::span<const double> xvals, int& ierr);

} // namespace tarvex
