// Factor, solutions, sparse inverse and derivatives of the factorisation against dense algebra, by every kernel.
#include "control/options.h"
#include "likelihood/factormmm.h"
#include "likelihood/likelihood.h"
#include "likelihood/solutions.h"
#include "sparse/dense_kernels.h"
#include "sparse/supernodes.h"
#include "support/dense_oracle.h"
#include "support/fixture.h"
#include "support/sparse_systems.h"

#include <cmath>
#include <cstdlib>
#include <string>

namespace tarvex {
namespace {

// The first row that fails by the column kernel, 0 if none does.
int by_columns(double& pivot) { return factorise_columns(sparse, kernels.work, {numbers.zero, false, {}}, pivot, {}); }

using matrix = std::vector<std::vector<double>>;

matrix square(int n) { return matrix(n + 1, std::vector<double>(n + 1, 0.0)); }

matrix dense_matrix() {
    const int n = numbers.nsrow;
    matrix m = square(n);
    for (int i = 1; i <= n; ++i) {
        m[i][i] = sparse.diag(i);
        for (int q = sparse.ixvec1(i); q < sparse.ixvec1(i + 1); ++q) {
            const int j = sparse.ixsub(sparse.ixvec2(i) + q - sparse.ixvec1(i));
            m[i][j] = m[j][i] = sparse.xspars(q);
        }
    }
    return m;
}

// Rows and columns first to last of the dense matrix, counted from 0, for the oracle; and back.
oracle::dense leading(const matrix& m, int n) {
    oracle::dense a = oracle::zeros(static_cast<std::size_t>(n), static_cast<std::size_t>(n));
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) a[i - 1][j - 1] = m[i][j];
    return a;
}
matrix from_one(const oracle::dense& a) {
    matrix m = square(static_cast<int>(a.size()));
    for (std::size_t i = 0; i < a.size(); ++i)
        for (std::size_t j = 0; j < a.size(); ++j) m[i + 1][j + 1] = a[i][j];
    return m;
}

template <class F> void for_elements(F f) { // f(place, row, column) over the off-diagonals
    for (int i = 1; i <= numbers.nsrow; ++i)
        for (int q = sparse.ixvec1(i); q < sparse.ixvec1(i + 1); ++q)
            f(q, sparse.ixsub(sparse.ixvec2(i) + q - sparse.ixvec1(i)), i);
}

// Random pattern with about `links` elements a row within a band.
sparse_pattern random_pattern(int n, int links, unsigned seed) {
    std::mt19937 gen(seed);
    std::vector<std::set<int>> rows(n + 1);
    for (int i = 1; i < n; ++i)
        for (int k = 0; k < links; ++k) {
            const int j = i + 1 + static_cast<int>(gen() % std::max(1, std::min(n - i, 3 + n / 6)));
            if (j < n) rows[i].insert(j);
        }
    sparse_pattern p(n + 1);
    for (int i = 1; i <= n; ++i) p[i].assign(rows[i].begin(), rows[i].end());
    return p;
}

sparse_pattern full_pattern(int n) {
    sparse_pattern p(n + 1);
    for (int i = 1; i <= n; ++i)
        for (int j = i + 1; j <= n; ++j) p[i].push_back(j);
    return p;
}

void make_system(const sparse_pattern& p, unsigned seed, bool with_rhs = true) {
    store_structure(fill_in(p, with_rhs));
    store_values(p, seed);
}

struct kernel_test : tarvex_test {
    kernel_test() { options.terse = true; }

    double tolerance = 1e-11;

    void expect_near(double got, double want, double scale, const char* what, int i, int j) {
        EXPECT_NEAR(got, want, tolerance * scale) << what << " " << i << "," << j;
    }

