// Rank of the fixed part of the model by least squares.
#pragma once
namespace tarvex {
// Appends every dependent equation to mmequations.ieqzero, sets numbers.nrankx, leaves solutions.xsol (fixed part).
void lsq_fixed();
} // namespace tarvex
