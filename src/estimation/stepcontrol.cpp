#include "estimation/stepcontrol.h"

#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "dense/inner.h"
#include "dense/modchol.h"
#include "dense/numroutines.h"
#include "estimation/aireml.h"
#include "estimation/estimates.h"
#include "estimation/evaluate.h"
#include "estimation/searchstate.h"
#include "likelihood/derivatives.h"
#include "parameters/randomvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "support/edit_form.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <vector>

namespace tarvex {

namespace {

constexpr double no_value = 9.9e35;          // -log L above it: the point is invalid
constexpr double largest_decrease = 10000.0; // of -log L that a step may predict

// Where set_tau calls an information matrix hard to invert. That something is added to its diagonal is Levenberg's way
// (1944) and Marquardt's (1963); how much is a rule of thumb without a published derivation.
constexpr double steep_from = 13000.0;  // largest eigenvalue from which the share of it is 1 - share_onset / eigenvalue
constexpr double share_onset = 12000.0; // ... times steep_rate,
constexpr double share_withheld = 0.2;  // and at most 1 - this: reached at 60000
constexpr double steep_rate = 0.08;     // of the root of numbers.zero times the largest eigenvalue
constexpr double flat_rate = 0.1;       // the same below steep_from
constexpr double damping = 0.44;        // of either
constexpr double safe_condition = 90000.0; // all eigenvalues above 1: none below this condition number,
constexpr double conditioned_share = 0.1;  // and this share of it above
constexpr double least_tau = 0.001;

// Steps whose matrix is inverted with tau on its diagonal.
constexpr double tau_overlap = 0.95; // share of the smallest eigenvalue that counts as part of tau
constexpr double more_tau = 5.0;     // smallest eigenvalues to be added while the rank is not full

// Steps of the modified factorisations. Powers of the rounding unit: Schnabel and Eskow 1999.
constexpr double pivot_power = 0.5, condition_power = 0.6;
constexpr double sticks_out = 25.0; // largest element of a step against the second largest
constexpr double cut_to = 0.8;      // what is left of it then

// The search along a step. The longest step is that of Dennis and Schnabel (a thousand times the size of the point), a
// little less of it; the shares are rules of thumb.
constexpr double longest_per_norm = 900.0, longest_at_least = 1000.0;
constexpr double after_invalid = 0.8; // a first trial without value is cut to this share,
constexpr double off_invalid = 0.99;  // and one on the way back by next to nothing
constexpr int most_tries = 7;

int size() { return derivs.nparm2; }

// The subset's information matrix and gradient.
void get_hessian(array<double>& gradient) {
    const int n = size(), nparm = estimates.nparm;
    derivs.hess.allocate(triangle(n));
    gradient.allocate(n);
    for (int i = 1; i <= n; ++i) {
        gradient(i) = derivs.der1(derivs.subset(i));
        for (int j = i; j <= n; ++j)
            derivs.hess(ihmssf(i, j, n)) = derivs.der2(ihmssf(derivs.subset(i), derivs.subset(j), nparm));
    }
}

// dvec = inverse times gradient, eigenvalues below tau replaced by it: tau is positive where one is not.
void step_from_eigenvalues(const array<double>& eig, const array<double, 2>& vectors, double tau,
                           const array<double>& gradient) {
    const int n = size();
    for (int k = 1; k <= n; ++k) {
        double s = 0.0;
        for (int i = 1; i <= n; ++i) s += vectors(i, k) * gradient(i);
        // only eigenvalues below tau are damped: the rest of the step is Newton's
        s *= eig(k) < tau ? 1.0 / tau : 1.0 / eig(k);
        for (int i = 1; i <= n; ++i) derivs.dvec(i) += vectors(i, k) * s;
    }
}

// Adds tau to the diagonal and inverts, with more tau while the matrix is not of full rank.
void direct_step(double smallest, double& tau, array<double>& gradient) {
    const int n = size();
    // what the matrix has of its own need not be added
    if (tau > 0.0) tau -= tau_overlap * smallest;
    for (;;) {
        for (int i = 1; i <= n; ++i) derivs.hess(ihmssf(i, i, n)) += tau;
        int nrank = 0;
        double ldet = 0.0;
        gen_inverse(derivs.hess.prefix(derivs.hess.size()), n, numbers.zero, nrank, ldet);
        if (nrank == n) break;
        if (options.verbose) print_list(screen(), "Hessian not of full rank", nrank, n, tau);
        const double more = tau + more_tau * smallest;
        if (!(more > tau)) break; // the generalised inverse has to serve
        // the inverse has overwritten it
        get_hessian(gradient);
        tau = more;
    }
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) derivs.dvec(i) += derivs.hess(packed_place(i, j, n)) * gradient(j);
}

// Steps of the modified factorisations: one element that sticks out is cut.
void cut_largest() {
    int at = 0;
    double most = 0.0, second = 0.0;
    for (int i = 1; i <= size(); ++i) {
        const double x = std::fabs(derivs.dvec(i));
        if (x > most) {
            second = most;
            most = x;
            at = i;
        } else
            second = std::max(second, x);
    }
    if (at > 0 && second > 0.0 && most / second > sticks_out) derivs.dvec(at) *= cut_to;
}

void step_by_factorisation(const array<double>& gradient) {
    const int n = size();
    if (n == 0) return;
    const array<double, 2> a = unpack(derivs.hess.prefix(derivs.hess.size()), n);
    if (maximise.modify_chol == 3) {
        modchl_factor f;
        modchl(a, n, pivot_power, condition_power, f);
        solve_modchl(f, gradient.prefix(n), derivs.dvec.prefix(n));
    } else {
        ldl_factor f;
        ldlfac(a, n, numbers.zero, f);
        if (options.details) print_list(screen(), n, f.nrank);
        solve_ldl(f, gradient.prefix(n), derivs.dvec.prefix(n), true);
    }
    cut_largest();
}

} // namespace

