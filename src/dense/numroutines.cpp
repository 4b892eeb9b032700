#include "dense/numroutines.h"

#include "support/screen.h"
#include "support/stop.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

namespace tarvex {

namespace {

constexpr double EPS = 1.0e-6;    // accuracy of the eigenvalues
constexpr double EZERO = 1.0e-14; // off-diagonals up to here count as zero
constexpr int MAX = 500;          // sweeps
constexpr double ZERO = 1.0e-12;  // smallest pivot of invvert

// Rotates x and y of n elements: x' = c x - s y, y' = s x + c y; those of y lie `stride` apart.
inline void rotate_pair(double* x, double* y, int n, std::ptrdiff_t stride, double c, double s) {
    for (int k = 0; k < n; ++k, y += stride) {
        const double xk = x[k], yk = *y;
        x[k] = c * xk - s * yk;
        *y = s * xk + c * yk;
    }
}

// Rotations of row p with all rows behind it; p from 0. Of w only the part from the diagonal upwards is in use, columns
// lie in one piece. row: work, holds the part of row p behind the diagonal meanwhile.
void rotate_row(std::vector<double>& w, std::vector<double>& v, std::vector<double>& row, int n, int p) {
    const auto ld = static_cast<std::ptrdiff_t>(n);
    double* const wp = w.data() + p * ld;
    for (int k = p + 1; k < n; ++k) row[k] = w[k * ld + p];
    for (int q = p + 1; q < n; ++q) {
        double* const wq = w.data() + q * ld;
        const double apq = row[q];
        if (!(std::abs(apq) > EZERO)) continue;
        // t = tan of the angle: the smaller root of t^2 + 2 theta t - 1 = 0
        const double theta = (wq[q] - wp[p]) * 0.5 / apq;
        double t = 1.0;
        if (std::abs(theta) >= EZERO) t = (theta < 0 ? -1.0 : 1.0) / (std::abs(theta) + std::hypot(theta, 1.0));
        const double c = 1.0 / std::sqrt(t * t + 1.0), s = t * c;
        // columns p and q above p; between p and q (row p against column q); behind q (two rows)
        rotate_pair(wp, wq, p, 1, c, s);
        rotate_pair(row.data() + p + 1, wq + p + 1, q - p - 1, 1, c, s);
        if (q + 1 < n) rotate_pair(row.data() + q + 1, wq + ld + q, n - q - 1, ld, c, s);
        rotate_pair(v.data() + p * ld, v.data() + q * ld, n, 1, c, s);
        wp[p] -= t * apq;
        wq[q] += t * apq;
        row[q] = 0.0;
    }
    for (int k = p + 1; k < n; ++k) w[k * ld + p] = row[k];
}

// Sums of squares of all elements and of those off the diagonal.
void squares(const std::vector<double>& w, int n, double& all, double& off) {
    all = off = 0.0;
    for (int j = 0; j < n; ++j) {
        const double* const col = w.data() + static_cast<std::ptrdiff_t>(j) * n;
        for (int i = 0; i < j; ++i) off += 2.0 * col[i] * col[i];
        all += col[j] * col[j];
    }
    all += off;
}

void no_convergence() {
    print_list(screen(), "eigenvalue decomposition failed");
    print_list(screen(), "MAX. NO. OF SWEEPS REACHED    =", MAX);
    print_list(screen(), "ACCURACY TOLERANCE GIVEN      =", EPS);
    stop("numerical problems");
}

// Makes w diagonal; v collects the rotations.
void jacobi(std::vector<double>& w, std::vector<double>& v, int n) {
    std::vector<double> row(n);
    for (int sweep = 1; sweep <= MAX; ++sweep) {
        for (int p = 0; p < n - 1; ++p) rotate_row(w, v, row, n, p);
        double all, off;
        squares(w, n, all, off);
        constexpr double rounding = std::numeric_limits<double>::epsilon();
        if (off < EPS * EPS || off < rounding * rounding * all) return;
    }
    no_convergence();
}

// Sweeps the packed triangle on row k; swept rows then hold minus the inverse. col: work, n elements.
void sweep(std::span<double> a, int n, int k, std::vector<double>& col) {
    // row and column k of the matrix as it is, out of the triangle
    for (int i = 1; i < k; ++i) col[i - 1] = a[ihmssf(i, k, n) - 1];
    double* const row_k = a.data() + ihmssf(k, k, n) - k; // element (k,j) at [j-1]
    for (int j = k; j <= n; ++j) col[j - 1] = row_k[j - 1];
    // a(i,j) - a(i,k) a(k,j)/d; column k divided by d, and -1/d
    const double pivot = col[k - 1];
    for (int i = 1; i <= n; ++i) {
        const double f = col[i - 1] / pivot;
        if (i == k || f == 0.0) continue;
        double* const row = a.data() + ihmssf(i, i, n) - i;
        for (int j = i; j <= n; ++j) row[j - 1] -= f * col[j - 1];
        if (i < k) row[k - 1] = f;
    }
    for (int j = k + 1; j <= n; ++j) row_k[j - 1] = col[j - 1] / pivot;
    row_k[k - 1] = -1.0 / pivot;
}

// The row not swept yet with the largest diagonal in magnitude, the lowest of equals; 0 if all are swept.
int next_pivot(std::span<const double> a, int n, const std::vector<char>& swept) {
    int best = 0;
    double amax = -1.0;
    for (int i = 1; i <= n; ++i) {
        const double d = std::abs(a[ihmssf(i, i, n) - 1]);
        if (!swept[i - 1] && d > amax) {
            amax = d;
            best = i;
        }
    }
    return best;
}

void tell_pivot(int step, int row, double dmax) {
    if (std::abs(dmax) < 1.0e-5) print_list(screen(), "SMALL PIVOT ", step, dmax);
    if (dmax < 0.0) print_list(screen(), "NEGATIVE PIVOT, IGNORE SIGN FOR LOG DET", step, row, dmax);
}

void tell_negative(int neg) {
    if (neg > 0) print_list(screen(), "NO. OF NEGATIVE PIVOTS =", neg);
    if (neg % 2 == 1)
        print_list(screen(), "dzqxhf : uneven no. of negative pivots", " - log determinant not correct !");
}

} // namespace

array<double, 2> unpack(std::span<const double> packed, int n) {
    array<double, 2> full;
    full.allocate(n, n);
    std::size_t ij = 0;
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) full(i, j) = full(j, i) = packed[ij++];
    return full;
}

