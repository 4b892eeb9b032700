// Residual covariances that are held at zero, and the orders of pivots in which a Cholesky factor keeps them. Where
// there is no such order, elements of the factor in their places follow from the others (completion of a factor:
// Roverato 2002, Scand. J. Statist. 29:391).
#pragma once
#include "support/array.h"

#include <vector>

namespace tarvex {

// Traits are nodes of a graph, covariances that are not held its edges. A factor is zero where its matrix is, and its
// product zero where it is, if the neighbours of each pivot among the rows behind it are neighbours of each other
// (perfect elimination order: Rose 1970, J. Math. Anal. Appl. 32:597).
struct zero_pattern {
    int n = 0;
    std::vector<char> zero; // (n*n)
    bool held(int i, int j) const { return zero[(i - 1) * n + j - 1]; }
};

// Zeros of the residual matrix of a step (residualvars.fixres).
zero_pattern residual_zeros(int step);
// The covariance of rows i and j of a step is held; of one row: its variance.
bool residual_held(int step, int i, int j);

// True if row order(p) may be pivot c: rows order(c..n) are left, p among them.
bool may_be_pivot(const zero_pattern& zeros, const array<int>& order, int c, int p);
// True if some order of all pivots keeps the zeros (the graph is chordal).
bool order_exists(const zero_pattern& zeros);

// Completes a factor (n,n; rows in the order of the matrix): the elements in the places of zeros become those with
// which the product has the zeros. They stay 0 in an order that keeps the zeros.
void complete_factor(const zero_pattern& zeros, const array<int>& order, array<double, 2>& factor);
// The same for a change of the factor.
void complete_change(const zero_pattern& zeros, const array<int>& order, const array<double, 2>& factor,
                     array<double, 2>& change);

} // namespace tarvex
