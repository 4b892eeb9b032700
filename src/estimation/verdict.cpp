#include "estimation/verdict.h"

#include "dense/numroutines.h"
#include "support/edit_form.h"
#include "support/screen.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tarvex {

namespace {

constexpr double longest_lift = 0.25;      // step away from the border, in units of the scale
constexpr double least_gap = 1.0e-12;      // between an eigenvalue that has gone and one that has not
constexpr double named_share = 0.3;        // of the largest: parameters of a flat combination that are named
constexpr double no_curvature = 1.0e-12;   // against the largest of all directions
constexpr double upward = 1.0e-10;         // slope that lets a held direction go
constexpr double short_of_border = 0.9999; // of the way to it

std::size_t at(int i) { return static_cast<std::size_t>(i); }

struct share { // change `coef` of parameter `par` for one unit along the direction
    int par;
    double coef;
};
// A way in which the point may move.
struct direction {
    std::vector<share> shares;
    double curvature = 0.0;    // of the border, beyond that of the likelihood
    double least = -1.0e36;    // how far it leads before something vanishes
    std::string vanishes = {}; // what does so, in words
};

struct judgement {
    const judged_point& point;
    search_verdict verdict;
    std::vector<direction> free;
    bool matrices_only = false; // there is no gradient
    int size() const { return static_cast<int>(point.gradient.size()); }
    double information(int i, int j) const { return point.information[at(packed_place(i, j, size()) - 1)]; }
    double slope(const direction& d) const {
        double s = 0.0;
        if (matrices_only) return s;
        for (const share& x : d.shares) s += x.coef * point.gradient[at(x.par - 1)];
        return s;
    }
    // Information times the direction.
    std::vector<double> image(const direction& d) const {
        std::vector<double> h(at(size()), 0.0);
        for (const share& x : d.shares)
            for (int i = 1; i <= size(); ++i) h[at(i - 1)] += x.coef * information(i, x.par);
        return h;
    }
};

std::string number(double x) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3g", x);
    return text;
}

int packed(const judged_block& b, int i, int j) { return packed_place(i, j, b.order()); }
bool held(const judged_block& b, int element) { return !b.fixed.empty() && b.fixed[at(element - 1)] != 0; }

double curvature_along(const judgement& j, const direction& d) {
    const std::vector<double> image = j.image(d);
    double curvature = 0.0;
    for (const share& x : d.shares) curvature += x.coef * image[at(x.par - 1)];
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
    if (b.diagonal) return i == k ? b.cov[at(i - 1)] : 0.0;
    return b.cov[at(packed(b, i, k) - 1)];
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
        for (int k = i; k <= n; ++k)
            m.s(i, k) = m.s(k, i) = element(b, i, k) / std::sqrt(b.scale[at(i - 1)] * b.scale[at(k - 1)]);
    int nzero = 0;
    eigem(m.s, m.eig, m.vectors, n, 0.0, nzero);
    return m;
}

// ---- blocks of variances, and blocks with elements held at 0

