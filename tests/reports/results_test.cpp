// The last point of a search against dense algebra: covariances enter the variance of the records linearly, so that
// their gradient and information follow from differences of it.
#include "reports/finalpoint.h"

#include "control/options.h"
#include "estimation/bestpoint.h"
#include "estimation/estimates.h"
#include "estimation/evaluate.h"
#include "likelihood/likelihood.h"
#include "parfile/model.h"
#include "support/fixture.h"
#include "support/small_models.h"

#include <cmath>

namespace tarvex {
namespace {

using results_test = tarvex_test;

// At the starting values, as if the search had ended there.
void stay_here() {
    evaluate_point(estimates.parvec, 1);
    look_at_final_point();
}

// Variance of the records per unit of each covariance: the residual's first, each packed row by row.
std::vector<oracle::dense> slopes(const oracle::analysis& a, const oracle::point& at) {
    const oracle::dense v0 = oracle::variance(a, at);
    std::vector<oracle::dense> list;
    const auto add = [&](const auto& matrix_of) {
        const std::size_t n = matrix_of(const_cast<oracle::point&>(at)).size();
        for (std::size_t i = 0; i < n; ++i)
            for (std::size_t j = i; j < n; ++j) {
                oracle::point p = at;
                oracle::dense& k = matrix_of(p);
                k[i][j] += 1.0;
                if (i != j) k[j][i] += 1.0;
                oracle::dense d = oracle::variance(a, p);
                for (std::size_t r = 0; r < d.size(); ++r)
                    for (std::size_t c = 0; c < d.size(); ++c) d[r][c] -= v0[r][c];
                list.push_back(d);
            }
    };
    for (std::size_t s = 0; s < at.r.size(); ++s) add([s](oracle::point& p) -> oracle::dense& { return p.r[s]; });
    for (std::size_t k = 0; k < at.g.size(); ++k) add([k](oracle::point& p) -> oracle::dense& { return p.g[k]; });
    return list;
}

struct dense_point {
    oracle::vec gradient;
    oracle::dense information;
};

dense_point dense_derivatives(const small_model& m) {
    const oracle::analysis a = m.dense();
    const oracle::point at = point_at(m, bestpoint.parbest);
    const oracle::reml e = oracle::evaluate(a, oracle::variance(a, at));
    const auto dv = slopes(a, at);
    dense_point d{{}, oracle::zeros(dv.size(), dv.size())};
    for (std::size_t i = 0; i < dv.size(); ++i) {
        d.gradient.push_back(oracle::gradient(e, dv[i]));
        for (std::size_t j = 0; j < dv.size(); ++j) d.information[i][j] = oracle::information(e, dv[i], dv[j]);
    }
    return d;
}

void expect_dense(const small_model& m, bool step_stays_inside) {
    stay_here();
    const auto& f = final_point;
    ASSERT_TRUE(f.available);
    const dense_point want = dense_derivatives(m);
    const std::size_t n = want.gradient.size();
    ASSERT_EQ(f.gradient.size(), n);
    double largest = 0.0;
    for (std::size_t i = 0; i < n; ++i) largest = std::max(largest, want.information[i][i]);
    for (std::size_t i = 0; i < n; ++i) {
        EXPECT_NEAR(f.gradient[i], want.gradient[i], 1e-8 * largest) << f.names[i];
        for (std::size_t j = 0; j < n; ++j)
            EXPECT_NEAR(f.information[i * n + j], want.information[i][j], 1e-8 * largest) << i << " " << j;
    }
    EXPECT_EQ(f.rank, static_cast<int>(n));
    EXPECT_TRUE(f.flat.empty());
    // Inside the parameter space the promise is that of the plain quadratic model; it is less where the step leaves it.
    const oracle::vec step = oracle::times(oracle::inverse(want.information), want.gradient);
    const double plain = 0.5 * oracle::dot(step, want.gradient);
    if (step_stays_inside)
        EXPECT_NEAR(f.half_decrement, plain, 1e-6 * (1.0 + f.half_decrement));
    else
        EXPECT_LT(f.half_decrement, plain);
    EXPECT_GT(f.half_decrement, 0.0);
    EXPECT_TRUE(f.border.empty());
}

TEST_F(results_test, derivatives_of_the_covariances_equal_dense_ones) {
    const small_model m = traits_model(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9}, 2);
    set_up(m);
    expect_dense(m, false);
}

TEST_F(results_test, derivatives_equal_dense_ones_behind_em) {
    const small_model m = traits_model(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9});
    set_up(m, {"--emalg"});
    expect_dense(m, true);
}

