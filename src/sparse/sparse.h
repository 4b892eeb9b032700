// The mixed model equations in compressed form: one triangle, element (i,j), i<j, held under row i.
//
// Rows are in the factorisation order; the last of the numbers.nsrow rows is the right-hand side, with y'R^-1 y on its
// diagonal, and is linked to every other row. "Row i" of the store is column i of the factor L below its diagonal.
// Element at place k of row i (ixvec1(i) <= k < ixvec1(i+1)) has the subscript ixsub(ixvec2(i) + k - ixvec1(i)); the
// subscripts of a row ascend, and rows whose patterns end alike share one list.
#pragma once
#include "support/array.h"

namespace tarvex {

struct sparse_module {
    int maxlnz = 0;       // stored off-diagonal elements, fill-in included
    int maxsub = 0;       // length of ixsub
    array<int> ixvec1;    // (nsrow+1) first place of each row in xspars
    array<int> ixvec2;    // (nsrow)   place in ixsub of the row's first subscript; not to be used for an empty row
    array<int> ixsub;     // (maxsub)  subscripts
    array<double> diag;   // (nsrow)   diagonal; after the factorisation L(j,j)
    array<double> xspars; // (maxlnz)  off-diagonals; after the factorisation L(i,j) at the place of (j,i)
    array<double> xrhs;   // (nsrow)   right-hand sides while they are assembled
};
inline sparse_module sparse;

} // namespace tarvex
