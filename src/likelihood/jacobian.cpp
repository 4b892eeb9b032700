// From the covariance scale to the scale of the parameters.
#include "control/numbers.h"
#include "control/options.h"
#include "dense/numroutines.h"
#include "likelihood/derivatives.h"
#include "parameters/parvec.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parameters/zeropattern.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/stop.h"

#include <algorithm>
#include <string>
#include <vector>

namespace tarvex {

namespace {

// Derivatives are on the factor scale already.
bool factor_derivatives(int irand) {
    return irand > 0 && options.principal && mudmap.kovrnd(irand) != covariance_kind::peq;
}

// Factor of a block at estimates.parvec, rows in the order of the matrix.
array<double, 2> block_factor(int irand, int step) { return covariances_at(estimates.parvec, irand, step).vv; }

// Factor by which a logarithmic parameter is multiplied: its diagonal element; 1 for others.
double log_factor(int irand, factor_place f, int diagonal_row, const array<double, 2>& vv) {
    return estimates.logdiagonals(irand) && f.row == diagonal_row ? vv(f.row, f.col) : 1.0;
}

// Row of the diagonal element of column c.
int pivot_row(int irand, int step, int c) {
    return model.diagonal(irand) ? c : estimates.cholorder((step - 1) * model.kkfit(irand) + c, irand);
}

void transform_gradient(const array<double, 2>& jac, int from) {
    for (int p = 1; p <= jac.upper(2); ++p) {
        double s = 0.0;
        // dlogL/dpar = sum over k of dC(k)/dpar dlogL/dC(k)
        for (int k = 1; k <= jac.upper(1); ++k) s += jac(k, p) * derivs.devl1(from + k - 1);
        derivs.der1(from + p - 1) = s;
    }
}

// One class of a block: its place in the parameter vector and its Jacobian.
struct class_jacobian {
    int irand, step, from;
    array<double, 2> jac;
};

// Jacobian between derivatives as they are formed and the parameters.
array<double, 2> derivative_jacobian(int irand, int step) {
    array<double, 2> jac;
    if (!factor_derivatives(irand)) {
        block_jacobian(irand, step, jac);
        return jac;
    }
    const array<double, 2> vv = block_factor(irand, step);
    const int n = block_size(irand);
    jac.allocate(n, n);
    // derivatives by elements of the factor: only logarithms are still to be dealt with
    for (int k = 1; k <= n; ++k) {
        const factor_place f = factor_element(irand, step, k);
        jac(k, k) = log_factor(irand, f, pivot_row(irand, step, f.col), vv);
    }
    return jac;
}

std::vector<class_jacobian> all_jacobians() {
    std::vector<class_jacobian> list;
    for (int irand = 0; irand <= numbers.krand; ++irand)
        for (int step = 1; step <= steps_of(irand); ++step)
            if (estimates.nnparm(irand) > 0)
                list.push_back({irand, step, block_start(irand, step), derivative_jacobian(irand, step)});
    return list;
}

double& der2(int i, int j) { return derivs.der2(packed_place(i, j, estimates.nparm)); }

// der2 for the parameters of classes a and b: Ja' (-devl2) Jb.
void transform_information(const class_jacobian& a, const class_jacobian& b) {
    const int ka = static_cast<int>(a.jac.upper(1)), kb = static_cast<int>(b.jac.upper(1));
    array<double, 2> left;
    left.allocate(a.jac.upper(2), kb);
    for (int p = 1; p <= a.jac.upper(2); ++p)
        for (int l = 1; l <= kb; ++l) {
            double s = 0.0;
            for (int k = 1; k <= ka; ++k)
                s -= a.jac(k, p) * derivs.devl2(packed_place(a.from + k - 1, b.from + l - 1, estimates.nparm));
            left(p, l) = s;
        }
    for (int p = 1; p <= a.jac.upper(2); ++p)
        for (int q = 1; q <= b.jac.upper(2); ++q) {
            double s = 0.0;
            for (int l = 1; l <= kb; ++l) s += left(p, l) * b.jac(l, q);
            der2(a.from + p - 1, b.from + q - 1) = s;
        }
}

// Second-order term of one class: derivatives of log L on the covariance scale times the second derivatives of the
// covariances, which are not zero for elements of one column of the factor. A completed factor goes without it.
void subtract_curvature(const class_jacobian& c) {
    if (estimates.paraform(c.irand) == par_scale::original || (c.irand == 0 && residualvars.filled)) return;
    const array<double, 2> vv = block_factor(c.irand, c.step);
    const int n = block_size(c.irand), order = model.kkfit(c.irand);
    for (int p = 1; p <= n; ++p) {
        const factor_place fp = factor_element(c.irand, c.step, p);
        const double lp = log_factor(c.irand, fp, pivot_row(c.irand, c.step, fp.col), vv);
        const int ip = c.from + p - 1;
        for (int q = p; q <= n && !factor_derivatives(c.irand); ++q) {
            const factor_place fq = factor_element(c.irand, c.step, q);
            if (fq.col != fp.col) continue;
            // C = LL': d2C(i,j)/dL(i,c)dL(j,c) is 1, and 2 where i = j
            const int k = model.diagonal(c.irand) ? fp.row : packed_place(fp.row, fq.row, order);
            const double lq = log_factor(c.irand, fq, pivot_row(c.irand, c.step, fq.col), vv);
            const double d2 = derivs.devl1(c.from + k - 1) * (fp.row == fq.row ? 2.0 : 1.0) * lp * lq;
            derivs.der2b(packed_place(ip, c.from + q - 1, estimates.nparm)) += d2;
        }
        const bool logarithm = estimates.logdiagonals(c.irand) && fp.row == pivot_row(c.irand, c.step, fp.col);
        // exp has itself as second derivative: the first one comes once more
        if (logarithm) derivs.der2b(packed_place(ip, ip, estimates.nparm)) += derivs.der1(ip);
    }
}

// True if `at` is the point in hand.
bool here(const array<double>& at) {
    return at.upper() == estimates.parvec.upper() && std::equal(at.begin(), at.end(), estimates.parvec.begin());
}

// Gradient and information are to be those of the point in hand.
void need_derivatives(const char* routine) {
    if (here(derivs.gradient_at) && here(derivs.information_at)) return;
    stop(std::string("programming error: \"") + routine + "\" needs derivatives at its point");
}

// Column p of the Jacobian of the residual block: its factor changes by `change`, completed.
void completed_column(const zero_pattern& zeros, const array<int>& order, const array<double, 2>& vv,
                      array<double, 2>& change, int p, array<double, 2>& jac) {
    const int n = zeros.n;
    complete_change(zeros, order, vv, change);
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j)
            for (int c = 1; c <= n; ++c)
                jac(packed_place(i, j, n), p) += change(i, c) * vv(j, c) + vv(i, c) * change(j, c);
}

} // namespace