TEST_F(results_test, random_regression_with_classes_of_residuals) {
    small_model m;
    m.randreg = true;
    m.make_pedigree(14, 5, 7);
    m.make_rows(3, 4, 2, 0.0, 8);
    m.random = {{"animal", "NRM", 2, 0, {2.0, 0.3, 1.0}}, {"pe", "IDE", 2, 0, {1.0, 0.1, 0.6}}};
    m.residual = {1.2, 0.9, 2.0};
    m.class_bounds = {3, 7, 11};
    set_up(m);
    expect_dense(m, false);
}

// Unrelated animals: the two independent effects of an animal cannot be told apart.
TEST_F(results_test, effects_that_cannot_be_told_apart_are_flat_by_their_names) {
    small_model m = traits_model(1, {1.3}, {2.0}, 3);
    m.sire.assign(m.sire.size(), 0);
    m.dam.assign(m.dam.size(), 0);
    m.random = {{"animal", "NRM", 1, 0, {1.3}}, {"pe", "IDE", 1, 0, {0.9}}};
    for (auto& r : m.rows) r.pe = r.animal;
    set_up(m);
    stay_here();
    const auto& f = final_point;
    ASSERT_TRUE(f.available);
    EXPECT_EQ(f.estimated, 3);
    EXPECT_EQ(f.rank, 2);
    ASSERT_EQ(f.flat.size(), 1u);
    ASSERT_EQ(f.flat[0].size(), 2u);
    EXPECT_NEAR(f.flat[0][0].weight * f.flat[0][1].weight, -1.0, 1e-6); // one up, the other down
    EXPECT_EQ(f.flat[0][0].name, estimates.covnames(2));
    EXPECT_EQ(f.flat[0][1].name, estimates.covnames(3));
}

TEST_F(results_test, border_of_variances_correlations_and_eigenvalues) {
    set_up(traits_model(2, {1.0e-6, 0.0, 1.8}, {2.1, 0.4, 1.9}));
    stay_here();
    ASSERT_EQ(final_point.border.size(), 1u);
    EXPECT_EQ(final_point.border[0].kind, "variance");
    EXPECT_EQ(final_point.border[0].irand, 1);
    EXPECT_EQ(final_point.border[0].row, 1);
    EXPECT_NEAR(final_point.border[0].value, 1.0e-6 / 2.1, 1e-7);
}

TEST_F(results_test, correlation_close_to_one_is_at_the_border) {
    set_up(traits_model(2, {1.0, 1.2 * 0.9992, 1.44}, {2.1, 0.4, 1.9}));
    stay_here();
    ASSERT_EQ(final_point.border.size(), 1u);
    EXPECT_EQ(final_point.border[0].kind, "correlation");
    EXPECT_NEAR(final_point.border[0].value, 0.9992, 1e-6);
}

TEST_F(results_test, eigenvalue_that_is_gone_though_no_correlation_is_one) {
    // x3 = x1 + x2 of two independent traits
    set_up(traits_model(3, {1.0, 0.0, 1.0, 1.0, 1.0, 2.00001}, {2.1, 0.4, 0.2, 1.9, 0.3, 2.5}));
    stay_here();
    ASSERT_EQ(final_point.border.size(), 1u);
    EXPECT_EQ(final_point.border[0].kind, "eigenvalue");
    EXPECT_LT(final_point.border[0].value, 1e-4);
}

// What lies across the border promises nothing where the likelihood falls into the inside: only that may be left out.
TEST_F(results_test, promise_is_that_of_the_parameter_space) {
    for (const double size : {0.3, 3.0}) { // records vary less, or more, than the starting values say
        new_analysis();
        small_model m = traits_model(1, {1.0e-5}, {2.0});
        for (auto& r : m.rows) r.y = {10.0 + (m.sire[static_cast<std::size_t>(r.animal - 1)] % 2 ? size : -size)};
        set_up(m);
        stay_here();
        const auto& f = final_point;
        ASSERT_TRUE(f.available);
        const dense_point want = dense_derivatives(m);
        const double g = want.gradient[1], residual = want.gradient[0];
        const double step = std::max(residual / want.information[0][0], -2.0); // the residual variance is 2
        const double of_residual = residual * step - 0.5 * want.information[0][0] * step * step;
        if (g < 0.0) // and what the genetic variance would gain on its way to zero
            EXPECT_NEAR(f.half_decrement, of_residual - 1.0e-5 * g, 1e-6) << size;
        else
            EXPECT_GT(f.half_decrement, of_residual) << size;
        EXPECT_EQ(g > 0.0, size > 1.0);
    }
}

} // namespace
} // namespace tarvex
