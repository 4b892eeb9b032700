// Cholesky factor of a covariance matrix whose pivots are chosen by size, or by zeros that the factor has to keep.
#pragma once
#include "support/array.h"

namespace tarvex {

struct zero_pattern;

// Pivoted Cholesky of the packed triangle cc (order n, which stays), cut to `rank` columns.
//   factor  (n,rank), allocated here: factor(i,c) of matrix row i
//   order   (n) in: an order of the rows; out: the pivot order. Pivots go by size, or as order has them on entry; with
//           zeros only rows that keep these
//   floor   above 0: takes the place of a pivot below numbers.zero
//   bad     the last pivot below numbers.zero; not changed where there is none
// Returns the step of the first such pivot that floor does not mend, where the factor ends; 0: there is none.
int pivoted_factor(const double* cc, int n, int rank, bool by_size, double floor, double& bad, array<double, 2>& factor,
                   array<int>& order, const zero_pattern* zeros = nullptr);

} // namespace tarvex
