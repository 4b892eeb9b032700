// The row store of the program: inverses of relationship matrices while they are built, then the pattern of the mixed
// model equations. Written by relations/ and, once the inverses lie in their files, by equations/.
#pragma once
#include "sparse/rowstore.h"

#include <span>

namespace tarvex {

inline row_store linked_list;

// Merges elements with ascending columns into row irow of linked_list. Without addval no values are touched. ierr 1: a
// counting call ran out of room (a value call stops). Every 200000th element is told on the screen.
void lnkzhz(int irow, std::span<const int> icols, std::span<const double> xvals, bool addval, int& ierr);

// A line for every 200000 elements by which a store of this capacity has grown.
void tell_growth(long long before, long long now, long long capacity);

} // namespace tarvex