void judge_variance(judgement& j, const judged_block& b, int element, int row) {
    if (held(b, element)) return;
    const int par = b.first + element - 1;
    const double value = b.cov[at(element - 1)], scale = b.scale[at(row - 1)];
    const double slope = j.slope({{{par, 1.0}}});
    // gone, and log L falls with it: all that is left to gain is what the rest of it still costs
    if (value < vanished_variance * scale && slope <= 0.0) {
        j.verdict.promised += std::max(value, 0.0) * -slope;
        j.verdict.border.push_back("variance of " + b.name + ", " + b.rows[at(row - 1)] + " is " + number(value));
        j.verdict.void_errors.push_back(par);
        return;
    }
    // in units of the scale; it can fall to 0 and no further
    j.free.push_back({{{par, scale}},
                      0.0,
                      -std::max(value, 0.0) / scale,
                      "variance of " + b.name + ", " + b.rows[at(row - 1)] + " is " + number(value)});
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
        judge_variance(j, b, b.diagonal ? i : packed(b, i, i), i);
        for (int k = i + 1; k <= n && !b.diagonal; ++k)
            if (const int e = packed(b, i, k); !held(b, e))
                j.free.push_back({{{b.first + e - 1, std::sqrt(b.scale[at(i - 1)] * b.scale[at(k - 1)])}}});
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
            d.shares.push_back({b.first + packed(b, i, k) - 1, e * std::sqrt(b.scale[at(i - 1)] * b.scale[at(k - 1)])});
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

void name_border(judgement& j, const judged_block& b, const scaled_matrix& m, const std::vector<int>& gone) {
    const int n = b.order();
    auto& told = j.verdict.border;
    const std::size_t before = told.size();
    for (int i = 1; i <= n; ++i)
        if (m.s(i, i) < vanished_variance)
            told.push_back("variance of " + b.name + ", " + b.rows[at(i - 1)] + " is " +
                           number(b.cov[at(packed(b, i, i) - 1)]));
    for (int i = 1; i <= n; ++i)
        for (int k = i + 1; k <= n; ++k) {
            // of variances that are there: correlations of what has gone mean nothing
            const double r = m.s(i, k) / std::sqrt(m.s(i, i) * m.s(k, k));
            if (m.s(i, i) >= vanished_variance && m.s(k, k) >= vanished_variance &&
                std::fabs(r) > 1.0 - vanished_correlation)
                told.push_back("correlation of " + b.name + ", " + b.rows[at(i - 1)] + " and " + b.rows[at(k - 1)] +
                               " is " + number(r));
        }
    if (told.size() == before)
        for (int k : gone) told.push_back(eigenvalue_name(b, m, k));
}

void judge_matrix(judgement& j, const judged_block& b) {
    const int n = b.order();
    const scaled_matrix m = scaled(b);
    keep_eigenvalues(j, b, m);
    std::vector<int> gone;
    std::vector<double> fall(at(n + 1), 0.0);
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
        fall[at(k)] = -slope;
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
                d.vanishes = n == 1 ? "variance of " + b.name + ", " + b.rows[0] + " is " + number(b.cov[0])
                                    : eigenvalue_name(b, m, p);
            }
            for (const auto& [low, high] : {std::pair{p, q}, std::pair{q, p}})
                // A tilt by c lowers the eigenvalue that has gone by c^2/gap; to stay inside the matrix must rise by
                // as much, which
                // costs that much of log L: second derivative 2 fall/gap.
                if (is_gone(low)) d.curvature += 2.0 * fall[at(low)] / std::max(m.eig(high) - m.eig(low), least_gap);
            j.free.push_back(std::move(d));
        }
    if (gone.empty()) return;
    name_border(j, b, m, gone);
    // the whole matrix: its elements move together along the border
    for (int e = 1; e <= n * (n + 1) / 2; ++e) j.verdict.void_errors.push_back(b.first + e - 1);
}

// ---- matrices with elements held at 0, near the border

// The changes that such a matrix is free to make, in units of the scales.
struct held_matrix {
    const judged_block& b;
    scaled_matrix m;
    std::vector<std::pair<int, int>> elements;
    std::vector<double> gradient;

    // v_p' C v_q by element of the change C.
    std::vector<double> weights(int p, int q) const {
        std::vector<double> w;
        for (const auto& [i, k] : elements)
            w.push_back(m.vectors(i, p) * m.vectors(k, q) + (i == k ? 0.0 : m.vectors(k, p) * m.vectors(i, q)));
        return w;
    }
    direction along(const std::vector<double>& x) const {
        direction d;
        for (std::size_t e = 0; e < x.size(); ++e) {
            const auto [i, k] = elements[e];
            d.shares.push_back(
                {b.first + packed(b, i, k) - 1, x[e] * std::sqrt(b.scale[at(i - 1)] * b.scale[at(k - 1)])});
        }
        return d;
    }
};

double product(const std::vector<double>& a, const std::vector<double>& b) {
    double s = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) s += a[i] * b[i];
    return s;
}

held_matrix free_changes(const judgement& j, const judged_block& b) {
    held_matrix h{b, scaled(b), {}, {}};
    for (int i = 1; i <= b.order(); ++i)
        for (int k = i; k <= b.order(); ++k)
            if (!held(b, packed(b, i, k))) h.elements.emplace_back(i, k);
    // slope by each free element, in units of the scales
    for (std::size_t e = 0; e < h.elements.size(); ++e) {
        std::vector<double> unit(h.elements.size(), 0.0);
        unit[e] = 1.0;
        h.gradient.push_back(j.slope(h.along(unit)));
    }
    return h;
}

