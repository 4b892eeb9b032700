// Small dense matrices: packed triangles and full square matrices of the order of traits, coefficients or parameters.
//
// A packed triangle is the upper triangle row by row, n(n+1)/2 elements: element (i,j), i not above j, is number
// ihmssf(i,j,n), so [ihmssf(i,j,n)-1] of a span. Full matrices are array<double,2> with at least n rows and columns.
// Eigenvalues: cyclic Jacobi rotations (Golub & Van Loan, Matrix Computations, section 8.5). Inverses: symmetric sweep
// operator with diagonal pivots (Goodnight 1979, The American Statistician 33, 149).
#pragma once
#include "support/array.h"

#include <cstdlib>
#include <span>

namespace tarvex {

// Elements of a packed triangle of order n; n of 64 bits where it may be above 46 340.
template <class count> constexpr count triangle(count n) { return n * (n + 1) / 2; }

// Number of element (i,j) in the packed triangle of order n; i must not be above j.
constexpr int ihmssf(int i, int j, int n) {
#ifdef TVX_BOUNDS
    if (i > j || i < 1 || j > n) std::abort();
#endif
    return n * (i - 1) - i * (i - 1) / 2 + j;
}

// The same for i and j in either order.
constexpr int packed_place(int i, int j, int n) { return i <= j ? ihmssf(i, j, n) : ihmssf(j, i, n); }

// Both triangles, (n,n), of the packed triangle at the head of `packed`.
array<double, 2> unpack(std::span<const double> packed, int n);

// Eigenvalues and eigenvectors of the leading n x n part of the symmetric matrix `a`, which is kept.
//   out    eig(1:n) in descending order; vectors(1:n,k) the eigenvector of eig(k) (both are allocated if too small)
//   nzero  how many eigenvalues are below tol, negative ones included
// Rotations end when the off-diagonal sum of squares is below 1e-12, or lost in the rounding of the matrix: elements of
// 1e-6 and less are not told from zero, scale such matrices. Stops for n below 1 and after 500 sweeps.
void eigem(const array<double, 2>& a, array<double>& eig, array<double, 2>& vectors, int n, double tol, int& nzero);

// The same for a matrix in any unit: one without elements from 0.01 to 1e8 is divided by a power of two meanwhile.
void eigem_any_size(const array<double, 2>& a, array<double>& eig, array<double, 2>& vectors, int n);

// Raises eigenvalues of the symmetric matrix `a` to `floor`, and leaves out those behind the first `rank`: a is the sum
// over k <= rank of max(eig(k), floor) v(k) v(k)'. False, and a kept, if the first `rank` are not below the floor.
bool raise_eigenvalues(array<double, 2>& a, int n, int rank, double floor);

// Lower Cholesky factor of the leading n x n part, from its lower triangle and in its place; the upper triangle stays.
// False where a pivot is not above `least`; `a` is spoilt then.
[[nodiscard]] bool cholesky(array<double, 2>& a, int n, double least = 0.0);

// Generalised inverse of the packed triangle `a` of order n, in place: rows without a pivot above tol in magnitude are
// zero. rank: number of pivots; ldet: log of the product of their magnitudes; negative: how many of them were negative.
// Small and negative pivots are told on the screen. n = 1 takes the signed element: not above tol gives 0.
void gen_inverse(std::span<double> a, int n, double tol, int& rank, double& ldet, int* negative = nullptr);

// Inverse of the packed symmetric matrix `a` of order n, in place, largest diagonal first. False where a pivot is below
// 1e-12 in magnitude: the matrix is singular, and `a` is spoilt.
[[nodiscard]] bool invvert(std::span<double> a, int n);

// Solves L x = r, or L L' x = r, with the lower factor L held in the leading n x n part of `a`; x may be r.
void solve_lower(int n, const array<double, 2>& a, std::span<const double> r, std::span<double> x);
void solve(int n, const array<double, 2>& a, std::span<const double> r, std::span<double> x);

} // namespace tarvex