    // All results of the kernel in use against dense algebra.
    void check_all() {
        const int n = numbers.nsrow;
        const matrix m = dense_matrix(), l = from_one(oracle::cholesky(leading(m, n))),
                     z = from_one(oracle::inverse(leading(m, n - 1)));
        double detc = 0.0, ypy = 0.0;
        int ifail = -1;
        factorise_mmm(detc, ypy, ifail);
        ASSERT_EQ(ifail, 0);
        double logdet = 0.0, big = 0.0, zbig = 1.0;
        for (int i = 1; i <= n; ++i) big = std::max(big, l[i][i]);
        for (int i = 1; i < n; ++i) {
            logdet += 2.0 * std::log(l[i][i]);
            zbig = std::max(zbig, z[i][i]);
        }
        EXPECT_NEAR(detc, logdet, tolerance * std::max(1.0, std::fabs(logdet)));
        EXPECT_NEAR(ypy, l[n][n] * l[n][n], tolerance * ypy);
        for (int i = 1; i <= n; ++i) expect_near(sparse.diag(i), l[i][i], big, "L", i, i);
        for_elements([&](int q, int i, int j) { expect_near(sparse.xspars(q), l[i][j], big, "L", i, j); });
        std::vector<double> x(n + 1, 0.0);
        for (int i = 1; i < n; ++i)
            for (int j = 1; j < n; ++j) x[i] += z[i][j] * m[j][n];
        back_solutions();
        for (int i = 1; i < n; ++i) expect_near(solutions.solns(i), x[i], zbig, "x", i, 0);
        check_solves(l);
        const auto diag = sparse.diag, off = sparse.xspars;
        array<double> fd, fo;
        autodiff_1(fd, fo);
        for (int i = 1; i <= n; ++i) ASSERT_EQ(diag(i), sparse.diag(i));
        for (int q = 1; q <= sparse.maxlnz; ++q) ASSERT_EQ(off(q), sparse.xspars(q));
        for (int i = 1; i < n; ++i) expect_near(fd(i), 0.5 * (z[i][i] + x[i] * x[i]), zbig, "F", i, i);
        EXPECT_NEAR(fd(n), 0.5, tolerance);
        for_elements(
            [&](int q, int i, int j) { expect_near(fo(q), i == n ? -x[j] : z[i][j] + x[i] * x[j], zbig, "F", i, j); });
        likelihoods.factor_valid = true;
        takaha_inverse();
        EXPECT_FALSE(likelihoods.factor_valid);
        for (int i = 1; i < n; ++i) expect_near(solutions.solns(i), x[i], zbig, "x", i, 0);
        for (int i = 1; i < n; ++i) expect_near(sparse.diag(i), z[i][i], zbig, "Z", i, i);
        for_elements([&](int q, int i, int j) {
            expect_near(sparse.xspars(q), i == n ? l[n][j] / l[j][j] : z[i][j], zbig, "Z", i, j);
        });
        EXPECT_NEAR(sparse.diag(n), ypy, tolerance * ypy);
    }