void eigem(const array<double, 2>& a, array<double>& eig, array<double, 2>& vectors, int n, double tol, int& nzero) {
    if (n < 1) stop("eigem : n = " + std::to_string(n));
    const std::size_t order = n;
    std::vector<double> w(order * order), v(order * order, 0.0);
    for (int j = 1; j <= n; ++j) {
        std::copy_n(a.column(j).begin(), n, w.begin() + static_cast<std::ptrdiff_t>(j - 1) * n);
        v[(order + 1) * (j - 1)] = 1.0;
    }
    if (n > 1) jacobi(w, v, n);
    if (eig.upper() < n) eig.allocate(n);
    if (vectors.upper(1) < n || vectors.upper(2) < n) vectors.allocate(n, n);
    std::vector<int> by_size(order);
    std::iota(by_size.begin(), by_size.end(), 0);
    const auto value = [&](int k) { return w[(order + 1) * k]; };
    std::stable_sort(by_size.begin(), by_size.end(), [&](int i, int j) { return value(i) > value(j); });
    nzero = 0;
    for (int k = 1; k <= n; ++k) {
        const int from = by_size[k - 1];
        eig(k) = value(from);
        if (eig(k) < tol) ++nzero;
        std::copy_n(v.begin() + static_cast<std::ptrdiff_t>(from) * n, n, vectors.column(k).begin());
    }
}

