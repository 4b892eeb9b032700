// From covariance matrices to the parameter vector and back.
#pragma once
#include "support/array.h"

namespace tarvex {

// Builds estimates.parvec from model.cov. First call: counts, allocates, labels; reads BestPoint with options.continew.
// Every call: chooses the scale by the flags emalgorithm and principal, fixes residual components without information,
// factorises, writes ListofCovs. Starting matrices that are not positive definite stop the run.
void covs2parvec();

// Matrix of block irand (irand 0: of residual step `step`) from parvec, which clamps may change.
//   cc  (kkfit(kkfit+1)/2) packed upper triangle, order of the matrix
//   vv  (kkfit,krfit) its factor, rows in the order of the matrix (row cholorder(j) of the factor's row j)
//   ifail 1: not positive definite
void parvec2covs(array<double>& parvec, int irand, int step, array<double>& cc, array<double, 2>& vv, int& ifail);

// Matrices cc of block irand (layout of model.cov: all steps of the residual; for block 0 with a PEQ effect the sum of
// both) as parameters on the scale paraform(irand), into parvec. Pivots go by size when estimates.reorder; a factor
// diagonal below 0.625 turns the block to logarithms. floor_pivot > 0: smaller pivots are set to it; 0: a pivot below
// numbers.zero stops the run with the message on starting values. Sets cholorder, logdiagonals, logpar.
void transform_covs(int irand, const double* cc, double floor_pivot, array<double>& parvec);

// Residual components that no record informs: fixes them at zero in model.cov and residualvars.fixres; may turn
// paraform(0) to "Original".
void fixresvars(bool first);

// Turns the diagonals of block irand into logarithms in parvec and parbest without a change of the matrix.
void switch_to_logs(int irand);

} // namespace tarvex
