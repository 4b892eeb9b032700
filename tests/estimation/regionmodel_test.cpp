// Axes and trial points of the search in a region, from parameters, gradient and information given by hand.
#include "control/numbers.h"
#include "control/options.h"
#include "dense/numroutines.h"
#include "estimation/aireml.h"
#include "estimation/lastpoint.h"
#include "estimation/regionsearch.h"
#include "estimation/searchstate.h"
#include "likelihood/derivatives.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "support/em_fixture.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace tarvex {
namespace {

class regionmodel_test : public tarvex_test {
protected:
    // All factors on logarithmic diagonals; log L falls from every diagonal, information is 1 + i on the diagonal.
    static void start(const small_model& m, const std::vector<std::string>& list = {"--sure", "--logdia"}) {
        set_up(m, list);
        program_logl(estimates.parvec, 1);
        plain_derivatives();
    }
    static void plain_derivatives() {
        const int n = estimates.nparm;
        derivs.der1.allocate(n);
        derivs.der2.allocate(n * (n + 1) / 2);
        derivs.fixpar.allocate(n);
        for (int i = 1; i <= n; ++i) {
            derivs.der1(i) = -0.1 * i;
            for (int j = i; j <= n; ++j) derivs.der2(ihmssf(i, j, n)) = i == j ? 1.0 + i : 0.01 * (i + j);
        }
    }
    static std::vector<int> parameters(const region_model& m) {
        std::vector<int> list;
        for (const region_axis& a : m.axes) list.push_back(a.par);
        return list;
    }
};

double variance_of(const small_model& m, int irand, std::size_t row) {
    const oracle::point p = point_at(m, estimates.parvec);
    return irand == 0 ? p.r[0][row][row] : p.g[static_cast<std::size_t>(irand - 1)][row][row];
}

// Factors of two traits: parameters 1 to 3 of the residual, 4 to 6 of the animals; the second of each block is no
// logarithm and belongs to the row whose pivot is the last.
TEST_F(regionmodel_test, logarithms_count_by_themselves_and_elements_by_their_rows) {
    const small_model m = families(2);
    start(m);
    ASSERT_EQ(estimates.logpar(1), 1);
    ASSERT_EQ(estimates.logpar(2), 0);
    const region_model r = model_here();
    ASSERT_EQ(parameters(r), (std::vector<int>{1, 2, 3, 4, 5, 6}));
    for (std::size_t k : {0u, 2u, 3u, 5u}) {
        EXPECT_EQ(r.axes[k].unit, 1.0);
        EXPECT_TRUE(r.axes[k].logarithm);
    }
    for (const int irand : {0, 1}) {
        const std::size_t k = irand == 0 ? 1 : 4, row = static_cast<std::size_t>(estimates.cholorder(2, irand) - 1);
        EXPECT_NEAR(r.axes[k].unit, std::sqrt(variance_of(m, irand, row)), 1.0e-10);
        EXPECT_FALSE(r.axes[k].logarithm);
    }
    for (int i = 1; i <= 6; ++i)
        for (int j = 1; j <= 6; ++j) {
            const double ui = r.axes[static_cast<std::size_t>(i - 1)].unit,
                         uj = r.axes[static_cast<std::size_t>(j - 1)].unit;
            EXPECT_NEAR(r.h(i, j), (i == j ? 1.0 + i : 0.01 * (i + j)) * ui * uj, 1.0e-12);
            EXPECT_NEAR(r.g[static_cast<std::size_t>(i - 1)], -0.1 * i * ui, 1.0e-12);
        }
}

TEST_F(regionmodel_test, row_next_to_without_variance_is_measured_by_its_least_pivot) {
    start(families(2));
    estimates.parvec(5) = 0.0;
    estimates.parvec(6) = std::log(0.5e-4); // the second row's root variance
    const region_model r = model_here();
    const auto at = std::find_if(r.axes.begin(), r.axes.end(), [](const region_axis& a) { return a.par == 5; });
    ASSERT_NE(at, r.axes.end());
    EXPECT_GE(at->unit, 1.0e-4 * (1.0 - 1.0e-9));
    EXPECT_LT(at->unit, 1.1e-2);
}

// What the least logarithm is: the square of its exponential is four times the least variance, 4e-6 for a zero of
// 1e-8. A column that has come there is out while log L falls inwards.
TEST_F(regionmodel_test, column_at_the_border_is_out_while_log_l_falls_inwards_and_in_where_it_rises) {
    start(families(2));
    ASSERT_EQ(numbers.zero, 1.0e-8);
    const double least = 0.5 * std::log(4.0e-6);
    struct place {
        double value, gradient;
        bool in;
    };
    for (const place& p : {place{least, -0.1, false}, place{least + 0.9e-6, -0.1, false},
                           place{least + 1.1e-6, -0.1, true}, place{least, 0.1, true}, place{least, 0.0, false}}) {
        estimates.parvec(4) = p.value;
        derivs.der1(4) = p.gradient;
        const std::vector<int> list = parameters(model_here());
        EXPECT_EQ(std::count(list.begin(), list.end(), 4), p.in ? 1 : 0) << p.value << " " << p.gradient;
        EXPECT_EQ(std::count(list.begin(), list.end(), 5), p.in ? 1 : 0) << "the rest of the column goes with it";
        EXPECT_EQ(std::count(list.begin(), list.end(), 6), 1);
        EXPECT_EQ(std::count(list.begin(), list.end(), 1), 1);
    }
}

TEST_F(regionmodel_test, parameters_without_information_are_no_axes) {
    start(families(2));
    derivs.fixpar(2) = derivs.fixpar(6) = 1;
    EXPECT_EQ(parameters(model_here()), (std::vector<int>{1, 3, 4, 5}));
}

TEST_F(regionmodel_test, steps_move_by_units_and_logarithms_end_at_their_least_value) {
    start(families(2));
    const region_model r = model_here();
    const double least = 0.5 * std::log(4.0e-6);
    move_by(r, {0.1, 0.2, -50.0, 0.0, -0.3, -50.0});
    const auto& p = search_state.parnew;
    EXPECT_NEAR(p(1), estimates.parvec(1) + 0.1, 1.0e-12);
    EXPECT_NEAR(p(2), estimates.parvec(2) + 0.2 * r.axes[1].unit, 1.0e-12);
    EXPECT_NEAR(p(3), least, 1.0e-12);
    EXPECT_EQ(p(4), estimates.parvec(4));
    EXPECT_NEAR(p(5), estimates.parvec(5) - 0.3 * r.axes[4].unit, 1.0e-12);
    EXPECT_NEAR(p(6), least, 1.0e-12);
    EXPECT_GT(program_logl(p), invalid_logl) << "the least pivots are valid";
    estimates.parvec(6) = least - 1.0; // below already: no further, and not back
    move_by(r, {0.0, 0.0, 0.0, 0.0, 0.0, -3.0});
    EXPECT_NEAR(search_state.parnew(6), least - 1.0, 1.0e-12);
}

// Elements of a factor: the first pivot against what the second row holds below it.
TEST_F(regionmodel_test, factor_is_badly_ordered_where_a_row_below_holds_four_pivots) {
    start(families(2));
    EXPECT_FALSE(badly_ordered());
    for (const int first : {1, 4}) { // of the residual, of the animals
        const array<double> kept = estimates.parvec;
        estimates.parvec(first) = 0.0; // a pivot of 1
        for (const double left : {3.9, 4.1}) {
            estimates.parvec(first + 1) = std::sqrt(0.5 * left);
            estimates.parvec(first + 2) = 0.5 * std::log(0.5 * left);
            EXPECT_EQ(badly_ordered(), left > 4.0) << first;
        }
        estimates.reorder = false;
        EXPECT_FALSE(badly_ordered());
        estimates.reorder = true;
        estimates.parvec = kept;
    }
}

TEST_F(regionmodel_test, order_that_keeps_zeros_is_never_a_bad_one) {
    small_model m = families(2);
    for (auto& r : m.rows) r.y[r.animal % 2 ? 0 : 1] = -999.0;
    start(m);
    ASSERT_GT(no_fixed_residuals(), 0);
    ASSERT_NE(estimates.paraform(0), par_scale::original);
    estimates.parvec(3) = estimates.parvec(1) + 3.0; // the second pivot is 400 times the first
    EXPECT_FALSE(badly_ordered());
}

// One variance of the animals left to judge: the gain that it promises is g^2/2 for an information of 1.
TEST_F(regionmodel_test, search_is_at_rest_where_next_to_nothing_is_promised) {
    start(families(1));
    derivs.devl1.allocate(2);
    derivs.devl2.allocate(3);
    derivs.devl2(1) = derivs.devl2(3) = -1.0;
    const auto rests = [](double promised, double last) {
        derivs.devl1(2) = std::sqrt(2.0 * promised);
        aireml_terms.last_change = last;
        return at_rest();
    };
    EXPECT_TRUE(rests(0.99e-4, 1.0));
    EXPECT_FALSE(rests(1.01e-4, 1.0));
    EXPECT_FALSE(rests(1.01e-4, 0.0)) << "there was no step";
    EXPECT_TRUE(rests(4.9e-4, 0.99e-4)); // a step that won next to nothing
    EXPECT_FALSE(rests(5.1e-4, 0.99e-4));
    EXPECT_FALSE(rests(4.9e-4, 1.01e-4));
    EXPECT_FALSE(rests(0.5, 0.0));
}

// A variance that has gone, with log L rising and no information of its own: the model promises nothing there.
TEST_F(regionmodel_test, search_does_not_rest_where_a_variance_is_to_be_let_go) {
    small_model m = families(1);
    start(m);
    estimates.parvec(2) = std::log(0.003);
    derivs.devl1.allocate(2);
    derivs.devl2.allocate(3);
    derivs.devl2(1) = -1.0;
    derivs.devl2(3) = -1.0e-16;
    derivs.devl1(2) = 0.1;
    ASSERT_FALSE(verdict_of_derivatives().lifts.empty());
    ASSERT_NE(verdict_of_derivatives().kind, search_end::not_maximum);
    EXPECT_FALSE(at_rest());
}

} // namespace
} // namespace tarvex
