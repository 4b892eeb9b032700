// Sparse inverse of the coefficient matrix from its factor by columns, and solutions.
//
// Elements of the inverse inside the pattern of the factor, by the recursion of K. Takahashi, J. Fagan and M. S. Chen
// (1973); F. E. Smith's order of the sums, from the last column to the first. Row n, the last, is the right-hand side.
// The inverse is diag(i) = Z(i,i), off = Z(j,i), i < j < n; row n has the right-hand sides L(n,i)/L(i,i), diag(n) the
// last pivot, squared.
#pragma once
#include "sparse/sparse.h"

namespace tarvex {

// Solutions (n, the last 0) from the factor in s; nothing else changes. solns is allocated if it is too small.
void solve_back(const sparse_store& s, array<double>& solns);

// Column kernel of the inverse, phase by phase, in place. diag (n) and off (maxlnz, places as s.xspars) are the factor
// or a copy of it; of s only the pattern is read, so that its state is asked for and set by the caller.
// First the factor to L D L': off-diagonals of column j divided by diag(j), diag(j) squared.
void rescale_factor(const sparse_store& s, array<double>& diag, array<double>& off);
// Then the inverse. tell: columns left to do.
void inverse_columns(const sparse_store& s, array<double>& diag, array<double>& off, const progress& tell);

} // namespace tarvex
