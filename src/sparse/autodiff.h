// Derivatives of the factorisation: F = d(0.5 log|C| + 0.5 y'Py)/dM for each element of the augmented matrix M that
// lies in the pattern of the factor.
//
// The column sweep differentiates the Cholesky algorithm in reverse (S. P. Smith, J. Comp. Graph. Stat. 4:134, 1995).
// Over supernodes F is had from the sparse inverse Z and the solutions x: F(i,i) = (Z(i,i) + x(i)^2)/2, F(j,i) = Z(j,i)
// + x(j) x(i), F(n,i) = -x(i), F(n,n) = 1/2.
#pragma once
#include "sparse/sparse.h"

namespace tarvex {

// The column sweep. fdiag (n) and foff (maxlnz, places as s.xspars) are of their sizes. An off-diagonal element counts
// (j,i) and (i,j) as one variable, so that a trace is sum(fdiag dM(i,i)) + sum(foff dM(j,i)) without factor 2. The
// factor in s is not changed.
void autodiff_columns(const sparse_store& s, array<double>& fdiag, array<double>& foff, const progress& tell);

} // namespace tarvex
