// Cholesky factorisation of the augmented matrix in the compressed store, in place, by columns.
//
// Two kernels give the same factor: the column kernel here (general sparse method with linked columns: A. George and J.
// W. H. Liu, Computer Solution of Large Sparse Positive Definite Systems, 1981), and the one over supernodes
// (supernodes.h), which is many times faster where the rows are long. They differ in rounding only.
#pragma once
#include "sparse/sparse.h"
#include "sparse/workspace.h"

namespace tarvex {

enum class kernel_kind { automatic, columns, supernodes };

// Which pivots are accepted: those not below `limit`. With repair, one that vanishes (below limit times its diagonal,
// or limit where the diagonal does) is replaced by limit in place of failing, and told: row, pivot, diagonal.
struct pivot_rule {
    double limit = 0.0;
    bool repair = false;
    std::function<void(int, double, double)> tell_repair;
};

// Replaces the assembled matrix by its factor. Returns 0, or the first row whose pivot is not accepted: `pivot` is its
// value, diag of that row is as assembled, and the store counts as empty.
int factorise_columns(sparse_store& s, sparse_work& w, const pivot_rule& rule, double& pivot, const progress& tell);

// True if a system of this structure is worth the supernodes.
bool worth_supernodes(const sparse_store& s);

} // namespace tarvex
