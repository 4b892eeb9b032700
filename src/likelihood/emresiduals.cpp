// The M-step for the residual covariances, with those of a repeat effect (PEQ) behind them.
//
// With S_k the expected sums of squares and products of pattern k, n_k its subjects and W_k its matrix, linear in the
// covariances theta, the step raises Q(theta) = -1/2 sum_k (n_k log|W_k| + tr W_k^-1 S_k). Where some covariances are
// held at 0 there is no closed form: Q is maximised over the others (a conditional step in the sense of X.-L. Meng and
// D. B. Rubin, Biometrika 80:267, 1993). W_k^-1 then has zeros wherever the store lacks products of residuals, so that
// these are never asked for; completing missing records would need them.
#include "control/numbers.h"
#include "control/options.h"
#include "data/datavecs.h"
#include "dense/numroutines.h"
#include "likelihood/emquants.h"
#include "parameters/parvec.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/stop.h"

#include <algorithm>
#include <cmath>

namespace tarvex {

namespace {

constexpr double least_eigenvalue = 1.0e-4; // of a covariance matrix: what is below is raised when it is used
constexpr double least_share = 0.2;         // of its old value that a variance keeps in a step that is cut
constexpr int most_steps = 100;
constexpr double rounding = 1.0e-13;  // of the objective
constexpr double least_step = 1.0e-6; // share of a step that is still tried
constexpr double balance_step = 0.25; // shares of the repeat covariances that are tried
constexpr double same = 1.0e-11;      // relative change of the covariances that ends the steps

bool single_records() {
    if (residualvars.peqsum) return false;
    for (const auto& counts : combinations.nqcombi)
        for (int n : counts)
            if (n > 1) return false;
    return true;
}

bool any_held() {
    return std::any_of(residualvars.fixres.begin(), residualvars.fixres.end(), [](int f) { return f != 0; });
}

vector1<double> current_values() {
    vector1<double> theta;
    for (int k = 1; k <= estimates.nresparm; ++k) theta.push_back(residualvars.rpars(k));
    for (const peq_place& p : peq_places()) theta.push_back(residualvars.sigpeq(p.residual));
    return theta;
}

// At most one record a trait: the missing residuals of a pattern are completed by regression on those observed.
vector1<double> complete_patterns(const em_quantities& q) {
    const int nq = numbers.nq;
    // no covariance of it is held: R is the packed residual part of the parameters
    const array<double, 2> R = unpack(residualvars.rpars.prefix(triangle(nq)), nq);
    array<double, 2> sum;
    sum.allocate(nq, nq);
    double subjects = 0.0;
    for (int k = 1; k <= combinations.ncombi; ++k) {
        const pattern_matrix& s = q.residuals(k);
        if (s.n == 0) continue;
        const double np = combinations.ncomb_subj(k);
        // every subject counts, whatever it lacks
        subjects += np;
        const vector1<int> o = pattern_traits(k);
        const pattern_matrix& inv = residualvars.eei(k);
        // B = R(all,o) R(o,o)^-1: regression on the records of the pattern
        array<double, 2> B;
        B.allocate(nq, s.n);
        for (int i = 1; i <= nq; ++i)
            for (int j = 1; j <= s.n; ++j)
                for (int l = 1; l <= s.n; ++l) B(i, j) += R(i, o(l)) * inv(l, j);
        for (int i = 1; i <= nq; ++i)
            for (int j = 1; j <= nq; ++j) {
                // E(e e') = np (R - B R(o,.)) + B S B'
                double x = np * R(i, j);
                for (int l = 1; l <= s.n; ++l) {
                    x -= np * B(i, l) * R(o(l), j);
                    for (int m = 1; m <= s.n; ++m) x += B(i, l) * s(l, m) * B(j, m);
                }
                sum(i, j) += x;
            }
    }
    vector1<double> theta;
    for (int i = 1; i <= nq; ++i)
        // symmetric but for rounding
        for (int j = i; j <= nq; ++j) theta.push_back(0.5 * (sum(i, j) + sum(j, i)) / subjects);
    return theta;
}

// One trait with independent records: the mean square.
double one_variance(const em_quantities& q) {
    double ss = 0.0, n = 0.0;
    for (int k = 1; k <= combinations.ncombi; ++k) {
        const pattern_matrix& s = q.residuals(k);
        // records of a pattern are counted one by one
        for (int i = 1; i <= s.n; ++i) ss += s(i, i);
        n += static_cast<double>(s.n) * combinations.ncomb_subj(k);
    }
    return residualvars.fixres(1) ? 0.0 : ss / n;
}

// ---- matrices of the patterns

// Matrix of a pattern at the parameters theta (residual sum, PEQ behind it).
void pattern_variance(const vector1<int>& traits, const vector1<double>& theta, array<double, 2>& w) {
    const int n = static_cast<int>(traits.size());
    w.allocate(n, n);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) {
            int pars[2];
            const int np = residual_pars(traits(i), traits(j), 1, i == j, pars);
            for (int p = 0; p < np; ++p) w(i, j) += theta(pars[p]);
        }
}

// Its Cholesky factor; false where it is not positive definite.
bool pattern_factor(const vector1<int>& traits, const vector1<double>& theta, array<double, 2>& factor) {
    pattern_variance(traits, theta, factor);
    return cholesky(factor, static_cast<int>(traits.size()));
}

// -2 Q at theta; false where a pattern's matrix is not positive definite.
bool residual_objective(const em_quantities& q, const vector1<double>& theta, double& value) {
    value = 0.0;
    array<double, 2> factor;
    for (int k = 1; k <= combinations.ncombi; ++k) {
        const pattern_matrix& s = q.residuals(k);
        const int n = s.n;
        if (n == 0) continue;
        if (!pattern_factor(pattern_traits(k), theta, factor)) return false;
        // log|W| = 2 sum log of the factor's diagonal
        for (int j = 1; j <= n; ++j) value += 2.0 * combinations.ncomb_subj(k) * std::log(factor(j, j));
        for (int c = 1; c <= n; ++c) { // trace of W^-1 S, column by column
            vector1<double> x(n);
            for (int i = 1; i <= n; ++i) x(i) = s(i, c);
            solve(n, factor, x, x);
            value += x(c);
        }
    }
    return true;
}

// Inverses of the patterns' matrices at theta, where they are positive definite.
vector1<pattern_matrix> pattern_inverses(const em_quantities& q, const vector1<double>& theta) {
    vector1<pattern_matrix> list(q.residuals.size());
    array<double, 2> factor;
    for (int k = 1; k <= combinations.ncombi; ++k) {
        pattern_matrix& inv = list(k);
        const int n = q.residuals(k).n;
        if (n == 0) continue;
        inv.reset(n, false);
        if (!pattern_factor(pattern_traits(k), theta, factor)) stop("this should not happen");
        for (int c = 1; c <= n; ++c) {
            vector1<double> x(n);
            x(c) = 1.0;
            solve(n, factor, x, x);
            for (int i = 1; i <= n; ++i) inv(i, c) = x(i);
        }
    }
    return list;
}

// ---- which covariances may be

struct least_eigenvalues {
    double sum = 0.0, residual = 0.0, peq = 0.0;
};

double least_of(array<double, 2>& a, int n) {
    array<double, 2> vectors;
    array<double> eig;
    int nzero = 0;
    eigem(a, eig, vectors, n, 0.0, nzero);
    return eig(n);
}

// Of the matrix that the parameters hold, and of its parts where it is the sum of residual and PEQ matrix.
least_eigenvalues margins(const vector1<double>& theta) {
    const int nq = numbers.nq;
    array<double, 2> a, peq;
    a.allocate(nq, nq);
    for (int i = 1; i <= nq; ++i)
        for (int j = i; j <= nq; ++j) a(i, j) = a(j, i) = theta(ihmssf(i, j, nq));
    least_eigenvalues m;
    m.sum = m.residual = m.peq = least_of(a, nq);
    const auto places = peq_places();
    if (places.empty()) return m;
    const int n = model.kkfit(residualvars.ipeq);
    peq.allocate(n, n);
    // the residual parameters hold R + PEQ: the PEQ matrix is taken off again
    int k = estimates.nresparm;
    for (const peq_place& p : places) {
        const int i = mudmap.rn_trait(p.i, residualvars.ipeq), j = mudmap.rn_trait(p.j, residualvars.ipeq);
        const double x = theta(++k);
        peq(p.i, p.j) = peq(p.j, p.i) = x;
        a(i, j) -= x;
        if (i != j) a(j, i) -= x;
    }
    m.residual = least_of(a, nq);
    m.peq = least_of(peq, n);
    return m;
}

// All matrices are positive definite, or no nearer to singular than they were.
bool may_be(const vector1<double>& theta, const least_eigenvalues& old) {
    const least_eigenvalues m = margins(theta);
    const auto holds = [](double now, double before) { return now >= std::min(before, least_eigenvalue); };
    return holds(m.sum, old.sum) && holds(m.residual, old.residual) && holds(m.peq, old.peq);
}

// Variances that a step would take below a share of their old values, or below what a matrix may have, are held there:
// residual and PEQ ones.
vector1<double> with_variances(vector1<double> theta, const vector1<double>& old) {
    const int nq = numbers.nq;
    const auto residual = [&](int i) { return ihmssf(i, i, nq); };
    vector1<double> peq(nq), old_peq(nq);
    // just above what would be raised when it is used
    constexpr double floor = 1.0001 * least_eigenvalue;
    int k = estimates.nresparm;
    for (const peq_place& p : peq_places()) {
        // places count covariances too, the bounds are for variances
        const int place = ++k;
        if (p.i != p.j) continue;
        theta(place) = std::max({theta(place), least_share * old(place), std::min(old(place), floor)});
        const int q = mudmap.rn_trait(p.i, residualvars.ipeq);
        peq(q) = theta(place);
        old_peq(q) = old(place);
    }
    for (int i = 1; i <= nq; ++i) {
        // of the residual part alone
        const double before = old(residual(i)) - old_peq(i);
        const double least = std::max(least_share * before, std::min(before, floor));
        theta(residual(i)) = std::max(theta(residual(i)), peq(i) + least);
    }
    return theta;
}

// The records know the covariance of two traits only as a sum, residual + 2 PEQ. Moves it towards equal residual and
// PEQ correlations, by `share` of the way; the sum stays.
vector1<double> balanced(vector1<double> theta, double share) {
    const int nq = numbers.nq, ipeq = residualvars.ipeq;
    if (ipeq == 0 || model.diagonal(ipeq)) return theta;
    const int n = model.kkfit(ipeq);
    const auto peq = [&](int i, int j) -> double& { return theta(estimates.nresparm + packed_place(i, j, n)); };
    for (const peq_place& p : peq_places()) {
        const int i = mudmap.rn_trait(p.i, ipeq), j = mudmap.rn_trait(p.j, ipeq);
        if (i == j || residualvars.fixres(p.residual)) continue;
        const double pp = peq(p.i, p.i) * peq(p.j, p.j);
        const double rr =
            (theta(packed_place(i, i, nq)) - peq(p.i, p.i)) * (theta(packed_place(j, j, nq)) - peq(p.j, p.j));
        if (!(pp > 0.0) || !(rr > 0.0)) continue;
        double& sum = theta(p.residual);
        // residual part rho sqrt(rr), PEQ part rho sqrt(pp): rho from the total that the records know
        const double total = sum + peq(p.i, p.j);
        const double correlation = total / (std::sqrt(rr) + 2.0 * std::sqrt(pp));
        const double move = share * (correlation * std::sqrt(pp) - peq(p.i, p.j));
        peq(p.i, p.j) += move;
        sum -= move;
    }
    return theta;
}

// ---- steps of scoring

// Normal equations of a scoring step with the patterns' inverses: W is linear in theta. Covariances that the data know
// only as a sum keep to their values as far as they can.
vector1<double> scoring_change(const em_quantities& q, const vector1<double>& old,
                               const vector1<pattern_matrix>& inverses) {
    const int n = estimates.nrespeq;
    array<double, 2> w;
    vector1<double> h(n), info(triangle<std::ptrdiff_t>(n));
    for (int k = 1; k <= combinations.ncombi; ++k) {
        const pattern_matrix& s = q.residuals(k);
        if (s.n == 0) continue;
        const pattern_matrix& inv = inverses(k);
        const vector1<int> traits = pattern_traits(k);
        add_residual_terms(between_inverses(inv, s), traits, {}, {}, 1.0, h);
        // row l of the information: n_k tr(W^-1 W_l W^-1 W_m)
        for (int l = 1; l <= n; ++l) {
            vector1<double> unit(n), f(n);
            unit(l) = 1.0;
            pattern_variance(traits, unit, w);
            if (std::all_of(w.begin(), w.end(), [](double x) { return x == 0.0; })) continue;
            pattern_matrix wl;
            wl.reset(s.n, false);
            std::copy(w.begin(), w.end(), wl.v.begin());
            add_residual_terms(between_inverses(inv, wl), traits, {}, {}, combinations.ncomb_subj(k), f);
            for (int m = l; m <= n; ++m) info(ihmssf(l, m, n)) += f(m);
        }
    }
    for (int i = 1; i <= n; ++i) // the score is what remains at the old values
        for (int j = 1; j <= n; ++j) h(i) -= info(packed_place(i, j, n)) * old(j);
    vector1<double> scale(n), change(n);
    for (int i = 1; i <= n; ++i) {
        const double d = info(ihmssf(i, i, n));
        if (d > 0.0) scale(i) = 1.0 / std::sqrt(d);
    }
    // unit diagonal, so that one limit tells what the data cannot know
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) info(ihmssf(i, j, n)) *= scale(i) * scale(j);
    int rank = 0;
    double ldet = 0.0;
    // what they cannot know gets no change
    gen_inverse(info, n, numbers.zero, rank, ldet);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) change(i) += info(packed_place(i, j, n)) * scale(i) * scale(j) * h(j);
    return change;
}

