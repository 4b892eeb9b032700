// Expectations that EM and PX-EM rounds need, from one reverse sweep of the factor and one pass over the data.
//
// With F the derivative of the factorisation, twice the symmetric matrix X of structure_sums.h is C^-1 + xx' for the
// equations: products of solutions plus their prediction error covariances.
#pragma once
#include "likelihood/structure_sums.h"
#include "parameters/residualvars.h"
#include "support/array.h"

#include <vector>

namespace tarvex {

// Unknown of a joint system: element (row, col) of the expansion or of the loadings of a block.
struct px_unknown {
    int irand, row, col;
};

struct em_quantities {
    vector1<array<double, 2>> quads;   // (irand) U'A^-1 U + traces (full-rank runs)
    vector1<array<double, 2>> loads;   // (irand) kkfit x krfit: E(z_i' R^-1 e u_c), principal runs
    vector1<pattern_matrix> residuals; // (icombi) sums of E(e e') by pattern (multivariate analyses)
    vector1<double> class_ss, class_n; // random regression: sums of squares and records by residual class
    std::vector<px_unknown> unknowns;  // of the expansion
    array<double, 2> lhs;              // its coefficient matrix
};

// What a pass is to collect: the coefficient matrix of the expansion for these blocks (1-based marks by block), jointly
// over blocks or each block by itself (cross terms left out).
struct em_request {
    vector1<int> expand; // (irand) 1: block's expansion or loadings are wanted
    bool joint = false;
};

// E-step at the point of the factor in hand, which the derivative of the factorisation takes the place of. It has
// to be that of estimates.parvec (loglike with iopt 1 or -1), anything else stops the program.
void em_expectations(const em_request& request, em_quantities& q);
// Residual quantities alone, with the weights now in randomvars.zig (loadings changed) and the derivative that the
// E-step left: called behind em_expectations only, held to that by the state of the store.
void em_residuals(em_quantities& q);

// New residual matrices by EM: the covariances in the layout of parvec on "Original" (sum with the PEQ matrix), and the
// PEQ matrix behind them. q is that of an E-step at the residual matrices in hand (rinverse), which stay.
vector1<double> covarsres(const em_quantities& q);

} // namespace tarvex
