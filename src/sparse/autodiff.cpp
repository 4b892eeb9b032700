#include "sparse/autodiff.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "likelihood/likelihood.h"
#include "sparse/factorise.h"
#include "sparse/sparse.h"
#include "sparse/supernodes.h"
#include "sparse/takahashi.h"
#include "support/screen.h"

#include <utility>
#include <vector>

namespace tarvex {

void autodiff_columns(array<double>& fdiag, array<double>& foff) {
    const int n = numbers.nsrow;
    const auto &ixvec1 = sparse.ixvec1, &ixvec2 = sparse.ixvec2, &ixsub = sparse.ixsub;
    const auto &diag = sparse.diag, &xspars = sparse.xspars;
    for (int i = 1; i < n; ++i) fdiag(i) = 1.0 / diag(i);
    fdiag(n) = diag(n);
    foff.fill(0.0);
    std::vector<int> pos(n + 1, 0); // place of each row in column k, 0: not there
    for (int k = n; k >= 1; --k) {
        if (!options.terse && k % 20000 == 0) print_list(screen(), "AutoDiff", k, n);
        const int start = ixvec1(k), end = ixvec1(k + 1), shift = ixvec2(k) - start;
        for (int q = start; q < end; ++q) pos[ixsub(q + shift)] = q;
        for (int q = start; q < end; ++q) {
            const int i = ixsub(q + shift), shifti = ixvec2(i) - ixvec1(i);
            const double l = xspars(q);
            double t = 2.0 * fdiag(i) * l;
            for (int u = ixvec1(i); u < ixvec1(i + 1); ++u) {
                const int v = pos[ixsub(u + shifti)];
                if (v == 0) continue;
                t += foff(u) * xspars(v);
                foff(v) -= foff(u) * l;
            }
            foff(q) -= t;
        }
        double s = 0.0;
        for (int q = start; q < end; ++q) {
            foff(q) /= diag(k);
            s += foff(q) * xspars(q);
            pos[ixsub(q + shift)] = 0;
        }
        fdiag(k) = 0.5 * (fdiag(k) - s) / diag(k);
    }
}

void autodiff_1(array<double>& fdiag, array<double>& foff) {
    if (fdiag.size() < numbers.nsrow) allocate_large("FDIAG", fdiag, numbers.nsrow);
    if (foff.size() < sparse.maxlnz) allocate_large("FOFF", foff, sparse.maxlnz);
    if (!supernodes_wanted()) {
        autodiff_columns(fdiag, foff);
        return;
    }
    array<double> x; // solutions of the factor, whatever solutions.solns belongs to
    x.allocate(numbers.nsrow);
    solve_back(x);
    inverse_supernodes(fdiag, foff, x.data(), "AutoDiff");
}

void autodiff_in_place() {
    if (supernodes_wanted()) {
        array<double> x;
        x.allocate(numbers.nsrow);
        solve_back(x);
        inverse_supernodes(sparse.diag, sparse.xspars, x.data(), "AutoDiff");
    } else {
        array<double> fdiag, foff;
        autodiff_1(fdiag, foff);
        std::swap(sparse.diag, fdiag);
        std::swap(sparse.xspars, foff);
    }
    forget_factor();
}

} // namespace tarvex
