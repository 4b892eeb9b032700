// The term of second order makes the observed information the Hessian on the scale of the parameters.
#include "likelihood/derivative_models.h"

#include "dense/numroutines.h"
#include "support/fixture.h"

#include <algorithm>
#include <cmath>

namespace tarvex {
namespace {

using hessian_test = tarvex_test;

// Derivatives of V with respect to the six covariances of two traits, residual ones first.
std::vector<oracle::dense> unit_slopes(const oracle::analysis& a) {
    std::vector<oracle::dense> dv;
    for (int k = 0; k < 6; ++k) {
        oracle::point p{{oracle::zeros(2, 2)}, {}, {oracle::zeros(2, 2)}};
        auto& block = k < 3 ? p.r[0] : p.g[0];
        const std::size_t i = k % 3 == 2 ? 1 : 0, j = k % 3 == 0 ? 0 : 1;
        block[i][j] = block[j][i] = 1.0;
        dv.push_back(oracle::variance(a, p));
    }
    return dv;
}

// Observed information in the place of the average one.
void put_observed_information(const small_model& m) {
    const oracle::analysis a = m.dense();
    const std::vector<oracle::dense> dv = unit_slopes(a);
    const oracle::reml e = oracle::evaluate(a, oracle::variance(a, point_at(m, estimates.parvec)));
    for (int i = 1; i <= 6; ++i)
        for (int j = i; j <= 6; ++j) {
            const auto& x = dv[static_cast<std::size_t>(i - 1)];
            const auto& y = dv[static_cast<std::size_t>(j - 1)];
            const double expected = 0.5 * oracle::trace_of_product(oracle::product(e.p, x), oracle::product(e.p, y));
            derivs.devl2(ihmssf(i, j, 6)) = -(2.0 * oracle::information(e, x, y) - expected);
        }
}

// With the observed information der2 is minus the Hessian of log L.
void expect_hessian(const small_model& m) {
    derivatives_here();
    put_observed_information(m);
    jacob_var2chol(1);
    const double h = 2.0e-3;
    for (int i = 1; i <= 6; ++i)
        for (int j = i; j <= 6; ++j) {
            const auto f = [&](double di, double dj) {
                array<double> p = estimates.parvec;
                p(i) += di;
                p(j) += dj;
                return dense_logl(m, p);
            };
            const double hessian = (f(h, h) - f(h, -h) - f(-h, h) + f(-h, -h)) / (4.0 * h * h);
            const double tolerance = 1.0e-3 * std::max(1.0, std::fabs(hessian));
            EXPECT_NEAR(derivs.der2(ihmssf(i, j, 6)), -hessian, tolerance) << i << " " << j;
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

} // namespace
} // namespace tarvex
