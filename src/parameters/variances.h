// From covariance matrices to the parameter vector and back.
#pragma once
#include "support/array.h"

namespace tarvex {

// Counts the parameters and allocates and labels what estimates holds; finds the PEQ block.
void lay_out_parameters();

// Builds estimates.parvec from model.cov: chooses the scale ("Original" for EM, the loadings of reduced rank excepted),
// fixes residual components without information, factorises. floor_pivot as of transform_covs.
void parvec_from_covs(bool em_scale, double floor_pivot);

// Matrix of block irand (irand 0: of residual step `step`) from parvec. Clamps parvec: logarithms to [-9,22], other
// diagonals of a factor away from 0; a matrix on "Original" has its eigenvalues raised to 1e-4 (where covariances are
// held at 0 these stay: the others shrink instead; BLUP runs take it as it is), parvec stays. Marks estimates.switchlog
// and logpar. cc and vv are allocated here.
//   cc  (kkfit(kkfit+1)/2) packed upper triangle, order of the matrix
//   vv  (kkfit,krfit) its factor, rows in the order of the matrix (row cholorder(j) of the factor's row j)
//   ifail 1: not finite
void parvec2covs(array<double>& parvec, int irand, int step, array<double>& cc, array<double, 2>& vv, int& ifail);

// The same matrix at a point that is only looked at: parvec, and all modules, stay as they are.
struct block_at_point {
    array<double> cc;
    array<double, 2> vv;
    bool finite = false;
};
block_at_point covariances_at(const array<double>& parvec, int irand, int step = 1);

// Matrices cc of block irand (layout of model.cov: all steps of the residual; for block 0 with a PEQ effect the sum of
// both) as parameters on the scale paraform(irand), into parvec. Pivots go by size when estimates.reorder; a factor
// diagonal below 0.625 turns the block to logarithms. floor_pivot > 0: smaller pivots are set to it; 0: a pivot below
// numbers.zero stops the run with the message on starting values. Sets cholorder, logdiagonals, logpar.
void transform_covs(int irand, const double* cc, double floor_pivot, array<double>& parvec);

// Residual components that no record informs, or given as 0: fixes them at zero in model.cov and residualvars.fixres,
// and chooses how the factor keeps them (residualvars.pivot_zeros, filled).
void fixresvars();
// How many residual components are fixed at zero.
int no_fixed_residuals();

// Factor of the matrix of block irand (a random effect, not diagonal) in model.cov as a search starts from it: columns
// in the order of pivots, cut to krfit; vanishing pivots leave columns of zeros. False: the matrix has negative pivots.
//   q      (kkfit,krfit) rows in the order of the matrix, in the units of the data
//   order  (kkfit) rows in the order of pivots
bool start_factor(int irand, array<double, 2>& q, array<int>& order);

// Turns the diagonals of block irand into logarithms in parvec without a change of the matrix.
void diagonals_to_logs(int irand, array<double>& parvec);

} // namespace tarvex