// Least squares of -gradient by the rows (multipliers of the constraints that they are), and an orthonormal basis of
// what the rows leave.
struct constrained {
    std::vector<double> multipliers;
    std::vector<std::vector<double>> basis;
};
constrained beside(const std::vector<std::vector<double>>& rows, const std::vector<double>& gradient) {
    const int r = static_cast<int>(rows.size()), n = static_cast<int>(gradient.size());
    array<double, 2> a, vectors, left;
    array<double> eig;
    int nzero = 0;
    a.allocate(r, r);
    for (int i = 1; i <= r; ++i)
        for (int k = 1; k <= r; ++k) a(i, k) = product(rows[at(i - 1)], rows[at(k - 1)]);
    eigem(a, eig, vectors, r, 0.0, nzero);
    left.allocate(n, n);
    for (int i = 1; i <= n; ++i) left(i, i) = 1.0;
    constrained c;
    c.multipliers.assign(at(r), 0.0);
    // rows that depend on each other count once
    for (int k = 1; k <= r && eig(k) > 1.0e-10 * eig(1); ++k) {
        std::vector<double> u(at(n), 0.0);
        for (int i = 1; i <= r; ++i)
            for (int e = 0; e < n; ++e) u[at(e)] += vectors(i, k) * rows[at(i - 1)][at(e)];
        const double s = -product(u, gradient) / eig(k);
        for (int i = 1; i <= r; ++i) c.multipliers[at(i - 1)] += vectors(i, k) * s;
        for (int e = 1; e <= n; ++e)
            for (int f = 1; f <= n; ++f) left(e, f) -= u[at(e - 1)] * u[at(f - 1)] / eig(k);
    }
    eigem(left, eig, vectors, n, 0.0, nzero);
    // a projection: eigenvalues are 1 or 0
    for (int k = 1; k <= n && eig(k) > 0.5; ++k) {
        c.basis.emplace_back();
        for (int e = 1; e <= n; ++e) c.basis.back().push_back(vectors(e, k));
    }
    return c;
}

// Directions along the border: each is free, and tilts the eigenvectors that have gone, which costs their multipliers.
void free_beside(judgement& j, const held_matrix& h, const std::vector<int>& gone, const std::vector<double>& fall,
                 const std::vector<std::vector<double>>& basis) {
    const int t = static_cast<int>(basis.size());
    array<double, 2> curvature, vectors;
    array<double> eig;
    curvature.allocate(t, t);
    for (int q = 1; q <= h.b.order(); ++q) {
        if (std::find(gone.begin(), gone.end(), q) != gone.end()) continue;
        for (std::size_t g = 0; g < gone.size(); ++g) {
            const std::vector<double> w = h.weights(gone[g], q);
            const double weight = 2.0 * fall[g] / std::max(h.m.eig(q) - h.m.eig(gone[g]), least_gap);
            for (int a = 1; a <= t; ++a)
                for (int c = 1; c <= t; ++c)
                    curvature(a, c) += weight * product(w, basis[at(a - 1)]) * product(w, basis[at(c - 1)]);
        }
    }
    int nzero = 0;
    if (t > 0) eigem(curvature, eig, vectors, t, 0.0, nzero);
    for (int k = 1; k <= t; ++k) {
        std::vector<double> x(h.elements.size(), 0.0);
        for (int a = 1; a <= t; ++a)
            for (std::size_t e = 0; e < x.size(); ++e) x[e] += vectors(a, k) * basis[at(a - 1)][e];
        direction d = h.along(x);
        d.curvature = std::max(eig(k), 0.0);
        j.free.push_back(std::move(d));
    }
}

// A step that raises the eigenvalue k, and those alone that elements held at 0 bind to it.
direction raising(const held_matrix& h, int k) {
    std::vector<double> w = h.weights(k, k);
    const double size = product(w, w);
    for (double& x : w) x /= size;
    return h.along(w);
}

