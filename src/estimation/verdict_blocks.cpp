// Covariance matrices at the end of a search: blocks of variances, full matrices by their eigenvectors, and matrices
// with elements held at 0, near the border.
#include "dense/inner.h"
#include "dense/numroutines.h"
#include "estimation/verdict_parts.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tarvex {

namespace {

constexpr double longest_lift = 0.25; // step away from the border, in units of the scale
constexpr double dependent = 1.0e-10; // of the largest eigenvalue: rows that depend on each other count once
constexpr double least_gap = 1.0e-12; // between an eigenvalue that has gone and one that has not

std::string number(double x) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3g", x);
    return text;
}

bool held(const judged_block& b, int element) { return !b.fixed.empty() && b.fixed(element) != 0; }

double curvature_along(const judgement& j, const direction& d) {
    const vector1<double> image = j.image(d);
    double curvature = 0.0;
    for (const share& x : d.shares) curvature += x.coef * image(x.par);
    return curvature;
}

// Notes the Newton step along a direction that leads away from the border, at most a quarter of the scale.
void note_lift(judgement& j, const direction& d) {
    const double slope = j.slope(d), curvature = curvature_along(j, d);
    // Newton's step where the border is curved enough, a quarter of the scale at most
    const double step = curvature > slope / longest_lift ? slope / curvature : longest_lift;
    // what it promises
    if (0.5 * step * slope < verdict_limit) return;
    std::vector<parameter_change> lift;
    for (const share& x : d.shares) lift.push_back({x.par, step * x.coef});
    j.verdict.lifts.push_back(std::move(lift));
}

double element(const judged_block& b, int i, int k) {
    if (b.diagonal) return i == k ? b.cov(i) : 0.0;
    return b.cov(packed(b, i, k));
}

struct scaled_matrix {
    array<double, 2> s, vectors; // matrix in units of the scales, its eigenvectors by columns
    array<double> eig;           // eigenvalues, descending
};

scaled_matrix scaled(const judged_block& b) {
    const int n = b.order();
    scaled_matrix m;
    m.s.allocate(n, n);
    for (int i = 1; i <= n; ++i)
        for (int k = i; k <= n; ++k) m.s(i, k) = m.s(k, i) = element(b, i, k) / std::sqrt(b.scale(i) * b.scale(k));
    int nzero = 0;
    eigem(m.s, m.eig, m.vectors, n, 0.0, nzero);
    return m;
}

// ---- blocks of variances, and blocks with elements held at 0

void judge_variance(judgement& j, const judged_block& b, int element, int row) {
    if (held(b, element)) return;
    const int par = b.first + element - 1;
    const double value = b.cov(element), scale = b.scale(row);
    const double slope = j.slope({{{par, 1.0}}});
    // gone, and log L falls with it: all that is left to gain is what the rest of it still costs
    if (value < vanished_variance * scale && slope <= 0.0) {
        j.verdict.promised += std::max(value, 0.0) * -slope;
        j.verdict.border.push_back("variance of " + b.name + ", " + b.rows(row) + " is " + number(value));
        j.verdict.void_errors.push_back(par);
        return;
    }
    // in units of the scale; it can fall to 0 and no further
    j.free.push_back({{{par, scale}},
                      0.0,
                      -std::max(value, 0.0) / scale,
                      "variance of " + b.name + ", " + b.rows(row) + " is " + number(value)});
    if (value < vanished_variance * scale) note_lift(j, j.free.back());
}

void keep_eigenvalues(judgement& j, const judged_block& b, const scaled_matrix& m) {
    std::vector<double> list;
    for (int k = 1; k <= b.order(); ++k) list.push_back(m.eig(k));
    j.verdict.eigenvalues.emplace_back(b.name, std::move(list));
}

void judge_elements(judgement& j, const judged_block& b) {
    const int n = b.order();
    keep_eigenvalues(j, b, scaled(b));
    for (int i = 1; i <= n; ++i) {
        judge_variance(j, b, packed(b, i, i), i);
        for (int k = i + 1; k <= n && !b.diagonal; ++k)
            if (const int e = packed(b, i, k); !held(b, e))
                j.free.push_back({{{b.first + e - 1, std::sqrt(b.scale(i) * b.scale(k))}}});
    }
}

// ---- full matrices

