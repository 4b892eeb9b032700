// Structure of the Cholesky factor in compressed form.
//
// George, A. & Liu, J.W.H. (1981), Computer Solution of Large Sparse Positive Definite Systems, chapter 5.
#pragma once
#include "support/array.h"

namespace tarvex {

// Structure of the factor of a graph of nsrow nodes under the order perm (place to node), invp (node to place); arrays
// that are not allocated stand for the order of the nodes as they are.
//   xadj, adjncy   neighbours of node j: adjncy(xadj(j)) .. adjncy(xadj(j+1)-1). Every edge must stand at the
//                  node that comes first in the order; what stands at the other one is passed over.
//   ixvec1, ixvec2, ixsub, maxlnz, maxsub   see sparse.h; ixsub grows as needed
//   flag           1: more off-diagonals or subscripts than 32-bit counts hold
void ssmbfct(int nsrow, const array<int>& xadj, const array<int>& adjncy, const array<int>& perm,
             const array<int>& invp, array<int>& ixvec1, int& maxlnz, array<int>& ixvec2, array<int>& ixsub,
             int& maxsub, int& flag);

// Multiply-adds of the factorisation: sum over columns of c(c+3)/2 for c off-diagonals.
double count_operations(int nsrow, const array<int>& ixvec1);

} // namespace tarvex
