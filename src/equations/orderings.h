// Choice of the order of the equations.
//
// eqnsorder.bin: neqns, neq_fix, neq_rnd, neq_cov | nq, nsrow (with the right-hand side), nrankx, lim1, krand,
// krfit(0:krand) | nofsub, maxlnz, nnops, order_type | metis_opts(8), for METIS orders only | invprm | ivperm, both for
// the equations that stay. OperationCounts gets a line for each order that is tried.
#pragma once
#include "support/array.h"

namespace tarvex {

// Chooses the order, lays out the factor, and leaves the maps in `orders`; nsrow counts the right-hand side on return.
// Takes over the order and the structure of an earlier run where they fit this one.
void eqnorders();
// Anew in mid-run, with the covariances in hand (residualvars, randomvars); the numeric store takes the new size. The
// caller then runs new_eqnnos.
void redo_eqnorders();

// Ordering method and METIS settings by the number of equations, unless the user has chosen one (returns true).
bool choose_method();

// Fills invprm and ivperm for the pattern in linked_list (numbers.nsrow rows, no right-hand side) by the method
// |orders.order_type|. nofsub: upper limit to the subscripts of the structure, or the fill, as the method tells it; 0:
// not told. A refusal of the method stops the run.
void find_order(int& nofsub);

// Approximate minimum degree order of n nodes (Amestoy, Davis & Duff 1996, SIAM J. Matrix Anal. Appl. 17, 886-905).
//   start (n+1), adjacent   0-based compressed rows of either triangle, ascending
//   ivperm (n) node at each place, invprm (n) place of each node, from 1
// Returns the off-diagonals of the factor, an upper estimate.
double amd_permutation(int n, const int* start, const int* adjacent, array<int>& ivperm, array<int>& invprm);

} // namespace tarvex
