// A sparse symmetric system in compressed form: one triangle, element (i,j), i<j, held under row i.
//
// Rows are in the factorisation order; the last of the n rows is the right-hand side, with y'R^-1 y on its diagonal,
// and is linked to every other row. "Row i" of the store is column i of the factor L below its diagonal. Element at
// place k of row i (ixvec1(i) <= k < ixvec1(i+1)) has the subscript ixsub(ixvec2(i) + k - ixvec1(i)); the subscripts of
// a row ascend, and rows whose patterns end alike share one list.
#pragma once
#include "support/array.h"

#include <functional>

namespace tarvex {

// What diag and xspars hold. A routine that needs one of them asks for it (need_state); the one that changes it says
// so.
enum class store_state {
    empty,      // nothing of use: not yet filled, or a factorisation that failed
    assembled,  // the matrix
    factor,     // L(j,j) and L(i,j) at the place of (j,i)
    inverse,    // elements of the inverse (takahashi.h)
    derivative, // derivatives of the factorisation (autodiff.h)
};

struct sparse_store {
    int n = 0;            // rows, that of the right-hand side included
    int maxlnz = 0;       // stored off-diagonal elements, fill-in included
    int maxsub = 0;       // length of ixsub
    array<int> ixvec1;    // (n+1) first place of each row in xspars
    array<int> ixvec2;    // (n)   place in ixsub of the row's first subscript; not to be used for an empty row
    array<int> ixsub;     // (maxsub)  subscripts
    array<double> diag;   // (n)   diagonal
    array<double> xspars; // (maxlnz)  off-diagonals
    store_state state = store_state::empty;
};

// Stops the program where the store is in another state: `routine` was called out of turn.
void need_state(const sparse_store& s, store_state wanted, const char* routine);

// Number of rows below column j of the factor, and their list.
inline int rows_below(const sparse_store& s, int j) { return s.ixvec1(j + 1) - s.ixvec1(j); }
inline const int* row_list(const sparse_store& s, int j) { return s.ixsub.data() + s.ixvec2(j) - 1; }

// Told how many columns are done, or are left to do, each time that their number is a multiple of tell_every. May be
// empty.
using progress = std::function<void(int)>;
constexpr int tell_every = 20000;

} // namespace tarvex
