// Lengths that the line search tries, of functions of the length given by hand: each length follows from the values
// before it.
#include "estimation/stepcontrol.h"

#include "support/fixture.h"

#include <cmath>
#include <functional>
#include <limits>
#include <vector>

namespace tarvex {
namespace {

constexpr double no_value = 1.0e36;

class lengths_test : public tarvex_test {
protected:
    using function = std::function<double(double)>;
    void SetUp() override { set_linesearch(); }
    // From a trial of length 1 where value(0) = 0.
    void search(const function& f, double slope, double minlambda = 0.0) {
        asked.clear();
        end = search_lengths(
            [&](double l) {
                asked.push_back(l);
                return f(l);
            },
            {0.0, slope, minlambda, 1.0, f(1.0)});
    }
    void expect_lengths(const std::vector<double>& want) const {
        ASSERT_EQ(asked.size(), want.size());
        for (std::size_t k = 0; k < want.size(); ++k) EXPECT_NEAR(asked[k], want[k], 1.0e-12) << k;
    }
    std::vector<double> asked;
    length_search end;
};

TEST_F(lengths_test, parabola_gives_the_first_one) {
    search([](double l) { return -l + 2.0 * l * l; }, -1.0);
    expect_lengths({0.25});
    EXPECT_TRUE(end.found);
    EXPECT_EQ(end.alpha, asked[0]);
    EXPECT_NEAR(end.f1, -0.125, 1.0e-15);
}

TEST_F(lengths_test, no_length_is_above_half_or_below_a_tenth_of_the_last) {
    search([](double l) { return -l + 0.9 * l * l; }, -1.0); // its minimum is at 0.56
    expect_lengths({0.5});
    search([](double l) { return -l + 9.9 * l * l; }, -1.0); // 0.0505
    expect_lengths({0.1});
    search([](double l) { return l > 0.005 ? 100.0 : -1.0; }, -1.0);
    expect_lengths({0.1, 0.01, 0.001});
}

// Minimum of -l + b l^2 + a l^3 through two values.
double cubic_minimum(double l1, double v1, double l2, double v2) {
    const double det = l1 * l1 * l2 * l2 * (l2 - l1), w1 = v1 + l1, w2 = v2 + l2;
    const double b = (w1 * l2 * l2 * l2 - w2 * l1 * l1 * l1) / det, a = (w2 * l1 * l1 - w1 * l2 * l2) / det;
    return 1.0 / (b + std::sqrt(b * b + 3.0 * a));
}

TEST_F(lengths_test, cubic_through_the_last_two_gives_the_next) {
    search([](double l) { return -l + 20.0 * l * l + 100.0 * l * l * l; }, -1.0);
    expect_lengths({0.1, 1.0 / (20.0 + std::sqrt(700.0))}); // -1 + 40 l + 300 l^2 = 0
    EXPECT_TRUE(end.found);
    search([](double l) { return l == 1.0 ? 1.0 : l > 0.2 ? 0.3 : l > 0.02 ? 0.1 : -1.0; }, -1.0);
    const double second = cubic_minimum(0.25, 0.3, 1.0, 1.0);
    expect_lengths({0.25, second, cubic_minimum(second, 0.1, 0.25, 0.3)});
}

TEST_F(lengths_test, cubic_that_is_a_parabola_gives_its_minimum) {
    linesearch.ls_shrink = 0.125; // exact in binary
    search([](double l) { return -l + 16.0 * l * l; }, -1.0);
    expect_lengths({0.125, 1.0 / 32.0});
}

// A slope that was a lie: a cubic without a minimum, and one that has it behind.
TEST_F(lengths_test, uphill_slopes_end_at_the_bounds) {
    search([](double l) { return l == 1.0 ? 5.0 : l == 0.1 ? 0.1 : -1.0; }, 1.0);
    expect_lengths({0.1, 0.05});
    search([](double l) { return l == 1.0 ? 0.5 : l == 0.5 ? 1.1 : -1.0; }, 1.0);
    expect_lengths({0.5, 0.05});
}

TEST_F(lengths_test, level_function_without_a_slope_is_tried_at_a_tenth) {
    search([](double) { return 0.0; }, 0.0);
    expect_lengths({0.1});
    EXPECT_TRUE(end.found);
}

TEST_F(lengths_test, ten_thousandth_of_what_the_slope_promises_is_enough) {
    for (const double share : {0.999e-4, 1.001e-4}) {
        search([&](double l) { return l == 1.0 ? 1.0 : -2.0 * l * share; }, -2.0); // the first length is 1/3
        EXPECT_NEAR(asked[0], 1.0 / 3.0, 1.0e-12);
        EXPECT_EQ(asked.size() == 1u, share > 1.0e-4);
    }
}

TEST_F(lengths_test, seven_are_tried) {
    search([](double) { return 1.0; }, -1.0);
    EXPECT_EQ(asked.size(), 7u);
    EXPECT_FALSE(end.found);
    search([&](double) { return asked.size() == 7u ? -1.0 : 1.0; }, -1.0);
    EXPECT_EQ(asked.size(), 7u);
    EXPECT_TRUE(end.found);
}

TEST_F(lengths_test, trial_without_value_is_cut_to_four_fifths) {
    search([](double l) { return l > 0.6 ? no_value : -1.0e-9; }, -1.0);
    expect_lengths({0.8, 0.64, 0.512});
    EXPECT_TRUE(end.found) << "any gain will do";
    EXPECT_NEAR(end.alpha, 0.512, 1.0e-12);
    // a value that is no gain: on by the parabola, from that length
    search([](double l) { return l > 0.7 ? no_value : l > 0.6 ? 1.0 : -1.0; }, -1.0);
    expect_lengths({0.8, 0.64, 0.25});
}

TEST_F(lengths_test, later_lengths_without_value_are_cut_by_a_hundredth) {
    search([](double l) { return l == 1.0 ? 1.0 : l > 0.244 ? no_value : -1.0; }, -1.0);
    expect_lengths({0.25, 0.2475, 0.245025, 0.24257475});
    EXPECT_TRUE(end.found);
    EXPECT_NEAR(end.lambda, 0.25, 1.0e-12);
}

TEST_F(lengths_test, none_is_below_the_least) {
    search([](double) { return no_value; }, -1.0, 0.7);
    expect_lengths({0.8});
    EXPECT_FALSE(end.found);
    search([](double l) { return l == 1.0 ? 1.0 : no_value; }, -1.0, 0.2449);
    expect_lengths({0.25, 0.2475, 0.245025});
    EXPECT_FALSE(end.found);
    search([](double) { return 1.0; }, -1.0, 0.26);
    expect_lengths({});
    EXPECT_FALSE(end.found);
    search([](double) { return 1.0; }, -1.0, std::numeric_limits<double>::infinity());
    expect_lengths({});
}

// Relative to the parameters, of at least 1: (2 eps)^(2/3).
TEST_F(lengths_test, tolerance_of_lengths_is_that_of_the_machine) {
    EXPECT_NEAR(linesearch.ls_steptol / std::pow(2.0 * std::numeric_limits<double>::epsilon(), 2.0 / 3.0), 1.0, 1.0e-9);
}

} // namespace
} // namespace tarvex