// Judges a matrix of which an eigenvalue has all but gone with log L falling that way. False: there is none.
bool at_border_beside_zeros(judgement& j, const judged_block& b) {
    const held_matrix h = free_changes(j, b);
    std::vector<int> gone;
    for (int k = 1; k <= b.order(); ++k)
        if (vanishing(h.m, k, b.order())) gone.push_back(k);
    constrained c;
    while (!gone.empty()) { // the one along which log L rises most, or has its maximum inside, is let go
        std::vector<std::vector<double>> rows;
        for (std::size_t p = 0; p < gone.size(); ++p) rows.push_back(h.weights(gone[p], gone[p]));
        // the whole space of what has gone stays where it is: products of its vectors too
        for (std::size_t p = 0; p < gone.size(); ++p)
            for (std::size_t q = p + 1; q < gone.size(); ++q) rows.push_back(h.weights(gone[p], gone[q]));
        c = beside(rows, h.gradient);
        std::size_t worst = gone.size();
        double most = 0.0;
        for (std::size_t p = 0; p < gone.size() && !j.matrices_only; ++p) {
            // above 0: a multiplier of the wrong sign, or a maximum before the eigenvalue is 0
            const double inside = h.m.eig(gone[p]) * curvature_along(j, raising(h, gone[p])) - c.multipliers[p];
            if (!(inside > most)) continue;
            most = inside;
            worst = p;
        }
        if (worst == gone.size()) break;
        if (c.multipliers[worst] < 0.0) note_lift(j, raising(h, gone[worst]));
        gone.erase(gone.begin() + static_cast<std::ptrdiff_t>(worst));
    }
    if (gone.empty()) return false;
    keep_eigenvalues(j, b, h.m);
    for (std::size_t p = 0; p < gone.size(); ++p)
        j.verdict.promised += std::max(h.m.eig(gone[p]), 0.0) * std::max(c.multipliers[p], 0.0);
    free_beside(j, h, gone, c.multipliers, c.basis);
    name_border(j, b, h.m, gone);
    for (int e = 1; e <= b.order() * (b.order() + 1) / 2; ++e)
        if (!held(b, e)) j.verdict.void_errors.push_back(b.first + e - 1);
    return true;
}

void judge_parameter(judgement& j, const judged_parameter& p) {
    const double slope = j.slope({{{p.par, 1.0}}});
    // elements of a factor come in either sign: log L must not rise away from 0
    if (std::fabs(p.value) < vanished_element * p.scale && slope * p.value <= 0.0) {
        j.verdict.promised += std::fabs(p.value * slope);
        j.verdict.border.push_back(p.name + " is " + number(p.value));
        j.verdict.void_errors.push_back(p.par);
        return;
    }
    j.free.push_back({{{p.par, p.scale}}});
}

// ---- the quadratic model over the free directions

std::string parameter_name(const judged_point& point, int par) {
    for (const judged_block& b : point.blocks)
        for (int i = 1; i <= b.order(); ++i)
            for (int k = i; k <= (b.diagonal ? i : b.order()); ++k)
                if (par == b.first + (b.diagonal ? i : packed(b, i, k)) - 1)
                    return b.name + (i == k ? " variance " + b.rows[at(i - 1)]
                                            : " covariance " + b.rows[at(i - 1)] + "," + b.rows[at(k - 1)]);
    for (const judged_parameter& p : point.others)
        if (p.par == par) return p.name;
    return "parameter " + std::to_string(par);
}

// The parameters that weigh most in a combination of the free directions.
std::string combination(const judgement& j, const std::vector<double>& weight) {
    std::vector<double> total(at(j.size()), 0.0), scale(at(j.size()), 1.0);
    for (const judged_block& b : j.point.blocks)
        for (int i = 1; i <= b.order(); ++i)
            for (int k = i; k <= (b.diagonal ? i : b.order()); ++k)
                // in units of the scales, so that coefficients compare
                scale[at(b.first + (b.diagonal ? i : packed(b, i, k)) - 2)] =
                    std::sqrt(b.scale[at(i - 1)] * b.scale[at(k - 1)]);
    for (const judged_parameter& p : j.point.others) scale[at(p.par - 1)] = p.scale;
    for (std::size_t d = 0; d < j.free.size(); ++d)
        for (const share& s : j.free[d].shares) total[at(s.par - 1)] += weight[d] * s.coef / scale[at(s.par - 1)];
    double most = 0.0;
    for (double x : total) most = std::max(most, std::fabs(x));
    std::string text;
    for (int par = 1; par <= j.size(); ++par) {
        const double x = total[at(par - 1)] / most;
        if (!(std::fabs(x) >= named_share)) continue;
        char coef[16];
        std::snprintf(coef, sizeof coef, "%+.2f ", x);
        text += (text.empty() ? "" : " ") + std::string(coef) + parameter_name(j.point, par);
    }
    return text;
}

