// Parameter-expanded EM: the random effects are scaled by a matrix alpha, estimated in every round, which takes the
// slow directions out of EM (Liu, Rubin and Wu 1998, Biometrika 85:755; Foulley and van Dyk 2000, Genet. Sel. Evol.
// 32:143).
#pragma once
#include "likelihood/emquants.h"
#include "support/array.h"

#include <vector>

namespace tarvex {

struct pxempc_module {
    int skippx = 0;       // 1: the round had no expansion
    bool skip_px = false; // the expansion is no longer worth its cost
    double aalpha = 0.0;  // mean absolute deviation of the expansions from the identity
};
inline pxempc_module pxempc;

// Fresh state before rounds of PX-EM or EM of reduced rank.
void pxem_setup();

// Full-rank runs: expansion alpha (kkfit x kkfit) of block irand from the quadratics of the E-step; the block's
// expansion stands in q.lhs, randomvars holds the inverse of its matrix. Where alpha strays too far from the identity
// it is the identity, with lines on the screen; a singular system stops the run.
void pxem_solve(int irand, const em_quantities& q, array<double, 2>& alpha);

// Principal runs: changes of the loadings Q (kkfit x krfit) of all blocks in q.unknowns, from one joint system; 0 for
// others, and along directions that the system does not inform. Sets pxempc.aalpha from the blocks' expansions, and
// pxempc.skip_px where these have stopped mattering.
void pxem_solve_all(const em_quantities& q, std::vector<array<double, 2>>& change);

// Covariance matrix g of a block (n x n): where one of its `rank` leading eigenvalues is below 1e-6 the matrix is made
// up anew from these, the small ones raised to that; otherwise it stays as it is.
void raise_leading(array<double, 2>& g, int n, int rank);

} // namespace tarvex
