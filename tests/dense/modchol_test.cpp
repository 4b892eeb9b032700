// Modified and indefinite factorisations: what is safe stays as it is, what is not becomes a safe step.
#include "dense/modchol.h"

#include "support/dense_oracle.h"
#include "support/fixture.h"

#include <cmath>
#include <random>

using namespace tarvex;

namespace {

using matrix = array<double, 2>;

class modchol : public tarvex_test {
protected:
    static matrix zeros(int n) {
        matrix a;
        a.allocate(n, n);
        return a;
    }
    static matrix full_of(int n, std::vector<double> rows) {
        matrix a = zeros(n);
        std::size_t k = 0;
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= n; ++j) a(i, j) = rows[k++];
        return a;
    }
    // Q diag(values) Q' with random orthogonal Q.
    static matrix with_eigenvalues(const std::vector<double>& values, unsigned seed) {
        const int n = static_cast<int>(values.size());
        std::mt19937 gen(seed);
        std::normal_distribution<double> normal;
        const auto size = static_cast<std::size_t>(n);
        oracle::dense s = oracle::zeros(size, size);
        for (std::size_t i = 0; i < size; ++i)
            for (std::size_t j = i; j < size; ++j) s[i][j] = s[j][i] = normal(gen);
        const oracle::dense q = oracle::eigenvectors(s);
        matrix a = zeros(n);
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= n; ++j)
                for (std::size_t k = 0; k < size; ++k) a(i, j) += q[i - 1][k] * values[k] * q[j - 1][k];
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j < i; ++j) a(j, i) = a(i, j);
        return a;
    }
    static oracle::vec eigenvalues(const matrix& a, int n) { // ascending
        const auto size = static_cast<std::size_t>(n);
        oracle::dense d = oracle::zeros(size, size);
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= n; ++j) d[i - 1][j - 1] = a(i, j);
        return oracle::eigenvalues(d);
    }
    static double smallest_eigenvalue(const matrix& a, int n) { return eigenvalues(a, n).front(); }
    static std::vector<double> times(const matrix& a, const std::vector<double>& x) {
        const int n = static_cast<int>(x.size());
        std::vector<double> y(x.size());
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= n; ++j)
                y[static_cast<std::size_t>(i - 1)] += a(i, j) * x[static_cast<std::size_t>(j - 1)];
        return y;
    }
    static std::vector<double> counting(int n) {
        std::vector<double> x(static_cast<std::size_t>(n));
        for (int i = 0; i < n; ++i) x[static_cast<std::size_t>(i)] = i % 2 ? 1.0 + i : -0.5 * i - 1.0;
        return x;
    }
    static double inner(const std::vector<double>& x, const std::vector<double>& y) {
        double s = 0.0;
        for (std::size_t i = 0; i < x.size(); ++i) s += x[i] * y[i];
        return s;
    }
    static matrix with_addition(matrix a, const modchl_factor& f) {
        for (int i = 1; i <= f.n; ++i) a(i, i) += f.added(i);
        return a;
    }
    // P L L' P' against A+E, and the solution of (A+E) x = r.
    static void expect_factor(const matrix& a, const modchl_factor& f, double tol) {
        const int n = f.n;
        const matrix ae = with_addition(a, f);
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= n; ++j) {
                double s = 0.0;
                for (int k = 1; k <= n; ++k) s += f.l(i, k) * f.l(j, k);
                EXPECT_NEAR(s, ae(f.perm(i), f.perm(j)), tol);
            }
        const auto r = counting(n);
        std::vector<double> x(r.size());
        solve_modchl(f, r, x);
        const auto back = times(ae, x);
        double size = 1.0;
        for (double v : x) size = std::max(size, std::abs(v));
        for (std::size_t i = 0; i < r.size(); ++i) EXPECT_NEAR(back[i], r[i], tol * size);
        EXPECT_GT(inner(r, x), 0.0);
    }
    static matrix rebuilt(const ldl_factor& f) {
        const int n = f.n;
        matrix d = zeros(n), a = zeros(n);
        for (int j = 1; j <= n; ++j) {
            d(j, j) = f.d(j);
            if (f.sub(j) != 0.0) d(j + 1, j) = d(j, j + 1) = f.sub(j);
        }
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= n; ++j)
                for (int k = 1; k <= n; ++k)
                    for (int m = std::max(1, k - 1); m <= std::min(n, k + 1); ++m)
                        a(f.perm(i), f.perm(j)) += f.l(i, k) * d(k, m) * f.l(j, m);
        return a;
    }
    static double difference(const matrix& a, const matrix& b) {
        double d = 0.0;
        for (std::ptrdiff_t k = 0; k < a.size(); ++k) d = std::max(d, std::abs(a.data()[k] - b.data()[k]));
        return d;
    }
    modchl_factor f;
    ldl_factor g;
};

} // namespace

