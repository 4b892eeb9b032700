// Limits by which searches end or go on, from both sides, and the plans of several methods without a model behind them.
#include "control/maximise.h"
#include "control/options.h"
#include "estimation/aireml.h"
#include "estimation/bestpoint.h"
#include "estimation/iteratelog.h"
#include "estimation/lastpoint.h"
#include "estimation/rescue.h"
#include "estimation/searchstate.h"
#include "estimation/stepcontrol.h"
#include "likelihood/derivatives.h"
#include "likelihood/likelihood.h"
#include "parfile/model.h"
#include "support/em_fixture.h"

#include <cmath>
#include <limits>
#include <string>

namespace tarvex {
namespace {

// ---- AI-REML

class limits_test : public tarvex_test {
protected:
    void SetUp() override {
        maximise.aiconv_like = 0.0005;
        maximise.aiconv_norm = 0.0001;
        aireml_terms.dnorm = 1.0;
        aireml_terms.prox = -0.001;
    }
    // The line search moves the two parameters of one trait by derivs.dvec.
    static void search_both() {
        set_linesearch();
        derivs.nparm2 = 2;
        derivs.subset.allocate(2);
        derivs.dvec.allocate(2);
        derivs.subset(1) = 1;
        derivs.subset(2) = 2;
    }
};

TEST_F(limits_test, norm_of_the_gradient_comes_first) {
    aireml_terms.dnorm = 0.000099;
    EXPECT_EQ(limit_met(100.0), ai_limit::gradient);
    EXPECT_EQ(limit_met(0.0), ai_limit::gradient);
    aireml_terms.dnorm = 0.000101;
    EXPECT_EQ(limit_met(100.0), ai_limit::none);
    EXPECT_EQ(limit_met(0.0), ai_limit::change);
}

TEST_F(limits_test, change_in_log_l_is_below_its_limit) {
    EXPECT_EQ(limit_met(0.000499), ai_limit::change);
    EXPECT_EQ(limit_met(0.000501), ai_limit::none);
}

TEST_F(limits_test, iterates_that_win_less_than_a_quarter_of_the_promise_are_counted_in_succession) {
    aireml_terms.prox = -0.4;
    count_poor(0.099);
    count_poor(-1.0);
    EXPECT_EQ(aireml_terms.poor, 2);
    count_poor(0.101);
    EXPECT_EQ(aireml_terms.poor, 0);
    count_poor(0.0);
    EXPECT_EQ(aireml_terms.poor, 1);
}

// Gradient and information at the point in hand, for the verdict.
void derivatives_of_point() {
    program_logl(estimates.parvec, 1);
    average_info();
    derivatives_mmm();
}

TEST_F(limits_test, search_creeps_after_ten_poor_iterates_where_there_is_no_end) {
    small_model m = families(1);
    m.random[0].g = {0.05};
    set_up(m, {"--aireml"});
    derivatives_of_point();
    ASSERT_EQ(verdict_of_derivatives().kind, search_end::not_maximum);
    aireml_terms.poor = 9;
    EXPECT_FALSE(creeps());
    aireml_terms.poor = 10;
    EXPECT_TRUE(creeps());
    maximise.limit_given = true;
    EXPECT_FALSE(creeps()) << "the user has set a limit";
    maximise.limit_given = false;
    options.sure = false;
    EXPECT_FALSE(creeps()) << "the stated plan alone";
    options.sure = true;
    get_estimates();
    derivatives_of_point();
    aireml_terms.poor = 10;
    EXPECT_FALSE(creeps()) << "a maximum";
}

TEST_F(limits_test, whole_step_may_promise_a_hundredth_or_ten_limits) {
    aireml_terms.prox = -0.0099;
    EXPECT_EQ(limit_met(0.0), ai_limit::change);
    aireml_terms.prox = -0.0101;
    EXPECT_EQ(limit_met(0.0), ai_limit::none);
    maximise.aiconv_like = 0.01;
    aireml_terms.prox = -0.099;
    EXPECT_EQ(limit_met(0.0), ai_limit::change);
    aireml_terms.prox = -0.101;
    EXPECT_EQ(limit_met(0.0), ai_limit::none);
}

TEST_F(limits_test, loss_meets_no_limit) {
    options.strict_ai = true;
    EXPECT_FALSE(is_loss(0.0, -1000.0));
    EXPECT_TRUE(is_loss(-1.0e-12, -1000.0));
    options.strict_ai = false; // a ten thousand millionth of log L is rounding
    EXPECT_FALSE(is_loss(-0.99e-7, -1000.0));
    EXPECT_TRUE(is_loss(-1.01e-7, -1000.0));
    EXPECT_TRUE(is_loss(std::numeric_limits<double>::quiet_NaN(), -1000.0));
}

TEST_F(limits_test, change_counts_from_the_best_point_where_steps_may_lose) {
    options.strict_ai = true;
    EXPECT_EQ(change_that_counts(-10.0, -8.0, -3.0), 2.0);
    options.strict_ai = false;
    EXPECT_EQ(change_that_counts(-10.0, -8.0, -3.0), -5.0);
    EXPECT_EQ(change_that_counts(-3.0, -2.5, -4.0), 0.5);
}

// The best point is that before the step, which may have become the best itself.
TEST_F(limits_test, first_gain_of_a_search_that_may_lose_is_no_convergence) {
    set_up(families(2), {"--aireml1", "--nostrict"});
    get_estimates();
    ASSERT_EQ(iterate_log.records.size(), 2u);
    const double gain = iterate_log.records[1].change;
    ASSERT_GT(gain, 0.1);
    ASSERT_LT(-aireml_terms.prox, 5.0 * gain);
    EXPECT_EQ(aireml_terms.prox, 0.5 * aireml_terms.slope) << "what the quadratic model promises";
    for (const double share : {0.9, 1.1}) {
        new_analysis();
        for (const char* f : {"Iterates", "BestPoint"}) std::remove(f);
        set_up(families(2), {"--aireml1", "--nostrict"});
        maximise.aiconv_like = share * gain;
        maximise.aiconv_norm = -1.0;
        get_estimates();
        EXPECT_EQ(maximise.converged, share > 1.0);
        EXPECT_EQ(iterate_log.ended, share > 1.0 ? "change in log L below its limit" : "limit of iterates");
    }
}

// Where steps may lose, a point must still have a value.
TEST_F(limits_test, step_without_a_value_is_searched_however_steps_may_lose) {
    set_up(families(1), {"--aireml", "--nologd"});
    search_both();
    options.strict_ai = false;
    derivs.dvec(2) = 0.01;
    aireml_terms.alpha = 1.0;
    aireml_terms.slope = -1.0e-3;
    const double xold = program_logl(estimates.parvec, 1) - 1.0;
    double xnew = invalid_logl;
    EXPECT_EQ(judge_step(xold, xnew), step_outcome::accepted);
    EXPECT_GT(xnew, invalid_logl);
    EXPECT_DOUBLE_EQ(aireml_terms.alpha, 0.8);
}

// A diagonal and its negative give one log L, to the last digit.
TEST_F(limits_test, step_to_a_point_of_the_same_log_l_is_taken) {
    set_up(families(1), {"--aireml", "--nologd"});
    search_both();
    options.strict_ai = true;
    estimates.parvec(2) = 0.25;
    const double xold = program_logl(estimates.parvec, 1);
    derivs.dvec(2) = -5.0; // a tenth of it changes the sign
    aireml_terms.alpha = 1.0;
    aireml_terms.slope = 1.0;
    search_state.parnew = estimates.parvec;
    search_state.parnew(2) += derivs.dvec(2);
    double xnew = program_logl(search_state.parnew);
    ASSERT_LT(xnew, xold);
    EXPECT_EQ(judge_step(xold, xnew), step_outcome::accepted);
    EXPECT_EQ(search_state.parnew(2), -0.25);
    EXPECT_EQ(xnew, xold);
}

TEST_F(limits_test, search_without_a_better_point_says_so_in_its_last_iterate_too) {
    set_up(families(1), {"--aireml200"});
    maximise.aiconv_like = maximise.aiconv_norm = -1.0;
    get_estimates();
    EXPECT_EQ(iterate_log.ended, "no better point found");
    const int last = iterate_log.records.back().round + 1; // the one that failed
    new_analysis();
    for (const char* f : {"Iterates", "BestPoint"}) std::remove(f);
    set_up(families(1), {"--aireml" + std::to_string(last)});
    maximise.aiconv_like = maximise.aiconv_norm = -1.0;
    get_estimates();
    EXPECT_EQ(iterate_log.ended, "no better point found");
}

// Lengths are relative to the parameters, of at least 1.
TEST_F(limits_test, least_length_of_a_search_follows_the_largest_relative_change) {
    set_up(families(1), {"--aireml", "--nologd"});
    search_both();
    estimates.parvec(1) = 4.0;
    estimates.parvec(2) = 0.5;
    for (const bool first : {true, false}) {
        const double xold = program_logl(estimates.parvec, 1);
        derivs.dvec(1) = first ? 1.0e-3 : 0.0;
        derivs.dvec(2) = first ? 0.0 : 1.0e-3;
        aireml_terms.alpha = 1.0;
        aireml_terms.slope = -1.0e6; // a lie
        double xnew = xold - 1.0;
        bool fail = false;
        clear_screen();
        line_search(xold, xnew, fail);
        EXPECT_TRUE(fail);
        const std::string told = screen_text();
        const double least = std::stod(told.substr(told.find_last_of(' ')));
        const double tolerance = std::pow(2.0 * std::numeric_limits<double>::epsilon(), 2.0 / 3.0);
        EXPECT_NEAR(least, tolerance / 1.0e-3 * (first ? 4.0 : 1.0), 1.0e-6 * least) << told;
    }
}

// ---- rounds of EM

TEST_F(limits_test, loss_of_a_round_begins_beyond_rounding) {
    EXPECT_FALSE(round_loses(0.0, -0.9e-7));
    EXPECT_TRUE(round_loses(0.0, -1.1e-7));
    EXPECT_FALSE(round_loses(-1.0e6, -1.0e6 - 1.0e-4));
    EXPECT_TRUE(round_loses(-1.0e6, -1.0e6 - 1.02e-4));
    EXPECT_FALSE(round_loses(-5.0, -4.0));
}

// The value in hand is raised by hand: the round that follows loses.
TEST_F(limits_test, round_that_loses_is_taken_back_and_ends_the_rounds) {
    for (const double raised : {1.0e-9, 1000.0}) {
        new_analysis();
        for (const char* f : {"Iterates", "BestPoint"}) std::remove(f);
        set_up(families(1), {"--emalg"});
        const array<double> start = estimates.parvec;
        double x = program_logl(estimates.parvec, 1);
        likelihoods.xlast += raised;
        int iround = 0;
        em_algorithm(3, iround, x, 0.0);
        const bool lost = raised > 1.0;
        EXPECT_EQ(iround, lost ? 0 : 3);
        EXPECT_EQ(estimates.parvec(1) == start(1), lost);
        EXPECT_FALSE(maximise.converged);
        EXPECT_EQ(iterate_log.ended, lost ? "a round that lost log L" : "limit of rounds");
        EXPECT_EQ(screen_text().find("*** (PX-) EM : round lost") != std::string::npos, lost);
        EXPECT_EQ(read_file("Iterates").find("in log L - taken back") != std::string::npos, lost);
        clear_screen();
    }
}

TEST_F(limits_test, expansion_that_loses_is_given_up_and_the_round_done_without) {
    set_up(families(1), {"--pxem"});
    double x = program_logl(estimates.parvec, 1);
    likelihoods.xlast += 1000.0;
    int iround = 0;
    em_algorithm(1, iround, x, 0.0);
    EXPECT_FALSE(search_state.method.pxem);
    EXPECT_EQ(iround, 1);
    EXPECT_GE(x, iterate_log.records.at(0).log_l);
}

// Every round but the last is above its limit.
TEST_F(limits_test, rounds_end_with_the_first_below_a_limit) {
    enum class limit { gain, change, parameters };
    for (const limit by : {limit::gain, limit::change, limit::parameters}) {
        new_analysis();
        for (const char* f : {"Iterates", "BestPoint"}) std::remove(f);
        set_up(families(1), {"--pxem"});
        maximise.emconv_like = by == limit::change ? 1.0e-4 : -1.0;
        search_state.method.by_gain = by == limit::gain;
        double x = program_logl(estimates.parvec, 1);
        int iround = 0;
        em_algorithm(1000, iround, x, 0.01);
        EXPECT_EQ(maximise.converged, by != limit::gain);
        const auto& r = iterate_log.records;
        ASSERT_GT(r.size(), 2u);
        for (std::size_t k = 1; k < r.size(); ++k) {
            const bool below = by == limit::gain     ? r[k].change < 0.01
                               : by == limit::change ? r[k].change < 1.0e-4
                                                     : r[k].parameter_change < 1.0e-8;
            EXPECT_EQ(below, k + 1 == r.size()) << k;
        }
    }
}

// ---- the end of a run

// The point on the disk may be that of a run before: a thousandth better, and errors and report are not those of it.
TEST_F(limits_test, stored_point_and_reached_one_are_the_same_within_a_thousandth) {
    set_up(families(1), {"--aireml100"});
    get_estimates();
    ASSERT_TRUE(search_state.saverr_ready);
    const double reached = bestpoint.xbest;
    const std::string stored = read_file("BestPoint");
    for (const double better : {0.0009, 0.0011}) {
        new_analysis();
        std::remove("Iterates");
        set_up(families(1), {"--aireml100"});
        write_file("BestPoint", list_item(reached + better) + stored.substr(stored.find(' ')));
        options.continew = true;
        bestpoint.xlike_file = reached + better;
        clear_screen();
        get_estimates();
        ASSERT_NEAR(bestpoint.xbest, reached, 1.0e-6);
        EXPECT_EQ(search_state.saverr_ready, better < 0.001);
        EXPECT_EQ(screen_text().find("keeps the better point of the run before") == std::string::npos, better < 0.001);
    }
}

// ---- plans

struct planned {
    std::string told; // e a method each: E rounds, R rescue, A average information, N next cycle
    std::vector<int> rounds;
    std::vector<double> gains;
};

// Runs the plan; last changes of the phases of AI-REML one after the other, and after how many methods one converges.
planned run_plan(const std::vector<double>& changes, int converges_after = 1000) {
    planned p;
    std::size_t phase = 0;
    maximise.converged = false;
    const auto note = [&](char what, int rounds = 0, double gain = 0.0) {
        p.told += what;
        p.rounds.push_back(rounds);
        p.gains.push_back(gain);
        if (what != 'N') maximise.converged = static_cast<int>(p.told.size()) >= converges_after;
    };
    run_cycles({[&](int n, double gain) { note('E', n, gain); }, [&](int n, double gain) { note('R', n, gain); },
                [&] {
                    aireml_terms.last_change = phase < changes.size() ? changes[phase++] : 0.0;
                    note('A');
                },
                [&] { note('N'); }});
    return p;
}

TEST_F(limits_test, phase_that_creeps_ends_all_cycles) {
    std::string told;
    maximise.ncycle = 3;
    run_cycles({[&](int, double) { told += 'E'; }, [&](int, double) { told += 'R'; },
                [&] {
                    told += 'A';
                    aireml_terms.creeps = true;
                },
                [&] { told += 'N'; }});
    EXPECT_EQ(told, "EA");
}

TEST_F(limits_test, single_cycle_hands_over_below_a_gain_of_two) {
    maximise.pxem_its = 7;
    const planned p = run_plan({});
    EXPECT_EQ(p.rounds.at(0), 7);
    EXPECT_EQ(p.gains.at(0), 2.0);
}

TEST_F(limits_test, rescue_takes_three_rounds_down_to_a_gain_of_a_hundredth) {
    const planned p = run_plan({});
    ASSERT_EQ(p.told, "EARA") << "one rescue where AI-REML gains nothing";
    EXPECT_EQ(p.rounds[2], 3);
    EXPECT_EQ(p.gains[2], 0.01);
}

TEST_F(limits_test, rescue_is_repeated_while_average_information_gains_a_hundredth) {
    EXPECT_EQ(run_plan({5.0, 0.0101, 0.0099, 5.0}).told, "EARARARA");
    EXPECT_EQ(run_plan({0.0099, 5.0}).told, "EARA");
    EXPECT_EQ(run_plan({5.0, 5.0, 0.0}, 5).told, "EARAR") << "a rescue that has converged is the end";
    EXPECT_EQ(run_plan({5.0, 5.0, 0.0}, 4).told, "EARA");
    EXPECT_EQ(run_plan({5.0}, 1).told, "E");
}

TEST_F(limits_test, components_are_not_rescued) {
    options.principal = true;
    EXPECT_EQ(run_plan({5.0, 5.0}).told, "EA");
}

TEST_F(limits_test, rounds_of_cycles_do_not_end_by_their_gain_and_the_last_one_is_rescued) {
    maximise.ncycle = 3;
    const planned p = run_plan({5.0, 5.0, 0.0});
    EXPECT_EQ(p.told, "EANEANEARA");
    for (std::size_t k : {0u, 3u, 6u}) EXPECT_EQ(p.gains.at(k), 0.0);
    EXPECT_EQ(run_plan({5.0}, 4).told, "EANE");
}

TEST_F(limits_test, search_goes_on_three_times_by_itself) {
    options.sure = true;
    for (const int type : {1, 2, 3, 4, 5, 6, 7})
        for (int resumed = 0; resumed <= 11; ++resumed) {
            maximise.search_type = type;
            verdict.resumed = resumed;
            verdict.last.kind = search_end::not_maximum;
            const int most = type == 7 ? 10 : type == 1 || type == 6 ? 3 : 0;
            EXPECT_EQ(search_goes_on(), resumed < most) << type << " " << resumed;
            options.sure = false;
            EXPECT_FALSE(search_goes_on());
            options.sure = true;
            maximise.limit_given = true;
            EXPECT_FALSE(search_goes_on());
            maximise.limit_given = false;
            for (const search_end end : {search_end::none, search_end::maximum, search_end::border, search_end::flat}) {
                verdict.last.kind = end;
                EXPECT_FALSE(search_goes_on());
            }
        }
}

// ---- steps off the border

// The second trait is worked out in units of 2^k: a change of its parameter is that much larger in the data's units.
TEST_F(limits_test, steps_off_the_border_are_shortened_to_a_quarter_down_to_a_hundredth) {
    small_model m = families(2);
    for (auto& r : m.rows)
        if (r.y[1] != -999.0) r.y[1] *= 4096.0;
    m.random[0].g = {0.8, 0.2 * 4096.0, 0.8 * 4096.0 * 4096.0};
    m.residual = {1.5, 0.3 * 4096.0, 1.5 * 4096.0 * 4096.0};
    set_up(m, {"--aireml"});
    const double x = program_logl(estimates.parvec, 1);
    bestpoint.xbest = x;
    bestpoint.parbest = estimates.parvec;
    writebestpoint(0);
    const double before = best_covariances(1)[2];
    ASSERT_NEAR(before, 0.8 * 4096.0 * 4096.0, 1.0);
    verdict.last.lifts = {{{6, -0.01}}}; // no gain: a quarter of it each time, four in all
    bestpoint.xbest = x + 1.0e6;
    const double kept = bestpoint.xbest;
    int calls = likelihoods.ncall;
    leave_border();
    EXPECT_EQ(likelihoods.ncall - calls, 4);
    EXPECT_EQ(bestpoint.xbest, kept);
    const double unit = model.cov(3, 1) - before; // the last change, 1/64 of it
    EXPECT_NEAR(std::log2(unit / (-0.01 / 64.0)), 2.0 * std::round(std::log2(unit / (-0.01 / 64.0)) / 2.0), 1.0e-6);
    EXPECT_GT(unit / (-0.01 / 64.0), 1.0e6) << "in the units of the data";
}

TEST_F(limits_test, step_off_the_border_that_gains_becomes_the_best_point) {
    small_model m = families(1);
    m.random[0].g = {0.001};
    set_up(m, {"--aireml"});
    bestpoint.xbest = program_logl(estimates.parvec, 1);
    bestpoint.parbest = estimates.parvec;
    writebestpoint(0);
    const double x = bestpoint.xbest;
    verdict.last.lifts = {{{2, 0.2}}};
    const int calls = likelihoods.ncall;
    leave_border();
    EXPECT_EQ(likelihoods.ncall - calls, 1);
    EXPECT_GT(bestpoint.xbest, x);
    EXPECT_NEAR(best_covariances(1)[0], 0.201, 1.0e-9);
}

TEST_F(limits_test, expanded_rounds_put_the_method_in_hand_back) {
    set_up(families(2), {"--aireml"});
    double x = program_logl(estimates.parvec, 1);
    bestpoint.xbest = x;
    bestpoint.parbest = estimates.parvec;
    writebestpoint(0);
    search_state.method = {.aireml = true, .em_scale = false, .pxem = false, .by_gain = false};
    int iround = 1;
    expanded_rounds(2, 0.0, false, iround, x);
    EXPECT_TRUE(search_state.method.aireml);
    EXPECT_FALSE(search_state.method.em_scale);
    EXPECT_FALSE(search_state.method.by_gain);
    EXPECT_EQ(iround, 3);
}

} // namespace
} // namespace tarvex
