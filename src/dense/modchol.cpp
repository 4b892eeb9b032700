#include "dense/modchol.h"

#include "dense/numroutines.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace tarvex {

namespace {

// Both triangles of the leading part, from the lower one.
void copy_symmetric(const array<double, 2>& a, int n, array<double, 2>& w) {
    w.allocate(n, n);
    for (int j = 1; j <= n; ++j)
        for (int i = j; i <= n; ++i) w(i, j) = w(j, i) = a(i, j);
}

void start_permutation(array<int>& perm, int n) {
    perm.allocate(n);
    for (int i = 1; i <= n; ++i) perm(i) = i;
}

// Exchanges rows i and j of factor and remaining matrix, and columns of the latter (columns `first` to n).
void swap_rows(array<double, 2>& w, array<int>& perm, int n, int first, int i, int j) {
    if (i == j) return;
    for (int k = 1; k <= n; ++k) std::swap(w(i, k), w(j, k));
    for (int k = first; k <= n; ++k) std::swap(w(k, i), w(k, j));
    std::swap(perm(i), perm(j));
}

void clear_above(array<double, 2>& w, int n) {
    for (int j = 2; j <= n; ++j)
        for (int i = 1; i < j; ++i) w(i, j) = 0.0;
}

// --- Modified Cholesky ---

struct limits {
    double gamma = 0.0;  // largest diagonal in magnitude
    double pivot = 0.0;  // smallest pivot that counts as positive
    double fall = 0.0;   // how far below zero diagonals may go in the first phase
    double spread = 0.0; // tolerance of the last block of order 2
};

limits init(const array<double, 2>& w, int n, double tol1, double tol2) {
    constexpr double eps = std::numeric_limits<double>::epsilon();
    constexpr double relax = 5.0 * 1.0e-4;
    limits lim;
    for (int i = 1; i <= n; ++i) lim.gamma = std::max(lim.gamma, std::abs(w(i, i)));
    if (!(lim.gamma > 0.0)) lim.gamma = 1.0;
    lim.spread = std::pow(eps, tol1);
    lim.pivot = std::pow(eps, tol2) * lim.gamma;
    lim.fall = relax;
    return lim;
}

// Step j of the factorisation: column j of L and the update of the rest.
void cholupd(array<double, 2>& w, int n, int j) {
    w(j, j) = std::sqrt(w(j, j));
    auto lj = w.column(j);
    for (int i = j + 1; i <= n; ++i) w(i, j) /= w(j, j);
    for (int k = j + 1; k <= n; ++k) {
        auto wk = w.column(k);
        const double f = lj[k - 1];
        if (f == 0.0) continue;
        for (int i = j; i < n; ++i) wk[i] -= lj[i] * f;
    }
}

// First phase: ordinary steps on the largest diagonal while no diagonal would fall too far. Returns the first row that
// is left to the second phase, n+1 if none is.
int first_phase(array<double, 2>& w, modchl_factor& f, const limits& lim) {
    const int n = f.n;
    for (int j = 1; j <= n; ++j) {
        int top = j;
        double least = w(j, j);
        for (int i = j + 1; i <= n; ++i) {
            if (w(i, i) > w(top, top)) top = i;
            least = std::min(least, w(i, i));
        }
        // nothing positive left, or a diagonal clearly negative beside it
        if (!(w(top, top) > lim.pivot) || least < -lim.fall * w(top, top)) return j;
        swap_rows(w, f.perm, n, j, top, j);
        // looks one step ahead: what the diagonals would be
        for (int i = j + 1; i <= n; ++i)
            if (w(i, i) - w(i, j) * w(i, j) / w(j, j) < -lim.fall * lim.gamma) return j;
        cholupd(w, n, j);
    }
    return n + 1;
}

// Lower Gerschgorin bounds of the block of rows first to n.
void gersch(const array<double, 2>& w, int n, int first, std::vector<double>& g) {
    for (int i = first; i <= n; ++i) {
        double off = 0.0;
        for (int k = first; k <= n; ++k)
            if (k != i) off += std::abs(w(k, i));
        g[i] = w(i, i) - off;
    }
}

void add_to_diagonal(array<double, 2>& w, modchl_factor& f, int j, double delta) {
    if (delta <= 0.0) return;
    w(j, j) += delta;
    f.added(f.perm(j)) = delta;
    f.modified = true;
}

// The last two rows: one addition to both, from their eigenvalues.
void fin2x2(array<double, 2>& w, modchl_factor& f, const limits& lim, double before) {
    const int n = f.n;
    const double mean = 0.5 * (w(n - 1, n - 1) + w(n, n));
    const double half = std::hypot(0.5 * (w(n - 1, n - 1) - w(n, n)), w(n, n - 1));
    const double low = mean - half;
    // least eigenvalue wanted: condition (high+delta)/(low+delta) up to 1/spread
    const double room = std::max(lim.spread * 2.0 * half / (1.0 - lim.spread), lim.pivot);
    const double delta = std::max({0.0, room - low, before});
    add_to_diagonal(w, f, n - 1, delta);
    add_to_diagonal(w, f, n, delta);
    cholupd(w, n, n - 1);
    // only rounding can have made it less
    w(n, n) = std::max(w(n, n), 0.5 * lim.pivot);
    cholupd(w, n, n);
}

void last_row(array<double, 2>& w, modchl_factor& f, const limits& lim) {
    const int n = f.n;
    const double d = w(n, n);
    add_to_diagonal(w, f, n, -d + std::max(lim.spread * -d / (1.0 - lim.spread), lim.pivot));
    cholupd(w, n, n);
}

// Second phase from row `first` on: rows are taken by their Gerschgorin bounds and get what makes them dominant.
void second_phase(array<double, 2>& w, modchl_factor& f, const limits& lim, int first) {
    const int n = f.n;
    std::vector<double> g(n + 1);
    gersch(w, n, first, g);
    double before = 0.0;
    for (int j = first; j <= n - 2; ++j) {
        // the row with the highest lower bound is the safest
        const auto top = std::max_element(g.begin() + j, g.end()) - g.begin();
        swap_rows(w, f.perm, n, j, static_cast<int>(top), j);
        std::swap(g[top], g[j]);
        double norm = 0.0;
        for (int i = j + 1; i <= n; ++i) norm += std::abs(w(i, j));
        // diagonal dominance of the row; additions never fall
        const double delta = std::max({0.0, -w(j, j) + std::max(norm, lim.pivot), before});
        add_to_diagonal(w, f, j, delta);
        before = std::max(before, delta);
        // bounds of the rest after this step: each row loses the element in column j, and at most its share of norm
        if (w(j, j) != norm)
            for (int i = j + 1; i <= n; ++i) g[i] += std::abs(w(i, j)) * (1.0 - norm / w(j, j));
        cholupd(w, n, j);
    }
    fin2x2(w, f, lim, before);
}

// --- Blocks of order 1 and 2 ---

constexpr double diagonal_share = 0.998;

// Row of the largest off-diagonal of column j among the rows behind `first`.
int largest_in_row(const array<double, 2>& w, int n, int first, int j) {
    int row = 0;
    double most = -1.0;
    for (int i = first; i <= n; ++i)
        if (i != j && std::abs(w(i, j)) > most) {
            most = std::abs(w(i, j));
            row = i;
        }
    return row;
}

void take_single(array<double, 2>& w, ldl_factor& f, int j, double tol) {
    const int n = f.n;
    const double d = w(j, j);
    if (std::abs(d) <= tol) { // the whole row vanishes
        f.d(j) = 0.0;
        for (int i = j + 1; i <= n; ++i) w(i, j) = 0.0;
        return;
    }
    f.d(j) = d;
    ++f.nrank;
    if (d < 0.0) ++f.negative;
    // not divided yet: the rest loses l l'/d
    auto lj = w.column(j);
    for (int k = j + 1; k <= n; ++k) {
        auto wk = w.column(k);
        const double factor = lj[k - 1] / d;
        for (int i = j; i < n; ++i) wk[i] -= lj[i] * factor;
    }
    for (int i = j + 1; i <= n; ++i) w(i, j) /= d;
}

// Rows j and j+1 as one block; it has one positive and one negative eigenvalue.
void take_pair(array<double, 2>& w, ldl_factor& f, int j) {
    const int n = f.n;
    const double a = w(j, j), b = w(j + 1, j), c = w(j + 1, j + 1), det = a * c - b * b;
    f.d(j) = a;
    f.d(j + 1) = c;
    f.sub(j) = b;
    f.nrank += 2;
    ++f.negative;
    auto u = w.column(j), v = w.column(j + 1);
    // (lu lv) = (u v) B^-1 for the block B; the rest loses (lu lv) (u v)'
    std::vector<double> lu(n), lv(lu.size());
    for (std::size_t i = j + 1; i < lu.size(); ++i) {
        lu[i] = (c * u[i] - b * v[i]) / det;
        lv[i] = (a * v[i] - b * u[i]) / det;
    }
    for (int k = j + 2; k <= n; ++k) {
        auto wk = w.column(k);
        const int at = k - 1;
        for (std::size_t i = j + 1; i < lu.size(); ++i) wk[i] -= lu[i] * u[at] + lv[i] * v[at];
    }
    for (std::size_t i = j + 1; i < lu.size(); ++i) u[i] = lu[i], v[i] = lv[i];
    // B is in d and sub; L has the identity there
    w(j + 1, j) = 0.0;
}

// Solves a block of order 2 of D by its eigenvalues, by their magnitude if `convex`.
void solve_pair(double a, double b, double c, bool convex, double& x, double& y) {
    const double mean = 0.5 * (a + c), half = std::hypot(0.5 * (a - c), b);
    // det < 0: one eigenvalue of each sign, none near 0
    double low = mean - half, high = mean + half;
    if (convex) low = std::abs(low), high = std::abs(high);
    const double angle = 0.5 * std::atan2(2.0 * b, a - c); // of the eigenvector of the larger eigenvalue
    const double cs = std::cos(angle), sn = std::sin(angle);
    const double p = (cs * x + sn * y) / high, q = (-sn * x + cs * y) / low;
    x = cs * p - sn * q;
    y = sn * p + cs * q;
}

} // namespace