void block_jacobian(int irand, int step, array<double, 2>& jac) {
    const int n = model.kkfit(irand), ncov = matrix_covs(irand);
    if (estimates.paraform(irand) == par_scale::original) {
        jac.allocate(ncov, ncov);
        for (int k = 1; k <= ncov; ++k) jac(k, k) = 1.0;
        return;
    }
    const array<double, 2> vv = block_factor(irand, step);
    const bool completed = irand == 0 && residualvars.filled;
    zero_pattern zeros;
    array<int> order;
    if (completed) {
        zeros = residual_zeros(step);
        order.allocate(n);
        for (int c = 1; c <= n; ++c) order(c) = pivot_row(0, step, c);
    }
    const int npar = block_size(irand);
    jac.allocate(ncov, npar);
    for (int p = 1; p <= npar; ++p) {
        const factor_place f = factor_element(irand, step, p);
        const double times = log_factor(irand, f, pivot_row(irand, step, f.col), vv);
        if (model.diagonal(irand)) {
            jac(p, p) = 2.0 * vv(p, p) * times;
            continue;
        }
        const int pivot = pivot_row(irand, step, f.col);
        if (irand == 0 && f.row != pivot && residual_held(step, f.row, pivot)) continue; // no parameter
        if (completed) {
            array<double, 2> change;
            change.allocate(n, n);
            change(f.row, f.col) = times;
            completed_column(zeros, order, vv, change, p, jac);
            continue;
        }
        // dC(i,f.row)/dL(f.row,c) = L(i,c), twice that on the diagonal
        for (int i = 1; i <= n; ++i)
            jac(packed_place(i, f.row, n), p) = (i == f.row ? 2.0 : 1.0) * vv(i, f.col) * times;
    }
}

void jacob_var2chol(int flag) {
    const int nparm = estimates.nparm;
    need_derivatives("jacob_var2chol");
    allocate("all der2", derivs.der1, nparm);
    allocate("all der2", derivs.der2, triangle(nparm));
    allocate("all der2", derivs.der2b, triangle(nparm));
    const std::vector<class_jacobian> list = all_jacobians();
    for (const class_jacobian& c : list) transform_gradient(c.jac, c.from);
    for (std::size_t i = 0; i < list.size(); ++i)
        for (std::size_t j = i; j < list.size(); ++j) transform_information(list[i], list[j]);
    // der2 is minus the Hessian: the part of the information, less that of the curvature
    if (flag != 1) return;
    for (const class_jacobian& c : list) subtract_curvature(c);
    for (int k = 1; k <= derivs.der2.upper(); ++k) derivs.der2(k) -= derivs.der2b(k);
}

} // namespace tarvex
