// Steps inside a trust region against closed forms and a search over all directions.
#include "estimation/trustregion.h"

#include "support/fixture.h"

#include <cmath>
#include <vector>

namespace tarvex {
namespace {

array<double, 2> square(const std::vector<std::vector<double>>& rows) {
    array<double, 2> a;
    const int n = static_cast<int>(rows.size());
    a.allocate(n, n);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) a(i, j) = rows[static_cast<std::size_t>(i - 1)][static_cast<std::size_t>(j - 1)];
    return a;
}

double model(const std::vector<std::vector<double>>& h, const std::vector<double>& g, const std::vector<double>& s) {
    double q = 0.0;
    for (std::size_t i = 0; i < g.size(); ++i) {
        q += g[i] * s[i];
        for (std::size_t j = 0; j < g.size(); ++j) q -= 0.5 * s[i] * h[i][j] * s[j];
    }
    return q;
}

TEST(region_step_test, maximum_inside_is_the_newton_step) {
    const std::vector<std::vector<double>> h{{5.0, 1.0}, {1.0, 3.0}};
    const region_step s = step_in_region(square(h), {0.14, 0.14}, 1.0); // inverse times gradient: (0.02, 0.04)
    EXPECT_NEAR(s.step[0], 0.02, 1.0e-12);
    EXPECT_NEAR(s.step[1], 0.04, 1.0e-12);
    EXPECT_EQ(s.lambda, 0.0);
    EXPECT_NEAR(s.promised, 0.5 * 0.14 * 0.06, 1.0e-14);
    EXPECT_NEAR(s.length, std::sqrt(0.02 * 0.02 + 0.04 * 0.04), 1.0e-14);
}

// At the edge the step is the best of all of that length, found by trying every direction.
TEST(region_step_test, step_at_the_edge_is_the_best_of_its_length) {
    const std::vector<std::vector<double>> h{{90.0, 9.0}, {9.0, 1.0}};
    const std::vector<double> g{30.0, 7.0};
    for (double radius : {0.01, 0.3, 2.0}) {
        const region_step s = step_in_region(square(h), g, radius);
        ASSERT_NEAR(s.length, radius, 0.0101 * radius) << radius;
        EXPECT_GT(s.lambda, 0.0);
        double most = -1.0e30;
        for (int k = 0; k < 200000; ++k) {
            const double t = 2.0 * M_PI * k / 200000.0;
            most = std::max(most, model(h, g, {s.length * std::cos(t), s.length * std::sin(t)}));
        }
        EXPECT_NEAR(s.promised, most, 1.0e-6 * std::fabs(most)) << radius;
        EXPECT_NEAR(s.promised, model(h, g, s.step), 1.0e-12);
    }
}

// A saddle: the step follows the curvature of a minimum to the edge, and is still the best of its length.
TEST(region_step_test, step_off_a_saddle_is_the_best_of_its_length) {
    for (const auto& h : std::vector<std::vector<std::vector<double>>>{
             {{-1.0, 0.5}, {0.5, 2.0}}, {{-3.0, 0.2}, {0.2, -1.0}}, {{1.0, 4.0}, {4.0, 1.0}}})
        for (const auto& g : std::vector<std::vector<double>>{{0.1, 1.0}, {1.0e-3, 0.0}, {-2.0, 0.3}}) {
            const region_step s = step_in_region(square(h), g, 0.5);
            ASSERT_NEAR(s.length, 0.5, 0.00501);
            EXPECT_GT(s.promised, 0.0);
            double most = -1.0e30;
            for (int k = 0; k < 200000; ++k) {
                const double t = 2.0 * M_PI * k / 200000.0;
                most = std::max(most, model(h, g, {s.length * std::cos(t), s.length * std::sin(t)}));
            }
            EXPECT_NEAR(s.promised, most, 1.0e-6 * std::fabs(most));
        }
}

TEST(region_step_test, combination_without_curvature_is_followed_to_the_edge) {
    const region_step s = step_in_region(square({{4.0, 0.0}, {0.0, 0.0}}), {0.4, 0.01}, 2.0);
    EXPECT_NEAR(s.length, 2.0, 0.021);
    EXPECT_NEAR(s.step[0], 0.1, 0.005);
    EXPECT_GT(s.step[1], 1.97);
}

TEST(region_step_test, no_gradient_no_step) {
    const region_step s = step_in_region(square({{4.0, 0.0}, {0.0, 0.0}}), {0.0, 0.0}, 2.0);
    EXPECT_EQ(s.length, 0.0);
    EXPECT_EQ(s.promised, 0.0);
    EXPECT_TRUE(step_in_region({}, {}, 1.0).step.empty());
}

// A singular matrix whose null space the gradient does not see has its maximum inside.
TEST(region_step_test, singular_matrix_may_have_its_maximum_inside) {
    const std::vector<std::vector<double>> h{{1.0, 1.0}, {1.0, 1.0}};
    const region_step s = step_in_region(square(h), {0.2, 0.2}, 1.0);
    EXPECT_NEAR(s.promised, 0.02, 1.0e-8); // along (1,1): 0.4 a - 2 a a
    EXPECT_LE(s.length, 1.01);
}

TEST(trust_region_test, radius_follows_what_steps_win) {
    trust_region r;
    r.radius = 1.0;
    EXPECT_TRUE(r.judge(0.80, 1.0, 1.0)); // good, at the edge
    EXPECT_DOUBLE_EQ(r.radius, 2.0);
    EXPECT_TRUE(r.judge(0.80, 1.0, 0.5)); // good, inside
    EXPECT_DOUBLE_EQ(r.radius, 2.0);
    EXPECT_TRUE(r.judge(0.74, 1.0, 2.0)); // neither
    EXPECT_DOUBLE_EQ(r.radius, 2.0);
    EXPECT_TRUE(r.judge(0.26, 1.0, 2.0));
    EXPECT_DOUBLE_EQ(r.radius, 2.0);
    EXPECT_EQ(r.poor, 0);
    EXPECT_TRUE(r.judge(0.24, 1.0, 2.0)); // poor, but it gains
    EXPECT_DOUBLE_EQ(r.radius, 0.5);
    EXPECT_EQ(r.poor, 1);
    EXPECT_FALSE(r.judge(-0.1, 1.0, 0.4)); // a loss
    EXPECT_DOUBLE_EQ(r.radius, 0.1);
    EXPECT_EQ(r.poor, 2);
    EXPECT_FALSE(r.judge(0.00009, 1.0, 0.1)); // as good as none
    EXPECT_TRUE(r.judge(0.9, 1.0, 0.1));
    EXPECT_EQ(r.poor, 0);
}

TEST(trust_region_test, thresholds_of_the_radius_from_both_sides) {
    struct trial {
        double won, length, radius;
        bool accepted;
    };
    // of a promise of 1, in a region of radius 1
    for (const trial& t : {trial{0.751, 0.91, 2.0, true}, trial{0.749, 0.91, 1.0, true}, trial{0.751, 0.89, 1.0, true},
                           trial{0.251, 0.8, 1.0, true}, trial{0.249, 0.8, 0.2, true}, trial{1.01e-4, 0.8, 0.2, true},
                           trial{0.99e-4, 0.8, 0.2, false}, trial{-2.0, 0.8, 0.2, false}}) {
        trust_region r;
        EXPECT_EQ(r.judge(t.won, 1.0, t.length), t.accepted) << t.won;
        EXPECT_DOUBLE_EQ(r.radius, t.radius) << t.won << " at " << t.length;
        EXPECT_EQ(r.poor, t.won < 0.25 ? 1 : 0);
    }
    trust_region r;
    EXPECT_FALSE(r.judge(1.0, 0.0, 0.5)) << "nothing was promised";
}

TEST(trust_region_test, radius_has_a_limit_and_is_halved_where_there_is_no_value) {
    trust_region r;
    for (int k = 0; k < 10; ++k) r.judge(1.0, 1.0, r.radius);
    EXPECT_DOUBLE_EQ(r.radius, r.largest);
    r.invalid(3.0);
    EXPECT_DOUBLE_EQ(r.radius, 1.5);
    EXPECT_EQ(r.poor, 1);
}

} // namespace
} // namespace tarvex
