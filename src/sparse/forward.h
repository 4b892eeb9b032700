// Triangular solves with the factor, many right-hand sides at a time.
#pragma once
#include "sparse/dense_kernels.h"
#include "sparse/sparse.h"
#include "support/tasks.h"

namespace tarvex {

// Solves L s = b, in place, for each column of b; equations 1..n-1, row n (the right-hand side) left out. b has at
// least n-1 rows, further rows are not touched. kernel: vector kernels, nullptr: by columns and elements. Threads of
// pool, if any, share the columns.
void forward_columns(const sparse_store& s, const dense_kernels_table* kernel, task_pool* pool, array<double, 2>& b);

} // namespace tarvex