// Change of the matrix by v_p v_q' + v_q v_p' (once for p = q).
direction eigen_direction(const judged_block& b, const scaled_matrix& m, int p, int q) {
    const int n = b.order();
    direction d;
    for (int i = 1; i <= n; ++i)
        for (int k = i; k <= n; ++k) {
            double e = m.vectors(i, p) * m.vectors(k, q);
            if (p != q) e += m.vectors(i, q) * m.vectors(k, p);
            // covariance (i,k) is one parameter for both of its places
            d.shares.push_back({b.first + packed(b, i, k) - 1, e * std::sqrt(b.scale(i) * b.scale(k))});
        }
    return d;
}

// The eigenvalue has all but gone: against the phenotypic variances, or against the variances that its vector weighs.
bool vanishing(const scaled_matrix& m, int k, int n) {
    double weighed = 0.0;
    for (int i = 1; i <= n; ++i) weighed += m.vectors(i, k) * m.vectors(i, k) * m.s(i, i);
    return m.eig(k) < vanished_variance || m.eig(k) < vanished_correlation * weighed;
}

std::string eigenvalue_name(const judged_block& b, const scaled_matrix& m, int k) {
    return "eigenvalue " + std::to_string(k) + " of " + std::to_string(b.order()) + " of " + b.name + " is " +
           number(m.eig(k)) + " of the phenotypic variance";
}

void name_border(judgement& j, const judged_block& b, const scaled_matrix& m, const vector1<int>& gone) {
    const int n = b.order();
    auto& told = j.verdict.border;
    const std::size_t before = told.size();
    for (int i = 1; i <= n; ++i)
        if (m.s(i, i) < vanished_variance)
            told.push_back("variance of " + b.name + ", " + b.rows(i) + " is " + number(b.cov(packed(b, i, i))));
    for (int i = 1; i <= n; ++i)
        for (int k = i + 1; k <= n; ++k) {
            // of variances that are there: correlations of what has gone mean nothing
            const double r = m.s(i, k) / std::sqrt(m.s(i, i) * m.s(k, k));
            if (m.s(i, i) >= vanished_variance && m.s(k, k) >= vanished_variance &&
                std::fabs(r) > 1.0 - vanished_correlation)
                told.push_back("correlation of " + b.name + ", " + b.rows(i) + " and " + b.rows(k) + " is " +
                               number(r));
        }
    if (told.size() == before)
        for (int k : gone) told.push_back(eigenvalue_name(b, m, k));
}

void judge_matrix(judgement& j, const judged_block& b) {
    const int n = b.order();
    const scaled_matrix m = scaled(b);
    keep_eigenvalues(j, b, m);
    vector1<int> gone;
    vector1<double> fall(n);
    for (int k = 1; k <= n; ++k) {
        if (!vanishing(m, k, n)) continue;
        const direction inwards = eigen_direction(b, m, k, k);
        const double slope = j.slope(inwards);
        if (slope > 0.0) {
            note_lift(j, inwards);
            continue;
        }
        // A maximum along the direction that lies inside, however near to the border, is none at the border.
        if (!j.matrices_only && -slope < m.eig(k) * curvature_along(j, inwards)) continue;
        gone.push_back(k);
        fall(k) = -slope;
        j.verdict.promised += std::max(m.eig(k), 0.0) * -slope;
    }
    const auto is_gone = [&](int k) { return std::find(gone.begin(), gone.end(), k) != gone.end(); };
    for (int p = 1; p <= n; ++p)
        for (int q = p; q <= n; ++q) {
            // within the space of what has gone nothing is free
            if (is_gone(p) && is_gone(q)) continue;
            direction d = eigen_direction(b, m, p, q);
            if (p == q) {
                // the eigenvalue ends at 0
                d.least = -std::max(m.eig(p), 0.0);
                d.vanishes = n == 1 ? "variance of " + b.name + ", " + b.rows(1) + " is " + number(b.cov(1))
                                    : eigenvalue_name(b, m, p);
            }
            for (const auto& [low, high] : {std::pair{p, q}, std::pair{q, p}})
                // A tilt by c lowers the eigenvalue that has gone by c^2/gap; to stay inside the matrix must rise by as
                // much, which costs that much of log L: second derivative 2 fall/gap.
                if (is_gone(low)) d.curvature += 2.0 * fall(low) / std::max(m.eig(high) - m.eig(low), least_gap);
            j.free.push_back(std::move(d));
        }
    if (gone.empty()) return;
    name_border(j, b, m, gone);
    // the whole matrix: its elements move together along the border
    for (int e = 1; e <= triangle(n); ++e) j.verdict.void_errors.push_back(b.first + e - 1);
}

