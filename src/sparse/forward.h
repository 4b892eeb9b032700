// Triangular solves with the factor in sparse.diag, sparse.xspars, many right-hand sides at a time.
#pragma once
#include "support/array.h"

namespace tarvex {

// Solves L s = b, in place, for each column of b; equations 1..nsrow-1, row nsrow (the right-hand side) left out. b has
// at least nsrow-1 rows, further rows are not touched.
void forward_columns(array<double, 2>& b);
// Likewise L' x = s.
void backward_columns(array<double, 2>& b);

} // namespace tarvex
