#include "estimation/verdict.h"

#include "support/fixture.h"

#include <cmath>

namespace tarvex {
namespace {

class verdict_test : public tarvex_test {
protected:
    // One block of two traits, residual variances of the order 10 beside it: scales 20 and 40.
    static judged_point two_traits(vector1<double> cov, vector1<double> gradient, vector1<double> information) {
        judged_point p;
        p.blocks = {{"animal", {"milk", "fat"}, 1, false, std::move(cov), {20.0, 40.0}, {}}};
        p.gradient = std::move(gradient);
        p.information = std::move(information);
        return p;
    }
    static bool says(const std::vector<std::string>& lines, const std::string& words) {
        for (const auto& line : lines)
            if (line.find(words) != std::string::npos) return true;
        return false;
    }
};

// g'H^-1 g / 2 for H = [4 1 0; 1 3 1; 0 1 2], g = (a, b, c), by Cramer's rule.
double half_decrement(double a, double b, double c) {
    const double det = 4 * (3 * 2 - 1) - 1 * (2 - 0);
    const double x = (a * (6 - 1) - 1 * (2 * b - c) + 0) / det;
    const double y = (4 * (2 * b - c) - a * 2) / det;
    const double z = (c - y) / 2;
    return 0.5 * (a * x + b * y + c * z);
}

TEST_F(verdict_test, promised_gain_is_half_the_newton_decrement_inside_the_parameter_space) {
    const auto v = judge(two_traits({10, 3, 20}, {0.3, -0.2, 0.1}, {4, 1, 0, 3, 1, 2}));
    EXPECT_NEAR(v.promised, half_decrement(0.3, -0.2, 0.1), 1.0e-10);
    EXPECT_EQ(v.kind, search_end::not_maximum);
    EXPECT_TRUE(v.border.empty());
}

TEST_F(verdict_test, small_gradient_is_a_maximum) {
    const auto v = judge(two_traits({10, 3, 20}, {0.003, -0.002, 0.001}, {4, 1, 0, 3, 1, 2}));
    EXPECT_EQ(v.kind, search_end::maximum);
    EXPECT_LT(v.promised, 1.0e-4);
    EXPECT_TRUE(v.flat.empty());
}

TEST_F(verdict_test, the_limit_is_on_half_the_decrement) {
    // One variance with information 1: the gradient g promises g^2/2.
    judged_point p;
    p.blocks = {{"animal", {"milk"}, 1, false, {10.0}, {20.0}, {}}};
    p.information = {1.0};
    p.gradient = {std::sqrt(2.0 * 0.00099)};
    EXPECT_EQ(judge(p).kind, search_end::maximum);
    p.gradient = {std::sqrt(2.0 * 0.00101)};
    EXPECT_EQ(judge(p).kind, search_end::not_maximum);
}

TEST_F(verdict_test, variance_that_has_gone_is_at_the_border_where_log_l_falls) {
    // Scaled by 40 the last variance is 1e-5; log L falls with it.
    const auto v = judge(two_traits({10, 0.0, 0.0004}, {0.0, 0.0, -1.0}, {4, 0, 0, 3, 0, 2}));
    EXPECT_EQ(v.kind, search_end::border);
    EXPECT_TRUE(says(v.border, "variance of animal, fat"));
    EXPECT_NEAR(v.promised, 0.0004, 1.0e-7); // what zero would still gain
    EXPECT_FALSE(v.void_errors.empty());
}

TEST_F(verdict_test, variance_that_has_gone_is_no_border_where_log_l_rises) {
    const auto v = judge(two_traits({10, 0.0, 0.0004}, {0.0, 0.0, 1.0}, {4, 0, 0, 3, 0, 2}));
    EXPECT_EQ(v.kind, search_end::not_maximum);
    EXPECT_NEAR(v.promised, 0.25, 1.0e-9);
    EXPECT_TRUE(v.border.empty());
}

TEST_F(verdict_test, gain_that_the_border_still_promises_is_no_maximum) {
    const auto v = judge(two_traits({10, 0.0, 0.002}, {0.0, 0.0, -3.0}, {4, 0, 0, 3, 0, 2}));
    EXPECT_EQ(v.kind, search_end::not_maximum);
    EXPECT_NEAR(v.promised, 0.006, 1.0e-6);
}

TEST_F(verdict_test, correlation_near_one_is_at_the_border) {
    // Along the vanishing vector (1/sqrt 2, -1/sqrt 2) in units of the scales: slope 20 g11/2 + 40 g22/2 - sqrt(800)
    // g12.
    const double c = 0.999 * std::sqrt(10.0 * 20.0);
    const double k = 0.05; // the gradient has a part along that vector only
    const auto v = judge(
        two_traits({10, c, 20}, {-k / 20.0, 2.0 * k / std::sqrt(800.0), -k / 40.0}, {0.04, 0.01, 0, 0.03, 0.01, 0.02}));
    EXPECT_EQ(v.kind, search_end::border);
    EXPECT_TRUE(says(v.border, "correlation of animal, milk and fat is 0.999"));
}

// The same matrix with so much information that the maximum lies inside: Newton's step does not reach the border.
TEST_F(verdict_test, maximum_inside_is_none_at_the_border_however_near) {
    const double c = 0.999 * std::sqrt(10.0 * 20.0);
    const auto v = judge(two_traits({10, c, 20}, {-0.0002, 0.0002, 0.0}, {4, 1, 0, 3, 1, 2}));
    EXPECT_EQ(v.kind, search_end::maximum);
    EXPECT_TRUE(v.border.empty());
    EXPECT_NEAR(v.promised, half_decrement(-0.0002, 0.0002, 0.0), 1.0e-10);
}

TEST_F(verdict_test, combination_without_information_is_named) {
    // Information of the sum of two effects' variances only.
    judged_point p;
    p.blocks = {{"animal", {"milk"}, 1, false, {10.0}, {20.0}, {}}, {"dam", {"milk"}, 2, false, {5.0}, {20.0}, {}}};
    p.gradient = {0.0, 0.0};
    p.information = {1, 1, 1};
    const auto v = judge(p);
    EXPECT_EQ(v.kind, search_end::flat);
    ASSERT_EQ(v.flat.size(), 1u);
    EXPECT_TRUE(says(v.flat, "animal variance milk"));
    EXPECT_TRUE(says(v.flat, "dam variance milk"));
}

TEST_F(verdict_test, elements_held_at_zero_do_not_count) {
    judged_point p = two_traits({10, 0, 20}, {0.0, 5.0, 0.0}, {4, 0, 0, 3, 0, 2});
    p.blocks[0].fixed = {0, 1, 0};
    EXPECT_EQ(judge(p).kind, search_end::maximum);
    p.blocks[0].fixed = {0, 0, 0};
    EXPECT_EQ(judge(p).kind, search_end::not_maximum);
}

// Three traits of which the first and the third have a covariance of 0. On the border the second variance is that which
// the others leave, c^2/a + d^2/b: the gain of the quadratic model along it is a function of four free elements.
struct beside_zero {
    static constexpr double a = 1.0, b = 1.0, c = 0.6, d = 0.8;
    std::vector<double> gradient; // (11) (12) (13) (22) (23) (33)
    double information = 3.0;     // of each element, none between them
    double gain(const std::vector<double>& x) const {
        const double aa = a + x[0], bb = b + x[1], cc = c + x[2], dd = d + x[3];
        const double change[] = {x[0], x[2], cc * cc / aa + dd * dd / bb - (c * c / a + d * d / b), x[3], x[1]};
        const double g[] = {gradient[0], gradient[1], gradient[3], gradient[4], gradient[5]};
        double s = 0.0;
        for (int k = 0; k < 5; ++k) s += change[k] * (g[k] - 0.5 * information * change[k]);
        return s;
    }
    // By coordinates in turn, each by a parabola.
    double most() const {
        std::vector<double> x(4, 0.0);
        for (int round = 0; round < 400; ++round)
            for (double& one : x) {
                const double h = 1.0e-4, f = gain(x);
                one += h;
                const double up = gain(x);
                one -= 2.0 * h;
                const double down = gain(x);
                one += h - 0.5 * h * (up - down) / (up - 2.0 * f + down);
            }
        return gain(x);
    }
    judged_point point() const {
        judged_point p;
        p.blocks = {{"residual", {"x", "y", "z"}, 1, false, {a, c, 0.0, c * c / a + d * d / b, d, b}, {}, {}}};
        p.blocks[0].scale = {1.0, 1.0, 1.0};
        p.blocks[0].fixed = {0, 0, 1, 0, 0, 0};
        p.gradient.assign(gradient.begin(), gradient.end());
        p.information.assign(21, 0.0);
        for (int i = 0, k = 1; i < 6; ++i)
            for (int j = i; j < 6; ++j, ++k)
                if (i == j) p.information(k) = information;
        return p;
    }
};

TEST_F(verdict_test, matrix_with_a_zero_has_a_border_of_its_own) {
    beside_zero z;
    // Across the border: v v' with v = (c, -1, d), the eigenvector of the vanished eigenvalue, by element.
    const double k = 0.5, c = z.c, d = z.d;
    z.gradient = {-k * c * c, 2.0 * k * c, 0.7, -k, 2.0 * k * d, -k * d * d};
    auto v = judge(z.point());
    EXPECT_EQ(v.kind, search_end::border);
    EXPECT_LT(v.promised, 1.0e-10);
    EXPECT_TRUE(says(v.border, "eigenvalue 3 of 3 of residual"));
    EXPECT_EQ(v.void_errors.size(), 5u);
    for (double& x : z.gradient) x = -x; // inwards
    v = judge(z.point());
    EXPECT_EQ(v.kind, search_end::not_maximum);
    ASSERT_FALSE(v.lifts.empty());
    double rises = 0.0;
    for (const auto& step : v.lifts[0]) rises += step.change * z.gradient[static_cast<std::size_t>(step.par - 1)];
    EXPECT_GT(rises, 0.0);
}

TEST_F(verdict_test, gain_along_the_border_beside_a_zero_is_that_of_the_free_elements) {
    beside_zero z;
    const double k = 0.5, c = z.c, d = z.d;
    z.gradient = {-k * c * c + 0.02, 2.0 * k * c - 0.01, 0.7, -k, 2.0 * k * d + 0.03, -k * d * d};
    const double want = z.most();
    ASSERT_GT(want, 5.0e-5);
    EXPECT_NEAR(judge(z.point()).promised, want, 0.03 * want); // the border is curved
    z.gradient[4] += 0.3;
    EXPECT_EQ(judge(z.point()).kind, search_end::not_maximum);
}

// Newton's step of a variance of 0.02 is -1, and would gain 0.5; there are 0.02 to go.
TEST_F(verdict_test, promise_ends_where_the_variance_vanishes) {
    judged_point p;
    p.blocks = {{"animal", {"milk"}, 1, false, {0.02}, {1.0}, {}}, {"pe", {"milk"}, 2, false, {0.5}, {1.0}, {}}};
    p.gradient = {-1.0, 0.0};
    p.information = {1.0, 0.0, 2.0};
    auto v = judge(p);
    EXPECT_NEAR(v.promised, 0.02 - 0.5 * 0.02 * 0.02, 1.0e-12);
    EXPECT_EQ(v.kind, search_end::not_maximum);
    ASSERT_EQ(v.lifts.size(), 1u); // the way to the border, to be tried in one step
    EXPECT_EQ(v.lifts[0][0].par, 1);
    EXPECT_NEAR(v.lifts[0][0].change, -0.02, 1.0e-4);
    p.gradient(1) = -0.04;
    v = judge(p);
    EXPECT_NEAR(v.promised, 0.0006, 1.0e-12);
    EXPECT_EQ(v.kind, search_end::border);
    EXPECT_TRUE(says(v.border, "variance of animal, milk is 0.02, on its way to 0"));
    EXPECT_TRUE(v.lifts.empty());
}

// With the first variance at its bound the second one's step is that of what is left: s2 - h12 c1 over h22.
TEST_F(verdict_test, other_parameters_follow_where_one_is_held_at_its_bound) {
    judged_point p;
    p.blocks = {{"animal", {"milk"}, 1, false, {0.02}, {1.0}, {}}, {"pe", {"milk"}, 2, false, {0.5}, {1.0}, {}}};
    p.gradient = {-1.0, 0.3};
    p.information = {1.0, 0.5, 2.0};
    const double c1 = -0.02, c2 = (0.3 - 0.5 * c1) / 2.0;
    const double want = -c1 + 0.3 * c2 - 0.5 * (c1 * c1 + 2.0 * 0.5 * c1 * c2 + 2.0 * c2 * c2);
    EXPECT_NEAR(judge(p).promised, want, 1.0e-12);
}

TEST_F(verdict_test, void_errors_and_eigenvalues_are_told_by_name) {
    const auto v = judge(two_traits({10, 0.0, 0.0004}, {0.0, 0.0, -1.0}, {4, 0, 0, 3, 0, 2}));
    ASSERT_EQ(v.void_names.size(), 3u); // all of the matrix: its information is that across the border too
    EXPECT_EQ(v.void_names[0], "animal variance milk");
    EXPECT_EQ(v.void_names[1], "animal covariance milk,fat");
    ASSERT_EQ(v.eigenvalues.size(), 1u);
    EXPECT_EQ(v.eigenvalues[0].first, "animal");
    ASSERT_EQ(v.eigenvalues[0].second.size(), 2u);
    EXPECT_NEAR(v.eigenvalues[0].second[0], 0.5, 1.0e-12); // 10 of 20, 0.0004 of 40
    EXPECT_NEAR(v.eigenvalues[0].second[1], 1.0e-5, 1.0e-12);
}

TEST_F(verdict_test, matrices_alone_show_the_border_but_give_no_kind) {
    judged_point p = two_traits({10, 0.999 * std::sqrt(200.0), 20}, {}, {});
    p.blocks.push_back({"pe", {"milk", "fat"}, 4, true, {0.0001, 3.0}, {20.0, 40.0}, {}});
    const auto v = look_at_matrices(p);
    EXPECT_EQ(v.kind, search_end::none);
    ASSERT_EQ(v.border.size(), 2u);
    EXPECT_TRUE(says(v.border, "correlation of animal, milk and fat is 0.999"));
    EXPECT_TRUE(says(v.border, "variance of pe, milk"));
    EXPECT_EQ(v.void_names.size(), 4u);
    EXPECT_EQ(v.eigenvalues.size(), 2u);
    EXPECT_NEAR(v.eigenvalues[1].second[0], 3.0 / 40.0, 1.0e-12);
}

TEST_F(verdict_test, directions_across_the_border_carry_its_curvature) {
    // At G = diag(10, 0) (scales 20, 20): moving the covariance by t needs a variance t^2/10 beside it, which costs
    // 2 t^2/10: curvature 2*2/10 on top of that of the likelihood.
    judged_point p = two_traits({10, 0, 0}, {0.0, 0.02, -2.0}, {4, 0, 0, 0.3, 0, 2});
    p.blocks[0].scale = {20.0, 20.0};
    const auto v = judge(p);
    EXPECT_NEAR(v.promised, 0.5 * 0.02 * 0.02 / (0.3 + 0.4), 1.0e-9);
    EXPECT_EQ(v.kind, search_end::border);
}

TEST_F(verdict_test, does_not_depend_on_the_units_of_the_traits) {
    const auto one = judge(two_traits({10, 3, 20}, {0.3, -0.2, 0.1}, {4, 1, 0, 3, 1, 2}));
    // The first trait in units 1000 times as small.
    judged_point p = two_traits({10e6, 3e3, 20}, {0.3e-6, -0.2e-3, 0.1}, {4e-12, 1e-9, 0, 3e-6, 1e-3, 2});
    p.blocks[0].scale = {20.0e6, 40.0};
    const auto other = judge(p);
    EXPECT_NEAR(one.promised, other.promised, 1.0e-8 * one.promised);
    EXPECT_NEAR(one.gradient_norm, other.gradient_norm, 1.0e-8 * one.gradient_norm);
}

} // namespace
} // namespace tarvex
