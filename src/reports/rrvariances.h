// Covariance functions along the control variable: variances, variance ratios and correlations.
#pragma once
namespace tarvex {
void rrvariances(); // RanRegVariances.dat, RanRegVarRatios.dat, RanRegCorrels.dat
} // namespace tarvex
