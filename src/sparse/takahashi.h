// Sparse inverse of the coefficient matrix from its factor, and solutions.
//
// Elements of the inverse inside the pattern of the factor, by the recursion of K. Takahashi, J. Fagan and M. S. Chen
// (1973); F. E. Smith's order of the sums, from the last column to the first. n = numbers.nsrow throughout, row n being
// the right-hand side.
#pragma once
#include "support/array.h"

namespace tarvex {

// Factor in sparse.diag, sparse.xspars is replaced by the inverse: diag(i) = Z(i,i), xspars = Z(j,i), i < j < n. Row n
// keeps the right-hand sides L(n,i)/L(i,i), diag(n) is the last pivot, squared. Leaves the solutions in solutions.solns
// and marks the factor as used up (likelihoods.lastpar).
void takaha_inverse();

// solutions.solns from the factor as it stands after the factorisation; nothing else changes.
void back_solutions();
void solve_back(array<double>& solns); // the same into an array of the caller's

// Column kernel of the inverse, phase by phase; they work on any store of the pattern of sparse.
// Unscaled factor to L D L': off-diagonals of column j divided by diag(j), diag(j) squared.
void rescale_factor(array<double>& diag, array<double>& off);
// Scaled factor to inverse, in place.
void inverse_columns(array<double>& diag, array<double>& off);

// tr = trace of the product of symmetric a and b, order n, columns ld apart, lower triangles read.
void calc_symtrace(int n, int ld, double& tr, const double* a, const double* b);

} // namespace tarvex
