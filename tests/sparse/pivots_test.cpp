// Small systems whose factor, inverse, solutions and pivots are known by hand, by both kernels.
#include "control/numbers.h"
#include "control/options.h"
#include "equations/mmmatrix.h"
#include "likelihood/factormmm.h"
#include "likelihood/likelihood.h"
#include "likelihood/solutions.h"
#include "support/fixture.h"
#include "support/screen.h"
#include "support/sparse_systems.h"

#include <cmath>
#include <initializer_list>
#include <string>

namespace tarvex {
namespace {

// Lower triangle by rows into a full store; the last row is the right-hand side.
void full_store(int n, std::initializer_list<double> rows) {
    sparse_pattern p(static_cast<std::size_t>(n + 1));
    for (int i = 1; i <= n; ++i)
        for (int j = i + 1; j <= n; ++j) p[static_cast<std::size_t>(i)].push_back(j);
    store_structure(p);
    const double* v = rows.begin();
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= i; ++j, ++v) {
            if (i == j)
                sparse.diag(i) = *v;
            else
                sparse.xspars(sparse.ixvec1(j) + i - j - 1) = *v;
        }
    sparse.state = store_state::assembled;
}

struct pivots_test : tarvex_test, testing::WithParamInterface<kernel_kind> {
    pivots_test() { kernels.choice = GetParam(); }
    double detc = 0.0, ypy = 0.0;
    int ifail = -1;
};

TEST_P(pivots_test, two_equations) {
    full_store(3, {4.0, 2.0, 5.0, 8.0, 10.0, 30.0});
    factorise_mmm(detc, ypy, ifail);
    EXPECT_EQ(ifail, 0);
    EXPECT_DOUBLE_EQ(sparse.diag(1), 2.0);
    EXPECT_DOUBLE_EQ(sparse.diag(2), 2.0);
    EXPECT_DOUBLE_EQ(sparse.xspars(1), 1.0);
    EXPECT_DOUBLE_EQ(sparse.xspars(2), 4.0);
    EXPECT_DOUBLE_EQ(sparse.xspars(3), 3.0);
    EXPECT_DOUBLE_EQ(detc, std::log(16.0));
    EXPECT_DOUBLE_EQ(ypy, 5.0);
    takaha_inverse();
    EXPECT_DOUBLE_EQ(solutions.solns(1), 1.25);
    EXPECT_DOUBLE_EQ(solutions.solns(2), 1.5);
    EXPECT_DOUBLE_EQ(sparse.diag(1), 5.0 / 16.0);
    EXPECT_DOUBLE_EQ(sparse.diag(2), 4.0 / 16.0);
    EXPECT_DOUBLE_EQ(sparse.xspars(1), -2.0 / 16.0);
    EXPECT_DOUBLE_EQ(sparse.xspars(2), 2.0); // the right-hand side stays, scaled
    EXPECT_DOUBLE_EQ(sparse.xspars(3), 1.5);
}

TEST_P(pivots_test, invalid_pivot_is_told_with_its_diagonal) {
    full_store(3, {4.0, 2.0, 0.5, 8.0, 10.0, 30.0});
    factorise_mmm(detc, ypy, ifail);
    EXPECT_EQ(ifail, 1);
    EXPECT_EQ(likelihoods.failrow, 2);
    EXPECT_EQ(screen_text(), "invalid pivot - at row 2 " + list_item(-0.5) + " " + list_item(0.5) + "\n");
}

TEST_P(pivots_test, limit_of_a_pivot_is_absolute) {
    full_store(3, {4.0, 2.0, 1.0 + 0.5e-8, 0.0, 0.0, 30.0});
    factorise_mmm(detc, ypy, ifail);
    EXPECT_EQ(ifail, 1);
    full_store(3, {4.0e-8, 2.0e-8, 2.5e-8, 0.0, 0.0, 30.0}); // pivots 4e-8 and 1.5e-8
    factorise_mmm(detc, ypy, ifail);
    EXPECT_EQ(ifail, 0);
    EXPECT_NEAR(detc, std::log(6.0e-16), 1.0e-12);
    full_store(3, {4.0, 2.0, 5.0, 8.0, 10.0, 25.0}); // y'Py = 0
    clear_screen();
    factorise_mmm(detc, ypy, ifail);
    EXPECT_EQ(ifail, 1);
    EXPECT_EQ(likelihoods.failrow, 3);
}

TEST_P(pivots_test, failure_leaves_nothing_for_the_next_system) {
    full_store(4, {4.0, 2.0, 0.5, 1.0, 3.0, 9.0, 8.0, 10.0, 1.0, 30.0});
    factorise_mmm(detc, ypy, ifail);
    EXPECT_EQ(ifail, 1);
    full_store(3, {4.0, 2.0, 5.0, 8.0, 10.0, 30.0});
    factorise_mmm(detc, ypy, ifail);
    EXPECT_EQ(ifail, 0);
    EXPECT_EQ(likelihoods.failrow, 0);
    EXPECT_DOUBLE_EQ(detc, std::log(16.0));
    EXPECT_DOUBLE_EQ(ypy, 5.0);
}

TEST_P(pivots_test, right_hand_side_alone) {
    full_store(1, {7.0});
    factorise_mmm(detc, ypy, ifail);
    EXPECT_EQ(ifail, 0);
    EXPECT_EQ(detc, 0.0);
    EXPECT_DOUBLE_EQ(ypy, 7.0);
}

INSTANTIATE_TEST_SUITE_P(kernels, pivots_test, testing::Values(kernel_kind::columns, kernel_kind::supernodes),
                         [](const auto& p) { return p.param == kernel_kind::columns ? "columns" : "supernodes"; });

struct repaired_pivots_test : tarvex_test {
    int row = 0; // of the repair told last
    double pivot = 0.0, given = 0.0, diagonal = 0.0;
    int factorise() {
        const pivot_rule rule{1.0e-8, true, [&](int j, double p, double d) {
                                  row = j;
                                  given = p;
                                  diagonal = d;
                              }};
        return factorise_columns(sparse, kernels.work, rule, pivot, {});
    }
};

TEST_F(repaired_pivots_test, pivot_that_is_lost_in_its_diagonal) {
    full_store(3, {4.0, 2.0, 1.0, 0.0, 0.0, 30.0});
    EXPECT_EQ(factorise(), 0);
    EXPECT_EQ(row, 2);
    EXPECT_EQ(given, 0.0);
    EXPECT_EQ(diagonal, 1.0);
    EXPECT_DOUBLE_EQ(sparse.diag(2), 1.0e-8);
    EXPECT_DOUBLE_EQ(sparse.diag(3), std::sqrt(30.0));
}

TEST_F(repaired_pivots_test, pivot_of_an_empty_row) {
    full_store(3, {4.0, 0.0, 0.0, 2.0, 0.0, 30.0});
    EXPECT_EQ(factorise(), 0);
    EXPECT_EQ(row, 2);
    EXPECT_EQ(diagonal, 0.0);
    EXPECT_DOUBLE_EQ(sparse.diag(2), 1.0e-8);
    EXPECT_DOUBLE_EQ(sparse.diag(3), std::sqrt(29.0));
}

TEST_F(repaired_pivots_test, negative_pivot_is_not_repaired) {
    full_store(3, {4.0, 2.0, 0.0, 0.0, 0.0, 30.0}); // pivot -1 of a diagonal of nothing
    EXPECT_EQ(factorise(), 2);
    EXPECT_DOUBLE_EQ(pivot, -1.0);
    EXPECT_EQ(row, 0);
    EXPECT_EQ(sparse.state, store_state::empty);
}

} // namespace
} // namespace tarvex