// The longest of the halved steps that does not lose, with all matrices as they may be; the old values where none is.
vector1<double> guarded(const em_quantities& q, const vector1<double>& old, const vector1<double>& change) {
    const least_eigenvalues from = margins(old);
    double before = 0.0, now = 0.0;
    residual_objective(q, old, before);
    const double limit = before + rounding * std::fabs(before);
    vector1<double> theta(old.size());
    // first the step as it is, then with variances held; with a repeat effect also nearer to balance
    for (double step = 1.0; step > least_step; step *= 0.5) {
        for (int i = 1; i <= theta.size(); ++i) theta(i) = old(i) + step * change(i);
        for (const vector1<double>& base : {theta, with_variances(theta, old)})
            for (double share = 0.0; share <= (residualvars.peqsum ? 1.0 : 0.0); share += balance_step) {
                const vector1<double> trial = share > 0.0 ? balanced(base, share) : base;
                if (may_be(trial, from) && residual_objective(q, trial, now) && now <= limit) return trial;
            }
    }
    return old;
}

vector1<double> scoring_step(const em_quantities& q) {
    const vector1<double> old = current_values();
    return guarded(q, old, scoring_change(q, old, residualvars.eei));
}

// Maximiser of Q with the covariances held at 0 left there, by steps of scoring.
vector1<double> held_maximiser(const em_quantities& q) {
    vector1<double> theta = current_values();
    for (int step = 1; step <= most_steps; ++step) {
        const vector1<double> old = theta;
        theta = guarded(q, old, scoring_change(q, old, pattern_inverses(q, old)));
        double change = 0.0, size = 0.0;
        for (int i = 1; i <= theta.size(); ++i) {
            change = std::max(change, std::fabs(theta(i) - old(i)));
            size = std::max(size, std::fabs(theta(i)));
        }
        if (change <= same * size) break;
    }
    return theta;
}

} // namespace

vector1<double> covarsres(const em_quantities& q) {
    if (!options.randreg && numbers.nq == 1 && !residualvars.peqsum) return {one_variance(q)};
    if (!options.randreg && !single_records()) return scoring_step(q);
    if (!options.randreg) return any_held() ? held_maximiser(q) : complete_patterns(q);
    vector1<double> theta;
    for (int c = 1; c <= q.class_ss.size(); ++c) {
        const bool fixed = residualvars.fixres(c) != 0;
        theta.push_back(fixed ? 0.0 : q.class_n(c) > 0.0 ? q.class_ss(c) / q.class_n(c) : residualvars.sigres(1, c));
    }
    return theta;
}

} // namespace tarvex
