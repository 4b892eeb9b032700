#include "parameters/randomvars.h"

#include "control/numbers.h"
#include "dense/numroutines.h"
#include "parameters/parvec.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/stop.h"

#include <algorithm>
#include <cmath>

namespace tarvex {

namespace {

void allocate_blocks() {
    const int krand = numbers.krand;
    // one array for all blocks, each in its corner
    int most = 1;
    for (int irand = 1; irand <= krand; ++irand) most = std::max(most, model.kkfit(irand));
    auto& r = randomvars;
    if (r.zig.allocated() && r.zig.upper(1) == most && r.zig.upper(3) == krand) return;
    allocate("alloc zig", r.zig, most, most, krand);
    allocate("alloc zig", r.detg, krand);
    allocate("alloc zig", r.deficient, krand);
    if (!r.detl.allocated()) allocate("alloc zig", r.detl, krand);
}

void keep_factor(int irand, const array<double, 2>& vv) {
    for (int i = 1; i <= model.kkfit(irand); ++i)
        for (int j = 1; j <= model.krfit(irand); ++j) randomvars.zig(i, j, irand) = vv(i, j);
    // equations of the factor have variance I
    randomvars.detg(irand) = 0.0;
    randomvars.deficient(irand) = 0;
}

void invert_diagonal(int irand, const array<double>& cc) {
    const int n = model.kkfit(irand);
    double detg = 0.0;
    randomvars.deficient(irand) = 0;
    for (int i = 1; i <= n; ++i) {
        const double w = cc(ihmssf(i, i, n));
        // a value that is no number vanishes too
        const bool vanishes = !(w >= least_variance());
        if (vanishes) randomvars.deficient(irand) = 1;
        for (int j = 1; j <= n; ++j) randomvars.zig(i, j, irand) = 0.0;
        randomvars.zig(i, i, irand) = vanishes ? 0.0 : 1.0 / w;
        if (!vanishes) detg += std::log(w);
    }
    randomvars.detg(irand) = detg;
}

// Inverse of a positive definite matrix through its factor, to full precision, into block irand; false: not definite.
bool invert_by_factor(int irand, const array<double, 2>& a, double& logdet) {
    const int n = model.kkfit(irand);
    array<double, 2> l = a, inverse; // lower factor, and its inverse
    inverse.allocate(n, n);
    logdet = 0.0;
    if (!cholesky(l, n)) return false;
    for (int j = 1; j <= n; ++j) {
        logdet += 2.0 * std::log(l(j, j));
        for (int i = j; i <= n; ++i) {
            // columns of L^-1 by forward substitution
            double s = i == j ? 1.0 : 0.0;
            for (int k = j; k < i; ++k) s -= l(i, k) * inverse(k, j);
            inverse(i, j) = s / l(i, i);
        }
    }
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) {
            // G^-1 = L^-T L^-1
            double s = 0.0;
            for (int k = j; k <= n; ++k) s += inverse(k, i) * inverse(k, j);
            randomvars.zig(i, j, irand) = randomvars.zig(j, i, irand) = s;
        }
    return true;
}

// Eigenvalues tell whether the matrix is deficient. They carry off-diagonals of up to 1e-6 as errors, too much for an
// inverse: that of a matrix of full rank comes from the factor.
void invert_full(int irand, const array<double>& cc) {
    const int n = model.kkfit(irand);
    const array<double, 2> a = unpack(cc.prefix(cc.size()), n);
    array<double, 2> vectors;
    array<double> eig;
    int nzero = 0;
    eigem(a, eig, vectors, n, least_variance(), nzero);
    double detg = 0.0;
    randomvars.deficient(irand) = nzero > 0 ? 1 : 0;
    if (nzero == 0 && invert_by_factor(irand, a, randomvars.detg(irand))) return;
    // generalised inverse over the eigenvalues that do not vanish
    for (int k = 1; k <= n - nzero; ++k) detg += std::log(eig(k));
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) {
            double s = 0.0;
            for (int k = 1; k <= n - nzero; ++k) s += vectors(i, k) * vectors(j, k) / eig(k);
            randomvars.zig(i, j, irand) = randomvars.zig(j, i, irand) = s;
        }
    randomvars.detg(irand) = detg;
}

void ginv_muv(array<double>& parvec, int& ifail) {
    array<double> cc;
    array<double, 2> vv;
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (mudmap.kovrnd(irand) == covariance_kind::peq) continue;
        parvec2covs(parvec, irand, 1, cc, vv, ifail);
        if (ifail) return;
        if (estimates.paraform(irand) == par_scale::cholesky)
            keep_factor(irand, vv);
        else if (model.diagonal(irand))
            invert_diagonal(irand, cc);
        else
            invert_full(irand, cc);
    }
}

} // namespace

void g_inverse(array<double>& parvec, int& ifail) {
    ifail = 0;
    if (model.anal_type < 1 || model.anal_type > 4) stop("ginverse");
    allocate_blocks();
    ginv_muv(parvec, ifail);
}

bool any_deficient() {
    return std::any_of(randomvars.deficient.begin(), randomvars.deficient.end(), [](int d) { return d != 0; });
}

} // namespace tarvex
