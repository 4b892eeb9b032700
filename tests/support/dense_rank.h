// Columns of a design that depend on those in front of them, by a rank-revealing orthogonal decomposition of the design
// itself: no normal equations.
#pragma once
#include "support/dense_oracle.h"

namespace oracle {

// Numbers (from 1) of the columns that are combinations of columns in front of them. Columns are measured by their
// length: what is left of one below `least` of it is nothing.
std::vector<int> dependent_columns(const dense& x, double least);

} // namespace oracle