// The quadratic model s'c - c'Hc/2 over the free directions, scaled to a unit diagonal, with lower bounds on c.
struct quadratic_model {
    array<double, 2> h;
    std::vector<double> s, unit, least;
    int size() const { return static_cast<int>(s.size()); }
    double curved(int a, const std::vector<double>& c) const {
        double x = 0.0;
        for (int b = 1; b <= size(); ++b) x += h(a, b) * c[at(b - 1)];
        return x;
    }
    double gain(const std::vector<double>& c) const {
        double x = 0.0;
        for (int a = 1; a <= size(); ++a) x += c[at(a - 1)] * (s[at(a - 1)] - 0.5 * curved(a, c));
        return x;
    }
};

quadratic_model model_of(judgement& j) {
    quadratic_model q;
    const int m = static_cast<int>(j.free.size());
    q.h.allocate(m, m);
    for (int a = 1; a <= m; ++a) {
        const direction& d = j.free[at(a - 1)];
        // s = D'g, H = D' AI D with the border's own curvature on the diagonal
        q.s.push_back(j.slope(d));
        j.verdict.gradient_norm += q.s.back() * q.s.back();
        const std::vector<double> image = j.image(d);
        for (int b = a; b <= m; ++b) {
            for (const share& x : j.free[at(b - 1)].shares) q.h(a, b) += x.coef * image[at(x.par - 1)];
            q.h(b, a) = q.h(a, b);
        }
        q.h(a, a) += d.curvature;
    }
    j.verdict.gradient_norm = std::sqrt(j.verdict.gradient_norm);
    double largest = 0.0;
    for (int a = 1; a <= m; ++a) largest = std::max(largest, q.h(a, a));
    // unit diagonal; 0 for a direction of which the data say nothing
    for (int a = 1; a <= m; ++a)
        q.unit.push_back(q.h(a, a) > no_curvature * largest ? 1.0 / std::sqrt(q.h(a, a)) : 0.0);
    for (int a = 1; a <= m; ++a) {
        const double u = q.unit[at(a - 1)];
        q.least.push_back(u > 0.0 ? j.free[at(a - 1)].least / u : 0.0);
        q.s[at(a - 1)] *= u;
        for (int b = 1; b <= m; ++b) q.h(a, b) *= u * q.unit[at(b - 1)];
    }
    return q;
}

// Maximiser over the directions that are not held, the others as they are in c; combinations without information stay.
void maximise_free(const quadratic_model& q, const std::vector<int>& held, std::vector<double>& c, double largest) {
    std::vector<int> open;
    for (int a = 1; a <= q.size(); ++a)
        if (!held[at(a - 1)]) open.push_back(a);
    const int n = static_cast<int>(open.size());
    if (n == 0) return;
    // rhs is the slope with all open ones at 0
    for (int a : open) c[at(a - 1)] = 0.0;
    array<double, 2> h, vectors;
    array<double> eig;
    h.allocate(n, n);
    std::vector<double> rhs;
    for (int i = 1; i <= n; ++i) {
        const int a = open[at(i - 1)];
        rhs.push_back(q.s[at(a - 1)] - q.curved(a, c));
        for (int k = 1; k <= n; ++k) h(i, k) = q.h(a, open[at(k - 1)]);
    }
    int nzero = 0;
    eigem(h, eig, vectors, n, 0.0, nzero);
    for (int k = 1; k <= n; ++k) {
        if (!(eig(k) > flat_information * largest)) continue;
        double g = 0.0;
        for (int i = 1; i <= n; ++i) g += vectors(i, k) * rhs[at(i - 1)];
        for (int i = 1; i <= n; ++i) c[at(open[at(i - 1)] - 1)] += vectors(i, k) * g / eig(k);
    }
}

