// Starting matrices that are far from the variances of the data.
#include "control/options.h"
#include "data/levels.h"
#include "dense/numroutines.h"
#include "estimation/covs2parvec.h"
#include "estimation/pulledstart.h"
#include "parfile/model.h"
#include "support/em_fixture.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace tarvex {
namespace {

class pulledstart_test : public tarvex_test {
protected:
    // A trait with animals and dams, all variances times `factor` of shares that add up to the variance of the data.
    static small_model shares(double residual, double animal, double dam, double factor) {
        small_model m = families(1);
        set_up(m, {"--sure"});
        const double v = means.tr_var(1) * means.tr_var(1);
        m.random.push_back({"dam", "IDE", 1, 0, {dam * v * factor}});
        m.random[0].g = {animal * v * factor};
        m.residual = {residual * v * factor};
        new_analysis();
        return m;
    }
    static double data_variance() { return means.tr_var(1) * means.tr_var(1); }
    static std::vector<double> matrices() { return {model.cov(1, 0), model.cov(1, 1), model.cov(1, 2)}; }
    static double logl(const std::vector<double>& v) {
        for (int k = 0; k < 3; ++k) model.cov(1, k) = v[static_cast<std::size_t>(k)];
        covs2parvec();
        return program_logl(estimates.parvec);
    }
};

void expect_matrices(const std::vector<double>& got, const std::vector<double>& want) {
    for (std::size_t k = 0; k < got.size(); ++k) EXPECT_NEAR(got[k], want[k], 1.0e-9 * (1.0 + want[k])) << k;
}

TEST_F(pulledstart_test, sum_of_variances_may_be_four_times_that_of_the_data_or_a_quarter) {
    for (const double factor : {3.95, 4.05, 0.255, 0.245}) {
        const small_model m = shares(0.6, 0.3, 0.1, factor);
        set_up(m, {"--sure"});
        const std::vector<double> before = matrices();
        pull_start();
        EXPECT_EQ(matrices() == before, factor < 4.0 && factor > 0.25) << factor;
        EXPECT_EQ(screen_text().find("Starting values pulled to the variances of the data") == std::string::npos,
                  factor < 4.0 && factor > 0.25);
        clear_screen();
    }
}

// The best of the matrices as given, those scaled to the variance of the data, and half of it to the residual with
// equal shares of the effects.
TEST_F(pulledstart_test, best_of_given_scaled_and_even_matrices_is_taken) {
    int scaled = 0, even = 0;
    for (const std::vector<double>& s : {std::vector{0.6, 0.3, 0.1}, std::vector{0.001, 0.998, 0.001},
                                         std::vector{0.02, 0.02, 0.96}, std::vector{0.5, 0.4, 0.1}}) {
        const small_model m = shares(s[0], s[1], s[2], 50.0);
        set_up(m, {"--sure"});
        const double v = data_variance();
        std::vector<std::vector<double>> tried{
            matrices(), {s[0] * v, s[1] * v, s[2] * v}, {0.5 * v, 0.25 * v, 0.25 * v}};
        std::vector<double> x;
        for (const auto& t : tried) x.push_back(logl(t));
        const std::size_t best = static_cast<std::size_t>(std::max_element(x.begin(), x.end()) - x.begin());
        logl(tried[0]);
        pull_start();
        expect_matrices(matrices(), tried[best]);
        EXPECT_NEAR(program_logl(estimates.parvec), x[best], 1.0e-8);
        scaled += best == 1 ? 1 : 0;
        even += best == 2 ? 1 : 0;
    }
    EXPECT_GT(scaled, 0);
    EXPECT_GT(even, 0);
}

// Records with much less variance within herds than over all: the given matrices are the better ones.
TEST_F(pulledstart_test, matrices_as_given_stay_where_they_are_the_best) {
    small_model m = families(1);
    for (auto& r : m.rows) r.y[0] += 300.0 * r.herd;
    set_up(m, {"--sure"});
    ASSERT_LT(m.residual[0] + m.random[0].g[0], 0.25 * data_variance());
    const double r = model.cov(1, 0), g = model.cov(1, 1);
    pull_start();
    EXPECT_EQ(model.cov(1, 0), r);
    EXPECT_EQ(model.cov(1, 1), g);
    EXPECT_NEAR(program_logl(estimates.parvec), dense_logl(m, estimates.parvec), 1.0e-6 * 1.0e3);
}

TEST_F(pulledstart_test, covariances_keep_their_correlations) {
    small_model m = families(2);
    for (double& x : m.random[0].g) x *= 60.0;
    m.residual = {1.5, 0.3, 90.0};
    set_up(m, {"--sure"});
    const double before = model.cov(2, 1) / std::sqrt(model.cov(1, 1) * model.cov(3, 1));
    const double first = model.cov(1, 1);
    pull_start();
    EXPECT_LT(model.cov(1, 1), 0.5 * first);
    EXPECT_NEAR(model.cov(2, 1) / std::sqrt(model.cov(1, 1) * model.cov(3, 1)), before, 1.0e-12);
}

TEST_F(pulledstart_test, continued_run_starts_from_its_point) {
    const small_model m = shares(0.6, 0.3, 0.1, 50.0);
    set_up(m, {"--sure"});
    options.continew = true;
    const std::vector<double> before = matrices();
    pull_start();
    EXPECT_EQ(matrices(), before);
}

} // namespace
} // namespace tarvex