    void check_solves(const matrix& l) {
        const int n = numbers.nsrow, columns = 19; // one full block of right-hand sides and a piece
        array<double, 2> b;
        b.allocate(n, columns);
        std::mt19937 gen(5);
        for (auto& v : b) v = std::uniform_real_distribution<double>(-1.0, 1.0)(gen);
        const auto given = b;
        forward_columns(b);
        auto shared = given;
        options.threads = 2;
        forward_columns(shared);
        options.threads = 1;
        EXPECT_TRUE(std::equal(b.begin(), b.end(), shared.begin())); // few columns at a time give the same digits
        for (int c = 1; c <= columns; ++c) {
            EXPECT_EQ(b(n, c), given(n, c));
            for (int i = 1; i < n; ++i) {
                double t = 0.0;
                for (int j = 1; j <= i; ++j) t += l[i][j] * b(j, c);
                expect_near(t, given(i, c), 10.0, "forward", i, c);
            }
        }
    }
};

struct all_kernels : kernel_test, testing::WithParamInterface<std::string> {
    all_kernels() { kernels.choice = GetParam() == "columns" ? kernel_kind::columns : kernel_kind::supernodes; }
};

TEST_P(all_kernels, only_the_right_hand_side) {
    make_system(full_pattern(1), 1);
    sparse.diag(1) = 6.25;
    double detc = -1.0, ypy = 0.0;
    int ifail = -1;
    factorise_mmm(detc, ypy, ifail);
    EXPECT_EQ(ifail, 0);
    EXPECT_EQ(detc, 0.0);
    EXPECT_DOUBLE_EQ(ypy, 6.25);
    takaha_inverse();
}

TEST_P(all_kernels, one_equation) {
    make_system(full_pattern(2), 2);
    check_all();
}

TEST_P(all_kernels, full_matrices_of_odd_orders) {
    for (int n : {3, 5, 8, 9, 17, 31, 50, 67, 129}) {
        make_system(full_pattern(n), 3 + n);
        check_all();
    }
}

TEST_P(all_kernels, diagonal_coefficients_with_and_without_right_hand_side) {
    make_system(sparse_pattern(9), 4);
    check_all();
    make_system(sparse_pattern(9), 4, false); // no off-diagonal element at all
    check_all();
}

TEST_P(all_kernels, some_empty_rows) {
    auto p = random_pattern(40, 2, 5);
    for (int i : {1, 7, 8, 30}) p[i].clear();
    make_system(p, 5, false);
    check_all();
}

TEST_P(all_kernels, random_patterns) {
    for (int n : {10, 23, 60, 111})
        for (int links : {1, 2, 4}) {
            const auto p = random_pattern(n, links, n + links);
            make_system(p, n);
            check_all();
        }
}

TEST_P(all_kernels, blocks_of_odd_widths) {
    sparse_pattern p(62); // diagonal blocks of 1, 2, 3 ... equations, each linked to the last ten
    for (int start = 1, width = 1; start < 52; start += width, ++width)
        for (int i = start; i < std::min(52, start + width); ++i) {
            for (int j = i + 1; j < std::min(52, start + width); ++j) p[i].push_back(j);
            for (int j = 52 + width % 3; j <= 61; ++j) p[i].push_back(j);
        }
    make_system(p, 6);
    check_all();
}

TEST_P(all_kernels, failing_pivot_is_told_at_the_same_row) {
    for (int bad : {1, 2, 13, 27, 28, 44, 59, 60}) {
        make_system(random_pattern(60, 3, 7), 7);
        sparse.diag(bad) = -sparse.diag(bad);
        double pivot = 0.0, detc = 0.0, ypy = 0.0;
        const auto diag = sparse.diag, off = sparse.xspars;
        const int want = by_columns(pivot);
        const double d = diag(want);
        sparse.diag = diag;
        sparse.xspars = off;
        sparse.state = store_state::assembled;
        clear_screen();
        int ifail = 0;
        factorise_mmm(detc, ypy, ifail);
        EXPECT_EQ(ifail, 1);
        std::istringstream words(screen_text().substr(std::string("invalid pivot - at row ").size()));
        int row = 0;
        double got = 0.0, assembled = 0.0;
        words >> row >> got >> assembled;
        EXPECT_EQ(row, want);
        EXPECT_NEAR(got, pivot, 1e-10);
        EXPECT_EQ(assembled, d);
    }
}

TEST_P(all_kernels, of_several_failing_pivots_the_smallest_row_is_told) {
    for (unsigned seed : {1u, 2u, 3u, 4u}) {
        make_system(random_pattern(80, 2, seed), seed);
        for (int bad : {71, 33, 15, 52}) sparse.diag(bad) = -1.0;
        const auto diag = sparse.diag, off = sparse.xspars;
        double pivot = 0.0, detc = 0.0, ypy = 0.0;
        const int want = by_columns(pivot);
        sparse.diag = diag;
        sparse.xspars = off;
        sparse.state = store_state::assembled;
        clear_screen();
        int ifail = 0;
        factorise_mmm(detc, ypy, ifail);
        EXPECT_EQ(ifail, 1);
        EXPECT_EQ(screen_text().find("invalid pivot - at row " + std::to_string(want) + " "), 0u) << screen_text();
    }
}

TEST_P(all_kernels, last_pivot_not_positive_fails_quietly_or_stops) {
    make_system(random_pattern(20, 2, 8), 8);
    sparse.diag(20) = 1e-3;
    double detc = 0.0, ypy = 0.0;
    int ifail = 0;
    const auto diag = sparse.diag, off = sparse.xspars;
    factorise_mmm(detc, ypy, ifail);
    EXPECT_EQ(ifail, 1);
    EXPECT_EQ(screen_text().find("invalid pivot - at row 20 "), 0u) << screen_text();
    sparse.diag = diag;
    sparse.xspars = off;
    sparse.state = store_state::assembled;
    options.mmmposdef = true;
    likelihoods.first = false;
    EXPECT_THROW(factorise_mmm(detc, ypy, ifail), program_stop);
    EXPECT_NE(screen_text().find("      mixed model matrix is not positive definite !!!\n"), std::string::npos);
}

TEST_P(all_kernels, pivot_equal_to_the_limit_is_accepted) {
    make_system(sparse_pattern(4), 9, false);
    sparse.diag(2) = numbers.zero;
    double detc = 0.0, ypy = 0.0;
    int ifail = 0;
    factorise_mmm(detc, ypy, ifail);
    EXPECT_EQ(ifail, 0);
    EXPECT_DOUBLE_EQ(sparse.diag(2), std::sqrt(numbers.zero));
}

// Blocks of equations, wide enough for packed products, that share the equations behind them.
sparse_pattern wide_blocks(int width1, int width2, int shared) {
    const int n = width1 + width2 + shared;
    sparse_pattern p(n + 1);
    for (int i = 1; i <= n; ++i) {
        const int end = i <= width1 ? width1 : i <= width1 + width2 ? width1 + width2 : n;
        for (int j = i + 1; j <= end; ++j) p[i].push_back(j);
        if (end < n)
            for (int j = width1 + width2 + 1; j <= n; ++j) p[i].push_back(j);
    }
    return p;
}

// Full blocks in a tree of four levels, each linked to a few equations of its ancestors: fronts too different to be
// merged. Update matrices of the leaves wait for their parents where `width1` makes these narrow, beside the begun
// fronts above.
sparse_pattern tree_of_blocks(int width1) {
    const int width[] = {20, width1, 300, 280}, links[] = {15, 40, 80};
    sparse_pattern p(1);
    std::vector<int> waiting[4]; // first rows of the blocks whose parents come later, by level
    for (int leaf = 1; leaf <= 8; ++leaf)
        for (int level = 0; level == 0 || (level < 4 && leaf % (1 << level) == 0); ++level) {
            const int first = static_cast<int>(p.size()), end = first + width[level];
            p.resize(end);
            for (int i = first; i < end; ++i)
                for (int j = i + 1; j < end; ++j) p[i].push_back(j);
            int count = 0;
            for (int below = 0; below < level; ++below)
                for (int b : waiting[below])
                    for (int k = 0; k < links[level - 1] / (level - below); ++k)
                        p[b + k % 7].push_back(first + (k * 3 + 11 * count++) % width[level]);
            if (level == 3)
                for (auto& w : waiting) w.clear();
            waiting[level].push_back(first);
        }
    p.resize(p.size() + 1);
    for (auto& row : p) {
        std::sort(row.begin(), row.end());
        row.erase(std::unique(row.begin(), row.end()), row.end());
    }
    return p;
}

struct instruction_sets : kernel_test, testing::WithParamInterface<std::string> {
    void SetUp() override {
        kernels.choice = kernel_kind::supernodes;
        if (!set_instruction_set(GetParam().c_str())) GTEST_SKIP() << "not on this processor";
    }
    ~instruction_sets() override { set_instruction_set(""); }
};

TEST_P(instruction_sets, small_systems) {
    for (int n : {2, 7, 24, 53, 100}) {
        make_system(full_pattern(n), n);
        check_all();
        make_system(random_pattern(n, 3, n), n);
        check_all();
    }
}

TEST_P(instruction_sets, wide_supernodes) {
    make_system(wide_blocks(143, 170, 187), 11);
    check_all();
}

TEST_P(instruction_sets, supernodes_worked_on_in_pieces) {
    make_system(wide_blocks(250, 241, 60), 14);
    check_all();
    make_system(full_pattern(GetParam() == "avx2" ? 482 : 530), 15);
    check_all();
}

TEST_P(instruction_sets, large_sparse_systems_agree_with_the_column_kernel) {
    tolerance = 1e-9;
    for (const auto& p : {random_pattern(900, 2, 12), tree_of_blocks(250), tree_of_blocks(90),
                          wide_blocks(40, 50, broad + 10)}) { // a front whose last columns take finished ones
        make_system(p, 12);
        array<double> fd, fo, fd2, fo2;
        double detc = 0.0, ypy = 0.0, detc2 = 0.0, ypy2 = 0.0;
        int ifail = 0;
        const auto diag = sparse.diag, off = sparse.xspars;
        kernels.choice = kernel_kind::supernodes;
        factorise_mmm(detc, ypy, ifail);
        autodiff_1(fd, fo);
        sparse.diag = diag;
        sparse.xspars = off;
        sparse.state = store_state::assembled;
        kernels.choice = kernel_kind::columns;
        factorise_mmm(detc2, ypy2, ifail);
        autodiff_1(fd2, fo2);
        EXPECT_NEAR(detc, detc2, 1e-11 * std::fabs(detc2));
        EXPECT_NEAR(ypy, ypy2, 1e-11 * ypy2);
        int wrong = 0;
        for (int i = 1; i <= numbers.nsrow; ++i) wrong += !(std::fabs(fd(i) - fd2(i)) < 1e-9);
        for (int q = 1; q <= sparse.maxlnz; ++q) wrong += !(std::fabs(fo(q) - fo2(q)) < 1e-9);
        EXPECT_EQ(wrong, 0);
    }
}

TEST_P(instruction_sets, failing_pivot_in_a_wide_supernode) {
    for (int bad : {1, 60, 143, 200, 313, 400, 499, -1, -239, -245, -250, -491, -500, -800}) {
        if (bad > 0)
            make_system(wide_blocks(143, 170, 187), 13);
        else
            make_system(wide_blocks(250, 241, 330), 13);
        bad = std::abs(bad);
        sparse.diag(bad) = -1.0;
        double detc = 0.0, ypy = 0.0;
        int ifail = 0;
        clear_screen();
        factorise_mmm(detc, ypy, ifail);
        EXPECT_EQ(screen_text().find("invalid pivot - at row " + std::to_string(bad) + " "), 0u) << screen_text();
    }
}

INSTANTIATE_TEST_SUITE_P(kernels, instruction_sets, testing::Values("baseline", "avx2", "avx512"),
                         [](const auto& p) { return p.param; });

TEST_F(kernel_test, unknown_instruction_set_is_refused) {
    const std::string before = dense_kernels().name;
    EXPECT_FALSE(set_instruction_set("none"));
    EXPECT_EQ(dense_kernels().name, before);
}

TEST_F(kernel_test, environment_forces_an_instruction_set) {
    const char* set = std::getenv("TVX_ISA");
    const std::string before = set ? set : "";
    set_instruction_set("");
    const std::string best = dense_kernels().name;
    for (const char* name : {"baseline", "avx2", "avx512", "none"}) {
        setenv("TVX_ISA", name, 1);
        set_instruction_set("");
        const std::string used = dense_kernels().name;
        const bool known = set_instruction_set(name);
        if (known || before.empty()) {
            EXPECT_EQ(used, known ? name : best);
            EXPECT_EQ(screen_text().find("TVX_ISA : this processor or build has no instruction set " +
                                         std::string(name) + " - using " + best) != std::string::npos,
                      !known);
        }
    }
    if (before.empty())
        unsetenv("TVX_ISA");
    else
        setenv("TVX_ISA", before.c_str(), 1);
    set_instruction_set("");
    EXPECT_EQ(dense_kernels().name, best);
}

TEST_F(kernel_test, another_structure_is_noticed_without_being_told) {
    kernels.choice = kernel_kind::supernodes;
    for (unsigned seed : {1u, 2u, 3u}) { // same order, other patterns
        make_system(random_pattern(50, 2, seed), seed);
        check_all();
    }
    kernels.work.tree = {};
    make_system(random_pattern(50, 2, 1), 9);
    check_all();
}

TEST_F(kernel_test, kernel_is_chosen_by_the_work_for_each_element) {
    make_system(sparse_pattern(30), 1);
    EXPECT_FALSE(supernodes_wanted());
    make_system(full_pattern(700), 1);
    EXPECT_TRUE(supernodes_wanted());
    kernels.choice = kernel_kind::columns;
    EXPECT_FALSE(supernodes_wanted());
}

TEST_F(kernel_test, progress_lines) {
    const int n = 40001;
    make_system(sparse_pattern(n + 1), 1);
    for (auto kind : {kernel_kind::columns, kernel_kind::supernodes}) {
        kernels.choice = kind;
        store_values(sparse_pattern(n + 1), 1);
        double detc = 0.0, ypy = 0.0;
        int ifail = 0;
        array<double> fd, fo;
        options.verbose = true;
        options.terse = false;
        clear_screen();
        factorise_mmm(detc, ypy, ifail);
        EXPECT_EQ(screen_text(), "Factorise MMM 20000\nFactorise MMM 40000\n");
        clear_screen();
        options.verbose = false;
        autodiff_1(fd, fo);
        EXPECT_EQ(screen_text(), "AutoDiff 40000 40001\nAutoDiff 20000 40001\n");
        clear_screen();
        takaha_inverse();
        EXPECT_EQ(screen_text(), "SparseInv 20000 40000\n");
    }
}

INSTANTIATE_TEST_SUITE_P(kernels, all_kernels, testing::Values("columns", "supernodes"),
                         [](const auto& p) { return p.param; });

TEST_F(kernel_test, vanishing_pivots_can_be_repaired) {
    int told = 0;
    const pivot_rule rule{numbers.zero, true, [&](int, double, double) { ++told; }};
    double pivot = 0.0;
    make_system(sparse_pattern(4), 9, false);
    sparse.diag(2) = 1e-12;
    EXPECT_EQ(factorise_columns(sparse, kernels.work, rule, pivot, {}), 0);
    EXPECT_DOUBLE_EQ(sparse.diag(2), 1e-8);
    EXPECT_EQ(told, 1);
    make_system(sparse_pattern(4), 9, false);
    sparse.diag(3) = -1.0;
    EXPECT_EQ(factorise_columns(sparse, kernels.work, rule, pivot, {}), 3);
}

TEST_P(all_kernels, a_call_out_of_turn_stops) {
    make_system(random_pattern(30, 2, 5), 5);
    double detc = 0.0, ypy = 0.0;
    int ifail = 0;
    array<double> fd, fo;
    array<double, 2> b;
    b.allocate(31, 2);
    const char* by_matrix = "needs the factor, the store holds the matrix";
    EXPECT_STOP(takaha_inverse(), by_matrix);
    EXPECT_STOP(autodiff_1(fd, fo), by_matrix);
    EXPECT_STOP(forward_columns(b), by_matrix);
    factorise_mmm(detc, ypy, ifail);
    EXPECT_STOP(factorise_mmm(detc, ypy, ifail), "needs the matrix, the store holds the factor");
    autodiff_1(fd, fo); // keeps the factor
    autodiff_in_place();
    EXPECT_STOP(forward_columns(b), "\"forward_columns\" needs the factor, the store holds the derivative");
    EXPECT_STOP(back_solutions(), "needs the factor");
    make_system(random_pattern(30, 2, 5), 5);
    factorise_mmm(detc, ypy, ifail);
    takaha_inverse();
    EXPECT_STOP(autodiff_in_place(), "needs the factor, the store holds the inverse");
    make_system(random_pattern(30, 2, 5), 5);
    sparse.diag(7) = -1.0;
    factorise_mmm(detc, ypy, ifail);
    EXPECT_STOP(takaha_inverse(), "needs the factor, the store holds nothing");
}

} // namespace
} // namespace tarvex
