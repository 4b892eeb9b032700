// Why the first evaluation of the likelihood has failed, in words.
#pragma once

namespace tarvex {

// Row irow of the coefficient matrix (new order) has no valid pivot: a dependency in the fixed part, starting variances
// that make pivots fall below the operational zero, or a level treated as fixed.
void write_warnfix(int irow);

} // namespace tarvex