void eigem_any_size(const array<double, 2>& a, array<double>& eig, array<double, 2>& vectors, int n) {
    double largest = 0.0;
    for (int j = 1; j <= n; ++j)
        for (int i = 1; i <= n; ++i) largest = std::max(largest, std::abs(a(i, j)));
    constexpr double low = 1.0e-2, high = 1.0e8; // the absolute tolerances above leave enough digits between them
    const bool ordinary = (largest >= low && largest <= high) || !(largest > 0.0) || !std::isfinite(largest);
    const double unit = ordinary ? 1.0 : std::exp2(std::round(std::log2(largest)));
    // a power of two: no digit is lost
    array<double, 2> scaled = a;
    for (double& x : scaled) x /= unit;
    int nzero = 0;
    eigem(scaled, eig, vectors, n, 0.0, nzero);
    for (int k = 1; k <= n; ++k) eig(k) *= unit;
}

bool raise_eigenvalues(array<double, 2>& a, int n, int rank, double floor) {
    array<double, 2> vectors;
    array<double> eig;
    int nzero = 0;
    eigem(a, eig, vectors, n, floor, nzero);
    if (!(eig(rank) < floor)) return false;
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) {
            double s = 0.0;
            for (int k = 1; k <= rank; ++k) s += vectors(i, k) * vectors(j, k) * std::max(eig(k), floor);
            a(i, j) = a(j, i) = s;
        }
    return true;
}

bool cholesky(array<double, 2>& a, int n, double least) {
    for (int j = 1; j <= n; ++j)
        for (int i = j; i <= n; ++i) {
            double s = a(i, j);
            for (int k = 1; k < j; ++k) s -= a(i, k) * a(j, k);
            if (i == j && !(s > least)) return false;
            a(i, j) = i == j ? std::sqrt(s) : s / a(j, j);
        }
    return true;
}

void gen_inverse(std::span<double> a, int n, double tol, int& rank, double& ldet, int* negative) {
    rank = 0;
    ldet = 0.0;
    int neg = 0;
    if (negative) *negative = 0;
    // signed, not in magnitude: a negative variance has rank 0
    if (n == 1) {
        rank = a[0] > tol ? 1 : 0;
        ldet = rank ? std::log(a[0]) : 0.0;
        a[0] = rank ? 1.0 / a[0] : 0.0;
        return;
    }
    std::vector<char> swept(std::max(n, 0), 0);
    std::vector<double> col(swept.size());
    while (const int k = next_pivot(a, n, swept)) {
        const double dmax = a[ihmssf(k, k, n) - 1];
        if (!(std::abs(dmax) > tol)) break;
        tell_pivot(rank + 1, k, dmax);
        swept[k - 1] = 1;
        ++rank;
        ldet += std::log(std::abs(dmax));
        if (dmax < 0.0) ++neg;
        sweep(a, n, k, col);
    }
    // swept rows hold minus the inverse; rows never swept are no part of it
    std::size_t ij = 0;
    for (int i = 0; i < n; ++i)
        for (int j = i; j < n; ++j, ++ij) a[ij] = swept[i] && swept[j] ? -a[ij] : 0.0;
    tell_negative(neg);
    if (negative) *negative = neg;
}

bool invvert(std::span<double> a, int n) {
    std::vector<char> swept(std::max(n, 0), 0);
    std::vector<double> col(swept.size());
    while (const int k = next_pivot(a, n, swept)) {
        if (!(std::abs(a[ihmssf(k, k, n) - 1]) >= ZERO)) return false;
        swept[k - 1] = 1;
        sweep(a, n, k, col);
    }
    for (double& x : a.first(triangle<std::size_t>(n))) x = -x;
    return true;
}

void solve_lower(int n, const array<double, 2>& a, std::span<const double> r, std::span<double> x) {
    if (x.data() != r.data()) std::copy_n(r.begin(), n, x.begin());
    for (int j = 1; j <= n; ++j) {
        const auto col = a.column(j);
        const double xj = x[j - 1] /= col[j - 1];
        for (int i = j; i < n; ++i) x[i] -= col[i] * xj;
    }
}

void solve(int n, const array<double, 2>& a, std::span<const double> r, std::span<double> x) {
    solve_lower(n, a, r, x);
    for (int j = n; j >= 1; --j) {
        const auto col = a.column(j);
        double s = x[j - 1];
        for (int i = j; i < n; ++i) s -= col[i] * x[i];
        x[j - 1] = s / col[j - 1];
    }
}

} // namespace tarvex
