// Factor, solutions, sparse inverse and derivatives of the mixed model equations (equations/mmmatrix.h), by the kernels
// that suit their structure. Each asks what the store holds: a call out of turn stops the program.
#pragma once
#include "sparse/dense_kernels.h"
#include "support/array.h"
#include "support/tasks.h"

namespace tarvex {

// The threads that the run has asked for, nullptr: there is only the caller.
task_pool* threads_at_work();

// True if the equations are worth the kernels over supernodes, or these are asked for (kernels.choice).
bool supernodes_wanted();

// The instruction set of the dense kernels: the best that the processor has, or the one asked for by
// set_instruction_set or the environment variable TVX_ISA ("baseline", "avx2", "avx512"). A name that this processor or
// build does not have is told on the screen.
const dense_kernels_table& dense_kernels();
// "" goes back to that of the environment, or the best; false, and no change, if this processor or build does not have
// it.
bool set_instruction_set(const char* name);

// Replaces the assembled matrix by its Cholesky factor.
//   detc   log determinant of the coefficient matrix (natural log)
//   ypy    y'Py, the square of the last pivot
//   ifail  1: invalid pivot, its row in likelihoods.failrow; detc and ypy are not changed, the store counts as empty.
//          Stops if options.mmmposdef.
void factorise_mmm(double& detc, double& ypy, int& ifail);

// solutions.solns from the factor; nothing else changes.
void back_solutions();

// Factor is replaced by the inverse (sparse/takahashi.h). Leaves the solutions in solutions.solns; the factor counts as
// used up.
void takaha_inverse();

// Derivatives of the factorisation (sparse/autodiff.h) into fdiag (n) and foff (maxlnz), allocated here if need be. The
// factor is kept.
void autodiff_1(array<double>& fdiag, array<double>& foff);
// The same in place of the factor, which saves the memory of a second store: sparse.diag and sparse.xspars hold the
// derivatives on return, and the factor counts as used up.
void autodiff_in_place();

// L s = b for each column of b, by the factor (sparse/forward.h).
void forward_columns(array<double, 2>& b);

} // namespace tarvex