TEST_F(modchol, positive_definite_matrices_are_not_changed) {
    for (int n : {1, 2, 3, 6, 20}) {
        std::vector<double> values;
        for (int k = 1; k <= n; ++k) values.push_back(std::pow(10.0, 4.0 * k / n - 3.0));
        const matrix a = with_eigenvalues(values, static_cast<unsigned>(n));
        modchl(a, n, 0.5, 0.6, f);
        EXPECT_FALSE(f.modified);
        for (double e : f.added) EXPECT_EQ(e, 0.0);
        expect_factor(a, f, 1e-9);
    }
}

TEST_F(modchol, indefinite_matrices_become_positive_definite_by_a_small_addition) {
    for (unsigned seed = 1; seed <= 40; ++seed) {
        const int n = 2 + static_cast<int>(seed % 9);
        std::mt19937 gen(seed);
        std::uniform_real_distribution<double> uniform(-1.0, 1.0);
        std::vector<double> values;
        for (int k = 0; k < n; ++k) values.push_back(uniform(gen) * (seed % 2 ? 1.0 : 1000.0));
        values[0] = -std::abs(values[0]);
        const matrix a = with_eigenvalues(values, seed);
        modchl(a, n, 0.5, 0.6, f);
        EXPECT_TRUE(f.modified);
        double largest = 0.0, least = 0.0, gamma = 0.0;
        for (int i = 1; i <= n; ++i) {
            EXPECT_GE(f.added(i), 0.0);
            largest = std::max(largest, f.added(i));
            gamma = std::max(gamma, std::abs(a(i, i)));
        }
        for (double v : values) least = std::min(least, v);
        EXPECT_GT(smallest_eigenvalue(with_addition(a, f), n), 0.0);
        EXPECT_LE(largest, -5.0 * least + 1e-6 * gamma) << n; // Gerschgorin bounds keep it near the least possible
        expect_factor(a, f, 1e-6 * std::max(1.0, gamma));
    }
}

TEST_F(modchol, known_small_cases) {
    modchl(full_of(2, {1, 2, 2, 1}), 2, 0.5, 0.6, f); // eigenvalues 3 and -1
    EXPECT_NEAR(f.added(1), 1.0, 1e-6);
    EXPECT_EQ(f.added(1), f.added(2));
    modchl(full_of(1, {-2}), 1, 0.5, 0.6, f);
    EXPECT_GT(f.added(1), 2.0);
    EXPECT_NEAR(f.added(1), 2.0, 1e-6);
    modchl(full_of(3, {4, 0, 0, 0, -1, 0, 0, 0, 2}), 3, 0.5, 0.6, f);
    EXPECT_EQ(f.added(1), 0.0);
    EXPECT_NEAR(f.added(2), 1.0, 1e-6);
    modchl(zeros(3), 3, 0.5, 0.6, f);
    EXPECT_TRUE(f.modified);
    for (int i = 1; i <= 3; ++i) EXPECT_GT(f.l(i, i), 0.0);
}

TEST_F(modchol, ill_conditioned_indefinite_matrix) {
    // A matrix of rank about one with three small negative eigenvalues, on which unrevised bounds add far too much.
    const matrix a = full_of(4, {1890.3, -1705.6, -315.8, 3000.3, -1705.6, 1538.3, 284.9, -2706.6, -315.8, 284.9, 52.5,
                                 -501.2, 3000.3, -2706.6, -501.2, 4760.8});
    EXPECT_NEAR(smallest_eigenvalue(a, 4), -0.378, 1e-2);
    modchl(a, 4, 1.0 / 3, 2.0 / 3, f);
    EXPECT_TRUE(f.modified);
    EXPECT_GT(smallest_eigenvalue(with_addition(a, f), 4), 0.0);
    for (double e : f.added) EXPECT_LT(e, 1.0);
}

