// Dense matrix routines against closed forms and plain matrix products.
#include "dense/numroutines.h"

#include "dense/general_inverse.h"
#include "support/fixture.h"

#include <cmath>
#include <random>

using namespace tarvex;

namespace {

class numroutines : public tarvex_test {
protected:
    array<double> eig;
    array<double, 2> vectors;
    int nzero = -1;
};

array<double, 2> full_of(int n, std::vector<double> rows) {
    array<double, 2> a;
    a.allocate(n, n);
    std::size_t k = 0;
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) a(i, j) = rows[k++];
    return a;
}

// Symmetric with the given signs of eigenvalues left to chance; `definite` adds a diagonal.
array<double, 2> random_symmetric(int n, unsigned seed, bool definite) {
    std::mt19937 gen(seed);
    std::normal_distribution<double> normal;
    array<double, 2> a;
    a.allocate(n, n);
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) a(i, j) = a(j, i) = normal(gen) + (definite && i == j ? 3.0 * n : 0.0);
    return a;
}

std::vector<double> packed_of(const array<double, 2>& a, int n) {
    std::vector<double> p(static_cast<std::size_t>(n * (n + 1) / 2));
    std::size_t ij = 0;
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) p[ij++] = a(i, j);
    return p;
}

array<double, 2> product(const array<double, 2>& a, const array<double, 2>& b, int n) {
    array<double, 2> c;
    c.allocate(n, n);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j)
            for (int k = 1; k <= n; ++k) c(i, j) += a(i, k) * b(k, j);
    return c;
}

double largest_difference(const array<double, 2>& a, const array<double, 2>& b, int n) {
    double d = 0.0;
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) d = std::max(d, std::abs(a(i, j) - b(i, j)));
    return d;
}

} // namespace

TEST_F(numroutines, packed_index) {
    for (int n : {1, 2, 7}) {
        EXPECT_EQ(ihmssf(1, 1, n), 1);
        EXPECT_EQ(ihmssf(n, n, n), n * (n + 1) / 2);
        int ij = 0;
        for (int i = 1; i <= n; ++i)
            for (int j = i; j <= n; ++j) {
                EXPECT_EQ(ihmssf(i, j, n), ++ij);
                EXPECT_EQ(packed_place(i, j, n), ij);
                EXPECT_EQ(packed_place(j, i, n), ij);
            }
    }
}

TEST_F(numroutines, packed_to_full_and_back) {
    const std::vector<double> p{1, 2, 3, 4, 5, 6};
    const array<double, 2> a = unpack(p, 3);
    ASSERT_EQ(a.size(), 9);
    EXPECT_EQ(largest_difference(a, full_of(3, {1, 2, 3, 2, 4, 5, 3, 5, 6}), 3), 0.0);
    EXPECT_EQ(packed_of(a, 3), p);
}

TEST_F(numroutines, cholesky_factor_times_its_transpose_is_the_matrix) {
    for (int n : {1, 2, 5, 12}) {
        const auto a = random_symmetric(n, 31u + static_cast<unsigned>(n), true);
        auto l = a;
        ASSERT_TRUE(cholesky(l, n));
        for (int j = 2; j <= n; ++j)
            for (int i = 1; i < j; ++i) {
                EXPECT_EQ(l(i, j), a(i, j)) << "the upper triangle stays";
                l(i, j) = 0.0;
            }
        auto t = l;
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= n; ++j) t(i, j) = l(j, i);
        EXPECT_LT(largest_difference(product(l, t, n), a, n), 1e-12 * n);
    }
    auto indefinite = full_of(2, {1, 2, 2, 1});
    EXPECT_FALSE(cholesky(indefinite, 2));
    auto singular = full_of(2, {1, 1, 1, 1});
    EXPECT_FALSE(cholesky(singular, 2));
    auto unknown = full_of(1, {NAN});
    EXPECT_FALSE(cholesky(unknown, 1));
    auto good = full_of(2, {4, 2, 2, 1.5}), poor = good; // pivots 4 and 0.5
    EXPECT_TRUE(cholesky(good, 2, 0.4));
    EXPECT_FALSE(cholesky(poor, 2, 0.6));
    std::vector<double> x(2);
    solve_lower(2, good, std::vector<double>{2.0, 3.0}, x);
    EXPECT_NEAR(x[0], 1.0, 1e-15);
    EXPECT_NEAR(x[1], 2.0 / std::sqrt(0.5), 1e-14);
}

