// The dense kernels of each instruction set against plain loops.
#include "sparse/dense_kernels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <vector>

namespace tarvex {
namespace {

// m x n, with room for the rows that kernels read and write behind the last.
struct matrix {
    int m, n;
    std::ptrdiff_t ld;
    std::vector<double> v;
    matrix(int rows, int columns)
        : m(rows), n(columns), ld(column_distance(rows + 2 * lane)), v(static_cast<std::size_t>(ld * (n + 1)), 0.0) {}
    double& operator()(int i, int j) { return v[static_cast<std::size_t>(i + j * ld)]; }
    double operator()(int i, int j) const { return v[static_cast<std::size_t>(i + j * ld)]; }
    double* data() { return v.data(); }
    const double* data() const { return v.data(); }
};

class dense_kernels_test : public testing::Test {
protected:
    matrix random(int m, int n) {
        matrix a(m, n);
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < m; ++i) a(i, j) = uniform_(rng_);
        return a;
    }
    // Lower trapezium of a matrix whose leading square is positive definite.
    matrix positive_panel(int m, int w) {
        matrix a = random(m, w);
        for (int j = 0; j < w; ++j) a(j, j) += 2.0 + std::sqrt(static_cast<double>(w)) * 2.0;
        return a;
    }
    // Calls f with the kernels of each set that this processor has: whole, and in pieces from the last to the first.
    template <class F> void each_set(F f) {
        for (const char* name : {"baseline", "avx2", "avx512"})
            for (const bool in_pieces : {false, true}) {
                const dense_kernels_table* kernel = find_kernels(name);
                if (!kernel) continue;
                SCOPED_TRACE(name);
                space.each = in_pieces ? backwards : nullptr;
                space.pool = this;
                f(*kernel);
            }
        space.each = nullptr;
    }
    static void backwards(void* pool, int count, kernel_space::piece body, const void* arg) {
        auto& test = *static_cast<dense_kernels_test*>(pool);
        for (int i = count - 1; i >= 0; --i) {
            std::fill(test.scratch_.begin(), test.scratch_.end(), std::nan(""));
            body(arg, i, test.scratch_.data());
        }
        test.most_pieces = std::max(test.most_pieces, count);
    }
    dense_kernels_test() {
        space.scratch = room_.data();
        space.packed_b = space.scratch + scratch_size;
        space.corner = space.packed_b + broad * packed_depth;
    }
    kernel_space space;
    int most_pieces = 0;

private:
    std::vector<double> room_ = std::vector<double>(kernel_space_size), scratch_ = std::vector<double>(scratch_size);
    std::mt19937 rng_{20261121};
    std::uniform_real_distribution<double> uniform_{-1.0, 1.0};
};

// Column by column; the first column whose pivot is below limit, w if there is none.
int plain_factor(matrix& a, int w, double limit, double& pivot) {
    for (int j = 0; j < w; ++j) {
        for (int k = 0; k < j; ++k)
            for (int i = j; i < a.m; ++i) a(i, j) -= a(i, k) * a(j, k);
        pivot = a(j, j);
        if (!(pivot >= limit)) return j;
        const double root = std::sqrt(pivot);
        for (int i = j; i < a.m; ++i) a(i, j) /= root;
    }
    return w;
}

constexpr int panels[][2] = {{1, 1},   {5, 3},   {9, 9},    {24, 4},   {40, 31},  {70, 33},   {100, 48},
                             {97, 49}, {300, 7}, {151, 97}, {260, 95}, {500, 47}, {330, 240}, {500, 479}};

TEST_F(dense_kernels_test, panels_are_factorised) {
    for (const auto& [m, w] : panels) {
        SCOPED_TRACE(std::to_string(m) + " rows, " + std::to_string(w) + " columns");
        const matrix a = positive_panel(m, w);
        matrix truth = a;
        double pivot = 0.0;
        ASSERT_EQ(plain_factor(truth, w, 1e-8, pivot), w);
        each_set([&](const dense_kernels_table& kernel) {
            matrix p = a;
            double failed = 0.0;
            ASSERT_EQ(kernel.factor_panel(space, m, w, p.data(), p.ld, 1e-8, failed), w);
            double worst = 0.0;
            for (int j = 0; j < w; ++j)
                for (int i = j; i < m; ++i) worst = std::max(worst, std::fabs(p(i, j) - truth(i, j)));
            EXPECT_LT(worst, 1e-13);
        });
    }
}

TEST_F(dense_kernels_test, first_failing_pivot_of_a_panel_is_told) {
    for (const auto& [m, w] : panels) {
        if (w > 240) continue;
        const matrix a = positive_panel(m, w);
        for (int bad = 0; bad < w; bad += 1 + w / 7) {
            SCOPED_TRACE(std::to_string(m) + " rows, " + std::to_string(w) + " columns, fails at " +
                         std::to_string(bad));
            matrix spoilt = a;
            spoilt(bad, bad) = -0.5;
            for (int j = bad + 1; j < w; j += 3) spoilt(j, j) = -1.0; // later ones do not matter
            matrix truth = spoilt;
            double pivot = 0.0;
            ASSERT_EQ(plain_factor(truth, w, 1e-8, pivot), bad);
            each_set([&](const dense_kernels_table& kernel) {
                matrix p = spoilt;
                double failed = 0.0;
                ASSERT_EQ(kernel.factor_panel(space, m, w, p.data(), p.ld, 1e-8, failed), bad);
                EXPECT_NEAR(failed, pivot, 1e-12);
            });
        }
    }
}

TEST_F(dense_kernels_test, not_a_number_is_a_failing_pivot) {
    for (const int w : {3, 50, 250}) {
        matrix a = positive_panel(400, w);
        a(w / 2, w / 2) = std::nan("");
        each_set([&](const dense_kernels_table& kernel) {
            matrix p = a;
            double failed = 0.0;
            EXPECT_EQ(kernel.factor_panel(space, 400, w, p.data(), p.ld, 1e-8, failed), w / 2);
            EXPECT_TRUE(std::isnan(failed));
        });
    }
}

TEST_F(dense_kernels_test, triangle_is_solved_from_the_right) {
    for (const auto& [m, w] : panels) {
        if (w > 240) continue;
        SCOPED_TRACE(std::to_string(m) + " rows, " + std::to_string(w) + " columns");
        matrix l = positive_panel(w, w);
        double pivot = 0.0;
        ASSERT_EQ(plain_factor(l, w, 1e-8, pivot), w);
        matrix lt(w, w);
        for (int j = 0; j < w; ++j)
            for (int i = 0; i <= j; ++i) lt(i, j) = l(j, i);
        const matrix y = random(m, w);
        each_set([&](const dense_kernels_table& kernel) {
            matrix x = y;
            kernel.solve_right(space, m, w, lt.data(), lt.ld, x.data(), x.ld);
            double worst = 0.0; // X L = Y
            for (int j = 0; j < w; ++j)
                for (int i = 0; i < m; ++i) {
                    double s = 0.0;
                    for (int k = j; k < w; ++k) s += x(i, k) * l(k, j);
                    worst = std::max(worst, std::fabs(s - y(i, j)));
                }
            EXPECT_LT(worst, 1e-12);
        });
    }
}

TEST_F(dense_kernels_test, products_of_all_shapes) {
    for (const auto& [m, n, k] : {std::array{1, 1, 1},
                                  {7, 5, 3},
                                  {25, 9, 40},
                                  {50, 49, 600},
                                  {241, 490, 30},
                                  {300, 60, 257},
                                  {90, 130, 300},
                                  {90, 48, 520}}) {
        SCOPED_TRACE(std::to_string(m) + " " + std::to_string(n) + " " + std::to_string(k));
        const matrix a = random(m, k), b = random(n, k), c = random(m, n);
        matrix truth(m, n);
        for (int j = 0; j < n; ++j)
            for (int q = 0; q < k; ++q)
                for (int i = 0; i < m; ++i) truth(i, j) += a(i, q) * b(j, q);
        for (const auto mode : {store_mode::subtract, store_mode::add, store_mode::set_minus, store_mode::set}) {
            const double sign = mode == store_mode::subtract || mode == store_mode::set_minus ? -1.0 : 1.0;
            const double old = mode == store_mode::subtract || mode == store_mode::add ? 1.0 : 0.0;
            each_set([&](const dense_kernels_table& kernel) {
                matrix r = c;
                kernel.product(space, mode, m, n, k, a.data(), a.ld, b.data(), b.ld, r.data(), r.ld);
                double worst = 0.0;
                for (int j = 0; j < n; ++j)
                    for (int i = 0; i < m; ++i)
                        worst = std::max(worst, std::fabs(r(i, j) - old * c(i, j) - sign * truth(i, j)));
                EXPECT_LT(worst, 1e-12);
            });
        }
    }
}

TEST_F(dense_kernels_test, squares_and_products_of_scattered_columns) {
    for (const auto& [m, n, k] :
         {std::array{1, 1, 1}, {10, 4, 3}, {49, 48, 20}, {97, 50, 260}, {980, 960, 12}, {245, 17, 300}}) {
        SCOPED_TRACE(std::to_string(m) + " " + std::to_string(n) + " " + std::to_string(k));
        const matrix a = random(m, k), c = random(m, n);
        matrix square(m, m);
        for (int j = 0; j < m; ++j)
            for (int q = 0; q < k; ++q)
                for (int i = j; i < m; ++i) square(i, j) += a(i, q) * a(j, q);
        std::vector<const double*> column;
        for (int q = 0; q < k; ++q) column.push_back(a.data() + q * a.ld);
        each_set([&](const dense_kernels_table& kernel) {
            std::vector<double> u(static_cast<std::size_t>(triangle_size(m) + 2 * lane), 0.0);
            kernel.minus_square(space, store_mode::set_minus, m, k, a.data(), a.ld, u.data());
            kernel.minus_square(space, store_mode::subtract, m, k, a.data(), a.ld, u.data());
            matrix r = c;
            kernel.minus_columns(space, m, n, k, column.data(), r.data(), r.ld);
            double worst = 0.0;
            for (int j = 0; j < m; ++j)
                for (int i = j; i < m; ++i) {
                    const double s = square(i, j);
                    worst = std::max(worst, std::fabs(triangle_column(u.data(), m, j)[i] + 2.0 * s));
                    if (j < n) worst = std::max(worst, std::fabs(r(i, j) - c(i, j) + s));
                }
            EXPECT_LT(worst, 1e-12);
        });
    }
}

TEST_F(dense_kernels_test, products_with_a_symmetric_matrix) {
    for (const auto& [m, n] : {std::array{1, 1}, {30, 5}, {49, 48}, {250, 60}, {300, 121}}) {
        SCOPED_TRACE(std::to_string(m) + " " + std::to_string(n));
        const matrix a = random(m, m), b = random(n, m);
        matrix truth(m, n);
        for (int j = 0; j < n; ++j)
            for (int q = 0; q < m; ++q)
                for (int i = 0; i < m; ++i) truth(i, j) -= (q <= i ? a(i, q) : a(q, i)) * b(j, q);
        std::vector<double> u(static_cast<std::size_t>(triangle_size(m) + 2 * lane), std::nan(""));
        for (int j = 0; j < m; ++j)
            for (int i = j; i < m; ++i) triangle_column(u.data(), m, j)[i] = a(i, j);
        each_set([&](const dense_kernels_table& kernel) {
            matrix c(m, n);
            kernel.minus_symmetric(space, m, n, u.data(), b.data(), b.ld, c.data(), c.ld);
            double worst = 0.0;
            for (int j = 0; j < n; ++j)
                for (int i = 0; i < m; ++i) worst = std::max(worst, std::fabs(c(i, j) - truth(i, j)));
            EXPECT_LT(worst, 1e-12);
        });
    }
}

// In however many pieces: the same bits.
TEST_F(dense_kernels_test, pieces_change_no_digit) {
    for (const char* name : {"baseline", "avx2", "avx512"}) {
        const dense_kernels_table* kernel = find_kernels(name);
        if (!kernel) continue;
        for (const auto& [m, n, k] : {std::array{700, 30, 300}, {700, 130, 270}, {900, 240, 520}}) {
            SCOPED_TRACE(std::string(name) + " " + std::to_string(n));
            const matrix a = random(m, k), b = random(n, k), c = random(m, n), p = positive_panel(m, n),
                         wide_b = random(n, m);
            std::vector<const double*> column;
            for (int q = 0; q < k; ++q) column.push_back(a.data() + q * a.ld);
            std::vector<double> results[2];
            for (const bool in_pieces : {false, true}) {
                space.each = in_pieces ? backwards : nullptr;
                space.pool = this;
                most_pieces = 0;
                auto& all = results[in_pieces];
                auto keep = [&](const matrix& r, bool lower) {
                    for (int j = 0; j < r.n; ++j)
                        for (int i = lower ? j : 0; i < r.m; ++i) all.push_back(r(i, j));
                };
                matrix r = c;
                kernel->product(space, store_mode::add, m, n, k, a.data(), a.ld, b.data(), b.ld, r.data(), r.ld);
                keep(r, false);
                r = c;
                kernel->minus_columns(space, m, n, k, column.data(), r.data(), r.ld);
                keep(r, true);
                r = p;
                double pivot = 0.0;
                EXPECT_EQ(kernel->factor_panel(space, m, n, r.data(), r.ld, 1e-8, pivot), n);
                keep(r, true);
                std::vector<double> u(static_cast<std::size_t>(triangle_size(m) + 2 * lane), 0.0);
                kernel->minus_square(space, store_mode::set_minus, m, k, a.data(), a.ld, u.data());
                for (int j = 0; j < m; ++j)
                    for (int i = j; i < m; ++i) all.push_back(triangle_column(u.data(), m, j)[i]);
                matrix s(m, n);
                kernel->minus_symmetric(space, m, n, u.data(), wide_b.data(), wide_b.ld, s.data(), s.ld);
                keep(s, false);
                if (in_pieces) {
                    EXPECT_GT(most_pieces, 2);
                }
            }
            ASSERT_EQ(results[0].size(), results[1].size());
            std::size_t different = 0;
            for (std::size_t i = 0; i < results[0].size(); ++i) different += results[0][i] != results[1][i];
            EXPECT_EQ(different, 0u);
        }
    }
    space.each = nullptr;
}

} // namespace
} // namespace tarvex
