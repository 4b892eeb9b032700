#include "control/filenames.h"
#include "control/maximise.h"
#include "control/options.h"
#include "dense/numroutines.h"
#include "estimation/aireml.h"
#include "estimation/bestpoint.h"
#include "estimation/covs2parvec.h"
#include "estimation/evaluate.h"
#include "estimation/iteratelog.h"
#include "estimation/lastpoint.h"
#include "estimation/pxem.h"
#include "estimation/searchstate.h"
#include "likelihood/derivatives.h"
#include "likelihood/likelihood.h"
#include "parameters/variances.h"
#include "support/em_fixture.h"

#include <algorithm>
#include <filesystem>

namespace tarvex {
namespace {

class driver_test : public tarvex_test {
protected:
    void run(const small_model& m, const std::vector<std::string>& list) {
        set_up(m, list);
        get_estimates();
    }
    static int count(const std::string& text, const std::string& word) {
        int n = 0;
        for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++n;
        return n;
    }
    static std::string labels() {
        std::string s;
        for (const auto& r : iterates()) s += r.label[0];
        return s;
    }
};

small_model many_parameters() { // 18: the shortest vector that starts with expanded rounds
    small_model m = families(3, 150);
    m.random.push_back({"dam", "IDE", 3, 0, {0.3, 0.0, 0.0, 0.3, 0.0, 0.3}});
    return m;
}

TEST_F(driver_test, limit_of_iterates_follows_the_parameters) {
    small_model m = growth(false);
    m.random = {{"animal", "NRM", 3, 0, {2.0, 0.3, 0.1, 1.0, 0.1, 0.5}}};
    run(m, {"--aireml"});
    EXPECT_EQ(estimates.nparm, 7);
    EXPECT_EQ(maximise.aireml_its, 10); // 1.4 times 7 is 9.8
    new_analysis();
    m = with_dams();
    m.random[1] = {"dam", "IDE", 2, 0, {0.9, 0.8}, true};
    run(m, {"--aireml"});
    EXPECT_EQ(estimates.nparm, 8);
    EXPECT_EQ(maximise.aireml_its, 11);
}

TEST_F(driver_test, bad_start_keeps_the_automatic_limit) {
    run(families(1), {"--bad"});
    EXPECT_EQ(maximise.aireml_its, 10);
    EXPECT_TRUE(maximise.converged);
    EXPECT_EQ(labels().find_first_not_of('A'), std::string::npos);
}

TEST_F(driver_test, search_leaves_what_the_user_has_chosen_as_it_was) {
    const auto chosen = [] {
        std::vector<int> v = {options.aireml,   options.emalgorithm,   options.pxem,
                              options.continew, options.algorithm_set, options.strict_ai,
                              options.wide,     options.sure,          maximise.search_type};
        return v;
    };
    for (const char* plan : {"--aireml", "--pxai3", "--emalg4", "--pxem4", "--powell", "--sure", "--bad"}) {
        new_analysis();
        set_up(families(1), {plan});
        const std::vector<int> before = chosen();
        get_estimates();
        EXPECT_EQ(chosen(), before) << plan;
    }
}

TEST_F(driver_test, plan_of_two_methods_hands_over) {
    run(many_parameters(), {"--pxai2"});
    EXPECT_TRUE(search_state.method.aireml);
    EXPECT_FALSE(search_state.method.em_scale);
    EXPECT_FALSE(options.continew);
}

TEST_F(driver_test, simplex_plan_reports_the_start) {
    set_up(families(1), {"--simplex0"});
    maximise.simplx_its = 0;
    const array<double> start = estimates.parvec;
    get_estimates();
    for (int i = 1; i <= estimates.nparm; ++i) EXPECT_EQ(estimates.parvec(i), start(i));
    EXPECT_EQ(maximise.simplx_its, 1000);
    EXPECT_NEAR(bestpoint.xbest, program_logl(start), 1.0e-9);
    EXPECT_FALSE(search_state.saverr_ready);
    EXPECT_TRUE(iterates().empty());
}

TEST_F(driver_test, empty_plan_of_many_parameters_reports_the_start) {
    set_up(many_parameters(), {"--pownew"});
    ASSERT_EQ(estimates.nparm, 18);
    get_estimates();
    EXPECT_TRUE(iterates().empty());
    EXPECT_GT(bestpoint.xbest, invalid_logl);
}

TEST_F(driver_test, empty_plan_of_few_parameters_turns_to_average_information) {
    run(families(1), {"--pownew"});
    EXPECT_FALSE(iterates().empty());
}

TEST_F(driver_test, default_plan_goes_from_expanded_rounds_to_average_information) {
    set_up(many_parameters(), {});
    ASSERT_EQ(estimates.nparm, 18);
    ASSERT_EQ(estimates.paraform(1), par_scale::original);
    get_estimates();
    const auto log = iterates();
    ASSERT_GT(log.size(), 4u);
    std::size_t px = 0;
    while (log[px + 1].label == "PX") ++px;
    EXPECT_GE(px, 1u);
    EXPECT_LE(px, 3u);
    for (std::size_t k = 1; k < px; ++k)
        EXPECT_GE(log[k].logl - log[k - 1].logl, 2.0 - 1.0e-3) << "worth another round";
    for (std::size_t k = 0; k < log.size(); ++k) EXPECT_EQ(log[k].round, static_cast<int>(k));
    EXPECT_EQ(log.back().label, "AI");
    EXPECT_TRUE(maximise.converged);
    EXPECT_EQ(estimates.paraform(1), par_scale::variance);
    EXPECT_TRUE(search_state.saverr_ready);
    EXPECT_NE(read_file("Iterates").find("*** AIREML has converged"), std::string::npos);
    EXPECT_EQ(read_file("Iterates").find("PX-"), std::string::npos); // the first phase ends in silence
}

TEST_F(driver_test, first_phase_ends_with_the_first_small_gain) {
    small_model m = many_parameters();
    run(m, {"--aireml200"});
    std::vector<std::vector<double>> best;
    for (int irand = 0; irand <= 2; ++irand) best.push_back(best_covariances(irand));
    new_analysis();
    std::remove("Iterates");
    m.residual = best[0]; // next to the maximum
    for (double& x : m.residual) x *= 1.05;
    m.random[0].g = best[1];
    m.random[1].g = best[2];
    run(m, {});
    const std::string s = labels();
    EXPECT_EQ(s.substr(0, 3), "PPA") << s;
}

TEST_F(driver_test, named_plans_run_their_rounds_first) {
    run(families(2), {"--pxai4,60"});
    EXPECT_EQ(labels().substr(0, 6), "PPPPPA");
    EXPECT_TRUE(maximise.converged);
    new_analysis();
    std::remove("Iterates");
    run(families(2), {"--emai2,60"});
    EXPECT_EQ(labels().substr(0, 4), "EEEA");
    EXPECT_TRUE(maximise.converged);
}

TEST_F(driver_test, plain_rounds_tell_how_they_end) {
    run(families(1), {"--emalg2"});
    EXPECT_NE(read_file("Iterates").find("*** (PX-) EM has not converged !\n"), std::string::npos);
    EXPECT_NE(screen_text().find("*** (PX-) EM has not converged !"), std::string::npos);
    EXPECT_FALSE(search_state.saverr_ready);
    new_analysis();
    std::remove("Iterates");
    run(families(1), {"--pxem", "-v"});
    EXPECT_TRUE(maximise.converged);
    const std::string log = read_file("Iterates");
    EXPECT_NE(log.find("*** (PX-) EM has converged\n    Last change in log L = "), std::string::npos) << log;
    EXPECT_NE(screen_text().find("*** (PX-) EM has converged !\n   Last change in log L "), std::string::npos);
}

TEST_F(driver_test, average_information_tells_how_it_ends) {
    run(families(1), {"--aireml1"});
    EXPECT_NE(read_file("Iterates").find("Max. no. of iterates reached - not converged !\n"), std::string::npos);
    EXPECT_NE(screen_text().find("*** AIREML : No convergence"), std::string::npos);
    new_analysis();
    std::remove("Iterates");
    run(families(1), {"--aireml200"});
    const std::string log = read_file("Iterates");
    EXPECT_NE(log.find("*** AIREML has converged\n    Last change in log L = "), std::string::npos) << log;
    new_analysis();
    std::remove("Iterates");
    set_up(families(1), {"--aireml200"});
    maximise.aiconv_like = 0.0;
    maximise.aiconv_norm = 0.5;
    get_estimates();
    EXPECT_NE(read_file("Iterates").find("*** AIREML has converged\n    Norm of gradient vector = "),
              std::string::npos);
}

// The first iterate that meets a test is the last one.
TEST_F(driver_test, limit_on_the_change_is_that_of_the_last_iterate_alone) {
    for (const double limit : {0.3, 1.0e-3, 1.0e-7}) {
        new_analysis();
        for (const char* f : {"Iterates", "BestPoint"}) std::remove(f);
        set_up(families(2), {"--aireml200", "--nosure"});
        maximise.aiconv_like = limit;
        maximise.aiconv_norm = -1.0;
        get_estimates();
        ASSERT_TRUE(maximise.converged);
        const auto& r = iterate_log.records;
        ASSERT_GT(r.size(), 2u);
        for (std::size_t k = 1; k < r.size(); ++k) {
            const bool met = r[k].change < limit && -r[k].promised < std::max(0.01, 10.0 * limit);
            EXPECT_EQ(met, k + 1 == r.size()) << limit << " iterate " << k;
        }
    }
}

TEST_F(driver_test, limit_on_the_gradient_is_that_of_the_last_iterate_alone) {
    for (const double limit : {5.0, 0.05, 1.0e-4}) {
        new_analysis();
        for (const char* f : {"Iterates", "BestPoint"}) std::remove(f);
        set_up(families(2), {"--aireml200", "--nosure"});
        maximise.aiconv_like = -1.0;
        maximise.aiconv_norm = limit;
        get_estimates();
        ASSERT_TRUE(maximise.converged);
        const auto& r = iterate_log.records;
        for (std::size_t k = 1; k < r.size(); ++k)
            EXPECT_EQ(r[k].gradient_norm < limit, k + 1 == r.size()) << limit << " iterate " << k;
    }
}

TEST_F(driver_test, rounds_of_correlated_effects_are_labelled_as_plain_ones) {
    small_model m = animal_model(1, {1.3}, {2.1});
    m.random = {{"animal+dam", "NRM", 2, 0, {1.3, 0.2, 0.6}}};
    set_up(m, {"--pxem"});
    search_state.method.aireml = true; // as a plan with AI-REML leaves it
    double x = program_logl(estimates.parvec, 1);
    int iround = 0;
    em_algorithm(2, iround, x, 0.0);
    EXPECT_EQ(labels(), "EEE");
    EXPECT_TRUE(search_state.method.aireml);
}

TEST_F(driver_test, search_without_a_gain_tells_so) {
    set_up(families(1), {"--aireml200"});
    maximise.aiconv_like = maximise.aiconv_norm = -1.0; // on until rounding decides
    get_estimates();
    EXPECT_FALSE(maximise.converged);
    EXPECT_NE(read_file("Iterates").find("Could not locate better point - not converged !\n"), std::string::npos);
    EXPECT_NE(screen_text().find("line search failed "), std::string::npos);
    EXPECT_EQ(screen_text().find("*** AIREML : No convergence"), std::string::npos);
    EXPECT_TRUE(search_state.saverr_ready);
}

TEST_F(driver_test, point_that_cannot_be_stored_stops_the_search) {
    set_up(families(1), {"--aireml"});
    std::filesystem::create_directory("BestPoint"); // cannot be written
    EXPECT_STOP(get_estimates(), "Cannot write file \"BestPoint\"\n");
    EXPECT_FALSE(maximise.converged);
    EXPECT_FALSE(search_state.saverr_ready);
}

TEST_F(driver_test, steps_are_listed) {
    set_up(families(1), {"--aireml1", "-v"});
    get_estimates();
    EXPECT_EQ(count(screen_text(), "CHOL A 1 1   Old ="), 2); // the trial and the step taken
    EXPECT_NE(screen_text().find(" AI matrix : min. & max. eigenvalue"), std::string::npos);
    EXPECT_NE(screen_text().find(" Estimates for \"tau\" = "), std::string::npos);
}

TEST_F(driver_test, continued_run_goes_on_by_average_information) {
    set_up(many_parameters(), {"--pxai2,1"});
    get_estimates();
    const double x = bestpoint.xbest;
    new_analysis();
    std::remove("Iterates");
    run(many_parameters(), {"-c"});
    EXPECT_EQ(maximise.search_type, 1);
    EXPECT_EQ(labels().find_first_not_of('A'), std::string::npos);
    EXPECT_NEAR(iterates()[0].logl, x, 1.0e-3);
}

TEST_F(driver_test, search_by_directions_leaves_no_information) {
    set_up(families(1), {"--powell"});
    get_estimates();
    EXPECT_EQ(maximise.search_type, 3);
    EXPECT_FALSE(search_state.saverr_ready);
    EXPECT_EQ(read_file("Iterates").substr(0, 4), " IT=");
}

// A rebuild turns a block to logarithms by itself: its mark from the vector before must not do so again.
TEST_F(driver_test, rebuilt_block_is_turned_to_logarithms_once) {
    small_model m = families(2);
    m.random[0].g = {0.8, 0.2, 0.6};
    set_up(m, {"--aireml", "--reconst"});
    ASSERT_EQ(estimates.logdiagonals(1), 0);
    estimates.parvec(6) = 0.2;
    const double before = program_logl(estimates.parvec, 1);
    double x = before;
    ASSERT_EQ(estimates.switchlog(1), 1);
    ASSERT_TRUE(readbestpoint(true));
    covs2parvec();
    ASSERT_EQ(estimates.logdiagonals(1), 1);
    search_state.method.aireml = true;
    int iround = 1;
    ai_reml(1, iround, x);
    EXPECT_GT(iterates().at(0).logl, before);
    std::istringstream line(read_file("Iterates").substr(21, 10));
    double gain = 0.0;
    line >> gain;
    EXPECT_NEAR(iterates().at(0).logl - gain, before, 2.0e-3);
}

TEST_F(driver_test, search_that_fails_in_the_last_iterate_allowed_says_that_the_limit_is_reached) {
    set_up(families(1), {"--aireml200"});
    maximise.aiconv_like = maximise.aiconv_norm = -1.0;
    get_estimates();
    const int last = iterates().back().round + 1; // the one that failed
    new_analysis();
    std::remove("Iterates");
    set_up(families(1), {"--aireml" + std::to_string(last)});
    maximise.aiconv_like = maximise.aiconv_norm = -1.0;
    get_estimates();
    EXPECT_NE(screen_text().find("line search failed "), std::string::npos);
    EXPECT_NE(read_file("Iterates").find("Max. no. of iterates reached - not converged !\n"), std::string::npos);
}

TEST_F(driver_test, good_start_takes_one_round_and_bad_ones_up_to_eight) {
    run(many_parameters(), {"--good"});
    EXPECT_EQ(labels().substr(0, 3), "PPA");
    new_analysis();
    std::remove("Iterates");
    small_model m = many_parameters();
    for (double& x : m.residual) x *= 1000.0; // the first rounds gain much
    run(m, {"--aireml30", "--bad"});
    EXPECT_EQ(maximise.aireml_its, 60);
    const std::size_t rounds = labels().find('A') - 1;
    EXPECT_GT(rounds, 3u);
    EXPECT_LE(rounds, 8u);
    const auto log = iterates();
    EXPECT_TRUE(rounds == 8 || log[rounds].logl - log[rounds - 1].logl < 2.0);
}

small_model one_genetic_value() { // nearly, for both traits
    small_model m = families(2, 90);
    for (auto& r : m.rows) r.y = {r.y[0] == -999.0 ? 10.0 : r.y[0], 0.0};
    for (auto& r : m.rows) r.y[1] = 1.5 * r.y[0] + 0.2 * ((r.animal * 37) % 11);
    return m;
}

// The second trait has a genetic value of its own in nothing but its starting values.
small_model one_trait_told_twice() {
    small_model m = one_genetic_value();
    int k = 0;
    for (auto& r : m.rows) r.y[1] = 1.5 * r.y[0] + 0.3 * (7 * ++k % 11);
    return m;
}

// A diagonal of the factor vanishes: another scale in mid-search, at the same point.
TEST_F(driver_test, block_whose_diagonal_vanishes_goes_over_to_logarithms_in_the_search) {
    set_up(one_trait_told_twice(), {"--aireml60", "--norecon", "-v"});
    ASSERT_EQ(estimates.logdiagonals(1), 0);
    get_estimates();
    EXPECT_NE(screen_text().find(" Switch to log diagonal for RE 1"), std::string::npos);
    EXPECT_EQ(estimates.logdiagonals(1), 1);
    const auto& log = iterate_log.records;
    ASSERT_GT(log.size(), 3u);
    for (std::size_t i = 1; i < log.size(); ++i)
        EXPECT_NEAR(log[i].log_l - log[i].change, log[i - 1].log_l, 1.0e-7 * std::fabs(log[i].log_l)) << i;
    const double found = bestpoint.xbest;
    new_analysis();
    for (const char* f : {"Iterates", "BestPoint"}) std::remove(f);
    run(one_trait_told_twice(), {"--aireml60", "--norecon", "--nologd"});
    EXPECT_EQ(estimates.logdiagonals(1), 0);
    EXPECT_LT(bestpoint.xbest, found + 1.0e-3);
}

TEST_F(driver_test, run_at_the_border_ends_normally) {
    const small_model m = one_genetic_value();
    for (const char* option : {"--reconst", "--norecon"}) {
        new_analysis();
        for (const char* f : {"Iterates", "BestPoint"}) std::remove(f);
        set_up(m, {"--aireml60", option});
        const double start = program_logl(estimates.parvec);
        get_estimates();
        EXPECT_GT(bestpoint.xbest, start) << option;
        EXPECT_NEAR(program_logl(estimates.parvec, 1), bestpoint.xbest, 1.0e-5) << option;
        EXPECT_NE(verdict.last.kind, search_end::not_maximum) << option << " " << verdict_line(verdict.last);
        EXPECT_NE(verdict.last.kind, search_end::none) << option;
        const std::vector<double> g = best_covariances(1); // nearly one genetic value for both
        EXPECT_GT(g[1], 0.98 * std::sqrt(g[0] * g[2])) << option;
    }
}

TEST_F(driver_test, stored_point_is_not_read_by_iterate_of_a_full_rank_run) {
    set_up(families(1), {"--aireml"});
    EXPECT_FALSE(options.reconstruct);
    double x = program_logl(estimates.parvec, 1);
    search_state.method.aireml = true;
    int iround = 0;
    ai_reml(3, iround, x);
    EXPECT_EQ(iround, 3);
    EXPECT_EQ(bestpoint.xlike_file, invalid_logl);
}

TEST_F(driver_test, last_changes_are_kept_oldest_first) {
    run(families(1), {"--aireml2"});
    const auto log = iterates();
    ASSERT_EQ(log.size(), 3u);
    const auto& c = maximise.cchanges;
    for (int k = 0; k < 4; ++k) EXPECT_EQ(c[0][k], 0.0);
    EXPECT_NEAR(c[1][0], log[1].logl - log[0].logl, 1.01e-3);
    EXPECT_NEAR(c[2][0], log[2].logl - log[1].logl, 1.01e-3);
    EXPECT_EQ(c[2][1], aireml_terms.pnorm);
    EXPECT_EQ(c[2][2], aireml_terms.dnorm);
    EXPECT_EQ(c[2][3], aireml_terms.slope);
    EXPECT_LT(c[2][3], 0.0);
}

TEST_F(driver_test, covariance_that_no_record_tells_is_held_out) {
    small_model m = families(2);
    for (auto& r : m.rows) r.y[r.animal % 2 ? 0 : 1] = -999.0;
    run(m, {"--aireml"});
    EXPECT_EQ(estimates.paraform(0), par_scale::variance);
    EXPECT_EQ(derivs.nparm2, estimates.nparm - 1);
    EXPECT_EQ(derivs.fixpar(2), 1);
    EXPECT_EQ(estimates.ispar(2), 0); // nor does the search by directions move it
    EXPECT_EQ(best_covariances(0)[1], 0.0);
}

TEST_F(driver_test, no_iterate_allowed_leaves_the_best_point) {
    set_up(families(1), {"--aireml"});
    maximise.ncycle = 1;
    double x = program_logl(estimates.parvec, 1);
    bestpoint.parbest = estimates.parvec;
    estimates.parvec(1) += 0.1;
    int iround = 0;
    search_state.method.aireml = true;
    ai_reml(0, iround, x);
    EXPECT_EQ(iround, 0);
    EXPECT_EQ(estimates.parvec(1), bestpoint.parbest(1));
    EXPECT_NE(read_file("Iterates").find("Max. no. of iterates reached"), std::string::npos);
    EXPECT_EQ(labels(), "A");
}

TEST_F(driver_test, rounds_of_none_leave_a_record_only) {
    set_up(families(1), {"--emalg"});
    double x = program_logl(estimates.parvec, 1);
    int iround = 0;
    em_algorithm(0, iround, x, 0.0);
    EXPECT_EQ(labels(), "E");
    EXPECT_EQ(iround, 0);
}

TEST_F(driver_test, stalled_search_is_rescued_once_when_it_gains_nothing) {
    set_up(families(2), {"--emai1"});
    maximise.aireml_its = -1; // no iterate at all
    get_estimates();
    EXPECT_EQ(labels(), "EEEEE"); // start, one round, three of the rescue
    EXPECT_EQ(count(read_file("Iterates"), "Max. no. of iterates reached"), 2);
    EXPECT_FALSE(maximise.converged);
}

TEST_F(driver_test, stalled_search_is_rescued_while_it_gains) {
    run(families(2), {"--emai1,1"});
    const std::string s = labels();
    EXPECT_EQ(s.substr(0, 7), "EEAEEEA") << s;
    EXPECT_TRUE(maximise.converged) << s;
}

TEST_F(driver_test, cycles_are_silent_and_restore_the_expansion) {
    set_up(families(2), {"--pxai1,1", "--cycle3"});
    ASSERT_EQ(maximise.ncycle, 3);
    maximise.aiconv_like = maximise.aiconv_norm = 0.0;
    get_estimates();
    const std::string s = labels();
    EXPECT_EQ(s.substr(0, 8), "PPAPAPAE") << s; // the last cycle is rescued
    EXPECT_EQ(read_file("Iterates").find("not converged"), std::string::npos);
}

TEST_F(driver_test, final_information_belongs_to_the_best_point) {
    run(families(2), {"--pxai2,60"});
    ASSERT_TRUE(search_state.saverr_ready);
    std::istringstream in(read_file(filenames.aiparsfile));
    double x = 0.0, value = 0.0;
    in >> x;
    EXPECT_NEAR(x, bestpoint.xbest, 1.0e-6);
    array<double> p = estimates.parvec;
    evaluate_point(p, 1);
    average_info();
    derivatives_mmm();
    jacob_var2chol(0);
    int i = 0, j = 0, n = 0;
    while (in >> i >> j >> value) {
        EXPECT_NEAR(value, derivs.der2(ihmssf(i, j, estimates.nparm)), 1.0e-6 * std::max(1.0, std::fabs(value)));
        EXPECT_NE(value == 0.0 && i == j, true);
        ++n;
    }
    EXPECT_EQ(n, estimates.nparm * (estimates.nparm + 1) / 2);
    EXPECT_EQ(derivs.nparm2, estimates.nparm);
}

TEST_F(driver_test, stored_point_is_replaced_by_a_better_one_only) {
    set_up(families(2), {"--aireml1"});
    get_estimates();
    const std::string stored = read_file("BestPoint");
    bestpoint.to_beat = bestpoint.xbest + 1.0;
    bestpoint.xbest = invalid_logl;
    forget_likelihoods();
    EXPECT_GT(evaluate_point(estimates.parvec, 1), invalid_logl);
    EXPECT_EQ(read_file("BestPoint"), stored);
    std::filesystem::remove("BestPoint");
    bestpoint.xbest = invalid_logl;
    bestpoint.to_beat = evaluate_point(estimates.parvec, 1) - 1.0;
    EXPECT_FALSE(std::filesystem::exists("BestPoint"));
    bestpoint.xbest = invalid_logl;
    forget_likelihoods();
    evaluate_point(estimates.parvec, 1);
    EXPECT_TRUE(std::filesystem::exists("BestPoint"));
}

TEST_F(driver_test, expanded_rounds_gain) {
    set_up(families(2), {"--pxem"});
    double x = program_logl(estimates.parvec, 1);
    int iround = 0;
    em_algorithm(5, iround, x, 0.0);
    EXPECT_GT(pxempc.aalpha, 0.0);
    EXPECT_EQ(labels(), "PPPPPP");
    EXPECT_TRUE(search_state.method.pxem);
    EXPECT_GE(x, iterates()[0].logl);
}

TEST_F(driver_test, trace_writes_rounds_and_numbered_points) {
    set_up(families(1), {"--emalg12", "-zq"});
    get_estimates();
    EXPECT_NE(read_file("EMrounds").find("    1 "), std::string::npos);
    EXPECT_FALSE(read_file(filenames.bestfile + "001").empty());
    EXPECT_FALSE(read_file("Estimates").empty());
}

TEST_F(driver_test, trace_of_average_information_and_its_times) {
    set_up(families(1), {"--aireml3", "-zq", "--times"});
    get_estimates();
    EXPECT_EQ(count(read_file("AIiterates"), "\n"), static_cast<int>(iterates().size()));
    EXPECT_EQ(read_file("AIiterates").substr(0, 17), "   0     -135.354");
    EXPECT_FALSE(read_file(filenames.bestfile + "001").empty());
    for (const char* words : {"***Time: AI ", "***Time: 1st - residuals ", "***Time: 1st - all "})
        EXPECT_NE(screen_text().find(words), std::string::npos) << words;
}

// Steps that lose are taken where this is allowed; the run still ends at the best point.
TEST_F(driver_test, losing_step_is_taken_without_the_strict_rule) {
    small_model m = families(1);
    m.random[0].g = {40.0};
    m.residual = {0.05};
    set_up(m, {"--aireml1", "--nostrict", "--nologd"});
    get_estimates();
    const auto log = iterates();
    ASSERT_EQ(log.size(), 2u);
    ASSERT_LT(log[1].logl, log[0].logl) << "the case does not lose";
    EXPECT_FALSE(maximise.converged);
    EXPECT_NEAR(bestpoint.xbest, log[0].logl, 1.0e-3);
    EXPECT_NEAR(program_logl(estimates.parvec), log[0].logl, 1.0e-3);
    EXPECT_EQ(maximise.cchanges[2][0], 0.0);                // no test, no record of changes
    std::istringstream in(read_file(filenames.aiparsfile)); // written again for the final point
    double x = 0.0;
    in >> x;
    EXPECT_NEAR(x, log[0].logl, 1.0e-3);
}

// A step that gains on the one before, but not on the best point, is no convergence.
TEST_F(driver_test, step_below_the_best_point_is_no_convergence) {
    small_model m = families(1);
    m.random[0].g = {40.0};
    m.residual = {0.05};
    set_up(m, {"--aireml", "--nostrict", "--nologd"});
    double x = program_logl(estimates.parvec, 1);
    const double start = x;
    search_state.method.aireml = true;
    maximise.aiconv_like = 1.0e6; // any gain
    int iround = 0;
    for (int k = 1; k <= 6; ++k) {
        ai_reml(1, iround, x); // goes back to the best point behind each
        if (x >= start) break;
        EXPECT_FALSE(maximise.converged) << k;
    }
    ai_reml(4, iround, x);
    const auto log = iterates();
    int below = 0;
    for (std::size_t k = 2; k < log.size(); ++k) below += log[k].logl > log[k - 1].logl && log[k].logl < start ? 1 : 0;
    EXPECT_GT(below, 0) << "the case has no gain below the start";
    EXPECT_EQ(maximise.converged, log.back().logl >= start);
}

TEST_F(driver_test, second_order_term_joins_from_iterate_222) {
    for (int nits : {221, 222}) {
        new_analysis();
        for (const char* f : {"Iterates", "BestPoint"}) std::remove(f);
        set_up(families(1, 40), {"--aireml", "--nostrict", "-t"});
        maximise.aiconv_like = maximise.aiconv_norm = -1.0; // on and on at the maximum
        double x = program_logl(estimates.parvec, 1);
        search_state.method.aireml = true;
        int iround = 0;
        ai_reml(nits, iround, x);
        ASSERT_EQ(iround, nits);
        EXPECT_EQ(std::any_of(derivs.der2b.begin(), derivs.der2b.end(), [](double d) { return d != 0.0; }),
                  nits == 222);
    }
}

} // namespace
} // namespace tarvex