// ---- matrices with elements held at 0, near the border

// The changes that such a matrix is free to make, in units of the scales.
struct held_matrix {
    const judged_block& b;
    scaled_matrix m;
    vector1<std::pair<int, int>> elements;
    vector1<double> gradient;

    // v_p' C v_q by element of the change C.
    vector1<double> weights(int p, int q) const {
        vector1<double> w;
        for (const auto& [i, k] : elements)
            w.push_back(m.vectors(i, p) * m.vectors(k, q) + (i == k ? 0.0 : m.vectors(k, p) * m.vectors(i, q)));
        return w;
    }
    direction along(const vector1<double>& x) const {
        direction d;
        for (int e = 1; e <= x.size(); ++e) {
            const auto [i, k] = elements(e);
            d.shares.push_back({b.first + packed(b, i, k) - 1, x(e) * std::sqrt(b.scale(i) * b.scale(k))});
        }
        return d;
    }
};

held_matrix free_changes(const judgement& j, const judged_block& b) {
    held_matrix h{b, scaled(b), {}, {}};
    for (int i = 1; i <= b.order(); ++i)
        for (int k = i; k <= b.order(); ++k)
            if (!held(b, packed(b, i, k))) h.elements.push_back({i, k});
    // slope by each free element, in units of the scales
    for (int e = 1; e <= h.elements.size(); ++e) {
        vector1<double> unit(h.elements.size());
        unit(e) = 1.0;
        h.gradient.push_back(j.slope(h.along(unit)));
    }
    return h;
}

// Least squares of -gradient by the rows (multipliers of the constraints that they are), and an orthonormal basis of
// what the rows leave.
struct constrained {
    vector1<double> multipliers;
    vector1<vector1<double>> basis;
};
constrained beside(const vector1<vector1<double>>& rows, const vector1<double>& gradient) {
    const int r = static_cast<int>(rows.size()), n = static_cast<int>(gradient.size());
    array<double, 2> a, vectors, left;
    array<double> eig;
    int nzero = 0;
    a.allocate(r, r);
    for (int i = 1; i <= r; ++i)
        for (int k = 1; k <= r; ++k) a(i, k) = inner(rows(i), rows(k));
    eigem(a, eig, vectors, r, 0.0, nzero);
    left.allocate(n, n);
    for (int i = 1; i <= n; ++i) left(i, i) = 1.0;
    constrained c;
    c.multipliers.assign(r, 0.0);
    for (int k = 1; k <= r && eig(k) > dependent * eig(1); ++k) {
        vector1<double> u(n);
        for (int i = 1; i <= r; ++i)
            for (int e = 1; e <= n; ++e) u(e) += vectors(i, k) * rows(i)(e);
        const double s = -inner(u, gradient) / eig(k);
        for (int i = 1; i <= r; ++i) c.multipliers(i) += vectors(i, k) * s;
        for (int e = 1; e <= n; ++e)
            for (int f = 1; f <= n; ++f) left(e, f) -= u(e) * u(f) / eig(k);
    }
    eigem(left, eig, vectors, n, 0.0, nzero);
    // a projection: eigenvalues are 1 or 0
    for (int k = 1; k <= n && eig(k) > 0.5; ++k) {
        c.basis.push_back({});
        for (int e = 1; e <= n; ++e) c.basis.back().push_back(vectors(e, k));
    }
    return c;
}

// Directions along the border: each is free, and tilts the eigenvectors that have gone, which costs their multipliers.
void free_beside(judgement& j, const held_matrix& h, const vector1<int>& gone, const vector1<double>& fall,
                 const vector1<vector1<double>>& basis) {
    const int t = static_cast<int>(basis.size());
    array<double, 2> curvature, vectors;
    array<double> eig;
    curvature.allocate(t, t);
    for (int q = 1; q <= h.b.order(); ++q) {
        if (std::find(gone.begin(), gone.end(), q) != gone.end()) continue;
        for (int g = 1; g <= gone.size(); ++g) {
            const vector1<double> w = h.weights(gone(g), q);
            const double weight = 2.0 * fall(g) / std::max(h.m.eig(q) - h.m.eig(gone(g)), least_gap);
            for (int a = 1; a <= t; ++a)
                for (int c = 1; c <= t; ++c) curvature(a, c) += weight * inner(w, basis(a)) * inner(w, basis(c));
        }
    }
    int nzero = 0;
    if (t > 0) eigem(curvature, eig, vectors, t, 0.0, nzero);
    for (int k = 1; k <= t; ++k) {
        vector1<double> x(h.elements.size());
        for (int a = 1; a <= t; ++a)
            for (int e = 1; e <= x.size(); ++e) x(e) += vectors(a, k) * basis(a)(e);
        direction d = h.along(x);
        d.curvature = std::max(eig(k), 0.0);
        j.free.push_back(std::move(d));
    }
}

