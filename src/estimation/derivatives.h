// First derivatives and average information of log L.
#pragma once
#include "support/array.h"

namespace tarvex {

struct derivs_module {
    int nparm2 = 0;        // parameters in the current subset
    array<double> devc;    // (nparm) derivatives of the half-sum log|C| + y'Py, covariance scale
    array<double> devl1;   // (nparm) derivatives of log L, covariance scale (factor scale: random blocks when principal)
    array<double> devl2;   // packed triangle: minus the average information, covariance scale
    array<double> aimat;   // accumulator: devl2 = -0.5 aimat
    array<double> der1;    // (nparm) gradient, parameter scale
    array<double> der2;    // packed triangle: average information, parameter scale
    array<double> der2b;   // curvature term of the transformation
    array<int> fixpar;     // (nparm) 1: held out by the rank check
    array<int> subset;     // (nparm2) full index of each parameter of the subset
    array<double> dvec;    // (nparm2) step
    array<double> hess;    // packed triangle of the subset
};
inline derivs_module derivs;

// Both are called right after loglike with iopt 1 at the same point. derivatives_mmm fills devl1 (and devc), average_info
// devl2. Parameters of the covariance scale are in the order of parvec with a block's packed upper triangle row by row
// (full-rank blocks: the same count); reduced-rank and principal blocks have their factor elements instead.
void derivatives_mmm();
void average_info();

// der1 = J' devl1, der2 = J' (-devl2) J; flag 1 subtracts the second-order term.
void jacob_var2chol(int flag);

// Derivatives of the covariances of a block (packed upper triangle, or kkfit variances where diagonal; reduced rank: of QQ')
// with respect to the parameters of its step: J(covariance, parameter), on the scale in force.
void block_jacobian(int irand, int step, array<double, 2>& J);

// AvInfoParms with xlike in front; AvInfoCovs unless principal.
void write_avinfo(double xlike);

} // namespace tarvex