TEST_F(numroutines, raised_eigenvalues_keep_their_vectors) {
    // (1 1)/sqrt 2 and (1 -1)/sqrt 2 with eigenvalues 3 and -1
    auto a = full_of(2, {1, 2, 2, 1});
    EXPECT_TRUE(raise_eigenvalues(a, 2, 2, 0.5));
    EXPECT_LT(largest_difference(a, full_of(2, {1.75, 1.25, 1.25, 1.75}), 2), 1e-14);
    EXPECT_FALSE(raise_eigenvalues(a, 2, 2, 0.4)) << "above the floor";
    EXPECT_LT(largest_difference(a, full_of(2, {1.75, 1.25, 1.25, 1.75}), 2), 1e-14);
    a = full_of(2, {1, 2, 2, 1});
    EXPECT_FALSE(raise_eigenvalues(a, 2, 1, 0.5)) << "the leading one is above";
    EXPECT_EQ(largest_difference(a, full_of(2, {1, 2, 2, 1}), 2), 0.0);
    EXPECT_TRUE(raise_eigenvalues(a, 2, 1, 4.0)) << "the other is left out";
    EXPECT_LT(largest_difference(a, full_of(2, {2, 2, 2, 2}), 2), 1e-14);
}

TEST_F(numroutines, eigem_of_a_diagonal_only_sorts) {
    eigem(full_of(3, {2, 0, 0, 0, 5, 0, 0, 0, -1}), eig, vectors, 3, 1e-6, nzero);
    EXPECT_EQ(eig(1), 5.0);
    EXPECT_EQ(eig(2), 2.0);
    EXPECT_EQ(eig(3), -1.0);
    EXPECT_EQ(largest_difference(vectors, full_of(3, {0, 1, 0, 1, 0, 0, 0, 0, 1}), 3), 0.0);
    EXPECT_EQ(nzero, 1);
}

TEST_F(numroutines, eigem_of_order_one) {
    eigem(full_of(1, {-4}), eig, vectors, 1, 1e-6, nzero);
    EXPECT_EQ(eig(1), -4.0);
    EXPECT_EQ(vectors(1, 1), 1.0);
    EXPECT_EQ(nzero, 1);
}

TEST_F(numroutines, eigem_counts_negative_values_as_vanishing) {
    eigem(full_of(2, {1, 0, 0, -1}), eig, vectors, 2, 1e-6, nzero);
    EXPECT_EQ(nzero, 1);
}

TEST_F(numroutines, eigem_finds_very_negative_values) {
    eigem(full_of(2, {-3e6, 0, 0, -2e6}), eig, vectors, 2, 1e-6, nzero);
    EXPECT_EQ(eig(1), -2e6);
    EXPECT_EQ(eig(2), -3e6);
}

TEST_F(numroutines, eigem_makes_one_sweep_on_small_matrices) {
    eigem(full_of(2, {2e-7, 1e-7, 1e-7, 2e-7}), eig, vectors, 2, 1e-6, nzero);
    EXPECT_NEAR(eig(1), 3e-7, 1e-20);
    EXPECT_NEAR(eig(2), 1e-7, 1e-20);
}

TEST_F(numroutines, eigem_reproduces_the_matrix_at_any_scale) {
    for (double scale : {1.0, 1e9, 1e12, 1e-3})
        for (int n : {2, 3, 5, 12, 40}) {
            auto a = random_symmetric(n, static_cast<unsigned>(n), false);
            for (double& x : a) x *= scale;
            eigem(a, eig, vectors, n, 1e-6, nzero);
            array<double, 2> scaled, turned;
            scaled.allocate(n, n);
            turned.allocate(n, n);
            for (int i = 1; i <= n; ++i)
                for (int j = 1; j <= n; ++j) {
                    scaled(i, j) = vectors(i, j) * eig(j);
                    turned(i, j) = vectors(j, i);
                }
            EXPECT_LT(largest_difference(product(scaled, turned, n), a, n), std::max(1e-11 * scale, 2e-6)) << n;
            auto one = product(turned, vectors, n);
            for (int i = 1; i <= n; ++i) one(i, i) -= 1.0;
            for (double x : one) EXPECT_NEAR(x, 0.0, 1e-12);
            for (int k = 2; k <= n; ++k) EXPECT_GE(eig(k - 1), eig(k));
            eig.deallocate();
            vectors.deallocate();
        }
}

TEST_F(numroutines, eigem_of_a_larger_matrix_with_known_values) {
    const int n = 200; // second differences: 2 - 2 cos(k pi/(n+1))
    array<double, 2> a;
    a.allocate(n, n);
    for (int i = 1; i <= n; ++i) {
        a(i, i) = 2.0;
        if (i < n) a(i, i + 1) = a(i + 1, i) = -1.0;
    }
    eigem(a, eig, vectors, n, 1e-6, nzero);
    for (int k = 1; k <= n; ++k) EXPECT_NEAR(eig(k), 2.0 + 2.0 * std::cos(k * M_PI / (n + 1)), 1e-10);
    EXPECT_EQ(nzero, 0);
}

