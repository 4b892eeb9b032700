// Rules by which searches step and end, one by one: thresholds from both sides, on the step functions themselves.
#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "dense/numroutines.h"
#include "estimation/aireml.h"
#include "estimation/bestpoint.h"
#include "estimation/iteratelog.h"
#include "estimation/lastpoint.h"
#include "estimation/powell.h"
#include "estimation/searchstate.h"
#include "estimation/stepcontrol.h"
#include "likelihood/derivatives.h"
#include "support/em_fixture.h"

#include <algorithm>
#include <cmath>
#include <sstream>

namespace tarvex {
namespace {

class rules_test : public tarvex_test {
protected:
    // Information of two parameters without a covariance between them, and a gradient.
    static void information(double a, double b, double ga, double gb) {
        derivs.der1.allocate(2);
        derivs.der2.allocate(3);
        derivs.der1(1) = ga;
        derivs.der1(2) = gb;
        derivs.der2(1) = a;
        derivs.der2(3) = b;
        rank_check();
        aireml_terms.tau = 0.0;
    }
    static void start(const std::vector<std::string>& list = {"--aireml"}) {
        set_up(families(1), list);
        set_linesearch();
        program_logl(estimates.parvec, 1);
    }
};

// ---- tau

// With an operational zero of 0.1 the diagonal needs more than the first tau gives: five times the smallest eigenvalue
// is added to the information as it was until it is of full rank.
TEST_F(rules_test, later_taus_grow_by_five_times_the_smallest_eigenvalue) {
    for (const double smallest : {0.001, 0.004, 0.009}) {
        start();
        maximise.modify_chol = 2;
        const double ordinary = numbers.zero, zero = 0.1;
        numbers.zero = zero;
        information(2.0, smallest, 0.1, 0.03);
        double xnew = 0.0;
        eztimates(xnew);
        numbers.zero = ordinary;
        double tau = 0.44 * 0.1 * std::sqrt(zero) * 2.0; // for eigenvalues up to 1
        ASSERT_GT(tau, smallest);
        tau -= 0.95 * smallest;
        int more = 0;
        for (; smallest + tau < zero; ++more) tau += 5.0 * smallest;
        ASSERT_GT(more, 1);
        EXPECT_NEAR(aireml_terms.tau, tau, 1.0e-10) << smallest;
        EXPECT_NEAR(derivs.dvec(1), 0.1 / (2.0 + tau), 1.0e-10) << "added to the information anew each time";
        EXPECT_NEAR(derivs.dvec(2), 0.03 / (smallest + tau), 1.0e-9) << smallest;
    }
}

TEST_F(rules_test, predicted_gains_are_not_halved_by_the_factorisations) {
    start({"--aireml", "--logdia"});
    for (const int method : {3, 4}) {
        maximise.modify_chol = method;
        information(1.0e6, 1.0e6, 2.0e5, 2.0e5); // predicted 80 000
        double xnew = 0.0;
        eztimates(xnew);
        EXPECT_NEAR(derivs.dvec(1), 0.2, 1.0e-9) << method;
        EXPECT_NEAR(aireml_terms.slope, -80000.0, 1.0e-3) << method;
    }
}

TEST_F(rules_test, halving_of_predicted_gains_ends_as_soon_as_it_may) {
    start({"--aireml", "--logdia"});
    maximise.modify_chol = 0;
    for (const double gain : {9999.0, 10001.0, 19999.0, 20001.0}) {
        const double g = std::sqrt(gain * 1.0e6);
        information(1.0e6, 1.0e6, g, 0.0);
        double xnew = 0.0;
        eztimates(xnew);
        const double half = gain > 20000.0 ? 0.25 : gain > 10000.0 ? 0.5 : 1.0;
        EXPECT_NEAR(derivs.dvec(1), half * g / 1.0e6, 1.0e-10) << gain;
    }
}

TEST_F(rules_test, one_element_alone_never_sticks_out) {
    start({"--aireml", "--logdia"});
    maximise.modify_chol = 4;
    information(1.0, 1.0, 0.2, 0.0);
    double xnew = 0.0;
    eztimates(xnew);
    EXPECT_NEAR(derivs.dvec(1), 0.2, 1.0e-10);
}

// ---- ends of AI-REML

// A run that ends below the point that it went on from has no errors: the report shows another point.
TEST_F(rules_test, errors_belong_to_the_stored_point_only) {
    set_up(families(2), {"--aireml100"});
    get_estimates();
    ASSERT_TRUE(search_state.saverr_ready);
    const double stored = bestpoint.xbest;
    new_analysis();
    small_model m = families(2);
    for (double& g : m.random[0].g) g *= 4.0;
    set_up(m, {"--aireml1", "--nosure"});
    options.continew = true;
    bestpoint.xlike_file = stored;
    get_estimates();
    ASSERT_LT(bestpoint.xbest, stored - 0.002);
    ASSERT_GT(bestpoint.xbest, stored - 100.0);
    EXPECT_FALSE(search_state.saverr_ready);
    EXPECT_NE(screen_text().find("keeps the better point of the run before"), std::string::npos);
}

TEST_F(rules_test, limit_of_iterates_is_seven_fifths_of_the_parameters_and_ten_at_least) {
    for (const int nq : {1, 2, 3}) {
        new_analysis();
        for (const char* f : {"Iterates", "BestPoint"}) std::remove(f);
        set_up(families(nq, 60), {"--aireml"});
        const int n = estimates.nparm;
        get_estimates();
        EXPECT_EQ(maximise.aireml_its, std::max(10, 14 * n / 10)) << nq; // 2, 6 and 12 parameters
    }
}

// No step promises less than the larger of 0.01 and ten times the limit but the last one.
TEST_F(rules_test, small_changes_behind_large_promises_are_no_convergence) {
    small_model m = families(2);
    for (double& g : m.random[0].g) g *= 100.0;
    set_up(m, {"--aireml100", "--nosure"});
    maximise.aiconv_norm = -1.0;
    get_estimates();
    const auto& r = iterate_log.records;
    ASSERT_TRUE(maximise.converged);
    for (std::size_t k = 1; k < r.size(); ++k) {
        const bool met =
            r[k].change < maximise.aiconv_like && -r[k].promised < std::max(0.01, 10.0 * maximise.aiconv_like);
        EXPECT_EQ(met, k + 1 == r.size()) << k;
    }
}

// ---- Powell

struct powell_round {
    double gain = 0.0, change = 0.0; // of -2 log L, largest of a parameter
};

std::vector<powell_round> rounds_of_powell() {
    std::vector<powell_round> list;
    std::istringstream in(read_file("Iterates"));
    for (std::string line; std::getline(in, line);) {
        const std::size_t d = line.find("D="), c = line.find("CH=");
        if (d == std::string::npos || c == std::string::npos) continue;
        list.push_back({-std::stod(line.substr(d + 2, 15)), 0.01 * std::stod(line.substr(c + 3))});
    }
    return list;
}

// A round is small if it gains less than 0.002 or moves no parameter by 1e-4: a search ends with a small one along
// fresh directions, which follow a small one along others.
TEST_F(rules_test, powell_ends_with_the_first_small_round_along_fresh_directions) {
    int between = 0, by_parameters = 0, many = 0;
    for (const double scale : {0.3, 1.0, 3.0, 10.0}) {
        new_analysis();
        for (const char* f : {"Iterates", "BestPoint", "directions"}) std::remove(f);
        small_model m = families(2);
        for (double& g : m.random[0].g) g *= scale;
        set_up(m, {"--powell"});
        double xbest = 0.0;
        const bool ended = powell(xbest, estimates.parvec);
        EXPECT_TRUE(ended);
        const std::vector<powell_round> r = rounds_of_powell();
        bool fresh = true;
        for (std::size_t k = 0; k < r.size(); ++k) {
            const bool small = r[k].gain < 0.002 || r[k].change < 1.0e-4;
            EXPECT_EQ(small && fresh, k + 1 == r.size()) << scale << " round " << k + 1;
            between += r[k].gain >= 0.002 && r[k].gain < 0.2 && fresh ? 1 : 0;
            by_parameters += r[k].gain >= 0.002 && r[k].change < 1.0e-2 ? 1 : 0;
            fresh = small;
        }
        many += static_cast<int>(r.size()) > estimates.nparm + 1 ? 1 : 0;
        const bool by_change = r.back().change < 1.0e-4;
        EXPECT_NE(
            read_file("Iterates")
                .find(by_change ? "CONVERGENCE : CHANGE IN PARAMETERS" : "CONVERGENCE : CHANGE IN FUNCTION VALUE"),
            std::string::npos);
    }
    EXPECT_GT(between + by_parameters + many, 0) << "no round between the limits";
}

// The first step along a direction is half of 0.01; scaled by curvature the next one stays at 0.1 at most.
TEST_F(rules_test, powell_scales_steps_by_curvature_up_to_a_tenth) {
    set_up(families(1), {"--powell1"});
    get_estimates(); // one round towards the maximum
    const array<double> p = estimates.parvec;
    double xbest = 0.0;
    std::remove("directions");
    const auto value = [&](double d) {
        array<double> q = p;
        q(1) += d;
        return -2.0 * program_logl(q);
    };
    const double h = 0.02, curvature = 0.5 * (value(h) - 2.0 * value(0.0) + value(-h)) / (h * h);
    array<double> from = p;
    powell(xbest, from);
    const std::string line = read_file("directions");
    const std::size_t at = line.find("DIR=   1");
    ASSERT_NE(at, std::string::npos) << line;
    const double step = std::stod(line.substr(at + 8, 15)), want = std::min(0.1, 0.01 * std::sqrt(curvature));
    EXPECT_NEAR(step, want, 0.3 * want);
}

} // namespace
} // namespace tarvex
