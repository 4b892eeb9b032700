// Evaluations of log L whose gains are kept.
#pragma once
#include "support/array.h"

namespace tarvex {

// log L at parvec by loglike (which see for iopt; clamps may change parvec), -1.0e36 at an invalid point. A new best
// value goes to bestpoint, BestPoint and solutions.solsave, a new order of the equations to its files. With details
// every evaluation gets a line in logL.dat.
double evaluate_point(array<double>& parvec, int iopt);

} // namespace tarvex
