// Assembly of the mixed model matrix in the compressed store.
#pragma once
#include "support/array.h"

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace tarvex {

// Fills sparse.diag, xspars for the current eei (or residual classes) and zig. iflag 1: an element has no place.
void build_mmm(int& iflag);

// Place in xspars of element (a,b) of two different rows (new numbering), 0 if the structure has none. Bisection.
int locate(int a, int b);

} // namespace tarvex
