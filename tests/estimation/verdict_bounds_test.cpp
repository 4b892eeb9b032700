// Each bound of the verdict from both sides, on points given by hand.
#include "estimation/verdict.h"

#include "support/fixture.h"

#include <cmath>
#include <limits>
#include <random>

namespace tarvex {
namespace {

using numbers_of = std::vector<double>;

vector1<double> from_one(const numbers_of& x) {
    vector1<double> v;
    v.assign(x.begin(), x.end());
    return v;
}

class verdict_bounds_test : public tarvex_test {
protected:
    // Effects of one trait each, phenotypic variance `scale`.
    static judged_point variances(const numbers_of& values, const numbers_of& gradient, const numbers_of& information,
                                  double scale = 20.0, bool diagonal = true) {
        judged_point p;
        for (std::size_t k = 0; k < values.size(); ++k)
            p.blocks.push_back({"effect " + std::to_string(k + 1),
                                {"milk"},
                                static_cast<int>(k) + 1,
                                diagonal,
                                {values[k]},
                                {scale},
                                {}});
        p.gradient = from_one(gradient);
        p.information = from_one(information);
        return p;
    }
    static judged_point matrix(const numbers_of& cov, const numbers_of& gradient, double information) {
        judged_point p;
        p.blocks = {{"animal", {"milk", "fat"}, 1, false, from_one(cov), {1.0, 1.0}, {}}};
        p.gradient = from_one(gradient);
        p.information = {information, 0, 0, information, 0, information};
        return p;
    }
    static judged_point element(double value, double slope) {
        judged_point p;
        p.others = {{1, value, 1.0, "factor element 2,2"}};
        p.gradient = {slope};
        p.information = {1.0};
        return p;
    }
    static bool says(const std::vector<std::string>& lines, const std::string& words) {
        for (const auto& line : lines)
            if (line.find(words) != std::string::npos) return true;
        return false;
    }
};

TEST_F(verdict_bounds_test, variance_below_a_ten_thousandth_of_the_phenotypic_one_is_at_the_border) {
    EXPECT_EQ(judge(variances({0.0019}, {0.0}, {1.0e-3})).kind, search_end::border);
    EXPECT_EQ(judge(variances({0.0021}, {0.0}, {1.0e-3})).kind, search_end::maximum);
    for (const double value : {0.0019, 0.0021}) { // a matrix of order 1
        const auto v = judge(variances({value}, {-1.0e-4}, {1.0e-3}, 20.0, false));
        EXPECT_EQ(says(v.border, "on its way to 0"), value > 0.002) << value;
        EXPECT_FALSE(v.border.empty());
    }
}

TEST_F(verdict_bounds_test, correlation_beyond_995_is_at_the_border) {
    for (const double r : {0.9951, 0.9949, -0.9951, -0.9949}) {
        const double s = r > 0.0 ? 1.0 : -1.0; // log L rises with the correlation alone
        const auto v = judge(matrix({1.0, r, 1.0}, {-0.05, s * 0.1, -0.05}, 0.1));
        EXPECT_EQ(says(v.border, "correlation of animal, milk and fat is"), std::fabs(r) > 0.995) << r;
        EXPECT_EQ(says(v.border, "on its way to 0"), std::fabs(r) < 0.995) << r;
        EXPECT_EQ(v.kind, search_end::border);
        EXPECT_NEAR(v.promised, 0.1 * (1.0 - std::fabs(r)), 0.02 * 0.0005);
    }
}

TEST_F(verdict_bounds_test, element_below_a_hundredth_of_its_row_is_at_the_border) {
    EXPECT_EQ(judge(element(0.0099, 0.0)).kind, search_end::border);
    EXPECT_EQ(judge(element(-0.0099, 0.0)).kind, search_end::border);
    EXPECT_EQ(judge(element(0.0101, 0.0)).kind, search_end::maximum);
}

TEST_F(verdict_bounds_test, element_at_the_border_promises_the_way_to_zero_or_all_where_log_l_rises) {
    auto v = judge(element(0.009, -0.5));
    EXPECT_NEAR(v.promised, 0.0045, 1.0e-12);
    EXPECT_EQ(v.kind, search_end::not_maximum);
    v = judge(element(0.009, -0.05));
    EXPECT_EQ(v.kind, search_end::border);
    EXPECT_TRUE(says(v.border, "factor element 2,2 is 0.009"));
    for (const double side : {1.0, -1.0}) { // away from zero
        v = judge(element(side * 0.005, side * 0.5));
        EXPECT_TRUE(v.border.empty());
        EXPECT_NEAR(v.promised, 0.125, 1.0e-12);
    }
}

// Log L rises away from zero by noise alone: Newton's step ends below the border.
TEST_F(verdict_bounds_test, element_at_the_border_that_rises_by_less_than_the_border_reaches) {
    for (const double side : {1.0, -1.0}) {
        auto v = judge(element(side * 1.0e-4, side * 1.0e-5));
        EXPECT_EQ(v.kind, search_end::border);
        EXPECT_NEAR(v.promised, 5.0e-11, 1.0e-15);
        v = judge(element(side * 0.005, side * 0.004));
        EXPECT_EQ(v.kind, search_end::border);
        EXPECT_NEAR(v.promised, 8.0e-6, 1.0e-12);
        v = judge(element(side * 0.005, side * 0.006)); // leads to 0.011
        EXPECT_EQ(v.kind, search_end::maximum);
        EXPECT_TRUE(v.border.empty());
    }
    judged_point stored = element(1.0e-4, 0.0); // without gradient and information
    stored.gradient.clear();
    stored.information.clear();
    EXPECT_TRUE(says(look_at_matrices(stored).border, "factor element 2,2"));
    judged_point saddle = element(1.0e-6, 2.0e-6); // of (x^2 - x^4): rises by the square
    saddle.information = {4.0e-12};
    EXPECT_EQ(judge(saddle).kind, search_end::not_maximum);
}

// Correlation of the information 1 - d: eigenvalues d and 2 - d.
TEST_F(verdict_bounds_test, information_below_a_ten_millionth_of_the_largest_is_none) {
    for (const double d : {1.9e-7, 2.1e-7}) {
        const auto v = judge(variances({10.0, 10.0}, {0.0, 0.0}, {1.0, 1.0 - d, 1.0}));
        EXPECT_EQ(v.kind, d < 2.0e-7 ? search_end::flat : search_end::maximum);
        EXPECT_NEAR(v.least, d, 1.0e-12);
        EXPECT_NEAR(v.largest, 2.0 - d, 1.0e-12);
    }
}

// A combination (1, 0.35, 0.25) of three variances has no information.
TEST_F(verdict_bounds_test, parameters_of_three_tenths_of_the_largest_share_are_named) {
    const numbers_of u{1.0, 0.35, 0.25};
    const double size = 1.0 + 0.35 * 0.35 + 0.25 * 0.25;
    numbers_of h;
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = i; j < 3; ++j) h.push_back((i == j ? 1.0 : 0.0) - u[i] * u[j] / size);
    const auto v = judge(variances({1.0, 1.0, 1.0}, {0.0, 0.0, 0.0}, h, 1.0));
    ASSERT_EQ(v.flat.size(), 1u);
    EXPECT_TRUE(says(v.flat, "1.00 effect 1 variance milk"));
    EXPECT_TRUE(says(v.flat, "0.35 effect 2 variance milk"));
    EXPECT_FALSE(says(v.flat, "effect 3"));
}

TEST_F(verdict_bounds_test, border_beside_a_flat_combination_is_the_border) {
    const auto v = judge(variances({0.0001, 10.0, 10.0}, {-1.0, 0.0, 0.0}, {1, 0, 0, 1, 1, 1}));
    EXPECT_FALSE(v.flat.empty());
    EXPECT_EQ(v.kind, search_end::border);
}

TEST_F(verdict_bounds_test, variance_at_the_border_promises_the_way_to_zero) {
    auto v = judge(variances({0.0015}, {-0.5}, {1.0}));
    EXPECT_NEAR(v.promised, 0.00075, 1.0e-15);
    EXPECT_EQ(v.kind, search_end::border);
    v = judge(variances({0.0015}, {-0.7}, {1.0}));
    EXPECT_EQ(v.kind, search_end::not_maximum);
}

// In units of the scale, 20, slope and curvature are 20 and 400 times those of the variance.
TEST_F(verdict_bounds_test, variance_is_let_go_where_log_l_rises_by_newtons_step_or_a_quarter) {
    for (const bool diagonal : {true, false}) {
        auto v = judge(variances({0.001}, {0.5}, {0.01}, 20.0, diagonal)); // Newton's step is 50
        EXPECT_TRUE(v.border.empty());
        EXPECT_EQ(v.kind, search_end::not_maximum);
        ASSERT_EQ(v.lifts.size(), 1u);
        EXPECT_NEAR(v.lifts[0][0].change, 0.25 * 20.0, 1.0e-9);
        v = judge(variances({0.001}, {0.5}, {0.125}, 20.0, diagonal));
        ASSERT_EQ(v.lifts.size(), 1u);
        EXPECT_NEAR(v.lifts[0][0].change, 4.0, 1.0e-9);
        for (const double slope : {0.0079, 0.0081}) { // half of a quarter of it
            v = judge(variances({0.001}, {slope / 20.0}, {1.0e-6}, 20.0, diagonal));
            EXPECT_EQ(v.lifts.size(), slope > 0.008 ? 1u : 0u) << slope;
        }
    }
}

TEST_F(verdict_bounds_test, eigenvalue_is_let_go_where_log_l_rises) {
    const auto v = judge(matrix({1.0, 0.999, 1.0}, {0.05, -0.1, 0.05}, 0.1));
    EXPECT_TRUE(v.border.empty());
    ASSERT_EQ(v.lifts.size(), 1u);
    double sum = 0.0, difference = 0.0; // variance of the sum of the traits, and of their difference
    for (const auto& c : v.lifts[0]) {
        sum += c.par == 2 ? 2.0 * c.change : c.change;
        difference += c.par == 2 ? -2.0 * c.change : c.change;
    }
    EXPECT_NEAR(sum, 0.0, 1.0e-12);
    EXPECT_NEAR(difference, 0.5, 1.0e-9); // a quarter, by the contrast of length 1
}

// Without a matrix left log L falls along all vv', however it rises with the covariance. Another effect keeps its own
// promise, however little its information is.
TEST_F(verdict_bounds_test, nothing_moves_between_eigenvalues_that_are_both_gone) {
    judged_point p = matrix({1.0e-6, 0.0, 1.0e-6}, {-1.0, 0.3, -1.0, 0.01}, 1.0);
    p.blocks.push_back({"dam", {"milk"}, 4, true, {0.5}, {1.0}, {}});
    p.information = {1, 0, 0, 0, 1, 0, 0, 1, 0, 0.1};
    const auto v = judge(p);
    EXPECT_EQ(v.kind, search_end::border);
    EXPECT_NEAR(v.promised, 0.5 * 0.01 * 0.01 / 0.1 + 2.0e-6, 1.0e-7);
}

// Half an eigenvalue of 0.0005 is left beside a covariance held at 0; the rest as at the border.
TEST_F(verdict_bounds_test, eigenvalue_beside_a_zero_promises_the_way_to_it) {
    const double c = 0.6, d = 0.8, k = 0.5, left = 0.0005;
    judged_point p;
    p.blocks = {{"residual", {"x", "y", "z"}, 1, false, {1.0, c, 0.0, c * c + d * d + left, d, 1.0}, {}, {}}};
    p.blocks[0].scale = {1.0, 1.0, 1.0};
    p.blocks[0].fixed = {0, 0, 1, 0, 0, 0};
    p.gradient = {-k * c * c, 2.0 * k * c, 0.7, -k, 2.0 * k * d, -k * d * d};
    for (int i = 0; i < 6; ++i)
        for (int j = i; j < 6; ++j) p.information.push_back(i == j ? 0.1 : 0.0);
    const auto v = judge(p);
    EXPECT_EQ(v.kind, search_end::border);
    EXPECT_NEAR(v.promised, k * left, 0.02 * k * left);
}

TEST_F(verdict_bounds_test, what_is_no_number_is_no_maximum) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(judge(variances({10.0}, {nan}, {1.0})).kind, search_end::not_maximum);
}

