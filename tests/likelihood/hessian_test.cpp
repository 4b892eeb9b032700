// The term of second order makes the observed information the Hessian on the scale of the parameters.
#include "likelihood/derivative_models.h"

#include "dense/numroutines.h"
#include "support/fixture.h"

#include <algorithm>
#include <cmath>

namespace tarvex {
namespace {

using hessian_test = tarvex_test;

// Derivatives of V with respect to the covariances of two traits, residual ones first; those of the animals are the two
// variances where their matrix is diagonal.
std::vector<oracle::dense> unit_slopes(const small_model& m, const oracle::analysis& a) {
    std::vector<oracle::dense> dv;
    for (const bool residual : {true, false})
        for (std::size_t i = 0; i < 2; ++i)
            for (std::size_t j = i; j < (residual || !m.random[0].diagonal ? 2 : i + 1); ++j) {
                oracle::point p{{oracle::zeros(2, 2)}, {}, {oracle::zeros(2, 2)}};
                auto& block = residual ? p.r[0] : p.g[0];
                block[i][j] = block[j][i] = 1.0;
                dv.push_back(oracle::variance(a, p));
            }
    return dv;
}

// Observed information in the place of the average one.
void put_observed_information(const small_model& m) {
    const oracle::analysis a = m.dense();
    const std::vector<oracle::dense> dv = unit_slopes(m, a);
    const int n = estimates.nparm;
    ASSERT_EQ(static_cast<int>(dv.size()), n);
    const oracle::reml e = oracle::evaluate(a, oracle::variance(a, point_at(m, estimates.parvec)));
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) {
            const auto& x = dv[static_cast<std::size_t>(i - 1)];
            const auto& y = dv[static_cast<std::size_t>(j - 1)];
            const double expected = 0.5 * oracle::trace_of_product(oracle::product(e.p, x), oracle::product(e.p, y));
            derivs.devl2(ihmssf(i, j, n)) = -(2.0 * oracle::information(e, x, y) - expected);
        }
}

// With the observed information der2 is minus the Hessian of log L.
void expect_hessian(const small_model& m) {
    derivatives_here();
    ASSERT_NO_FATAL_FAILURE(put_observed_information(m));
    jacob_var2chol(1);
    const double h = 2.0e-3;
    for (int i = 1; i <= estimates.nparm; ++i)
        for (int j = i; j <= estimates.nparm; ++j) {
            const auto f = [&](double di, double dj) {
                array<double> p = estimates.parvec;
                p(i) += di;
                p(j) += dj;
                return dense_logl(m, p);
            };
            const double hessian = (f(h, h) - f(h, -h) - f(-h, h) + f(-h, -h)) / (4.0 * h * h);
            const double tolerance = 1.0e-3 * std::max(1.0, std::fabs(hessian));
            EXPECT_NEAR(derivs.der2(ihmssf(i, j, estimates.nparm)), -hessian, tolerance) << i << " " << j;
        }
}

TEST_F(hessian_test, second_order_term_completes_the_hessian) {
    const small_model m = traits(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9});
    set_up(m);
    expect_hessian(m);
}

TEST_F(hessian_test, second_order_term_completes_the_hessian_with_logarithms) {
    const small_model m = traits(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9});
    set_up(m, {"--aireml", "--logdia"});
    expect_hessian(m);
}

// Roots of the variances of related levels.
TEST_F(hessian_test, second_order_term_completes_the_hessian_of_a_diagonal_block) {
    small_model m = traits(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9});
    m.random = {{"animal", "NRM", 2, 0, {1.3, 1.8}, true}};
    set_up(m, {"--aireml", "--nologd"});
    ASSERT_FALSE(options.principal);
    expect_hessian(m);
}

} // namespace
} // namespace tarvex