// Residual covariances themselves are parameters: the point becomes that of the matrices which its evaluation takes,
// where eigenvalues have been raised. Otherwise log L would be flat beyond.
void damage_control() {
    if (estimates.paraform(0) != par_scale::original) return;
    for (int step = 1; step <= model.rr_resteps; ++step) {
        const block_at_point found = covariances_at(search_state.parnew, 0, step);
        for (int k = 1; k <= found.cc.upper() && found.finite; ++k)
            search_state.parnew(block_start(0, step) + k - 1) = found.cc(k);
    }
}

namespace {

void move(double length) {
    search_state.parnew = estimates.parvec;
    for (int i = 1; i <= size(); ++i) search_state.parnew(derivs.subset(i)) += length * derivs.dvec(i);
    damage_control();
}

double evaluate(double length) {
    move(length);
    return -evaluate_point(search_state.parnew, 0);
}

// Minimiser of the cubic through the last two lengths and values (0, f0, slope known).
double cubic_minimum(double l1, double f1, double l2, double f2, double f0, double slope) {
    const double r1 = (f1 - f0 - l1 * slope) / (l1 * l1), r2 = (f2 - f0 - l2 * slope) / (l2 * l2);
    const double a = (r1 - r2) / (l1 - l2), b = (-l2 * r1 + l1 * r2) / (l1 - l2);
    // a parabola
    if (a == 0.0) return -slope / (2.0 * b);
    const double disc = b * b - 3.0 * a * slope;
    if (disc > 0.0) return (std::sqrt(disc) - b) / (3.0 * a);
    // no minimum: that of the parabola through f0, its slope and f1
    return -(0.5 * slope) / (f1 - f0 - slope);
}

} // namespace

void set_linesearch() {
    linesearch = {};
    double eps = 1.0, last = 1.0;
    // rounding unit; the tolerance is its power 2/3
    while (1.0 + eps > 1.0) {
        last = eps;
        eps *= 0.5;
    }
    const double third = std::cbrt(2.0 * last);
    linesearch.ls_steptol = third * third;
}

double set_tau(double e1, double en) {
    const double z = std::sqrt(numbers.zero);
    double t =
        e1 > steep_from ? (1.0 - std::max(share_withheld, share_onset / e1)) * steep_rate * z * e1 : flat_rate * z * e1;
    t *= damping;
    // nothing of it is needed where the smallest eigenvalue is large
    if (en > 1.0) t = e1 / en < safe_condition ? 0.0 : conditioned_share * t;
    t = std::max(t, least_tau);
    return t > en ? t : 0.0;
}