TEST_F(modchol, singular_matrices_get_a_tiny_addition) {
    const matrix a = with_eigenvalues({3.0, 2.0, 1.0, 0.0, 0.0}, 5);
    modchl(a, 5, 0.5, 0.6, f);
    for (double e : f.added) EXPECT_LT(e, 1e-6);
    EXPECT_GT(smallest_eigenvalue(with_addition(a, f), 5), -1e-12);
    const auto r = counting(5);
    std::vector<double> x(5);
    solve_modchl(f, r, x);
    for (double v : x) EXPECT_TRUE(std::isfinite(v));
}

TEST_F(modchol, blocks_reproduce_the_matrix) {
    for (unsigned seed = 1; seed <= 60; ++seed) {
        const int n = 1 + static_cast<int>(seed % 10);
        std::mt19937 gen(seed);
        std::uniform_real_distribution<double> uniform(-1.0, 1.0);
        matrix a = zeros(n);
        int negative = 0;
        for (int i = 1; i <= n; ++i)
            for (int j = i; j <= n; ++j) a(i, j) = a(j, i) = (i == j ? 0.3 : 1.0) * uniform(gen);
        ldlfac(a, n, 1e-12, g);
        EXPECT_LT(difference(rebuilt(g), a), 1e-11) << seed;
        EXPECT_EQ(g.nrank, n);
        for (double e : eigenvalues(a, n)) negative += e < 0.0;
        EXPECT_EQ(g.negative, negative); // inertia is kept
        const auto r = counting(n);
        std::vector<double> x(r.size());
        solve_ldl(g, r, x, false);
        const auto back = times(a, x);
        double size = 1.0;
        for (double v : x) size = std::max(size, std::abs(v));
        for (std::size_t i = 0; i < r.size(); ++i) EXPECT_NEAR(back[i], r[i], 1e-10 * size);
        solve_ldl(g, r, x, true);
        EXPECT_GT(inner(r, x), 0.0);
    }
}

TEST_F(modchol, positive_definite_matrices_need_no_pairs) {
    const matrix a = with_eigenvalues({5.0, 4.0, 0.5, 0.01, 3.0}, 9);
    ldlfac(a, 5, 1e-12, g);
    EXPECT_EQ(g.negative, 0);
    for (double s : g.sub) EXPECT_EQ(s, 0.0);
    const auto r = counting(5);
    std::vector<double> x(5), y(5);
    solve_ldl(g, r, x, false);
    solve_ldl(g, r, y, true);
    EXPECT_EQ(x, y);
    modchl(a, 5, 0.5, 0.6, f);
    solve_modchl(f, r, y);
    for (std::size_t i = 0; i < 5; ++i) EXPECT_NEAR(x[i], y[i], 1e-9);
}

TEST_F(modchol, zero_diagonals_make_pairs) {
    ldlfac(full_of(2, {0, 1, 1, 0}), 2, 1e-12, g);
    EXPECT_EQ(g.sub(1), 1.0);
    EXPECT_EQ(g.nrank, 2);
    EXPECT_EQ(g.negative, 1);
    std::vector<double> x{3.0, 4.0};
    solve_ldl(g, x, x, false);
    EXPECT_NEAR(x[0], 4.0, 1e-14);
    EXPECT_NEAR(x[1], 3.0, 1e-14);
    ldlfac(full_of(2, {0.998, 1, 1, 0}), 2, 1e-12, g); // the diagonal still does
    EXPECT_EQ(g.sub(1), 0.0);
    ldlfac(full_of(2, {0.99, 1, 1, 0}), 2, 1e-12, g);
    EXPECT_EQ(g.sub(1), 1.0);
}

TEST_F(modchol, vanishing_rows_are_left_out) {
    const matrix a = full_of(4, {4, 2, 0, 2, 2, 1, 0, 1, 0, 0, 0, 0, 2, 1, 0, 3}); // row 2 half of row 1, row 3 empty
    ldlfac(a, 4, 1e-10, g);
    EXPECT_EQ(g.nrank, 2);
    EXPECT_LT(difference(rebuilt(g), a), 1e-14);
    const auto r = times(a, {1.0, 1.0, 1.0, 1.0});
    std::vector<double> x(4);
    solve_ldl(g, r, x, true);
    EXPECT_EQ(x[2], 0.0);
    const auto back = times(a, x);
    for (std::size_t i = 0; i < 4; ++i) EXPECT_NEAR(back[i], r[i], 1e-12);
}
