#include "sparse/lsqrank.h"

#include "support/stop.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <gtest/gtest.h>
#include <random>

namespace tarvex {
namespace {

constexpr double limit = 1.0e-6;

// Design by rows: (equation, coefficient).
using design_row = std::vector<std::pair<int, double>>;
struct design {
    int n = 0;
    std::vector<design_row> rows;
    std::vector<double> y;
};

normal_equations equations_of(const design& d) {
    normal_equations a(d.n);
    for (std::size_t r = 0; r < d.rows.size(); ++r)
        for (std::size_t p = 0; p < d.rows[r].size(); ++p) {
            const auto [i, x] = d.rows[r][p];
            a.diag[i] += x * x;
            a.rhs[i] += x * d.y[r];
            for (std::size_t q = 0; q < p; ++q) a.add(i, d.rows[r][q].first, x * d.rows[r][q].second);
        }
    a.finish();
    return a;
}

// Elimination in natural order with dense arithmetic, as the text books have it.
std::vector<int> dense_dependencies(const normal_equations& a, const std::vector<int>& out) {
    const int n = a.n;
    std::vector<std::vector<double>> m(n, std::vector<double>(n, 0.0));
    for (int i = 0; i < n; ++i) {
        m[i][i] = a.diag[i];
        for (auto k = a.start[i]; k < a.start[i + 1]; ++k) m[i][a.col[k]] = m[a.col[k]][i] = a.value[k];
    }
    std::vector<int> dependent;
    for (int p = 0; p < n; ++p) {
        if (out[p]) continue;
        if (m[p][p] < std::max(limit, 1e-11 * a.diag[p])) {
            dependent.push_back(p);
            continue;
        }
        for (int i = p + 1; i < n; ++i)
            for (int j = p + 1; j < n; ++j)
                if (!out[i] && !out[j]) m[i][j] -= m[i][p] * m[p][j] / m[p][p];
    }
    return dependent;
}
std::vector<int> dropped(const lsq_rank& r) {
    std::vector<int> rows;
    for (const auto& d : r.dependent) rows.push_back(d.row);
    return rows;
}
double residual_ss(const design& d, const std::vector<double>& b) {
    double ss = 0.0;
    for (std::size_t r = 0; r < d.rows.size(); ++r) {
        double e = d.y[r];
        for (const auto& [i, x] : d.rows[r]) e -= x * b[i];
        ss += e * e;
    }
    return ss;
}
void expect_like_natural(const design& d, const std::vector<int>& out, bool decided_fast = true) {
    const auto a = equations_of(d);
    const auto fast = fast_rank(a, out, limit);
    const auto natural = natural_rank(a, out, limit);
    EXPECT_FALSE(decided_fast && fast.natural);
    ASSERT_EQ(dropped(fast), dropped(natural));
    EXPECT_EQ(dropped(natural), dense_dependencies(a, out));
    EXPECT_EQ(fast.rank, natural.rank);
    EXPECT_EQ(fast.rank + static_cast<int>(fast.dependent.size() + std::count(out.begin(), out.end(), 1)), a.n);
    for (int i = 0; i < a.n; ++i) ASSERT_NEAR(fast.xsol[i], natural.xsol[i], 1e-6 * (1.0 + std::fabs(natural.xsol[i])));
    for (int i : dropped(fast)) EXPECT_EQ(fast.xsol[i], 0.0);
}
// Cross-classified, nested and disconnected effects with random subclasses; some levels have no records.
design random_design(std::mt19937& gen, int ncov) {
    auto draw = [&](int n) { return std::uniform_int_distribution<>(0, n - 1)(gen); };
    const int la = 2 + draw(8), lb = 2 + draw(8), lc = 1 + draw(20), block = 1 + draw(3);
    design d;
    d.n = ncov + la + lb + lc;
    for (int r = 0, n = 5 + draw(80); r < n; ++r) {
        design_row row;
        for (int c = 0; c < ncov; ++c) row.emplace_back(c, draw(7) - 3.0);
        const int ia = draw(la), part = ia % block;
        const int ib = std::min(lb - 1, draw(std::max(1, lb / block)) * block + part); // blocks that do not meet
        row.emplace_back(ncov + ia, 1.0);
        row.emplace_back(ncov + la + ib, 1.0);
        row.emplace_back(ncov + la + lb + (ib * 7 + draw(2)) % lc, 1.0); // nearly nested
        d.rows.push_back(row);
        d.y.push_back(draw(100) * 0.1);
    }
    return d;
}

TEST(lsqrank, exact_designs_drop_what_the_natural_order_drops) {
    std::mt19937 gen(77);
    int many = 0;
    for (int rep = 0; rep < 300; ++rep) {
        const design d = random_design(gen, rep % 3 == 0 ? 2 : 0);
        std::vector<int> out(d.n, 0);
        if (rep % 2 == 1) out[d.n / 2] = 1;
        const auto a = equations_of(d);
        const auto fast = fast_rank(a, out, limit);
        if (fast.natural) continue;
        expect_like_natural(d, out);
        ++many;
    }
    EXPECT_GT(many, 250);
}

TEST(lsqrank, solutions_are_least_squares) {
    std::mt19937 gen(5);
    for (int rep = 0; rep < 20; ++rep) {
        const design d = random_design(gen, 1);
        const std::vector<int> out(d.n, 0);
        const auto a = equations_of(d);
        auto b = fast_rank(a, out, limit).xsol;
        const double best = residual_ss(d, b);
        for (int i = 0; i < d.n; ++i) {
            b[i] += 0.01;
            EXPECT_GE(residual_ss(d, b), best - 1e-9);
            b[i] -= 0.01;
        }
    }
}

TEST(lsqrank, each_duplicate_of_a_nested_effect_is_dropped) {
    design d; // levels 0-2 of one effect; 3-8 nested in it; 9-11 a copy of the first
    d.n = 12;
    for (int i = 0; i < 24; ++i) {
        const int nested = i % 6;
        d.rows.push_back({{nested / 2, 1.0}, {3 + nested, 1.0}, {9 + nested / 2, 1.0}});
        d.y.push_back(i);
    }
    const auto a = equations_of(d);
    const std::vector<int> out(12, 0);
    EXPECT_EQ(dropped(fast_rank(a, out, limit)), (std::vector<int>{4, 6, 8, 9, 10, 11}));
    expect_like_natural(d, out);
}

TEST(lsqrank, a_level_without_records_has_pivot_zero) {
    design d;
    d.n = 3;
    d.rows = {{{0, 1.0}}, {{2, 1.0}}, {{2, 1.0}}};
    d.y = {1.0, 2.0, 4.0};
    const auto r = fast_rank(equations_of(d), {0, 0, 0}, limit);
    ASSERT_EQ(r.dependent.size(), 1U);
    EXPECT_EQ(r.dependent[0].row, 1);
    EXPECT_EQ(r.dependent[0].pivot, 0.0);
    EXPECT_EQ(r.rank, 2);
    EXPECT_DOUBLE_EQ(r.xsol[2], 3.0);
}

TEST(lsqrank, no_equations_have_rank_zero) {
    const auto r = fast_rank(equations_of({}), {}, limit);
    EXPECT_EQ(r.rank, 0);
    EXPECT_TRUE(r.dependent.empty());
}

// A covariable of small scale: its pivot is below the absolute limit though it is no combination of the rest.
TEST(lsqrank, the_limit_is_absolute) {
    for (const double scale : {1e-3, 1e-4, 2e-4, 5e-4, 1e-6}) {
        design d;
        d.n = 4;
        for (int i = 0; i < 30; ++i) {
            d.rows.push_back({{0, scale * (i % 5)}, {1 + i % 3, 1.0}});
            d.y.push_back(i % 7);
        }
        const auto a = equations_of(d);
        const auto r = fast_rank(a, {0, 0, 0, 0}, limit);
        EXPECT_EQ(dropped(r).empty(), a.diag[0] >= limit) << scale;
        expect_like_natural(d, {0, 0, 0, 0}, false);
    }
}

TEST(lsqrank, scaled_designs_are_decided_alike) {
    std::mt19937 gen(9);
    for (const double scale : {1e3, 1e2, 1e-1, 1e-2}) {
        design d;
        d.n = 8;
        for (int i = 0; i < 60; ++i) {
            const double x = scale * std::uniform_int_distribution<>(1, 9)(gen);
            d.rows.push_back({{0, x}, {1 + i % 4, 1.0}, {5, x + scale * (i % 4)}, {6 + i % 2, 1.0}});
            d.y.push_back(i % 11);
        }
        const auto a = equations_of(d);
        const std::vector<int> out(8, 0);
        EXPECT_EQ(dropped(fast_rank(a, out, limit)), dropped(natural_rank(a, out, limit))) << scale;
    }
}

// Two covariables that differ by a little noise: between clear rank and clear dependency the natural order decides.
TEST(lsqrank, near_collinear_designs_are_decided_by_the_natural_order) {
    std::mt19937 gen(10);
    std::normal_distribution<> normal;
    for (int e = 0; e <= 9; ++e) {
        design d;
        d.n = 5;
        for (int i = 0; i < 50; ++i) {
            const double x = normal(gen);
            d.rows.push_back({{0, x}, {1, x + std::pow(10.0, -e) * normal(gen)}, {2 + i % 3, 1.0}});
            d.y.push_back(normal(gen));
        }
        const auto a = equations_of(d);
        const std::vector<int> out(5, 0);
        const auto fast = fast_rank(a, out, limit);
        EXPECT_EQ(dropped(fast), dropped(natural_rank(a, out, limit))) << e;
        EXPECT_EQ(dropped(fast).size(), e < 4 ? 0U : 1U) << e; // squares of the noise sum to 50*10^-2e
    }
}

// Exact dependencies among covariables of ordinary scale leave pivots far above the absolute limit by rounding.
TEST(lsqrank, dependencies_are_found_at_any_scale) {
    std::mt19937 gen(12);
    std::normal_distribution<> normal;
    int above = 0;
    for (int rep = 0; rep < 30; ++rep) {
        const double scale = std::pow(10.0, rep % 6);
        design d;
        d.n = 8;
        for (int i = 0; i < 200; ++i) {
            const double x = scale * normal(gen), z = scale * normal(gen);
            d.rows.push_back({{0, x}, {1, z}, {2, 0.3 * x - 1.7 * z}, {3 + i % 5, 1.0}});
            d.y.push_back(normal(gen));
        }
        const auto a = equations_of(d);
        const std::vector<int> out(8, 0);
        for (const auto& r : {fast_rank(a, out, limit), natural_rank(a, out, limit)}) {
            EXPECT_EQ(dropped(r), std::vector<int>{2}) << scale;
            above += !r.dependent.empty() && std::fabs(r.dependent[0].pivot) > limit ? 1 : 0;
        }
    }
    EXPECT_GT(above, 5); // what the absolute limit alone does not find
}

// Processor time of `task` against that of one factorisation of `a`: the same on a busy or an instrumented machine.
template <class F> double factorisations(const normal_equations& a, F task) {
    const std::clock_t begin = std::clock();
    task();
    const std::clock_t end = std::clock();
    factor_of(a);
    return static_cast<double>(end - begin) / static_cast<double>(std::max<std::clock_t>(std::clock() - end, 1));
}

// Regressions nested in thousands of herds, of a range so small that their pivots come near to the limit.
TEST(lsqrank, nested_covariables_of_small_range_take_no_time) {
    std::mt19937 gen(13);
    design d;
    constexpr int herds = 6000, years = 400;
    d.n = 2 * herds + years;
    std::uniform_real_distribution<double> uniform(0.0, 1.0);
    for (int h = 0; h < herds; ++h)
        for (int k = 0; k < 4; ++k) {
            const int year = std::uniform_int_distribution<>(0, years - 1)(gen);
            const double x = 0.4 + 0.02 * uniform(gen);
            d.rows.push_back({{h, x}, {herds + h, 1.0}, {2 * herds + year, 1.0}});
            d.y.push_back(uniform(gen));
        }
    const auto a = equations_of(d);
    lsq_rank r;
    // a solution for each of those pivots takes a hundred
    EXPECT_LT(factorisations(a, [&] { r = fast_rank(a, std::vector<int>(d.n, 0), limit); }), 40.0);
    EXPECT_FALSE(r.natural);
    ASSERT_EQ(r.dependent.size(), 1U);
    EXPECT_EQ(r.dependent[0].row, d.n - 1);
}

// Thousands of equations with covariables that link them all: no dense fill, no work that is quadratic in their number.
TEST(lsqrank, large_designs_take_no_time) {
    std::mt19937 gen(3);
    design d;
    constexpr int herds = 3000, years = 30, cells = 9000;
    d.n = 2 + herds + years + cells;
    for (int i = 0; i < 60000; ++i) {
        const int h = std::uniform_int_distribution<>(0, herds - 1)(gen),
                  s = std::uniform_int_distribution<>(0, 2)(gen);
        const int x = std::uniform_int_distribution<>(-20, 20)(gen),
                  year = std::uniform_int_distribution<>(0, years - 1)(gen);
        d.rows.push_back({{0, 0.1 * x},
                          {1, 0.01 * x * x},
                          {2 + h, 1.0},
                          {2 + herds + year, 1.0},
                          {2 + herds + years + 3 * h + s, 1.0}});
        d.y.push_back(x);
    }
    const auto a = equations_of(d);
    lsq_rank r;
    EXPECT_LT(factorisations(a, [&] { r = fast_rank(a, std::vector<int>(d.n, 0), limit); }), 100.0);
    EXPECT_FALSE(r.natural);
    const auto empty = static_cast<std::size_t>(std::count(a.diag.begin(), a.diag.end(), 0.0));
    EXPECT_EQ(r.dependent.size(), 1U + herds + empty); // the last year, and the last cell of each herd
    EXPECT_EQ(r.dependent.front().row, 2 + herds + years - 1);
}

// The draws are a linear function of the normal numbers: with its columns M the inverse of the matrix is MM'.
TEST(sample_inverse, columns_of_the_map_give_the_inverse) {
    constexpr int n = 12;
    std::mt19937 gen(5);
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    normal_equations a(n);
    std::vector<std::vector<double>> dense(n, std::vector<double>(n, 0.0));
    for (int i = 0; i < n; ++i) {
        a.diag[i] = dense[i][i] = 4.0 + i;
        for (int j : {i - 1, i - 5})
            if (j >= 0) {
                dense[i][j] = dense[j][i] = uniform(gen);
                a.add(i, j, dense[i][j]);
            }
    }
    a.finish();
    const row_factor f = factor_of(a);
    std::vector<std::vector<double>> product(n, std::vector<double>(n, 0.0));
    for (int k = 0; k < n; ++k) {
        std::vector<double> x(n, 0.0);
        x[k] = 1.0;
        sample_inverse(f, x);
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) product[i][j] += x[i] * x[j];
    }
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            double unit = 0.0;
            for (int k = 0; k < n; ++k) unit += dense[i][k] * product[k][j];
            EXPECT_NEAR(unit, i == j ? 1.0 : 0.0, 1e-13) << i << " " << j;
        }
}

TEST(lsqrank, matrix_must_be_finished) {
    normal_equations a(2);
    a.diag = {2.0, 2.0};
    a.add(0, 1, 1.0);
    EXPECT_THROW(fast_rank(a, {0, 0}, limit), program_stop);
    EXPECT_THROW(natural_rank(a, {0, 0}, limit), program_stop);
    EXPECT_THROW(factor_of(a), program_stop);
    a.finish();
    EXPECT_EQ(fast_rank(a, {0, 0}, limit).rank, 2);
    EXPECT_EQ(natural_rank(a, {0, 0}, limit).rank, 2);
}

} // namespace
} // namespace tarvex