TEST_F(numroutines, eigem_works_on_the_leading_part) {
    auto a = random_symmetric(4, 3, false);
    a(1, 1) = 2, a(1, 2) = a(2, 1) = 1, a(2, 2) = 2;
    eigem(a, eig, vectors, 2, 1e-6, nzero);
    EXPECT_NEAR(eig(1), 3.0, 1e-12);
    EXPECT_NEAR(eig(2), 1.0, 1e-12);
}

TEST_F(numroutines, eigem_failures_stop) {
    EXPECT_STOP(eigem(full_of(1, {1}), eig, vectors, 0, 1e-6, nzero), "eigem : n = 0");
    EXPECT_STOP(eigem(full_of(2, {1, NAN, NAN, 1}), eig, vectors, 2, 1e-6, nzero), "numerical problems");
    EXPECT_NE(screen_text().find("MAX. NO. OF SWEEPS REACHED    = 500\n"), std::string::npos);
}

TEST_F(numroutines, inverse_of_zero_is_zero) {
    std::vector<double> a(6, 0.0);
    int rank = -1;
    double ldet = -1;
    gen_inverse(a, 3, 1e-8, rank, ldet);
    EXPECT_EQ(rank, 0);
    EXPECT_EQ(ldet, 0.0);
    EXPECT_EQ(a, std::vector<double>(6, 0.0));
    EXPECT_EQ(screen_text(), "");
}

TEST_F(numroutines, inverse_of_order_one_takes_the_sign) {
    int rank = -1;
    double ldet = -1;
    std::vector<double> a{4.0};
    gen_inverse(a, 1, 1e-8, rank, ldet);
    EXPECT_EQ(a[0], 0.25);
    EXPECT_EQ(rank, 1);
    EXPECT_EQ(ldet, std::log(4.0));
    for (double x : {-4.0, 1e-8, 0.0}) {
        a[0] = x;
        gen_inverse(a, 1, 1e-8, rank, ldet);
        EXPECT_EQ(a[0], 0.0);
        EXPECT_EQ(rank, 0);
        EXPECT_EQ(ldet, 0.0);
    }
}

TEST_F(numroutines, inverse_of_positive_definite_matrices) {
    for (int n : {2, 3, 10, 30}) {
        const auto a = random_symmetric(n, 17u + static_cast<unsigned>(n), true);
        auto p = packed_of(a, n), q = p;
        int rank = 0;
        double ldet = 0;
        gen_inverse(p, n, 1e-8, rank, ldet);
        EXPECT_EQ(rank, n);
        const array<double, 2> inverse = unpack(p, n);
        auto one = product(a, inverse, n);
        for (int i = 1; i <= n; ++i) one(i, i) -= 1.0;
        for (double x : one) EXPECT_NEAR(x, 0.0, 1e-12);
        eigem(a, eig, vectors, n, 1e-6, nzero);
        double sum = 0;
        for (int k = 1; k <= n; ++k) sum += std::log(eig(k));
        EXPECT_NEAR(ldet, sum, 1e-9);
        EXPECT_TRUE(invvert(q, n));
        for (std::size_t k = 0; k < p.size(); ++k) EXPECT_NEAR(p[k], q[k], 1e-15);
        EXPECT_EQ(screen_text(), "");
    }
}

TEST_F(numroutines, inverse_of_a_singular_matrix_is_a_generalised_one) {
    const int n = 4; // rows 1 and 2 make row 3, row 4 is empty
    const auto a = full_of(n, {4, 1, 5, 0, 1, 3, 4, 0, 5, 4, 9, 0, 0, 0, 0, 0});
    auto p = packed_of(a, n);
    int rank = 0, negative = -1;
    double ldet = 0;
    gen_inverse(p, n, 1e-8, rank, ldet, &negative);
    EXPECT_EQ(rank, 2);
    EXPECT_EQ(negative, 0);
    const array<double, 2> g = unpack(p, n);
    EXPECT_LT(largest_difference(product(product(a, g, n), a, n), a, n), 1e-12);
    EXPECT_NEAR(ldet, std::log(9.0 * (3.0 - 16.0 / 9.0)), 1e-12);
    for (int j = 1; j <= n; ++j) EXPECT_EQ(g(4, j), 0.0);
}

