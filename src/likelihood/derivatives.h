// First derivatives and average information of log L.
//
// Gradient by reverse differentiation of the factor (S. P. Smith 1995), average information by working variables pushed
// through the factor (D. L. Johnson and R. Thompson, J. Dairy Sci. 78:449, 1995; A. R. Gilmour et al., Biometrics
// 51:1440, 1995); reduced rank: K. Meyer and M. Kirkpatrick, Genet. Sel. Evol. 37:1, 2005.
#pragma once
#include "support/array.h"

namespace tarvex {

struct derivs_module {
    int nparm2 = 0;            // parameters in the current subset
    array<double> devc;        // (nparm) derivatives of the half-sum log|C| + y'Py, covariance scale
    array<double> devl1;       // (nparm) derivatives of log L, covariance scale (random blocks when principal: factor)
    array<double> devl2;       // packed triangle: minus the average information, covariance scale
    array<double> aimat;       // accumulator: devl2 = -0.5 aimat
    array<double> der1;        // (nparm) gradient, parameter scale
    array<double> der2;        // packed triangle: average information, parameter scale
    array<double> der2b;       // curvature term of the transformation
    array<int> fixpar;         // (nparm) 1: held out by the rank check
    array<int> subset;         // (nparm2) full index of each parameter of the subset
    array<double> gradient_at; // (nparm) parameters that devc, devl1 belong to
    array<double> information_at; // (nparm) parameters that devl2 belongs to
    array<double> dvec;           // (nparm2) step
    array<double> hess;           // packed triangle of the subset
};
inline derivs_module derivs;

// Both are at estimates.parvec and take the factor, covariance inverses and solutions that loglike with iopt 1 has left
// there: where it was not the last, or found no value, they stop the program (need_evaluation). average_info fills
// devl2 and keeps the factor; derivatives_mmm fills devl1 (and devc) and puts the derivatives of the factorisation in
// the place of the factor, so that it comes second. Parameters of the covariance scale are in the order of parvec with
// a block's packed upper triangle row by row (full-rank blocks: the same count); reduced-rank and principal blocks have
// their factor elements instead. Residual components fixed at zero have zeros. check_average_info and
// check_repeat_block, which the two call, stop the run.
void derivatives_mmm();
void average_info();

// False where the average information cannot be had; check_average_info stops the run (tvx_notyet) there.
bool average_info_available();
// Stops the run (tvx_notyet) where the average information cannot be had: supplied inverse without elements for some
// level and pseudo-fixed levels where the relationship matrix itself is needed, repeat effect of reduced rank.
void check_average_info();
// The same for the repeat effect alone: its matrix is part of the residual one, and no search but that by directions
// has a reduced rank for it.
void check_repeat_block();

// der1 = J' devl1, der2 = J' (-devl2) J, at estimates.parvec, from what the two have left for that very point (anything
// else stops the program); flag 1 subtracts the second-order term.
void jacob_var2chol(int flag);

// Derivatives of the covariances of block irand (irand 0: of residual class `step`; PEQ and principal blocks too) with
// respect to its parameters, at estimates.parvec: jac(k,p), k over the packed triangle (the variances of a diagonal
// block), p over the parameters of the block (of the class). Reduced rank: derivatives of QQ'.
void block_jacobian(int irand, int step, array<double, 2>& jac);

} // namespace tarvex
