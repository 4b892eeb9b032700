// Factorisations of symmetric matrices that need not be positive definite, for safe Newton-type steps. Dense and pure:
// no module is read or left. Matrices are full, order n, in the leading part of array<double,2>; only the lower
// triangle of the argument is read.
//
// modchl: revised modified Cholesky factorisation (Schnabel & Eskow 1999, SIAM J. Optim. 9, 1135). ldlfac: symmetric
// indefinite factorisation with diagonal pivoting by blocks of order 1 and 2 (Bunch & Parlett 1971, SIAM J. Numer.
// Anal. 8, 639).
#pragma once
#include "support/array.h"

#include <span>

namespace tarvex {

// P'(A+E)P = L L' with E diagonal, not negative, and zero where A is safely positive definite.
struct modchl_factor {
    int n = 0;
    array<double, 2> l;  // (n,n) lower triangle; zero above
    array<int> perm;     // (n) row of A that stands at each row of L
    array<double> added; // (n) diagonal of E, in the order of A
    bool modified = false;
};

// Factorises `a`. Rows with a pivot below eps**tol2 times the largest diagonal count as not positive; eps**tol1 bounds
// the condition of the last block of order 2. Usual powers: 0.5 and 0.6.
void modchl(const array<double, 2>& a, int n, double tol1, double tol2, modchl_factor& f);

// x = (A+E)^-1 r; x may be r.
void solve_modchl(const modchl_factor& f, std::span<const double> r, std::span<double> x);

// P'A P = L D L', L unit lower triangular, D of blocks of order 1 and 2.
struct ldl_factor {
    int n = 0;
    array<double, 2> l;
    array<double> d;   // (n) diagonal of D; 0 for a row that vanishes
    array<double> sub; // (n) D(j+1,j), not zero where a block of order 2 starts
    array<int> perm;   // (n) row of A that stands at each row of L
    int nrank = 0;     // rank of D
    int negative = 0;  // negative eigenvalues of D, and so of A
};

// Factorises `a`. The remaining diagonal of largest magnitude is the pivot, unless it is below 0.998 of the largest
// off-diagonal magnitude in its row, which then makes a block of order 2. Pivots up to tol in magnitude vanish.
void ldlfac(const array<double, 2>& a, int n, double tol, ldl_factor& f);

// x = A^- r, zero in the vanishing part. With `convex` the eigenvalues of D count by their magnitude: then r'x is
// positive also where A has negative curvature. x may be r.
void solve_ldl(const ldl_factor& f, std::span<const double> r, std::span<double> x, bool convex);

} // namespace tarvex