void modchl(const array<double, 2>& a, int n, double tol1, double tol2, modchl_factor& f) {
    f.n = n;
    f.modified = false;
    copy_symmetric(a, n, f.l);
    start_permutation(f.perm, n);
    f.added.allocate(n);
    const limits lim = init(f.l, n, tol1, tol2);
    const int left = first_phase(f.l, f, lim);
    if (left == n)
        last_row(f.l, f, lim);
    else if (left < n)
        second_phase(f.l, f, lim, left);
    clear_above(f.l, n);
}

void solve_modchl(const modchl_factor& f, std::span<const double> r, std::span<double> x) {
    std::vector<double> y(f.n);
    // into the order of L and back
    for (int i = 1; i <= f.n; ++i) y[i - 1] = r[f.perm(i) - 1];
    solve(f.n, f.l, y, y);
    for (int i = 1; i <= f.n; ++i) x[f.perm(i) - 1] = y[i - 1];
}

void ldlfac(const array<double, 2>& a, int n, double tol, ldl_factor& f) {
    f.n = n;
    f.nrank = f.negative = 0;
    copy_symmetric(a, n, f.l);
    start_permutation(f.perm, n);
    f.d.allocate(n);
    f.sub.allocate(n);
    for (int j = 1; j <= n; ++j) {
        int top = j;
        for (int i = j + 1; i <= n; ++i)
            if (std::abs(f.l(i, i)) > std::abs(f.l(top, top))) top = i;
        swap_rows(f.l, f.perm, n, j, top, j);
        const int row = largest_in_row(f.l, n, j, j);
        const double off = row > 0 ? std::abs(f.l(row, j)) : 0.0;
        if (off <= tol || std::abs(f.l(j, j)) >= diagonal_share * off) {
            take_single(f.l, f, j, tol);
        } else {
            // the partner of the block comes next to it
            swap_rows(f.l, f.perm, n, j, row, j + 1);
            take_pair(f.l, f, j++);
        }
    }
    clear_above(f.l, n);
    for (int j = 1; j <= n; ++j) f.l(j, j) = 1.0;
}

