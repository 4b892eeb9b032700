// Why the equations could not be factorised, in words.
#pragma once

namespace tarvex {

// Row irow of the coefficient matrix (new order) has no valid pivot: a dependency in the fixed part, starting variances
// that make pivots fall below the operational zero, a level treated as fixed, or, in the last row, fixed effects that
// leave nothing of the records.
void write_reason(int irow);
// The same of the first evaluation of the likelihood.
void write_warnfix(int irow);

// Starting variance of row i of block irand (0 residual; of random regression only this), and that of the records of
// its trait. Far off: a million times that, so that pivots vanish against it.
struct start_variance {
    int trait;
    double start, found;
    bool far_off() const;
};
start_variance variance_at_start(int irand, int i);

} // namespace tarvex
