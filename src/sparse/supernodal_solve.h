// Solutions by the tree of supernodes.
#pragma once
#include "sparse/workspace.h"

namespace tarvex {

// Solutions as solve_back (takahashi.h) gives them, pieces of the tree shared out to the threads of w.
void solve_back_supernodes(const sparse_store& m, sparse_work& w, array<double>& solns);

// One of them: that of row i, when those of the rows below it in the factor are there.
double solve_row(const sparse_store& s, int i, const array<double>& solns);

} // namespace tarvex
