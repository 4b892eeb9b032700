// Observations and residuals: Residuals.dat, a line for each observation in the order of the recoded data.
#pragma once
namespace tarvex {
void write_residuals(); // at solutions.solsave
} // namespace tarvex
