// Inverses of the covariance blocks of the random effects.
#pragma once
#include "control/numbers.h"
#include "support/array.h"

namespace tarvex {

struct randomvars_module {
    array<double> detl;   // (krand) log determinant of the relationship matrix, set with its inverse; 0 for IDE
    array<double> detg;   // (krand) log|G|; 0 in reduced-rank runs
    array<double, 3> zig; // (maxk,maxk,krand) G^-1; by factor (paraform) the factor Q (kkfit rows, krfit columns)
    array<int> deficient; // (krand) 1: G has a vanishing eigenvalue, the point is invalid
};
inline randomvars_module randomvars;

// Variances and eigenvalues below it vanish.
inline double least_variance() { return 100.0 * numbers.zero; }

// Block inverses at parvec (which clamps may change; see parvec2covs), into zig, detg and deficient, which are
// allocated here; detl is left as it is. A block with vanishing eigenvalues (below least_variance) gets the generalised
// inverse over the others and the mark `deficient`. ifail 1: a matrix is not finite, and blocks behind it are of
// another point.
void g_inverse(array<double>& parvec, int& ifail);

// True if some block is marked as deficient.
bool any_deficient();

} // namespace tarvex
