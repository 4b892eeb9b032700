// Inverses of relationship matrices: of a pedigree (by Henderson's rules with inbreeding, or the rules for sires), or
// as the user supplies them (read by geninverse.h).
//
// nrminvers<d>.bin: nan, ian1, ian2, siremodel | nnrm, detl | nrmdiag(nan) | nnrm times: column, row, value (lower
// triangle, row by row, columns ascending). The seal has the count of inbred animals and the sum of their coefficients
// as its note. inbreed.bin, with superai or in a simulation: m, n, nannew, pedfile (30 characters) | inbreed(m,n).
// Both are taken over by the sum over the pedigree that they were made from.
#pragma once
#include "support/array.h"

#include <string>
#include <vector>

namespace tarvex {

struct nrminverse_module {
    double detl = 0.0;        // log determinant of the matrix in hand
    int nnrm = 0;             // stored elements, diagonals included
    array<double, 2> inbreed; // (m,n) inbreeding coefficients by animal and matrix, kept for superai and simulation
    array<int> ifin;          // (n) 1: computed in this run
    array<double> nrmdiag;    // (nan)
};
inline nrminverse_module nrminverse;

struct geninverse_module {
    array<double> detginv; // (krand) log determinant of the relationship matrix
    array<int> nnginv;     // (krand) stored elements of its inverse
    array<int> nwithout;   // (krand) levels of a supplied inverse without elements: estimated as fixed ones
};
inline geninverse_module geninverse;

constexpr double fixed_level_weight = -1.0; // in place of the reciprocal variance of an animal treated as fixed

// Makes the inverse of every NRM effect and checks that of every GIN effect; leaves geninverse and the scratch files.
void gen_inverses();

} // namespace tarvex
