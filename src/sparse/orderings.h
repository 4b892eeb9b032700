// The ordering methods on the pattern in the row store.
#pragma once
#include "sparse/order_methods.h"
#include "support/array.h"

namespace tarvex {

// Fills invprm and ivperm for the pattern in linked_list (numbers.nsrow rows, no right-hand side) by the method
// |orders.order_type|. nofsub: upper limit to the subscripts of the structure, or the fill, as the method tells it; 0:
// not told. A refusal of the method stops the run.
void find_order(int& nofsub);

// The pattern in linked_list as a graph, and an order of it into invprm and ivperm.
order_graph pattern_graph();
void take_order(const node_order& order);

// Approximate minimum degree order of n nodes (Amestoy, Davis & Duff 1996, SIAM J. Matrix Anal. Appl. 17, 886-905).
//   start (n+1), adjacent   0-based compressed rows of either triangle, ascending
//   ivperm (n) node at each place, invprm (n) place of each node, from 1
// Returns the off-diagonals of the factor, an upper estimate.
double amd_permutation(int n, const int* start, const int* adjacent, array<int>& ivperm, array<int>& invprm);

} // namespace tarvex