// A step that raises the eigenvalue k, and those alone that elements held at 0 bind to it.
direction raising(const held_matrix& h, int k) {
    vector1<double> w = h.weights(k, k);
    const double size = inner(w, w);
    for (double& x : w) x /= size;
    return h.along(w);
}

// Judges a matrix of which an eigenvalue has all but gone with log L falling that way. False: there is none.
bool at_border_beside_zeros(judgement& j, const judged_block& b) {
    const held_matrix h = free_changes(j, b);
    vector1<int> gone;
    for (int k = 1; k <= b.order(); ++k)
        if (vanishing(h.m, k, b.order())) gone.push_back(k);
    constrained c;
    while (!gone.empty()) { // the one along which log L rises most, or has its maximum inside, is let go
        vector1<vector1<double>> rows;
        for (int p = 1; p <= gone.size(); ++p) rows.push_back(h.weights(gone(p), gone(p)));
        // the whole space of what has gone stays where it is: products of its vectors too
        for (int p = 1; p <= gone.size(); ++p)
            for (int q = p + 1; q <= gone.size(); ++q) rows.push_back(h.weights(gone(p), gone(q)));
        c = beside(rows, h.gradient);
        int worst = 0;
        double most = 0.0;
        for (int p = 1; p <= gone.size() && !j.matrices_only; ++p) {
            // above 0: a multiplier of the wrong sign, or a maximum before the eigenvalue is 0
            const double inside = h.m.eig(gone(p)) * curvature_along(j, raising(h, gone(p))) - c.multipliers(p);
            if (!(inside > most)) continue;
            most = inside;
            worst = p;
        }
        if (worst == 0) break;
        if (c.multipliers(worst) < 0.0) note_lift(j, raising(h, gone(worst)));
        gone.erase(worst);
    }
    if (gone.empty()) return false;
    keep_eigenvalues(j, b, h.m);
    for (int p = 1; p <= gone.size(); ++p)
        j.verdict.promised += std::max(h.m.eig(gone(p)), 0.0) * std::max(c.multipliers(p), 0.0);
    free_beside(j, h, gone, c.multipliers, c.basis);
    name_border(j, b, h.m, gone);
    for (int e = 1; e <= triangle(b.order()); ++e)
        if (!held(b, e)) j.verdict.void_errors.push_back(b.first + e - 1);
    return true;
}

void judge_parameter(judgement& j, const judged_parameter& p) {
    const double slope = j.slope({{{p.par, 1.0}}}), least = vanished_element * p.scale;
    const bool rises = slope * p.value > 0.0; // elements of a factor come in either sign
    // matrices that are looked at alone have no slope, and no information
    const double information = rises ? j.information(p.par, p.par) : 0.0;
    // what rises away from 0 by no more than Newton's step leaves it is at the border as well
    const bool stays = rises && information > 0.0 && std::fabs(p.value + slope / information) < least;
    if (std::fabs(p.value) < least && (!rises || stays)) {
        j.verdict.promised += rises ? 0.5 * slope * slope / information : std::fabs(p.value * slope);
        j.verdict.border.push_back(p.name + " is " + number(p.value));
        j.verdict.void_errors.push_back(p.par);
        return;
    }
    j.free.push_back({{{p.par, p.scale}}});
}

} // namespace

void judge_blocks(judgement& j) {
    for (const judged_block& b : j.point.blocks) {
        const bool elements = std::any_of(b.fixed.begin(), b.fixed.end(), [](int f) { return f != 0; });
        if (!b.diagonal && !elements)
            judge_matrix(j, b);
        else if (b.diagonal || !at_border_beside_zeros(j, b))
            judge_elements(j, b);
    }
    for (const judged_parameter& p : j.point.others) judge_parameter(j, p);
}

} // namespace tarvex
