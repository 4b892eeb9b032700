#include "estimation/pxem.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "dense/numroutines.h"
#include "likelihood/likelihood.h"
#include "parameters/randomvars.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/edit_form.h"

#include <algorithm>
#include <cmath>

namespace tarvex {

namespace {

constexpr double largest_deviation = 1.5;     // root mean square of alpha - I: beyond it the identity serves
constexpr double smallest_deviation = 1.0e-4; // mean deviation below which the expansion has stopped mattering
constexpr double eigen_floor = 1.0e-6;        // of a new covariance matrix
constexpr double system_floor = 1.0e-5;       // eigenvalues of the scaled joint system that count as none

// First place of a block's unknowns in q.unknowns (from 1).
int first_unknown(const em_quantities& q, int irand) {
    for (std::size_t k = 0; k < q.unknowns.size(); ++k)
        if (q.unknowns[k].irand == irand) return static_cast<int>(k) + 1;
    return 0;
}

void identity(array<double, 2>& a, int n) {
    a.allocate(n, n);
    for (int i = 1; i <= n; ++i) a(i, i) = 1.0;
}

// Solves the symmetric system, scaled to unit diagonal; unknowns without information are 0.
std::vector<double> solve_scaled(const array<double, 2>& lhs, const std::vector<double>& rhs) {
    const int m = static_cast<int>(rhs.size());
    std::vector<double> scale(m, 0.0), x(m, 0.0);
    std::vector<int> live;
    for (int i = 0; i < m; ++i) {
        // a diagonal of 0: no record has this product, the unknown stays 0
        const double d = lhs(i + 1, i + 1);
        if (!(d > 0.0)) continue;
        scale[i] = 1.0 / std::sqrt(d);
        live.push_back(i);
    }
    const int n = static_cast<int>(live.size());
    if (n == 0) return x;
    std::vector<double> packed(triangle<std::size_t>(n));
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) {
            const int a = live[i - 1], b = live[j - 1];
            packed[ihmssf(i, j, n) - 1] = lhs(a + 1, b + 1) * scale[a] * scale[b];
        }
    if (!invvert(packed, n)) stop_with("\"INVVRT\" : matrix is singular");
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) {
            const int a = live[i - 1], b = live[j - 1];
            x[a] += packed[packed_place(i, j, n) - 1] * scale[a] * scale[b] * rhs[b];
        }
    return x;
}

// rhs(i,j) = nlev (G^-1 G_EM - I)(i,j), with nlev G_EM the quadratics and traces.
void pxem_rhs(int irand, const array<double, 2>& quads, std::vector<double>& rhs) {
    const int n = model.kkfit(irand);
    const double nlev = effective_levels(irand);
    rhs.clear();
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) {
            double s = i == j ? -nlev : 0.0;
            for (int k = 1; k <= n; ++k) s += randomvars.zig(i, k, irand) * quads(k, j);
            rhs.push_back(s);
        }
}

void tell_strange(const array<double, 2>& alpha, int n, double xx) {
    constexpr edit_form row{"(i3,(10f8.3))"};
    if (!options.verbose || options.terse) return;
    print_list(screen(), "Matrix \"alpha\" deviates greatly from Identity");
    print_list(screen(), "SQRT of average squared deviation =", xx);
    for (int i = 1; i <= n; ++i) {
        std::vector<double> values;
        for (int j = 1; j <= n; ++j) values.push_back(alpha(i, j));
        write(screen(), row, i, values);
    }
    print_list(screen(), "Set \"alpha\" to Identity for this iterate");
}

double root_mean_square(const array<double, 2>& alpha, int n) {
    double s = 0.0;
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) {
            const double d = alpha(i, j) - (i == j ? 1.0 : 0.0);
            s += d * d;
        }
    // per element: blocks of all sizes are measured alike
    return std::sqrt(s / (n * n));
}

// Mean absolute element of D of least norm with D Q = change.
double mean_deviation(const array<double, 2>& change, int irand) {
    const int n = model.kkfit(irand), r = model.krfit(irand);
    std::vector<double> qq(triangle(r), 0.0);
    for (int c = 1; c <= r; ++c)
        for (int d = c; d <= r; ++d)
            for (int i = 1; i <= n; ++i)
                // Q'Q: D = change (Q'Q)^-1 Q'
                qq[ihmssf(c, d, r) - 1] += randomvars.zig(i, c, irand) * randomvars.zig(i, d, irand);
    int rank = 0;
    double ldet = 0.0, sum = 0.0;
    gen_inverse(qq, r, numbers.zero * numbers.zero, rank, ldet);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) {
            double s = 0.0;
            for (int c = 1; c <= r; ++c)
                for (int d = 1; d <= r; ++d)
                    s += change(i, c) * qq[packed_place(c, d, r) - 1] * randomvars.zig(j, d, irand);
            sum += std::fabs(s);
        }
    return sum / (n * n);
}

} // namespace

