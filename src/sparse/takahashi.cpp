#include "sparse/takahashi.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "likelihood/likelihood.h"
#include "likelihood/solutions.h"
#include "sparse/factorise.h"
#include "sparse/sparse.h"
#include "sparse/supernodes.h"
#include "support/screen.h"

#include <vector>

namespace tarvex {

void rescale_factor(array<double>& diag, array<double>& off) {
    for (int j = 1; j <= numbers.nsrow; ++j) {
        const double d = diag(j), r = 1.0 / d;
        for (int q = sparse.ixvec1(j); q < sparse.ixvec1(j + 1); ++q) off(q) *= r;
        diag(j) = d * d;
    }
}

void inverse_columns(array<double>& diag, array<double>& off) {
    const int n = numbers.nsrow;
    const auto &ixvec1 = sparse.ixvec1, &ixvec2 = sparse.ixvec2, &ixsub = sparse.ixsub;
    std::vector<double> w(n + 1, 0.0), acc(n + 1, 0.0); // column i of the factor; Z times it
    std::vector<int> imark(n + 1, 0);                   // 1: row of column i
    if (n >= 2) diag(n - 1) = 1.0 / diag(n - 1);
    for (int i = n - 2; i >= 1; --i) {
        if (!options.terse && i % 20000 == 0) print_list(screen(), "SparseInv", i, n - 1);
        const int start = ixvec1(i);
        const int shift = ixvec2(i) - start;
        int end = start;
        for (; end < ixvec1(i + 1) && ixsub(end + shift) != n; ++end) {
            imark[ixsub(end + shift)] = 1;
            w[ixsub(end + shift)] = off(end);
        }
        for (int p = start; p < end; ++p) {
            const int k = ixsub(p + shift), shiftk = ixvec2(k) - ixvec1(k);
            const double wk = off(p);
            double acck = 0.0;
            for (int q = ixvec1(k); q < ixvec1(k + 1); ++q) {
                const int r = ixsub(q + shiftk);
                if (!imark[r]) continue;
                acck += off(q) * w[r];
                acc[r] += wk * off(q);
            }
            acc[k] += acck + wk * diag(k);
        }
        double t = 0.0;
        for (int p = start; p < end; ++p) {
            const int r = ixsub(p + shift);
            t += w[r] * acc[r];
            off(p) = -acc[r];
            acc[r] = 0.0;
            imark[r] = 0;
        }
        diag(i) = 1.0 / diag(i) + t;
    }
}

void solve_back(array<double>& solns) {
    const int n = numbers.nsrow;
    const auto &ixvec1 = sparse.ixvec1, &ixvec2 = sparse.ixvec2, &ixsub = sparse.ixsub;
    if (solns.size() < n) solns.allocate(n);
    solns.fill(0.0);
    for (int i = n - 1; i >= 1; --i) {
        double b = 0.0, t = 0.0;
        const int shift = ixvec2(i) - ixvec1(i);
        for (int q = ixvec1(i); q < ixvec1(i + 1); ++q) {
            const int r = ixsub(q + shift);
            if (r == n)
                b = sparse.xspars(q);
            else
                t += sparse.xspars(q) * solns(r);
        }
        solns(i) = (b - t) / sparse.diag(i);
    }
}

void back_solutions() { solve_back(solutions.solns); }

void takaha_inverse() {
    back_solutions();
    if (supernodes_wanted()) {
        inverse_supernodes(sparse.diag, sparse.xspars, nullptr, "SparseInv");
    } else {
        rescale_factor(sparse.diag, sparse.xspars);
        inverse_columns(sparse.diag, sparse.xspars);
    }
    likelihoods.lastpar.fill(0.0);
    likelihoods.factor_valid = false;
    tvxtimes(2, "Takaha-inv");
}

void calc_symtrace(int n, int ld, double& tr, const double* a, const double* b) {
    double diagonal = 0.0, off = 0.0;
    for (int j = 0; j < n; ++j) {
        const double *aj = a + static_cast<std::ptrdiff_t>(j) * ld, *bj = b + static_cast<std::ptrdiff_t>(j) * ld;
        if (bj[j] != 0.0) diagonal += bj[j] * aj[j];
        for (int i = j + 1; i < n; ++i)
            if (bj[i] != 0.0) off += bj[i] * aj[i];
    }
    tr = diagonal + 2.0 * off;
}

} // namespace tarvex
