// Rank of the fixed part of the model by ordinary least squares.
#pragma once
namespace tarvex {
// Appends every dependent equation to mmequations.ieqzero and sets numbers.nrankx. Reads recoded1.bin and recoded2.bin
// (old numbers). The limit for a vanishing pivot is absolute, 100 numbers.zero: covariables are expected to be scaled.
// Leaves solutions.rhs and xsol: covariables, fixed effects, and behind them the means of the traits that have one.
void lsq_fixed();
} // namespace tarvex
