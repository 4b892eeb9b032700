#include "estimation/covs2parvec.h"
#include "estimation/searchstate.h"
#include "estimation/stepcontrol.h"

#include "control/maximise.h"
#include "control/options.h"
#include "dense/numroutines.h"
#include "estimation/aireml.h"
#include "estimation/bestpoint.h"
#include "estimation/powell.h"
#include "likelihood/derivatives.h"
#include "parameters/variances.h"
#include "support/em_fixture.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <sstream>

namespace tarvex {
namespace {

TEST(tau_test, follows_the_eigenvalues) {
    EXPECT_EQ(set_tau(100, 0.5), 0.0);
    EXPECT_NEAR(set_tau(100, 0.0005), 0.001, 1.0e-15);
    EXPECT_NEAR(set_tau(12999, 0.01), 0.0571956, 1.0e-9);
    EXPECT_EQ(set_tau(13001, 0.01), 0.0);
    EXPECT_EQ(set_tau(1.0e5, 1.2), 0.0);
    EXPECT_NEAR(set_tau(1.0e9, 1.5), 281.6, 1.0e-9);
    EXPECT_NEAR(set_tau(1.0e6, -3), 2.816, 1.0e-12);
    EXPECT_EQ(set_tau(89999, 1.000001), 0.0); // well conditioned
}

class step_test : public tarvex_test {
protected:
    void start(const small_model& m, const std::vector<std::string>& list = {"--aireml"}) {
        set_up(m, list);
        set_linesearch();
        xold = program_logl(estimates.parvec, 1);
    }
    // Information (packed upper triangle) and gradient of all parameters.
    void quadratic(const std::vector<double>& der2, const std::vector<double>& der1) {
        const int n = estimates.nparm;
        derivs.der1.allocate(n);
        derivs.der2.allocate(n * (n + 1) / 2);
        std::copy(der1.begin(), der1.end(), derivs.der1.begin());
        std::copy(der2.begin(), der2.end(), derivs.der2.begin());
        rank_check();
        aireml_terms.tau = 0.0;
    }
    void real_derivatives() {
        xold = program_logl(estimates.parvec, 1);
        average_info();
        derivatives_mmm();
        jacob_var2chol(0);
        rank_check();
        aireml_terms.tau = 0.0;
    }
    // The trial at parvec + dvec.
    void trial(const std::vector<double>& d) {
        std::copy(d.begin(), d.end(), derivs.dvec.begin());
        search_state.parnew = estimates.parvec;
        for (int i = 1; i <= estimates.nparm; ++i) search_state.parnew(i) += derivs.dvec(i);
        aireml_terms.alpha = 1.0;
        xnew = program_logl(search_state.parnew);
    }
    double xold = 0.0, xnew = 0.0;
};

TEST_F(step_test, all_methods_take_the_newton_step_of_a_safe_matrix) {
    start(families(1));
    for (int method = 0; method <= 4; ++method) {
        maximise.modify_chol = method;
        quadratic({5.0, 1.0, 3.0}, {0.14, 0.14}); // inverse times gradient: (0.02, 0.04)
        eztimates(xnew);
        EXPECT_NEAR(derivs.dvec(1), 0.02, 1.0e-10) << method;
        EXPECT_NEAR(derivs.dvec(2), 0.04, 1.0e-10) << method;
        EXPECT_EQ(aireml_terms.tau, 0.0);
        EXPECT_NEAR(aireml_terms.slope, -0.14 * 0.06, 1.0e-10);
        EXPECT_NEAR(search_state.parnew(2), estimates.parvec(2) + 0.04, 1.0e-10);
        EXPECT_NEAR(xnew, program_logl(search_state.parnew), 1.0e-12);
    }
}

TEST_F(step_test, negative_eigenvalue_raises_tau) {
    start(families(1));
    maximise.modify_chol = 2;
    quadratic({2.0, 0.0, -0.5}, {0.1, 0.01});
    eztimates(xnew);
    EXPECT_NEAR(aireml_terms.tau, 0.001 + 0.95 * 0.5, 1.0e-10);
    EXPECT_NEAR(derivs.dvec(1), 0.1 / (2.0 + aireml_terms.tau), 1.0e-10);
    maximise.modify_chol = 1; // small eigenvalues are replaced instead
    quadratic({2.0, 0.0, 1.0e-5}, {0.1, 1.0e-6});
    eztimates(xnew);
    EXPECT_NEAR(derivs.dvec(1), 0.05, 1.0e-10);
    EXPECT_NEAR(derivs.dvec(2), 1.0e-6 / 0.001, 1.0e-10);
}

TEST_F(step_test, matrix_without_information_ends) {
    start(families(1));
    for (int method : {0, 1, 2}) {
        maximise.modify_chol = method;
        quadratic({2.0, 0.0, 0.0}, {0.1, 0.0});
        EXPECT_EQ(derivs.nparm2, 2) << "its parameter is not zero";
        eztimates(xnew);
        EXPECT_TRUE(std::isfinite(derivs.dvec(1)));
        EXPECT_EQ(derivs.dvec(2), 0.0);
    }
}

TEST_F(step_test, one_parameter_without_information_stays) {
    start(families(1));
    maximise.modify_chol = 0;
    estimates.parvec(2) = 0.0;
    xold = program_logl(estimates.parvec);
    quadratic({0.0, 0.0, 0.0}, {0.3, 0.2});
    EXPECT_EQ(derivs.nparm2, 1);
    EXPECT_EQ(derivs.subset(1), 1);
    EXPECT_EQ(derivs.fixpar(2), 1);
    eztimates(xnew);
    EXPECT_EQ(derivs.dvec(1), 0.0);
    EXPECT_EQ(xnew, program_logl(estimates.parvec));
}

TEST_F(step_test, large_predicted_gains_are_halved) {
    start(families(1), {"--aireml", "--logdia"});
    maximise.modify_chol = 0;
    quadratic({1.0e6, 0.0, 1.0e6}, {2.0e5, 0.0}); // predicted 40000
    eztimates(xnew);
    EXPECT_NEAR(aireml_terms.slope, -10000.0, 1.0e-6);
    EXPECT_NEAR(derivs.dvec(1), 0.05, 1.0e-10);
}

TEST_F(step_test, outlying_element_is_cut_by_the_modified_factorisations) {
    start(families(1), {"--aireml", "--logdia"});
    maximise.modify_chol = 4;
    quadratic({1.0, 0.0, 1.0}, {0.26, 0.01});
    eztimates(xnew);
    EXPECT_NEAR(derivs.dvec(1), 0.8 * 0.26, 1.0e-10);
    EXPECT_NEAR(derivs.dvec(2), 0.01, 1.0e-10);
}

TEST_F(step_test, ratio_of_25_decides_what_sticks_out) {
    start(families(1), {"--aireml", "--logdia"});
    maximise.modify_chol = 4;
    quadratic({1.0, 0.0, 1.0}, {0.249, 0.01});
    eztimates(xnew);
    EXPECT_NEAR(derivs.dvec(1), 0.249, 1.0e-10);
    quadratic({1.0, 0.0, 1.0}, {0.251, 0.01});
    eztimates(xnew);
    EXPECT_NEAR(derivs.dvec(1), 0.8 * 0.251, 1.0e-10);
}

// A matrix with a negative eigenvalue: 4 takes it by its magnitude, 3 makes it positive, and steps far.
TEST_F(step_test, factorisations_differ_where_the_matrix_is_indefinite) {
    start(families(1), {"--aireml", "--logdia"});
    maximise.modify_chol = 4;
    quadratic({2.0, 0.0, -0.5}, {0.1, 0.1});
    eztimates(xnew);
    EXPECT_NEAR(derivs.dvec(1), 0.05, 1.0e-10);
    EXPECT_NEAR(derivs.dvec(2), 0.2, 1.0e-10);
    maximise.modify_chol = 3;
    quadratic({2.0, 0.0, -0.5}, {0.1, 0.1});
    eztimates(xnew);
    EXPECT_GT(derivs.dvec(2), 0.0); // uphill
    EXPECT_GT(std::fabs(derivs.dvec(2) - 0.2), 0.01);
    EXPECT_LT(aireml_terms.slope, 0.0);
}

// Short of rank: tau is added again until it is not. Eigenvalues 2, 1 and -3e-4 with tau 0.001 at first.
TEST_F(step_test, information_short_of_rank_gets_more_on_its_diagonal) {
    start(families(1));
    maximise.modify_chol = 2;
    quadratic({2.0, 0.0, 0.0005}, {0.1, 0.001});
    eztimates(xnew);
    // tau 0.001, less 0.95 of the smallest eigenvalue
    EXPECT_NEAR(aireml_terms.tau, 0.001 - 0.95 * 0.0005, 1.0e-9);
    EXPECT_NEAR(derivs.dvec(2), 0.001 / (0.0005 + aireml_terms.tau), 1.0e-6);
}

TEST_F(step_test, residual_covariances_stay_positive_definite) {
    start(two_traits());
    options.emalgorithm = true;
    covs2parvec();
    maximise.modify_chol = 0;
    std::vector<double> unit(21, 0.0);
    for (int i = 1; i <= 6; ++i) unit[static_cast<std::size_t>(ihmssf(i, i, 6) - 1)] = 1.0;
    quadratic(unit, {-7.0, 0, 0, 0, 0, 0});
    eztimates(xnew);
    const double a = search_state.parnew(1), b = search_state.parnew(2), c = search_state.parnew(3);
    const double smallest = 0.5 * (a + c) - std::sqrt(0.25 * (a - c) * (a - c) + b * b);
    EXPECT_NEAR(smallest, 1.0e-4, 1.0e-9);
}

// Log L is flat where the residual matrix of a point has been made positive definite: the search must not go on there.
TEST_F(step_test, residual_covariances_stay_positive_definite_in_the_search) {
    small_model m = two_traits();
    m.random[0].g = {30.0, 5.0, 30.0};
    m.residual = {1000.0, 1.0, 1000.0}; // better without any
    start(m);
    options.emalgorithm = true;
    covs2parvec();
    real_derivatives();
    derivs.dvec.allocate(6);
    aireml_terms.slope = -100.0;
    trial({-2500.0, 0.0, -2500.0, 0.0, 0.0, 0.0});
    bool fail = false;
    line_search(xold, xnew, fail);
    EXPECT_FALSE(fail);
    EXPECT_GT(aireml_terms.alpha, 0.4); // the point is beyond the parameter space
    EXPECT_GT(search_state.parnew(1), 0.0);
    EXPECT_GT(search_state.parnew(3), 0.0);
    EXPECT_NEAR(xnew, program_logl(search_state.parnew), 1.0e-9 * std::fabs(xnew));
}

TEST_F(step_test, covariance_held_at_zero_stays_so_where_the_step_is_controlled) {
    small_model m = components(3);
    m.principal = false;
    for (auto& r : m.rows) r.y[r.animal % 2 ? 1 : 2] = -999.0;
    start(m);
    options.emalgorithm = true; // parameters are the covariances
    covs2parvec();
    ASSERT_EQ(estimates.paraform(0), par_scale::original);
    maximise.modify_chol = 0;
    std::vector<double> unit(78, 0.0), g(12, 0.0);
    for (int i = 1; i <= 12; ++i) unit[static_cast<std::size_t>(ihmssf(i, i, 12) - 1)] = 1.0;
    g[0] = -2.0;
    g[2] = 1.5; // the covariance of the first and the third trait grows beyond them
    quadratic(unit, g);
    eztimates(xnew);
    const auto& p = search_state.parnew;
    const double a = p(1), b = p(2), c = p(3), d = p(4), e = p(6); // (1,1) (1,2) (1,3) (2,2) (3,3)
    EXPECT_EQ(p(5), 0.0);
    EXPECT_GT(a, 0.0);
    EXPECT_GT(a * d * e - e * b * b - d * c * c, 0.0);
    EXPECT_GT(xnew, invalid_logl);
}

TEST_F(step_test, search_brings_back_a_long_step) {
    start(families(1));
    real_derivatives();
    maximise.modify_chol = 0;
    eztimates(xnew);
    std::vector<double> d;
    for (double x : derivs.dvec) d.push_back(60.0 * x);
    aireml_terms.slope *= 60.0;
    trial(d);
    ASSERT_LT(xnew, xold);
    bool fail = true;
    line_search(xold, xnew, fail);
    EXPECT_FALSE(fail);
    EXPECT_GT(xnew, xold);
    EXPECT_LE(aireml_terms.alpha, 0.5);
    EXPECT_NEAR(xnew, program_logl(search_state.parnew), 1.0e-10);
    for (int i = 1; i <= 2; ++i)
        EXPECT_NEAR(search_state.parnew(i), estimates.parvec(i) + aireml_terms.alpha * derivs.dvec(i), 1.0e-12);
}

TEST_F(step_test, search_cuts_a_step_of_no_sense_to_its_largest_length) {
    start(families(1));
    real_derivatives();
    derivs.dvec.allocate(2);
    trial({3000.0, 4000.0});
    ASSERT_LT(xnew, xold);
    aireml_terms.slope = -1.0;
    bool fail = false;
    line_search(xold, xnew, fail);
    double norm = 0.0;
    for (double p : estimates.parvec) norm += p * p;
    const double longest = std::max(900.0 * std::sqrt(norm), 1000.0);
    EXPECT_NEAR(derivs.dvec(1), 0.6 * longest, 1.0e-9);
    EXPECT_NEAR(derivs.dvec(2), 0.8 * longest, 1.0e-9);
    for (int i = 1; i <= 2; ++i)
        EXPECT_NEAR(search_state.parnew(i), estimates.parvec(i) + aireml_terms.alpha * derivs.dvec(i), 1.0e-9);
}

// The lengths of the search by hand: the first from a parabola, later ones from a cubic through the last two values,
// each within a tenth and a half of the one before, until a ten-thousandth of the promised gain is won.
struct searched {
    double length = 1.0;
    int inside = 0; // lengths of cubics that no bound has cut
    bool found = false;
};

template <class F> searched search_by_hand(const F& f, double f0, double slope) {
    searched s;
    double last = 1.0, flast = f(1.0);
    s.length = std::clamp(-0.5 * slope / (flast - f0 - slope), 0.1, 0.5);
    for (int tries = 1; tries <= 7; ++tries) {
        const double now = f(s.length);
        if (now <= f0 + 1.0e-4 * s.length * slope) {
            s.found = true;
            return s;
        }
        const auto rest = [&](double l, double v) { return v - f0 - slope * l; };
        // a l^3 + b l^2 = rest at both lengths
        const double l = s.length, det = l * l * l * last * last - last * last * last * l * l;
        const double a = (rest(l, now) * last * last - rest(last, flast) * l * l) / det;
        const double b = (l * l * l * rest(last, flast) - last * last * last * rest(l, now)) / det;
        double best = 0.1 * l;
        const auto cubic = [&](double x) { return f0 + slope * x + b * x * x + a * x * x * x; };
        for (int k = 0; k <= 40000; ++k) {
            const double x = l * (0.1 + 0.4 * k / 40000.0);
            if (cubic(x) < cubic(best)) best = x;
        }
        s.inside += best > 0.1001 * l && best < 0.4999 * l ? 1 : 0;
        last = l;
        flast = now;
        s.length = best;
    }
    return s;
}

TEST_F(step_test, lengths_of_the_search_are_those_of_parabola_and_cubics) {
    small_model m = families(1);
    m.random[0].g = {0.3};
    start(m, {"--aireml", "--nologd"});
    maximise.modify_chol = 0;
    int inside = 0, searches = 0;
    for (double factor = 2.0; factor < 400.0; factor *= 1.3) {
        real_derivatives();
        eztimates(xnew);
        std::vector<double> d;
        for (double x : derivs.dvec) d.push_back(factor * x);
        aireml_terms.slope *= factor;
        const double slope = aireml_terms.slope;
        trial(d);
        if (xnew > xold + 1.0e-4 * -slope || !(xnew > invalid_logl)) continue;
        const auto value = [&](double length) {
            array<double> p = estimates.parvec;
            for (int i = 1; i <= 2; ++i) p(i) += length * d[static_cast<std::size_t>(i - 1)];
            return -program_logl(p);
        };
        const searched want = search_by_hand(value, -xold, slope);
        bool fail = true;
        line_search(xold, xnew, fail);
        EXPECT_EQ(fail, !want.found) << factor;
        if (want.found) {
            EXPECT_NEAR(aireml_terms.alpha, want.length, 2.0e-4 * want.length) << factor;
        }
        inside += want.inside;
        ++searches;
    }
    EXPECT_GT(searches, 5);
    EXPECT_GT(inside, 0) << "no cubic has decided";
}

TEST_F(step_test, search_downhill_fails_after_seven_tries) {
    start(families(1));
    real_derivatives();
    derivs.dvec.allocate(2);
    std::vector<double> d;
    for (double g : derivs.der1) d.push_back(-0.01 * g);
    aireml_terms.slope = -1.0; // a lie: log L falls along the step
    trial(d);
    const int before = likelihoods.ncall;
    bool fail = false;
    line_search(xold, xnew, fail);
    EXPECT_TRUE(fail);
    EXPECT_EQ(likelihoods.ncall, before + 7);
    EXPECT_NE(screen_text().find("line search failed"), std::string::npos);
}

TEST_F(step_test, search_shortens_the_step_until_the_point_is_valid) {
    start(repeats_with_peq(), {"--aireml"});
    options.emalgorithm = true;
    covs2parvec();
    real_derivatives();
    derivs.dvec.allocate(3);
    std::vector<double> d;
    for (double g : derivs.der1) d.push_back(g);
    double slope = 0.0;
    for (double g : derivs.der1) slope -= g * g;
    double length = 1.0;
    for (trial(d); xnew > invalid_logl && length < 1.0e6; trial(d)) { // up to a point without a value
        length *= 2.0;
        for (double& x : d) x *= 2.0;
    }
    if (xnew > invalid_logl) GTEST_SKIP() << "no invalid point this way";
    aireml_terms.slope = slope * length;
    bool fail = true;
    line_search(xold, xnew, fail);
    EXPECT_FALSE(fail);
    EXPECT_GT(xnew, xold);
    EXPECT_LT(aireml_terms.alpha, 0.81);
}

// log L is the same for a diagonal and its negative: a search that was told a slope to the wrong side lands there, a
// little lower. Blocks with a small diagonal then go over to logarithms before the run gives up.
TEST_F(step_test, step_without_a_gain_asks_for_another_scale_first) {
    start(families(1));
    quadratic({5.0, 1.0, 3.0}, {0.14, 0.14}); // for the subset
    derivs.dvec.allocate(2);
    options.strict_ai = true;
    const double small = 0.2;
    estimates.parvec(2) = small;
    for (const bool logs : {true, false}) {
        options.nologd = !logs;
        estimates.switchlog.fill(0);
        xold = program_logl(estimates.parvec, 1);
        trial({0.0, -20.0 * small * (1.0 - 1.0e-7)});
        ASSERT_LT(xnew, xold) << "the trial gains";
        aireml_terms.slope = 1.0; // a tenth of the step comes next, and nearly no loss will do
        EXPECT_EQ(judge_step(xold, xnew), logs ? step_outcome::rescale : step_outcome::stuck);
        EXPECT_NEAR(search_state.parnew(2), -small, 1.0e-6);
        EXPECT_LT(xnew, xold);
        EXPECT_NEAR(xnew, xold, 1.0e-5);
    }
}

TEST_F(step_test, step_that_gains_is_taken_and_one_that_loses_where_this_is_allowed) {
    start(families(1));
    options.strict_ai = true;
    xnew = xold + 1.0;
    EXPECT_EQ(judge_step(xold, xnew), step_outcome::accepted);
    options.strict_ai = false;
    xnew = xold - 1.0;
    EXPECT_EQ(judge_step(xold, xnew), step_outcome::accepted);
    EXPECT_EQ(xnew, xold - 1.0);
}

TEST_F(step_test, search_without_a_step_fails_at_once) {
    start(families(1));
    real_derivatives();
    derivs.dvec.allocate(2);
    aireml_terms.slope = 0.0;
    trial({0.0, 0.0});
    bool fail = false;
    line_search(xold, xnew, fail);
    EXPECT_TRUE(fail);
}

TEST_F(step_test, rank_check_holds_out_zeros_only) {
    start(two_traits());
    std::vector<double> h(21, 0.0);
    const auto set = [&](int i, int j, double x) { h[static_cast<std::size_t>(ihmssf(i, j, 6) - 1)] = x; };
    for (int i = 1; i <= 6; ++i) set(i, i, i == 3 || i == 5 ? 0.0 : i);
    estimates.parvec(3) = 0.0;
    quadratic(h, {1, 1, 1, 1, 1, 1});
    EXPECT_EQ(derivs.nparm2, 5);
    EXPECT_EQ(derivs.fixpar(3), 1);
    EXPECT_EQ(derivs.fixpar(5), 0) << "not zero: it stays in";
    EXPECT_EQ(derivs.subset(3), 4);
    set(3, 3, 1.0);
    set(3, 4, 2.0); // the second of a dependent pair has no information of its own
    estimates.parvec(4) = 0.0;
    quadratic(h, {1, 1, 1, 1, 1, 1});
    EXPECT_EQ(derivs.fixpar(3), 1);
    EXPECT_EQ(derivs.fixpar(4), 0);
}

// ---- search by directions

TEST_F(step_test, nothing_is_searched_without_parameters) {
    start(families(1), {"--powell"});
    const array<double> p = estimates.parvec;
    estimates.ispar.fill(0);
    double xbest = 0.0;
    const bool ended = powell(xbest, estimates.parvec);
    EXPECT_FALSE(ended);
    EXPECT_NEAR(xbest, xold, 1.0e-10);
    for (int i = 1; i <= 2; ++i) EXPECT_EQ(estimates.parvec(i), p(i));
    EXPECT_NE(screen_text().find(" log l = "), std::string::npos);
}

TEST_F(step_test, held_parameters_keep_their_values) {
    start(families(1), {"--powell"});
    const double held = estimates.parvec(1);
    estimates.ispar(1) = 0;
    double xbest = 0.0;
    const bool ended = powell(xbest, estimates.parvec);
    EXPECT_EQ(estimates.parvec(1), held);
    EXPECT_GT(xbest, xold);
    EXPECT_TRUE(ended);
}

TEST_F(step_test, flat_direction_is_told_and_passed_over) {
    small_model m = families(1);
    m.random.push_back({"dam", "IDE", 1, 0, {0.3}});
    start(m, {"--powell", "--logdia", "--zero12"});
    estimates.parvec(3) = -30.0; // far below the smallest logarithm
    double xbest = 0.0;
    const bool ended = powell(xbest, estimates.parvec);
    EXPECT_NE(screen_text().find("dflmin : max. change in parameter value does not\n"
                                 "         alter function value(s) !!!\n"),
              std::string::npos);
    EXPECT_GT(xbest, xold - 5.0);
    EXPECT_LT(xbest, 0.0);
    EXPECT_TRUE(ended);
}

TEST_F(step_test, continued_search_by_directions_starts_from_the_value_of_its_point) {
    start(families(1), {"--powell"});
    options.continew = true;
    bestpoint.xlike_file = xold + 50.0; // of another scale of the parameters
    double xbest = 0.0;
    const bool ended = powell(xbest, estimates.parvec);
    EXPECT_GT(xbest, xold + 0.1);
    EXPECT_LT(xbest, xold + 50.0);
    EXPECT_TRUE(ended);
}

TEST_F(step_test, invalid_start_stops_the_search) {
    start(repeats_with_peq(), {"--powell"});
    options.emalgorithm = true;
    covs2parvec();
    estimates.parvec(1) = 1.0;
    estimates.parvec(2) = 1.5;
    double xbest = 0.0;
    EXPECT_STOP(powell(xbest, estimates.parvec), "Routine \"POWELL\" : Invalid starting point \nexit");
}

TEST_F(step_test, change_of_parameters_is_reported_in_percent) {
    start(families(1), {"--powell1"});
    const array<double> p = estimates.parvec;
    double xbest = 0.0;
    powell(xbest, estimates.parvec);
    const std::string log = read_file("Iterates");
    const std::size_t at = log.find("CH=");
    ASSERT_NE(at, std::string::npos);
    double most = 0.0;
    for (int i = 1; i <= 2; ++i) most = std::max(most, std::fabs(estimates.parvec(i) - p(i)) / std::fabs(p(i)));
    ASSERT_GT(most, 0.01);
    EXPECT_NEAR(std::stod(log.substr(at + 3)), 100.0 * most, 0.01 * most * 100.0);
}

TEST_F(step_test, numbers_behind_the_search_by_directions_limit_rounds_and_scale_steps) {
    double first[2] = {0.0, 0.0};
    for (const int k : {0, 1}) {
        start(families(2), {k == 0 ? "--powell1" : "--powell1,0.02"});
        double xbest = 0.0;
        const bool ended = powell(xbest, estimates.parvec);
        EXPECT_FALSE(ended);
        EXPECT_NE(screen_text().find("*** POWELL : No convergence after 1 rounds\n"), std::string::npos)
            << screen_text();
        EXPECT_EQ(screen_text().find(" IT=   2"), std::string::npos);
        first[k] = xbest - xold;
        EXPECT_GT(first[k], 0.0);
        std::filesystem::remove("Iterates");
        std::filesystem::remove("directions");
        std::filesystem::remove("BestPoint");
    }
    EXPECT_NE(first[0], first[1]);
}

TEST_F(step_test, rounds_of_the_search_are_told) {
    start(families(1), {"--powell"});
    double xbest = 0.0;
    powell(xbest, estimates.parvec);
    std::istringstream log(read_file("Iterates")), way(read_file("directions"));
    std::string line;
    double last = xold;
    for (int round = 1; std::getline(log, line) && line.find("CONVERGENCE") == std::string::npos; ++round) {
        EXPECT_NE(screen_text().find(line + "\n"), std::string::npos);
        ASSERT_EQ(line.size(), 68u) << line;
        EXPECT_EQ(line.substr(0, 13), " IT=   " + std::to_string(round) + "   F=");
        const double f = std::stod(line.substr(13, 20)), d = std::stod(line.substr(38, 15));
        EXPECT_NEAR(d, -2.0 * (f - last), 1.0e-6);
        last = f;
        for (int idir = 1; idir <= 2; ++idir) {
            ASSERT_TRUE(std::getline(way, line));
            EXPECT_EQ(line.substr(0, 17), " IT=    " + std::to_string(round) + " DIR=   ") << line;
            EXPECT_EQ(line.substr(17, 1), std::to_string(idir));
            EXPECT_EQ(line.substr(33, 6), " max.L");
        }
    }
    EXPECT_NEAR(last, xbest, 1.0e-6);
    EXPECT_TRUE(line == "CONVERGENCE : CHANGE IN FUNCTION VALUE 0.002" ||
                line.starts_with("CONVERGENCE : CHANGE IN PARAMETERS "))
        << line;
}

} // namespace
} // namespace tarvex
