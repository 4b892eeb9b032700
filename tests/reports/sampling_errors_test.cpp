// Sampling covariances of the covariance components against dense algebra: the average information of the parameters
// from P and the derivatives of V, its inverse, and the slopes of the components by differences.
#include "reports/apprxaicovs.h"

#include "control/options.h"
#include "estimation/estimates.h"
#include "estimation/parlists.h"
#include "estimation/searchstate.h"
#include "likelihood/derivatives.h"
#include "likelihood/likelihood.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "reports/covblocks.h"
#include "support/fixture.h"
#include "support/small_models.h"

#include <cmath>

namespace tarvex {
namespace {

using sampling_errors = tarvex_test;

// Slope of f at parameter i, extrapolated from two steps.
template <class F> auto slope(int i, const F& f) {
    const auto at = [&](double step) {
        array<double> p = estimates.parvec;
        p(i) += step;
        return f(p);
    };
    const double h = 1.0e-3;
    const auto a1 = at(h), a2 = at(-h), b1 = at(0.5 * h), b2 = at(-0.5 * h);
    oracle::vec d(a1.size());
    for (std::size_t k = 0; k < d.size(); ++k) d[k] = (4.0 * (b1[k] - b2[k]) / h - (a1[k] - a2[k]) / (2.0 * h)) / 3.0;
    return d;
}

oracle::dense true_sampling_covariances(const small_model& m) {
    const auto n = static_cast<std::size_t>(estimates.nparm);
    const oracle::analysis a = m.dense();
    const auto variance = [&](const array<double>& p) {
        oracle::vec flat;
        for (const auto& row : oracle::variance(a, point_at(m, p))) flat.insert(flat.end(), row.begin(), row.end());
        return flat;
    };
    const auto components = [&](const array<double>& p) {
        const array<double> keep = bestpoint.parbest;
        bestpoint.parbest = p;
        const oracle::vec all = all_covariances();
        bestpoint.parbest = keep;
        return all;
    };
    const oracle::reml e = oracle::evaluate(a, oracle::variance(a, point_at(m, estimates.parvec)));
    const std::size_t nobs = a.obs.size();
    std::vector<oracle::dense> dv;
    oracle::dense jacobian;
    for (int i = 1; i <= estimates.nparm; ++i) {
        const oracle::vec flat = slope(i, variance);
        dv.push_back(oracle::zeros(nobs, nobs));
        for (std::size_t r = 0; r < nobs; ++r)
            for (std::size_t c = 0; c < nobs; ++c) dv.back()[r][c] = flat[r * nobs + c];
        jacobian.push_back(slope(i, components));
    }
    oracle::dense info = oracle::zeros(n, n);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < n; ++j) info[i][j] = oracle::information(e, dv[i], dv[j]);
    return oracle::product(oracle::transpose(jacobian), oracle::product(oracle::inverse(info), jacobian));
}

void expect_sampling_covariances(const small_model& m) {
    bestpoint.parbest = estimates.parvec;
    bestpoint.xbest = program_logl(estimates.parvec, 1);
    average_info();
    derivatives_mmm();
    jacob_var2chol(0);
    write_avinfo(bestpoint.xbest);
    search_state.saverr_ready = true;
    approxai_covs();
    ASSERT_TRUE(sampling.available);
    EXPECT_EQ(sampling.rank, estimates.nparm);
    const oracle::dense truth = true_sampling_covariances(m);
    ASSERT_EQ(static_cast<int>(truth.size()), estimates.ncovall);
    for (int i = 1; i <= estimates.ncovall; ++i)
        for (int j = 1; j <= estimates.ncovall; ++j) {
            const auto r = static_cast<std::size_t>(i - 1), c = static_cast<std::size_t>(j - 1);
            EXPECT_NEAR(sampling.vcov(i, j), truth[r][c], 1e-4 * std::sqrt(truth[r][r] * truth[c][c])) << i << " " << j;
        }
}

TEST_F(sampling_errors, two_traits_by_their_factors) {
    const small_model m = traits_model(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9});
    set_up(m, {"--aireml"});
    expect_sampling_covariances(m);
}

TEST_F(sampling_errors, logarithms) {
    const small_model m = traits_model(2, {0.3, 0.1, 0.25}, {2.1, 0.4, 1.9});
    set_up(m, {"--aireml", "--logdia"});
    EXPECT_EQ(estimates.logpar(1), 1);
    expect_sampling_covariances(m);
}

TEST_F(sampling_errors, repeat_effect_through_the_residual) {
    small_model m = traits_model(1, {1.3}, {2.1}, 3);
    m.random.push_back({"pe", "PEQ", 1, 0, {0.8}});
    set_up(m, {"--aireml"});
    expect_sampling_covariances(m);
}

TEST_F(sampling_errors, reduced_rank) {
    small_model m = traits_model(3, {1.3, 0.5, 0.4, 1.8, 0.6, 1.1}, {2.1, 0.4, 0.2, 1.9, 0.3, 1.7});
    m.principal = true;
    m.random[0].rank = 1;
    set_up(m, {"--aireml"});
    expect_sampling_covariances(m); // six components of three parameters: singular, all right
}

TEST_F(sampling_errors, residual_classes_of_a_random_regression) {
    small_model m;
    m.randreg = true;
    m.make_pedigree(14, 5, 7);
    m.make_rows(3, 4, 2, 0.0, 8);
    m.random = {{"animal", "NRM", 2, 0, {2.0, 0.3, 1.0}}};
    m.residual = {1.2, 0.9, 2.0};
    m.class_bounds = {3, 7, 11};
    set_up(m, {"--aireml"});
    expect_sampling_covariances(m);
}

TEST_F(sampling_errors, diagonal_block) {
    small_model m = traits_model(2, {1.3, 1.8}, {2.1, 0.4, 1.9});
    m.random[0].diagonal = true;
    set_up(m, {"--aireml"});
    expect_sampling_covariances(m);
}

TEST_F(sampling_errors, correlated_effects) {
    small_model m = traits_model(1, {1.4, -0.3, 0.9}, {2.1});
    m.random[0] = {"animal+dam", "NRM", 2, 0, {1.4, -0.3, 0.9}};
    set_up(m, {"--aireml"});
    expect_sampling_covariances(m);
}

// Matrix (a, f a; f a, f f a): the correlation is 1 whatever a is, and its error vanishes but for rounding.
TEST_F(sampling_errors, exact_correlations_have_no_error) {
    for (double f : {0.1, 0.7, 1.3, 3.3}) {
        const double a = 1.7, v = 0.31;
        EXPECT_EQ(
            error_of_correlation(f * a, a, f * f * a, f * f * v, v, f * f * f * f * v, f * v, f * f * f * v, f * f * v),
            0.0);
        EXPECT_EQ(error_of_ratio(a, a / f, v, v / (f * f), v / f), 0.0);
    }
    EXPECT_EQ(error_of_correlation(0.5, 1.0, 1.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0), -1.0);
    EXPECT_EQ(error_of_ratio(1.0, 2.0, 0.01, 0.01, 0.5), -1.0);
    EXPECT_NEAR(error_of_correlation(0.5, 1.0, 1.0, 0.04, 0.0, 0.0, 0.0, 0.0, 0.0), 0.2, 1.0e-12);
}

} // namespace
} // namespace tarvex