// Maximiser within the bounds: directions that would pass theirs are held there, the worst first, and let go again
// where the model rises from the bound.
std::vector<double> maximise_model(const quadratic_model& q, std::vector<int>& held, double largest) {
    std::vector<double> c(q.s.size(), 0.0);
    held.assign(q.s.size(), 0);
    // each direction may be held and let go; the last turns only hold, so that it cannot go round
    for (int turn = 0; turn <= 3 * q.size(); ++turn) {
        maximise_free(q, held, c, largest);
        int worst = 0;
        for (int a = 1; a <= q.size(); ++a)
            if (!held[at(a - 1)] && c[at(a - 1)] < q.least[at(a - 1)] &&
                (worst == 0 || c[at(a - 1)] - q.least[at(a - 1)] < c[at(worst - 1)] - q.least[at(worst - 1)]))
                worst = a;
        if (worst > 0) {
            held[at(worst - 1)] = 1;
            c[at(worst - 1)] = q.least[at(worst - 1)];
            continue;
        }
        for (int a = 1; a <= q.size() && worst == 0 && turn <= q.size(); ++a)
            if (held[at(a - 1)] && q.s[at(a - 1)] - q.curved(a, c) > upward) worst = a;
        if (worst == 0) break;
        held[at(worst - 1)] = 0;
    }
    for (int a = 1; a <= q.size(); ++a) c[at(a - 1)] = std::max(c[at(a - 1)], q.least[at(a - 1)]);
    return c;
}

void name_flat(judgement& j, const quadratic_model& q) {
    const int m = q.size();
    array<double, 2> vectors;
    array<double> eig;
    int nzero = 0;
    eigem(q.h, eig, vectors, m, 0.0, nzero);
    j.verdict.largest = eig(1);
    j.verdict.least = eig(m);
    for (int k = 1; k <= m; ++k) {
        // the matrix has unit diagonal: 1 would be orthogonal directions
        if (eig(k) > flat_information * eig(1)) continue;
        std::vector<double> weight(at(m));
        for (int a = 1; a <= m; ++a)
            weight[at(a - 1)] = vectors(a, k) * (q.unit[at(a - 1)] > 0.0 ? q.unit[at(a - 1)] : 1.0);
        j.verdict.flat.push_back(combination(j, weight));
    }
}

// What the way to the border holds: named where next to nothing is left to gain, to be jumped to otherwise.
void note_vanishing(judgement& j, const std::vector<int>& held) {
    for (std::size_t a = 0; a < held.size(); ++a) {
        const direction& d = j.free[a];
        if (!held[a] || d.vanishes.empty()) continue;
        if (j.verdict.promised < verdict_limit) {
            j.verdict.border.push_back(d.vanishes + ", on its way to 0");
            for (const share& x : d.shares) j.verdict.void_errors.push_back(x.par);
            continue;
        }
        std::vector<parameter_change> drop;
        for (const share& x : d.shares) drop.push_back({x.par, short_of_border * d.least * x.coef});
        j.verdict.lifts.push_back(std::move(drop));
    }
}

void solve_model(judgement& j) {
    if (j.free.empty()) return;
    const quadratic_model q = model_of(j);
    name_flat(j, q);
    std::vector<int> held;
    const std::vector<double> c = maximise_model(q, held, j.verdict.largest);
    j.verdict.promised += std::max(q.gain(c), 0.0);
    note_vanishing(j, held);
}

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

void name_void(judgement& j) {
    auto& list = j.verdict.void_errors;
    std::sort(list.begin(), list.end());
    list.erase(std::unique(list.begin(), list.end()), list.end());
    for (int par : list) j.verdict.void_names.push_back(parameter_name(j.point, par));
}

} // namespace

search_verdict look_at_matrices(const judged_point& point) {
    judgement j{point, {}, {}, true};
    judge_blocks(j);
    name_void(j);
    return j.verdict;
}

search_verdict judge(const judged_point& point) {
    judgement j{point, {}, {}};
    judge_blocks(j);
    solve_model(j);
    name_void(j);
    auto& v = j.verdict;
    if (!(v.promised < verdict_limit))
        v.kind = search_end::not_maximum;
    else if (!v.border.empty())
        v.kind = search_end::border;
    else
        v.kind = v.flat.empty() ? search_end::maximum : search_end::flat;
    return v;
}

} // namespace tarvex
