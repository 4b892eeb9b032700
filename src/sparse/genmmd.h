// Multiple minimum degree ordering of a sparse symmetric matrix.
//
// Liu, J.W.H. (1985), Modification of the minimum-degree algorithm by multiple elimination, ACM Trans. Math. Software
// 11, 141-153; George, A. & Liu, J.W.H. (1989), The evolution of the minimum degree ordering algorithm, SIAM Review 31,
// 1-19.
#pragma once
#include "support/array.h"

namespace tarvex {

// Orders the graph of `neqns` nodes. The neighbours of node j are adjncy(xadj(j)) .. adjncy(xadj(j+1)-1): both
// directions of every edge, no diagonals; adjncy is used up as work space.
//   invp   (neqns) place of each node      perm   (neqns) node at each place
//   delta  nodes of degree up to the smallest one plus delta are eliminated in one stage
//   maxint mark of nodes that are out; must be larger than 2*neqns + delta + 2
//   nofsub upper limit to the subscripts of the compressed factor, cut at 2147483647
void ggenmmd(int neqns, array<int>& xadj, array<int>& adjncy, array<int>& invp, array<int>& perm, int delta, int maxint,
             int& nofsub);

} // namespace tarvex