void pxem_setup() {
    if (options.details) print_list(screen(), "Start PXEM_SETUP");
    pxempc = {};
    if (options.details) print_list(screen(), "End PXEM_SETUP");
}

void pxem_solve(int irand, const em_quantities& q, array<double, 2>& alpha) {
    const int n = model.kkfit(irand), from = first_unknown(q, irand);
    const bool diagonal = model.diagonal(irand) != 0;
    std::vector<double> rhs;
    pxem_rhs(irand, q.quads(irand), rhs);
    std::vector<int> kept;
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j)
            // a diagonal block expands each component by itself
            if (!diagonal || i == j) kept.push_back((i - 1) * n + j - 1);
    const int m = static_cast<int>(kept.size());
    std::vector<double> part;
    for (int a : kept) part.push_back(rhs[a]);
    array<double, 2> lhs;
    lhs.allocate(m, m);
    for (int i = 1; i <= m; ++i)
        for (int j = 1; j <= m; ++j) lhs(i, j) = q.lhs(from + kept[i - 1], from + kept[j - 1]);
    const std::vector<double> d = solve_scaled(lhs, part);
    // alpha = I + D
    identity(alpha, n);
    for (std::size_t k = 0; k < kept.size(); ++k) {
        const int i = kept[k] / n + 1, j = kept[k] % n + 1;
        alpha(i, j) += d[k];
        if (options.details) print_list(screen(), kept[k] + 1, " est", alpha(i, j), "  rhs", part[k]);
    }
    const double xx = root_mean_square(alpha, n);
    if (!(xx > largest_deviation)) return;
    tell_strange(alpha, n, xx);
    identity(alpha, n);
}

void pxem_solve_all(const em_quantities& q, std::vector<array<double, 2>>& change) {
    change.assign(numbers.krand, {});
    for (int irand = 1; irand <= numbers.krand; ++irand)
        change[irand - 1].allocate(model.kkfit(irand), model.krfit(irand));
    const auto keep = [](const px_unknown& u) { return !model.diagonal(u.irand) || u.row == u.col; };
    std::vector<int> kept;
    for (std::size_t k = 0; k < q.unknowns.size(); ++k)
        if (keep(q.unknowns[k]) && q.lhs(k + 1, k + 1) > 0.0) kept.push_back(static_cast<int>(k) + 1);
    const int m = static_cast<int>(kept.size());
    pxempc.aalpha = 0.0;
    if (m == 0) return;
    array<double, 2> a, vectors;
    array<double> eig;
    std::vector<double> scale, rhs;
    for (int k : kept) {
        const px_unknown& u = q.unknowns[k - 1];
        scale.push_back(1.0 / std::sqrt(q.lhs(k, k)));
        rhs.push_back(q.loads(u.irand)(u.row, u.col) * scale.back());
    }
    a.allocate(m, m);
    for (int i = 1; i <= m; ++i)
        for (int j = 1; j <= m; ++j)
            // sums of products come in two orders: their mean
            a(i, j) =
                0.5 * (q.lhs(kept[i - 1], kept[j - 1]) + q.lhs(kept[j - 1], kept[i - 1])) * scale[i - 1] * scale[j - 1];
    int nzero = 0;
    const array<double, 2> scaled = a;
    eigem(a, eig, vectors, m, system_floor, nzero);
    std::vector<double> d(m, 0.0), rest = rhs;
    for (int pass = 1; pass <= 2; ++pass) { // the second refines: the rotations end at small, not at no, off-diagonals
        // combinations without information do not move
        for (int k = 1; k <= m - nzero; ++k) {
            double s = 0.0;
            for (int i = 1; i <= m; ++i) s += vectors(i, k) * rest[i - 1];
            for (int i = 1; i <= m; ++i) d[i - 1] += vectors(i, k) * s / eig(k);
        }
        rest = rhs;
        for (int j = 1; j <= m; ++j)
            for (int i = 1; i <= m; ++i) rest[i - 1] -= scaled(i, j) * d[j - 1];
    }
    for (int i = 1; i <= m; ++i) {
        const px_unknown& u = q.unknowns[kept[i - 1] - 1];
        change[u.irand - 1](u.row, u.col) = d[i - 1] * scale[i - 1];
    }
    int blocks = 0;
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (first_unknown(q, irand) == 0) continue;
        pxempc.aalpha += mean_deviation(change[irand - 1], irand);
        ++blocks;
    }
    if (blocks > 0) pxempc.aalpha /= blocks;
    // plain EM from here on: the expansion costs a system and brings nothing
    if (!pxempc.skip_px && pxempc.aalpha < smallest_deviation) pxempc.skip_px = true;
}

void raise_leading(array<double, 2>& g, int n, int rank) { raise_eigenvalues(g, n, rank, eigen_floor); }

} // namespace tarvex
