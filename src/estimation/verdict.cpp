#include "estimation/verdict.h"

#include "dense/numroutines.h"
#include "estimation/verdict_parts.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tarvex {

namespace {

constexpr double named_share = 0.3;        // of the largest: parameters of a flat combination that are named
constexpr double no_curvature = 1.0e-12;   // against the largest of all directions
constexpr double upward = 1.0e-10;         // slope that lets a held direction go
constexpr double short_of_border = 0.9999; // of the way to it

// ---- the quadratic model over the free directions

std::string parameter_name(const judged_point& point, int par) {
    for (const judged_block& b : point.blocks)
        for (int i = 1; i <= b.order(); ++i)
            for (int k = i; k <= (b.diagonal ? i : b.order()); ++k)
                if (par == b.first + packed(b, i, k) - 1)
                    return b.name + (i == k ? " variance " + b.rows(i) : " covariance " + b.rows(i) + "," + b.rows(k));
    for (const judged_parameter& p : point.others)
        if (p.par == par) return p.name;
    return "parameter " + std::to_string(par);
}

// The parameters that weigh most in a combination of the free directions.
std::string combination(const judgement& j, const vector1<double>& weight) {
    vector1<double> total(j.size()), scale(j.size(), 1.0);
    for (const judged_block& b : j.point.blocks)
        for (int i = 1; i <= b.order(); ++i)
            for (int k = i; k <= (b.diagonal ? i : b.order()); ++k)
                // in units of the scales, so that coefficients compare
                scale(b.first + packed(b, i, k) - 1) = std::sqrt(b.scale(i) * b.scale(k));
    for (const judged_parameter& p : j.point.others) scale(p.par) = p.scale;
    for (int d = 1; d <= j.free.size(); ++d)
        for (const share& s : j.free(d).shares) total(s.par) += weight(d) * s.coef / scale(s.par);
    double most = 0.0;
    for (double x : total) most = std::max(most, std::fabs(x));
    std::string text;
    for (int par = 1; par <= j.size(); ++par) {
        const double x = total(par) / most;
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
    vector1<double> s, unit, least;
    int size() const { return static_cast<int>(s.size()); }
    double curved(int a, const vector1<double>& c) const {
        double x = 0.0;
        for (int b = 1; b <= size(); ++b) x += h(a, b) * c(b);
        return x;
    }
    double gain(const vector1<double>& c) const {
        double x = 0.0;
        for (int a = 1; a <= size(); ++a) x += c(a) * (s(a) - 0.5 * curved(a, c));
        return x;
    }
};

quadratic_model model_of(judgement& j) {
    quadratic_model q;
    const int m = static_cast<int>(j.free.size());
    q.h.allocate(m, m);
    for (int a = 1; a <= m; ++a) {
        const direction& d = j.free(a);
        // s = D'g, H = D' AI D with the border's own curvature on the diagonal
        q.s.push_back(j.slope(d));
        j.verdict.gradient_norm += q.s.back() * q.s.back();
        const vector1<double> image = j.image(d);
        for (int b = a; b <= m; ++b) {
            for (const share& x : j.free(b).shares) q.h(a, b) += x.coef * image(x.par);
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
        const double u = q.unit(a);
        q.least.push_back(u > 0.0 ? j.free(a).least / u : 0.0);
        q.s(a) *= u;
        for (int b = 1; b <= m; ++b) q.h(a, b) *= u * q.unit(b);
    }
    return q;
}

// Maximiser over the directions that are not held, the others as they are in c; combinations without information stay.
void maximise_free(const quadratic_model& q, const vector1<int>& held, vector1<double>& c, double largest) {
    vector1<int> open;
    for (int a = 1; a <= q.size(); ++a)
        if (!held(a)) open.push_back(a);
    const int n = static_cast<int>(open.size());
    if (n == 0) return;
    // rhs is the slope with all open ones at 0
    for (int a : open) c(a) = 0.0;
    array<double, 2> h, vectors;
    array<double> eig;
    h.allocate(n, n);
    vector1<double> rhs;
    for (int i = 1; i <= n; ++i) {
        const int a = open(i);
        rhs.push_back(q.s(a) - q.curved(a, c));
        for (int k = 1; k <= n; ++k) h(i, k) = q.h(a, open(k));
    }
    int nzero = 0;
    eigem(h, eig, vectors, n, 0.0, nzero);
    for (int k = 1; k <= n; ++k) {
        if (!(eig(k) > flat_information * largest)) continue;
        double g = 0.0;
        for (int i = 1; i <= n; ++i) g += vectors(i, k) * rhs(i);
        for (int i = 1; i <= n; ++i) c(open(i)) += vectors(i, k) * g / eig(k);
    }
}

// Maximiser within the bounds: directions that would pass theirs are held there, the worst first, and let go again
// where the model rises from the bound.
vector1<double> maximise_model(const quadratic_model& q, vector1<int>& held, double largest) {
    vector1<double> c(q.s.size());
    held.assign(q.s.size(), 0);
    // each direction may be held and let go; the last turns only hold, so that it cannot go round
    for (int turn = 0; turn <= 3 * q.size(); ++turn) {
        maximise_free(q, held, c, largest);
        int worst = 0;
        for (int a = 1; a <= q.size(); ++a)
            if (!held(a) && c(a) < q.least(a) && (worst == 0 || c(a) - q.least(a) < c(worst) - q.least(worst)))
                worst = a;
        if (worst > 0) {
            held(worst) = 1;
            c(worst) = q.least(worst);
            continue;
        }
        for (int a = 1; a <= q.size() && worst == 0 && turn <= q.size(); ++a)
            if (held(a) && q.s(a) - q.curved(a, c) > upward) worst = a;
        if (worst == 0) break;
        held(worst) = 0;
    }
    for (int a = 1; a <= q.size(); ++a) c(a) = std::max(c(a), q.least(a));
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
        vector1<double> weight(m);
        for (int a = 1; a <= m; ++a) weight(a) = vectors(a, k) * (q.unit(a) > 0.0 ? q.unit(a) : 1.0);
        j.verdict.flat.push_back(combination(j, weight));
    }
}

// What the way to the border holds: named where next to nothing is left to gain, to be jumped to otherwise.
void note_vanishing(judgement& j, const vector1<int>& held) {
    for (int a = 1; a <= held.size(); ++a) {
        const direction& d = j.free(a);
        if (!held(a) || d.vanishes.empty()) continue;
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
    vector1<int> held;
    const vector1<double> c = maximise_model(q, held, j.verdict.largest);
    j.verdict.promised += std::max(q.gain(c), 0.0);
    note_vanishing(j, held);
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
