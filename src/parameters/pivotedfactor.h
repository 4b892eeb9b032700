// Cholesky factor of a covariance matrix whose pivots are chosen by size, or by zeros that the factor has to keep.
#pragma once
#include "support/array.h"

namespace tarvex {

struct zero_pattern;

// Pivoted Cholesky of the packed triangle: factor(i,c) by matrix row i, order(1..n) the pivot order. Returns the step
// of the first pivot below numbers.zero that floor does not mend (0: none) and that pivot. Pivots go by size, or as
// order has them on entry; with zeros only rows that keep these.
int pivoted_factor(const double* cc, int n, int rank, bool by_size, double floor, double& bad, array<double, 2>& factor,
                   array<int>& order, const zero_pattern* zeros = nullptr);

} // namespace tarvex
