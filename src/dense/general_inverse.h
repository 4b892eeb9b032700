// Small dense matrices without symmetry.
#pragma once
#include "support/array.h"

namespace tarvex {

// Inverse of the leading n x n part of any regular matrix, in its place, by elimination with row interchanges (Golub &
// Van Loan, Matrix Computations, section 3.4). False where no pivot is left or one is not finite: `a` is spoilt.
[[nodiscard]] bool invert_general(array<double, 2>& a, int n);

} // namespace tarvex