TEST_F(numroutines, negative_pivots_are_told) {
    std::vector<double> a{1, 2, 1}; // eigenvalues 3 and -1
    int rank = 0, negative = 0;
    double ldet = 9;
    gen_inverse(a, 2, 1e-8, rank, ldet, &negative);
    EXPECT_EQ(rank, 2);
    EXPECT_EQ(negative, 1);
    EXPECT_NEAR(ldet, std::log(3.0), 1e-14);
    EXPECT_NEAR(a[0], -1.0 / 3, 1e-15);
    EXPECT_NEAR(a[1], 2.0 / 3, 1e-15);
    EXPECT_NE(screen_text().find("NEGATIVE PIVOT, IGNORE SIGN FOR LOG DET 2 2 -3.0\nNO. OF NEGATIVE PIVOTS = 1\n"
                                 "dzqxhf : uneven no. of negative pivots"),
              std::string::npos);
    a = {-1, 0, -2};
    clear_screen();
    gen_inverse(a, 2, 1e-8, rank, ldet);
    EXPECT_NE(screen_text().find("NO. OF NEGATIVE PIVOTS = 2\n"), std::string::npos);
    EXPECT_EQ(screen_text().find("uneven"), std::string::npos);
}

TEST_F(numroutines, small_pivots_are_told) {
    std::vector<double> a{1, 0, 1e-6};
    int rank = 0;
    double ldet = 0;
    gen_inverse(a, 2, 1e-8, rank, ldet);
    EXPECT_EQ(rank, 2);
    EXPECT_EQ(screen_text(), "SMALL PIVOT  2 1e-06\n");
}

TEST_F(numroutines, invvert_tells_singular_matrices) {
    std::vector<double> a{1, 1, 1};
    EXPECT_FALSE(invvert(a, 2));
}

TEST_F(numroutines, invvert_takes_pivots_down_to_its_limit) {
    std::vector<double> a{1, 0, 2e-12};
    EXPECT_TRUE(invvert(a, 2));
    EXPECT_NEAR(a[2], 5e11, 1e-3);
    a = {1, 0, 5e-13};
    EXPECT_FALSE(invvert(a, 2));
}

TEST_F(numroutines, invvert_takes_indefinite_matrices) {
    std::vector<double> a{1, 2, 1};
    EXPECT_TRUE(invvert(a, 2));
    EXPECT_NEAR(a[0], -1.0 / 3, 1e-15);
    EXPECT_NEAR(a[1], 2.0 / 3, 1e-15);
    EXPECT_NEAR(a[2], -1.0 / 3, 1e-15);
}

TEST_F(numroutines, inverse_of_any_regular_matrix) {
    std::mt19937 gen(7);
    std::normal_distribution<double> normal;
    for (const int n : {1, 2, 5, 9}) {
        array<double, 2> a; // two rows and columns more than the part that is inverted
        a.allocate(n + 2, n + 2);
        for (double& x : a) x = normal(gen);
        a(1, 1) = n > 1 ? 0.0 : -2.5; // rows have to change places
        array<double, 2> inverse = a;
        ASSERT_TRUE(invert_general(inverse, n));
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= n; ++j) {
                double s = 0.0;
                for (int k = 1; k <= n; ++k) s += a(i, k) * inverse(k, j);
                EXPECT_NEAR(s, i == j ? 1.0 : 0.0, 1e-12) << n;
            }
        EXPECT_EQ(inverse(n + 1, 1), a(n + 1, 1));
        EXPECT_EQ(inverse(1, n + 2), a(1, n + 2));
    }
}

TEST_F(numroutines, singular_matrix_has_no_inverse) {
    auto a = full_of(3, {1, 2, 3, 2, 4, 6, 1, 0, 1});
    EXPECT_FALSE(invert_general(a, 3));
    a = full_of(2, {std::nan(""), 1, 1, 1});
    EXPECT_FALSE(invert_general(a, 2));
}

TEST_F(numroutines, solve_by_the_factor) {
    const auto l = full_of(3, {2, 9, 9, 1, 3, 9, -1, 0.5, 4}); // the part above the diagonal is not looked at
    const std::vector<double> x{1, -2, 3};
    std::vector<double> lx(3), r(3);
    for (int i = 1; i <= 3; ++i)
        for (int k = i; k <= 3; ++k)
            lx[static_cast<std::size_t>(i - 1)] += l(k, i) * x[static_cast<std::size_t>(k - 1)];
    for (int i = 1; i <= 3; ++i)
        for (int k = 1; k <= i; ++k)
            r[static_cast<std::size_t>(i - 1)] += l(i, k) * lx[static_cast<std::size_t>(k - 1)];
    solve(3, l, r, r);
    for (std::size_t i = 0; i < 3; ++i) EXPECT_NEAR(r[i], x[i], 1e-14);
}
