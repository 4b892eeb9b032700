#include "estimation/trustregion.h"

#include "dense/numroutines.h"

#include <algorithm>
#include <cmath>

namespace tarvex {

namespace {

constexpr double least_ratio = 1.0e-4, poor_ratio = 0.25, good_ratio = 0.75;
constexpr double no_curvature = 1.0e-12; // pivot against the largest diagonal element
// A multiplier below both shares, of the largest diagonal element and of its own upper bound, is none.
constexpr double least_curvature = 1.0e-10, least_multiplier = 1.0e-6;
constexpr double rounding = 1.0e-14;   // width of the bracket of the multiplier
constexpr double least_share = 1.0e-3; // of the upper bound, where Newton's step leaves the bracket
constexpr double at_edge = 0.9;        // of the radius

double norm(const std::vector<double>& x) {
    double s = 0.0;
    for (double v : x) s += v * v;
    return std::sqrt(s);
}

// Lower factor of H + lambda I in `l`; false where a pivot is at most `least`.
bool factorise(const array<double, 2>& h, int n, double lambda, double least, array<double, 2>& l) {
    l = h;
    for (int i = 1; i <= n; ++i) l(i, i) += lambda;
    return cholesky(l, n, least);
}

// Upper bound of minus the least eigenvalue, 0 if that is not negative (Gershgorin's circles).
double most_negative(const array<double, 2>& h, int n) {
    double most = 0.0;
    for (int i = 1; i <= n; ++i) {
        double s = -h(i, i);
        for (int j = 1; j <= n; ++j) s += i == j ? 0.0 : std::fabs(h(i, j));
        most = std::max(most, s);
    }
    return most;
}

} // namespace

double model_gain(const array<double, 2>& h, const std::vector<double>& g, const std::vector<double>& s) {
    const int n = static_cast<int>(g.size());
    double sum = 0.0;
    for (int i = 1; i <= n; ++i) {
        sum += g[i - 1] * s[i - 1];
        for (int k = 1; k <= n; ++k) sum -= 0.5 * s[i - 1] * h(i, k) * s[k - 1];
    }
    return sum;
}

region_step step_in_region(const array<double, 2>& h, const std::vector<double>& g, double radius) {
    constexpr double close = 0.01; // to the radius, in units of it
    constexpr int most_turns = 60;
    const int n = static_cast<int>(g.size());
    region_step r;
    r.step.assign(g.size(), 0.0);
    const double slope = norm(g);
    if (n == 0 || !(slope > 0.0)) return r;
    double largest = 0.0;
    for (int i = 1; i <= n; ++i) largest = std::max(largest, h(i, i));
    array<double, 2> l;
    std::vector<double> half(g.size());
    // The norm of the step falls with lambda; that far above the most negative eigenvalue it is at most the radius.
    double low = 0.0, high = slope / radius + most_negative(h, n), lambda = 0.0;
    for (int turn = 0; turn < most_turns; ++turn) {
        // lambda is below the least one that makes H + lambda I positive definite
        if (!factorise(h, n, lambda, no_curvature * largest, l)) {
            low = lambda;
            lambda = std::max(std::sqrt(low * high), least_curvature * largest + least_multiplier * high);
            if (lambda >= high) break;
            continue;
        }
        solve(n, l, g, r.step);
        r.length = norm(r.step);
        r.lambda = lambda;
        const bool unhindered = lambda <= least_curvature * largest + least_multiplier * slope / radius;
        if ((unhindered && r.length <= radius) || std::fabs(r.length - radius) <= close * radius) break;
        (r.length > radius ? low : high) = lambda;
        if (high - low <= rounding * high) break;
        // Newton's step for 1/|s(lambda)| = 1/radius, which is nearly linear in lambda
        solve_lower(n, l, r.step, half);
        const double q = norm(half);
        const double next = lambda + (r.length / q) * (r.length / q) * (r.length - radius) / radius;
        lambda = next > low && next < high ? next : std::max(0.5 * (low + high), least_share * high);
    }
    // the bracket closed on a jump: the step is cut, its direction stays
    if (r.length > radius * (1.0 + close))
        for (double& x : r.step) x *= radius / r.length;
    // promised is that of the step as it is taken
    r.length = norm(r.step);
    r.promised = model_gain(h, g, r.step);
    return r;
}

bool trust_region::judge(double won, double promised, double length) {
    const double ratio = promised > 0.0 ? won / promised : 0.0;
    poor = ratio < poor_ratio ? poor + 1 : 0;
    // the region grows where it was the region that stopped a good step
    if (ratio < poor_ratio)
        radius = poor_ratio * length;
    else if (ratio > good_ratio && length > at_edge * radius)
        radius = std::min(2.0 * radius, largest);
    return ratio > least_ratio;
}

void trust_region::invalid(double length) {
    ++poor;
    radius = 0.5 * length;
}

} // namespace tarvex