void solve_ldl(const ldl_factor& f, std::span<const double> r, std::span<double> x, bool convex) {
    const std::size_t n = f.n;
    std::vector<double> y(n);
    for (std::size_t i = 0; i < n; ++i) y[i] = r[f.perm(i + 1) - 1];
    for (std::size_t j = 0; j < n; ++j) {
        const auto col = f.l.column(static_cast<std::ptrdiff_t>(j + 1));
        for (std::size_t i = j + 1; i < n; ++i) y[i] -= col[i] * y[j];
    }
    // sub is not zero at the first row of a block of order 2 alone
    for (int j = 1; j <= f.n; ++j) {
        double& yj = y[j - 1];
        if (f.sub(j) != 0.0) {
            solve_pair(f.d(j), f.sub(j), f.d(j + 1), convex, yj, y[j]);
            ++j;
        } else {
            yj = f.d(j) == 0.0 ? 0.0 : yj / (convex ? std::abs(f.d(j)) : f.d(j));
        }
    }
    for (std::size_t j = n; j-- > 0;) {
        const auto col = f.l.column(static_cast<std::ptrdiff_t>(j + 1));
        for (std::size_t i = j + 1; i < n; ++i) y[j] -= col[i] * y[i];
    }
    for (std::size_t i = 0; i < n; ++i) x[f.perm(i + 1) - 1] = y[i];
}

} // namespace tarvex