// s'c - c'Hc/2 over c above its bounds, by coordinates in turn.
double bounded_gain(const std::vector<numbers_of>& h, const numbers_of& s, const numbers_of& least) {
    const std::size_t n = s.size();
    numbers_of c(n, 0.0);
    const auto slope = [&](std::size_t i) {
        double x = s[i];
        for (std::size_t j = 0; j < n; ++j) x -= h[i][j] * c[j];
        return x;
    };
    for (int turn = 0; turn < 20000; ++turn)
        for (std::size_t i = 0; i < n; ++i) c[i] = std::max(least[i], c[i] + slope(i) / h[i][i]);
    double gain = 0.0;
    for (std::size_t i = 0; i < n; ++i) gain += 0.5 * c[i] * (s[i] + slope(i));
    return gain;
}

// Directions that would pass their bound are held there, and let go again where the others make it rise from there.
TEST_F(verdict_bounds_test, promise_within_the_bounds_is_that_of_coordinates_in_turn) {
    std::mt19937 rng(11);
    std::normal_distribution<double> normal;
    std::uniform_real_distribution<double> uniform;
    for (int k = 0; k < 300; ++k) {
        const std::size_t n = 3 + k % 3;
        std::vector<numbers_of> f(n, numbers_of(n)), h(n, numbers_of(n, 0.0));
        for (auto& row : f)
            for (double& x : row) x = normal(rng);
        numbers_of values, s, least, packed;
        for (std::size_t i = 0; i < n; ++i) {
            values.push_back(0.01 + uniform(rng));
            least.push_back(-values.back());
            s.push_back(normal(rng) - 0.5);
            for (std::size_t j = 0; j < n; ++j)
                for (std::size_t l = 0; l < n; ++l) h[i][j] += f[i][l] * f[j][l];
            h[i][i] += 0.05;
        }
        for (std::size_t i = 0; i < n; ++i)
            for (std::size_t j = i; j < n; ++j) packed.push_back(h[i][j]);
        const double want = bounded_gain(h, s, least);
        EXPECT_NEAR(judge(variances(values, s, packed, 1.0)).promised, want, 1.0e-6 * (1.0 + want)) << k;
    }
}

} // namespace
} // namespace tarvex
