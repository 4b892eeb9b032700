// Normalised Legendre polynomials (norm 1 over (-1,1)), from the closed form of their coefficients (Abramowitz and
// Stegun, Handbook of Mathematical Functions, 22.3.8).
#pragma once
#include "support/array.h"

#include <span>

namespace tarvex {

struct legpolynomials_module {
    int nleg = 0;          // orders prepared: degrees 0 to nleg-1
    array<double, 2> leg;  // (nleg,nleg) coefficient of x^(k-1) (row k) in the polynomial of degree j-1 (column j)
    array<int, 2> legmask; // (nleg,nleg) 1 where leg is not zero
    array<double> xpow;    // (nleg) powers of x of the current evaluation
};
inline legpolynomials_module legpolynomials;

// Builds the tables for degrees 0 to nord-1, in place of those of an earlier call.
void setup_legendre(int nord);
// Values at x of the polynomials of degree 0, 1, .. row.size()-1. More than are prepared stop the run ("legendre").
void legendre_row(double x, std::span<double> row);

} // namespace tarvex
