// Cholesky factorisation of the augmented mixed model matrix in the compressed store, in place.
//
// Two kernels give the same factor: the column kernel (general sparse method with linked columns: A. George and J. W.
// H. Liu, Computer Solution of Large Sparse Positive Definite Systems, 1981), and the one over supernodes
// (supernodes.h), which is many times faster where the rows are long. They differ in rounding only.
#pragma once
namespace tarvex {

enum class kernel_kind { automatic, columns, supernodes };

// Which kernels the routines of the sparse system use; automatic decides by the work for each stored element.
struct kernels_module {
    kernel_kind choice = kernel_kind::automatic;
};
inline kernels_module kernels;

// Replaces the assembled matrix by its Cholesky factor.
//   in     sparse: diag, xspars as assembled; ixvec1, ixvec2, ixsub, not changed
//   out    sparse: diag(j) = L(j,j), xspars = L(i,j) for i > j
//   detc   log determinant of the coefficient matrix (natural log)
//   ypy    y'Py, the square of the last pivot
//   ifail  1: invalid pivot; factor, detc and ypy are not to be used. Stops if options.mmmposdef.
void factorise_mmm(double& detc, double& ypy, int& ifail);

// Column kernel. Returns the row of the first pivot below numbers.zero, 0 if there is none; pivot is its value. diag of
// that row is as assembled. With forcepd false pivots that vanish are set to numbers.zero instead, with a message.
int factorise_columns(double& pivot, bool forcepd = true);

// True if a system of this structure is worth the supernodes, or they are asked for.
bool supernodes_wanted();

} // namespace tarvex
