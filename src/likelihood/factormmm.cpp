#include "likelihood/factormmm.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "control/warnings.h"
#include "equations/mmmatrix.h"
#include "likelihood/likelihood.h"
#include "likelihood/solutions.h"
#include "likelihood/warnfix.h"
#include "sparse/autodiff.h"
#include "sparse/forward.h"
#include "sparse/supernodal_solve.h"
#include "sparse/takahashi.h"
#include "support/screen.h"

#include <cmath>
#include <cstdlib>
#include <string>
#include <utility>

namespace tarvex {

namespace {

[[noreturn]] void report_indefinite(int irow) {
    screen().line("***** ERROR in sparse matrix factorisation ");
    screen().line("      mixed model matrix is not positive definite !!!");
    if (likelihoods.first) write_warnfix(irow);
    stoptarvex();
}

progress tell_factor() {
    if (!options.verbose) return {};
    return [](int done) { print_list(screen(), "Factorise MMM", done); };
}
progress tell_sweep(const char* word, int total) {
    if (options.terse) return {};
    return [=](int left) { print_list(screen(), word, left, total); };
}

// Derivatives over supernodes; fdiag, foff may be the arrays of the store.
void differentiate_supernodes(array<double>& fdiag, array<double>& foff) {
    array<double> x; // solutions of the factor, whatever solutions.solns belongs to
    threads_at_work();
    solve_back_supernodes(sparse, kernels.work, x);
    inverse_supernodes(sparse, kernels.work, fdiag, foff, x.data(), tell_sweep("AutoDiff", sparse.n));
}

} // namespace

task_pool* threads_at_work() {
    auto& pool = kernels.work.pool;
    const int wanted = threads_wanted();
    if (wanted != (pool ? pool->wanted() : 1)) {
        pool.reset();
        if (wanted > 1) pool = std::make_unique<task_pool>(wanted);
        if (wanted > 1 && pool->threads() < wanted)
            warn("threads refused", std::to_string(pool->threads()) + " of " + std::to_string(wanted) +
                                        " threads : the system has refused the others");
    }
    return pool.get();
}

bool supernodes_wanted() {
    auto& k = kernels;
    if (k.choice != kernel_kind::automatic) return k.choice == kernel_kind::supernodes;
    if (k.rows != sparse.n || k.elements != sparse.maxlnz) { // a stale answer could only cost time
        k.rows = sparse.n;
        k.elements = sparse.maxlnz;
        k.supernodes = worth_supernodes(sparse);
    }
    return k.supernodes;
}

bool set_instruction_set(const char* name) {
    const char* wanted = std::getenv("TVX_ISA");
    const dense_kernels_table* found = nullptr;
    if (*name == 0 && wanted) {
        // for measurements and tests: the best set is right for everybody else
        found = find_kernels(wanted);
        if (!found)
            print_list(screen(), "TVX_ISA : this processor or build has no instruction set", wanted, "- using",
                       find_kernels("")->name);
    }
    if (!found) found = find_kernels(name);
    if (found) kernels.work.dense = found;
    return found != nullptr;
}

const dense_kernels_table& dense_kernels() {
    if (!kernels.work.dense) set_instruction_set("");
    return *kernels.work.dense;
}

void factorise_mmm(double& detc, double& ypy, int& ifail) {
    double pivot = 0.0;
    ifail = 0;
    dense_kernels(); // before the first use: what was asked for
    threads_at_work();
    const int irow = supernodes_wanted()
                         // pivots below the operational zero end it; no repair, since that would alter log L
                         ? factorise_supernodes(sparse, kernels.work, numbers.zero, pivot, tell_factor())
                         : factorise_columns(sparse, kernels.work, {numbers.zero, false, {}}, pivot, tell_factor());
    likelihoods.failrow = irow;
    if (irow != 0) {
        print_list(screen(), "invalid pivot - at row", irow, pivot, sparse.diag(irow));
        if (options.mmmposdef) report_indefinite(irow);
        ifail = 1;
        return;
    }
    const int n = sparse.n;
    double sum = 0.0;
    // row n is no equation: its pivot squared is y'Py
    for (int j = 1; j < n; ++j)
        if (sparse.diag(j) > numbers.zero) sum += std::log(sparse.diag(j));
    detc = 2.0 * sum;
    ypy = n > 0 ? sparse.diag(n) * sparse.diag(n) : 0.0;
}

void back_solutions() {
    if (!supernodes_wanted()) return solve_back(sparse, solutions.solns);
    threads_at_work();
    solve_back_supernodes(sparse, kernels.work, solutions.solns);
}

void takaha_inverse() {
    back_solutions();
    const progress tell = tell_sweep("SparseInv", sparse.n - 1);
    if (supernodes_wanted()) {
        threads_at_work();
        inverse_supernodes(sparse, kernels.work, sparse.diag, sparse.xspars, nullptr, tell);
    } else {
        // L D L' with unit diagonal, as the column kernel of the inverse wants it
        rescale_factor(sparse, sparse.diag, sparse.xspars);
        inverse_columns(sparse, sparse.diag, sparse.xspars, tell);
    }
    sparse.state = store_state::inverse;
    // the factor is gone: the next evaluation starts with the assembly
    forget_factor();
    tvxtimes(2, "Takaha-inv");
}

void autodiff_1(array<double>& fdiag, array<double>& foff) {
    if (fdiag.size() < sparse.n) allocate_large("FDIAG", fdiag, sparse.n);
    if (foff.size() < sparse.maxlnz) allocate_large("FOFF", foff, sparse.maxlnz);
    if (supernodes_wanted())
        differentiate_supernodes(fdiag, foff);
    else
        autodiff_columns(sparse, fdiag, foff, tell_sweep("AutoDiff", sparse.n));
}

void autodiff_in_place() {
    // supernodes hold a front beside the store and work in place; columns need a second store
    if (supernodes_wanted()) {
        differentiate_supernodes(sparse.diag, sparse.xspars);
    } else {
        array<double> fdiag, foff;
        autodiff_1(fdiag, foff);
        std::swap(sparse.diag, fdiag);
        std::swap(sparse.xspars, foff);
    }
    sparse.state = store_state::derivative;
    forget_factor();
}

void forward_columns(array<double, 2>& b) {
    forward_columns(sparse, kernels.choice == kernel_kind::columns ? nullptr : &dense_kernels(), threads_at_work(), b);
}

} // namespace tarvex