void eztimates(double& xnew) {
    constexpr edit_form eigen_line{"(1x,a,2g13.6,2x,a,g12.5)"};
    constexpr edit_form step_line{"(1x,a,f8.2,3(3x,a,f8.2))"};
    constexpr edit_form trial_line{"(a,g12.5,a,g12.5,a,2f16.3)"};
    auto& at = aireml_terms;
    at.alpha = 1.0;
    array<double> gradient;
    get_hessian(gradient);
    const int n = size(), method = maximise.modify_chol;
    derivs.dvec.allocate(n);
    if (method >= 3)
        step_by_factorisation(gradient);
    else if (n > 0) {
        array<double> eig;
        array<double, 2> vectors;
        double smallest = 0.0;
        if (method > 0) {
            const array<double, 2> a = unpack(derivs.hess.prefix(derivs.hess.size()), n);
            int nzero = 0;
            eigem(a, eig, vectors, n, least_variance(), nzero);
            smallest = eig(n);
            at.tau += set_tau(eig(1), smallest);
            if (options.verbose)
                write(screen(), eigen_line, "AI matrix : min. & max. eigenvalue", smallest, eig(1), "tau = ", at.tau);
        }
        if (method == 1 || (method == 2 && at.tau == 0.0))
            step_from_eigenvalues(eig, vectors, at.tau, gradient);
        else
            direct_step(smallest, at.tau, gradient);
    }
    // of -log L along the step: -d'g
    at.slope = -inner(derivs.dvec.prefix(size()), gradient.prefix(size()));
    // a step that promises more than any log L can rise by is out of the range of its model
    while (method < 3 && at.slope < -largest_decrease) {
        for (double& d : derivs.dvec) d *= 0.5;
        at.slope = -inner(derivs.dvec.prefix(size()), gradient.prefix(size()));
    }
    move(1.0);
    if (options.details)
        write(screen(), step_line, "Estimates for \"tau\" =", at.tau, "\"alpha\" =", at.alpha, "\"slope\" =", at.slope,
              "norm =", at.dnorm);
    list_changes(estimates.parvec, search_state.parnew);
    xnew = evaluate_point(search_state.parnew, 0);
    if (options.verbose) write(screen(), trial_line, " Tau =", at.tau, " Alpha =", at.alpha, "  log L =", xnew);
}

length_search search_lengths(const std::function<double(double)>& value, const length_search& start) {
    length_search s = start;
    const double f0 = s.f0, slope = s.slope;
    double& alpha = s.alpha;
    double lambda = alpha;
    const auto end = [&](bool found) {
        s.found = found;
        s.lambda = lambda;
        return s;
    };
    while (s.f1 > no_value) { // the last trial had no value
        alpha *= after_invalid;
        if (alpha < s.minlambda) return end(false);
        s.f1 = value(alpha);
        if (options.details) print_list(screen(), alpha, s.f1, f0);
        if (s.f1 < f0) return end(true);
    }
    const auto limited = [&](double l) {
        // two equal lengths
        if (std::isnan(l)) l = linesearch.ls_shrink * alpha;
        return std::max(std::min(l, linesearch.ls_grow * alpha), linesearch.ls_shrink * alpha);
    };
    // minimum of the parabola, then of cubics (Dennis and Schnabel 1983, algorithm A6.3.1)
    double last_alpha = alpha, last_f = s.f1;
    lambda = limited(-(0.5 * slope) / (s.f1 - f0 - slope));
    if (options.details) print_list(screen(), "alpha", alpha, lambda, "slope", slope);
    for (int tries = 1;; ++tries) {
        if (!(lambda >= s.minlambda)) return end(false);
        alpha = lambda;
        s.f1 = value(alpha);
        while (s.f1 > no_value) {
            alpha *= off_invalid;
            if (alpha < s.minlambda) return end(false);
            s.f1 = value(alpha);
            if (options.details) print_list(screen(), "inv", alpha);
        }
        if (options.details && tries > 1) print_list(screen(), "cub", tries, lambda, s.f1, f0);
        // a share of the decrease that the slope promises
        if (s.f1 <= f0 + linesearch.ls_alpha * alpha * slope) return end(true);
        if (tries >= most_tries) return end(false);
        lambda = limited(cubic_minimum(alpha, s.f1, last_alpha, last_f, f0, slope));
        last_alpha = alpha;
        last_f = s.f1;
    }
}

void line_search(double xold, double& xnew, bool& fail) {
    double rellen = 0.0, length = 0.0, norm = 0.0;
    for (int i = 1; i <= size(); ++i) {
        const double p = estimates.parvec(derivs.subset(i));
        rellen = std::max(rellen, std::fabs(derivs.dvec(i)) / std::max(std::fabs(p), 1.0));
        length += derivs.dvec(i) * derivs.dvec(i);
    }
    for (double p : estimates.parvec) norm += p * p;
    // relative to the parameters, of at least 1: below the tolerance a step changes nothing
    const double minlambda = rellen > 0.0 ? linesearch.ls_steptol / rellen : std::numeric_limits<double>::infinity();
    linesearch.ls_maxstep = std::max(longest_per_norm * std::sqrt(norm), longest_at_least);
    if (std::sqrt(length) > linesearch.ls_maxstep)
        for (double& d : derivs.dvec) d *= linesearch.ls_maxstep / std::sqrt(length);

    const length_search s = search_lengths(evaluate, {-xold, aireml_terms.slope, minlambda, aireml_terms.alpha, -xnew});
    aireml_terms.alpha = s.alpha;
    xnew = -s.f1;
    fail = !s.found;
    if (fail) print_list(screen(), "line search failed", s.f0, s.f1, s.lambda, minlambda);
}

} // namespace tarvex
