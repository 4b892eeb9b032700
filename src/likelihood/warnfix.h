// Why the equations could not be factorised, in words.
#pragma once

namespace tarvex {

// Row irow of the coefficient matrix (new order) has no valid pivot: a dependency in the fixed part, starting variances
// that make pivots fall below the operational zero, a level treated as fixed, or, in the last row, fixed effects that
// leave nothing of the records.
void write_reason(int irow);
// The same of the first evaluation of the likelihood.
void write_warnfix(int irow);

} // namespace tarvex
