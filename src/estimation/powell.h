// Derivative-free maximisation by conjugate directions (Powell 1964, Computer Journal 7:155).
#pragma once
#include "support/array.h"
namespace tarvex {
// Maximises log L over the parameters with ispar; parvec and xbest are those of the best point on return.
void powell(double& xbest, array<double>& parvec, int nparm, int& flag, int& count);
} // namespace tarvex
