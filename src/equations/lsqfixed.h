// Rank of the fixed part of the model by ordinary least squares.
#pragma once
#include "support/array.h"

namespace tarvex {

// Right-hand sides and least-squares solutions: covariables, fixed effects, and behind them the means of the traits
// that have one.
struct lsqsolutions_module {
    array<double> rhs, xsol;
};
inline lsqsolutions_module lsqsolutions;

// Appends every dependent equation to mmequations.ieqzero and sets numbers.nrankx. Reads recoded1.bin and recoded2.bin
// (old numbers). A pivot vanishes below 100 numbers.zero (so covariables are expected to be scaled) or below 1e-11 of
// its diagonal. Leaves lsqsolutions.
void lsq_fixed();

} // namespace tarvex
