// Log L never falls in EM, and all maximisers end at one maximum.
#include "control/maximise.h"
#include "control/options.h"
#include "dense/numroutines.h"
#include "estimation/aireml.h"
#include "estimation/bestpoint.h"
#include "estimation/lastpoint.h"
#include "estimation/pxem.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "support/em_fixture.h"

#include <algorithm>
#include <cmath>
#include <functional>

namespace tarvex {
namespace {

using maximisers_test = tarvex_test;

// log L after each of n rounds.
std::vector<double> rounds(const small_model& m, const std::string& option, int n) {
    set_up(m, {option});
    std::vector<double> list{program_logl(estimates.parvec, 1)};
    int iround = 1;
    for (int k = 0; k < n; ++k) {
        double x = list.back();
        em_algorithm(1, iround, x, 0.0);
        list.push_back(x);
    }
    return list;
}

void expect_no_loss(const std::vector<double>& x) {
    for (std::size_t k = 1; k < x.size(); ++k) EXPECT_GE(x[k], x[k - 1] - 1.0e-8) << "round " << k;
    EXPECT_GT(x.back(), x.front());
}

TEST_F(maximisers_test, no_loss_in_rounds_of_two_effects) { expect_no_loss(rounds(with_dams(), "--emalg", 50)); }
TEST_F(maximisers_test, no_loss_in_rounds_of_families) { expect_no_loss(rounds(families(3), "--emalg", 50)); }
TEST_F(maximisers_test, no_loss_in_rounds_of_repeat_effect) {
    expect_no_loss(rounds(repeats_with_peq(), "--emalg", 50));
}
TEST_F(maximisers_test, no_loss_in_rounds_of_repeat_effect_of_two_traits) {
    expect_no_loss(rounds(repeats_with_peq(2), "--emalg", 50));
}
TEST_F(maximisers_test, no_loss_in_rounds_with_a_covariance_held_at_zero) {
    small_model m = families(3, 120, 0.3);
    m.residual = {1.5, 0.0, 0.6, 1.5, 0.6, 1.5};
    expect_no_loss(rounds(m, "--emalg", 40));
}
TEST_F(maximisers_test, no_loss_in_rounds_of_traits_never_together) {
    small_model m = families(3, 120, 0.1);
    for (auto& r : m.rows) r.y[r.animal % 2 ? 0 : 1] = -999.0;
    expect_no_loss(rounds(m, "--emalg", 40));
}
// The records know the covariance of two traits only as a sum of both matrices.
TEST_F(maximisers_test, repeat_and_residual_matrix_stay_positive_definite_in_rounds) {
    small_model m = families(2, 80, 0.0, 2);
    std::mt19937 rng(3);
    std::normal_distribution<double> normal;
    for (std::size_t k = 0; k + 1 < m.rows.size(); k += 2) { // two records of the first trait have little in common
        const double c = normal(rng), d = 0.9 * normal(rng);
        m.rows[k].y = {10.0 + c + d + 0.3 * normal(rng), 12.0 + c + 0.3 * normal(rng)};
        m.rows[k + 1].y = {10.0 + c - d + 0.3 * normal(rng), 12.0 + c + 0.3 * normal(rng)};
    }
    m.random[0].g = {0.1, 0.0, 0.1};
    m.residual = {1.0, 0.05, 1.0};
    m.random.push_back({"pe", "PEQ", 2, 0, {0.3, 0.0, 0.3}});
    set_up(m, {"--emalg"});
    int iround = 1;
    double x = program_logl(estimates.parvec, 1), last = x;
    for (int k = 0; k < 40; ++k) {
        em_algorithm(1, iround, x, 0.0);
        EXPECT_GE(x, last - 1.0e-8) << "round " << k;
        last = x;
        const std::vector<double> r = best_covariances(0), p = best_covariances(residualvars.ipeq);
        for (const auto& c : {r, p}) {
            EXPECT_GT(c[0], 0.0);
            EXPECT_LT(c[1] * c[1], c[0] * c[2]) << "round " << k;
        }
    }
}
TEST_F(maximisers_test, no_loss_in_rounds_of_repeated_traits) {
    expect_no_loss(rounds(families(2, 80, 0.2, 2), "--emalg", 50));
}
TEST_F(maximisers_test, no_loss_in_rounds_of_random_regressions) {
    expect_no_loss(rounds(growth(true), "--emalg", 50));
}
TEST_F(maximisers_test, no_loss_in_rounds_of_reduced_rank) { expect_no_loss(rounds(components(2), "--emalg", 50)); }
TEST_F(maximisers_test, no_loss_in_rounds_of_reduced_rank_random_regressions) {
    expect_no_loss(rounds(growth(true, true), "--emalg", 50));
}
TEST_F(maximisers_test, no_loss_in_expanded_rounds) { expect_no_loss(rounds(families(2), "--pxem", 50)); }
TEST_F(maximisers_test, no_loss_in_expanded_rounds_of_reduced_rank) {
    expect_no_loss(rounds(components(2), "--pxem", 50));
}

// ---- one maximum

struct maximum {
    double logl = 0.0;
    int records = 0;
    oracle::point at;
};

maximum run(const small_model& m, const std::vector<std::string>& list, bool tight = true) {
    new_analysis();
    for (const char* f : {"Iterates", "BestPoint"}) std::remove(f);
    set_up(m, list);
    if (tight) {
        maximise.emconv_like = 1.0e-7;
        maximise.aiconv_like = 1.0e-7;
        maximise.aiconv_norm = 1.0e-5;
    }
    get_estimates();
    const double final_point = program_logl(estimates.parvec);
    EXPECT_NEAR(final_point, bestpoint.xbest, 1.0e-7) << "the last point is not the best one";
    const auto log = iterates();
    return {bestpoint.xbest, log.empty() ? 0 : log.back().round, point_at(m, estimates.parvec)};
}

void expect_same(const maximum& got, const maximum& want, double tolerance = 1.0e-3) {
    EXPECT_NEAR(got.logl, want.logl, tolerance);
}

void expect_one_maximum(const small_model& m, const std::vector<std::vector<std::string>>& plans) {
    const maximum ai = run(m, {"--aireml200"});
    EXPECT_TRUE(maximise.converged);
    for (const auto& plan : plans) {
        SCOPED_TRACE(plan[0]);
        expect_same(run(m, plan), ai);
    }
}

TEST_F(maximisers_test, one_maximum_for_one_trait) {
    expect_one_maximum(families(1), {{"--emalg"},
                                     {"--pxem"},
                                     {"--emai4,100"},
                                     {"--pxai4,100"},
                                     {"--cycle3"},
                                     {"--good"},
                                     {"--bad"},
                                     {"--modaim0"},
                                     {"--modaim1"},
                                     {"--modaim3"},
                                     {"--modaim4"},
                                     {"--sure"}});
}
TEST_F(maximisers_test, one_maximum_for_two_traits) {
    expect_one_maximum(families(2),
                       {{"--emalg"}, {"--pxem"}, {"--emai4,100"}, {"--pxai4,100"}, {"--cycle3"}, {"--sure"}});
}
TEST_F(maximisers_test, one_maximum_for_repeat_effects) {
    small_model m = families(1, 90, 0.0, 3);
    m.random.push_back({"pe", "PEQ", 1, 0, {0.3}});
    expect_one_maximum(m, {{"--emalg"}, {"--pxem"}, {"--pxai4,100"}, {"--sure"}});
    m.random[1].kov = "IDE";
    expect_one_maximum(m, {{"--emalg"}, {"--pxem"}, {"--pxai4,100"}, {"--sure"}});
}
TEST_F(maximisers_test, expanded_rounds_are_no_more_than_plain_ones) {
    for (int nq : {1, 2}) {
        const maximum em = run(families(nq), {"--emalg"}), px = run(families(nq), {"--pxem"});
        EXPECT_LE(px.records, em.records) << nq;
        expect_same(px, em);
    }
}

// From 18 parameters on plans begin with rounds of EM, and leave them: from starts that are far off too.
TEST_F(maximisers_test, mixtures_from_poor_starts_leave_plain_average_information_and_end_at_one_maximum) {
    small_model m = families(3, 150);
    m.random.push_back({"dam", "IDE", 3, 0, {0.3, 0.0, 0.0, 0.3, 0.0, 0.3}});
    const maximum want = run(m, {"--aireml200"}, false);
    ASSERT_EQ(estimates.nparm, 18);
    for (const double factor : {0.01, 30.0})
        for (const auto& plan : std::vector<std::vector<std::string>>{{}, {"--bad"}, {"--emai2"}}) {
            SCOPED_TRACE(std::to_string(factor) + (plan.empty() ? " default" : plan[0]));
            small_model far = m;
            for (double& g : far.random[0].g) g *= factor;
            expect_same(run(far, plan, false), want, 0.01); // the maximum lies at the border
            std::string labels;
            for (const auto& line : iterates()) labels += line.label[0];
            const char first = !plan.empty() && plan[0].starts_with("--emai") ? 'E' : 'P';
            EXPECT_EQ(labels[1], first) << labels;
            EXPECT_NE(labels.find('A'), std::string::npos) << labels;
        }
}

TEST_F(maximisers_test, components_of_full_rank_are_the_ordinary_fit) {
    small_model m = families(3, 150);
    const maximum want = run(m, {"--aireml200"});
    m.principal = true;
    m.random[0].rank = 3;
    for (const char* plan : {"--aireml200", "--pxai4,100"}) {
        SCOPED_TRACE(plan);
        const maximum got = run(m, {plan});
        expect_same(got, want, 1.0e-4);
        if (std::string(plan) != "--aireml200") continue;
        for (std::size_t i = 0; i < 3; ++i)
            for (std::size_t j = 0; j < 3; ++j) EXPECT_NEAR(got.at.g[0][i][j], want.at.g[0][i][j], 2.0e-3);
    }
}

TEST_F(maximisers_test, one_maximum_for_two_components_of_three) {
    small_model m = families(3, 80);
    m.principal = true;
    m.random[0].rank = 2;
    const maximum ai = run(m, {"--aireml300"});
    EXPECT_TRUE(maximise.converged);
    for (const char* plan : {"--emalg", "--pxem", "--pxai4,200", "--emai4,200", "--sure"}) {
        SCOPED_TRACE(plan);
        expect_same(run(m, {plan}), ai);
    }
}

TEST_F(maximisers_test, one_component_turns_to_the_maximum_from_a_wrong_direction) {
    small_model m = families(2);
    m.principal = true;
    m.random[0].rank = 1;
    const maximum ai = run(m, {"--aireml200"});
    m.random[0].g = {1.0, -0.9, 1.0};                      // the contrast of the traits
    for (const char* plan : {"--emalg300", "--pxem300"}) { // the column space of the start is far below
        SCOPED_TRACE(plan);
        expect_same(run(m, {plan}), ai, 0.02);
    }
}

TEST_F(maximisers_test, search_by_directions_comes_near_the_maximum) {
    small_model m = families(2);
    const maximum ai = run(m, {"--aireml200"});
    m.random[0].g = {4.0, 0.1, 4.0};
    const maximum powell = run(m, {"--powell"});
    EXPECT_NEAR(powell.logl, ai.logl, 0.01);
    EXPECT_LE(powell.logl, ai.logl + 1.0e-4);
    const std::string log = read_file("Iterates");
    EXPECT_NE(log.find(" IT=   2"), std::string::npos) << log;
    EXPECT_NE(log.find("CONVERGENCE : CHANGE IN "), std::string::npos);
    EXPECT_NE(read_file("directions").find("IT="), std::string::npos);
    std::vector<double> change; // of -2 log L, by round
    for (std::size_t at = log.find("  D="); at != std::string::npos; at = log.find("  D=", at + 1))
        change.push_back(std::stod(log.substr(at + 4, 15)));
    ASSERT_GE(change.size(), 2u) << log;
    EXPECT_GT(change.back(), -0.002);
    EXPECT_GT(change[change.size() - 2], -0.002) << "a small gain ends the search only along fresh directions";
}

TEST_F(maximisers_test, search_by_directions_goes_on_from_its_stored_point) {
    small_model m = families(2);
    const maximum ai = run(m, {"--aireml200"});
    m.random[0].g = {4.0, 0.1, 4.0};
    const maximum first = run(m, {"--powell1"});
    ASSERT_LT(first.logl, ai.logl - 0.1) << "one round is all that it takes";
    new_analysis();
    std::remove("Iterates");
    set_up(m, {"-c", "--powell"});
    const std::size_t before = screen_text().size();
    get_estimates();
    const std::string told = screen_text().substr(before);
    const auto start = told.find(" log l = ");
    ASSERT_NE(start, std::string::npos) << told;
    EXPECT_NEAR(std::stod(told.substr(start + 9, 20)), first.logl, 1.0e-6);
    EXPECT_NEAR(bestpoint.xbest, ai.logl, 0.01);
    EXPECT_LE(bestpoint.xbest, ai.logl + 1.0e-4);
}

TEST_F(maximisers_test, diagonal_block_reaches_the_maximum_of_variances) {
    small_model m = families(2);
    m.random[0] = {"animal", "NRM", 2, 0, {0.8, 0.8}, true};
    const maximum ai = run(m, {"--aireml200"});
    EXPECT_NEAR(ai.at.g[0][0][1], 0.0, 1.0e-12);
    for (const char* plan : {"--emalg", "--pxem", "--pxai4,100", "--sure"}) {
        SCOPED_TRACE(plan);
        const maximum got = run(m, {plan});
        expect_same(got, ai);
        EXPECT_EQ(got.at.g[0][0][1], 0.0);
    }
}

// ---- residual covariances held at zero: one maximum, that of dense algebra

// A lower factor by rows from x (logarithms on the diagonal), its zeros given; times its transpose.
oracle::dense from_factor(const std::vector<double>& x, std::size_t& k, const std::vector<std::vector<int>>& shape,
                          const std::vector<std::size_t>& order) {
    const std::size_t n = order.size();
    oracle::dense l = oracle::zeros(n, n);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j <= i; ++j)
            if (shape[i][j]) l[order[i]][j] = i == j ? std::exp(x[k++]) : x[k++];
    return oracle::product(l, oracle::transpose(l));
}

using function_of = std::function<double(const std::vector<double>&)>;

std::vector<double> slopes(const function_of& f, std::vector<double> x) {
    std::vector<double> g;
    for (double& one : x) {
        const double at = one, h = 1.0e-4;
        one = at + h;
        const double up = f(x);
        one = at - h;
        g.push_back((up - f(x)) / (2.0 * h));
        one = at;
    }
    return g;
}

// Broyden, Fletcher, Goldfarb and Shanno's ascent with halved steps.
double highest(const function_of& f, std::vector<double> x) {
    const std::size_t n = x.size();
    oracle::dense h = oracle::zeros(n, n);
    for (std::size_t i = 0; i < n; ++i) h[i][i] = 0.01;
    double value = f(x);
    std::vector<double> g = slopes(f, x);
    for (int turn = 0; turn < 200; ++turn) {
        const std::vector<double> d = oracle::times(h, g);
        if (oracle::dot(d, g) < 1.0e-8) break;
        std::vector<double> next = x;
        double found = value, step = 1.0;
        for (; !(found > value) && step > 1.0e-8; step *= 0.5) {
            for (std::size_t i = 0; i < n; ++i) next[i] = x[i] + step * d[i];
            found = f(next);
        }
        if (!(found > value)) break;
        const std::vector<double> slope = slopes(f, next);
        std::vector<double> s(n), y(n);
        for (std::size_t i = 0; i < n; ++i) {
            s[i] = next[i] - x[i];
            y[i] = g[i] - slope[i];
        }
        const double sy = oracle::dot(s, y);
        const std::vector<double> hy = oracle::times(h, y);
        const double yhy = oracle::dot(y, hy);
        for (std::size_t i = 0; i < n && sy > 1.0e-12; ++i)
            for (std::size_t j = 0; j < n; ++j)
                h[i][j] += (1.0 + yhy / sy) * s[i] * s[j] / sy - (hy[i] * s[j] + s[i] * hy[j]) / sy;
        x = next;
        g = slope;
        value = found;
    }
    return value;
}

// Highest log L over G of full rank and R with zeros where `shape`, a factor with its rows in `order`, has them.
double dense_maximum(const small_model& m, const std::vector<std::vector<int>>& shape,
                     const std::vector<std::size_t>& order) {
    const auto nq = static_cast<std::size_t>(m.nq);
    const oracle::analysis a = m.dense();
    const std::vector<std::vector<int>> full(nq, std::vector<int>(nq, 1));
    std::vector<std::size_t> natural;
    std::vector<double> start;
    for (std::size_t i = 0; i < nq; ++i) {
        natural.push_back(i);
        for (std::size_t j = 0; j <= i; ++j) start.push_back(0.0);
    }
    for (std::size_t i = 0; i < nq; ++i)
        for (std::size_t j = 0; j <= i; ++j)
            if (shape[i][j]) start.push_back(0.0);
    return highest(
        [&](const std::vector<double>& x) {
            std::size_t k = 0;
            oracle::point at;
            at.g = {from_factor(x, k, full, natural)};
            at.r = {from_factor(x, k, shape, order)};
            return oracle::evaluate(a, oracle::variance(a, at)).logl;
        },
        start);
}

void expect_one_answer(const small_model& m, double want) {
    const std::vector<std::vector<std::string>> plans{{},           {"--aireml200"}, {"--pxai4,100"}, {"--emai4,100"},
                                                      {"--emalg"},  {"--pxem"},      {"--powell"},    {"--sure"},
                                                      {"--forchol"}};
    for (const auto& plan : plans) {
        SCOPED_TRACE(plan.empty() ? "default" : plan[0]);
        const maximum got = run(m, plan);
        EXPECT_NEAR(got.logl, want, 1.0e-3);
        EXPECT_EQ(verdict.last.kind, search_end::maximum) << verdict_line(verdict.last);
        const std::vector<double> r = best_covariances(0), g = best_covariances(1);
        for (int i = 1; i <= m.nq; ++i) {
            EXPECT_GT(r[static_cast<std::size_t>(ihmssf(i, i, m.nq) - 1)], 0.0);
            EXPECT_GT(g[static_cast<std::size_t>((m.random[0].diagonal ? i : ihmssf(i, i, m.nq)) - 1)], 0.0);
        }
        for (std::size_t k = 0; k < r.size(); ++k)
            EXPECT_EQ(r[k] == 0.0, residualvars.fixres(static_cast<int>(k) + 1) != 0);
    }
}

TEST_F(maximisers_test, one_answer_for_traits_never_recorded_together) {
    small_model m = families(2);
    for (auto& r : m.rows) r.y[r.animal % 2 ? 0 : 1] = -999.0;
    expect_one_answer(m, dense_maximum(m, {{1, 0}, {0, 1}}, {0, 1}));
}

// Traits two and three, each of them recorded with the first.
TEST_F(maximisers_test, one_answer_for_one_covariance_held_at_zero) {
    small_model m = families(3, 90, 0.0);
    m.residual = {1.5, 0.3, 0.3, 1.5, 0.0, 1.5};
    expect_one_answer(m, dense_maximum(m, {{1, 0, 0}, {0, 1, 0}, {1, 1, 1}}, {1, 2, 0}));
}

TEST_F(maximisers_test, one_answer_for_a_chain_of_zeros) {
    small_model m = families(3, 90, 0.0);
    m.residual = {1.5, 0.0, 0.3, 1.5, 0.0, 1.5};
    expect_one_answer(m, dense_maximum(m, {{1, 0, 0}, {0, 1, 0}, {1, 0, 1}}, {0, 1, 2}));
}

// With some records missing the maximum lies at the border, where a residual or genetic matrix is singular.
TEST_F(maximisers_test, one_answer_at_the_border_beside_zeros) {
    small_model m = families(3, 60);
    m.residual = {1.5, 0.3, 0.3, 1.5, 0.0, 1.5};
    const double want = dense_maximum(m, {{1, 0, 0}, {0, 1, 0}, {1, 1, 1}}, {1, 2, 0});
    for (const char* plan : {"--aireml300", "--pxai4,300", "--sure"}) {
        SCOPED_TRACE(plan);
        expect_same(run(m, {plan}), {want, 0, {}});
        EXPECT_EQ(verdict.last.kind, search_end::border) << verdict_line(verdict.last);
    }
}

// No order of pivots keeps zeros around a ring. Rows 1 and 3, and rows 2 and 4 of a factor are orthogonal; the last
// element may have either sign, so that a singular matrix is inside.
oracle::dense ring_matrix(const std::vector<double>& x, std::size_t& k) {
    oracle::dense l = oracle::zeros(4, 4);
    l[0][0] = std::exp(x[k]);
    l[2][1] = std::exp(x[k + 1]);
    l[1][0] = x[k + 2];
    l[1][1] = x[k + 3];
    l[1][2] = std::exp(x[k + 4]);
    l[3][0] = x[k + 5];
    l[3][1] = x[k + 6];
    l[3][2] = -(l[1][0] * l[3][0] + l[1][1] * l[3][1]) / l[1][2];
    l[3][3] = x[k + 7];
    k += 8;
    return oracle::product(l, oracle::transpose(l));
}

double dense_ring(const small_model& m) {
    const oracle::analysis a = m.dense();
    std::vector<double> start{0.3, 0.3, 0.1, 0.1, 0.3, 0.1, 0.1, 1.0};
    for (int i = 0; i < 4; ++i) start.push_back(0.8);
    return highest(
        [&](const std::vector<double>& x) {
            std::size_t k = 0;
            oracle::point at;
            at.r = {ring_matrix(x, k)};
            at.g = {oracle::zeros(4, 4)};
            for (std::size_t i = 0; i < 4; ++i) at.g[0][i][i] = x[k + i] * x[k + i];
            return oracle::evaluate(a, oracle::variance(a, at)).logl;
        },
        start);
}

small_model ring(int animals, double noise) {
    small_model m = families(4, animals, 0.0);
    m.random[0] = {"animal", "NRM", 4, 0, {0.8, 0.8, 0.8, 0.8}, true};
    std::mt19937 rng(5);
    std::normal_distribution<double> normal;
    for (auto& r : m.rows)
        for (double& y : r.y) y += noise * normal(rng);
    m.residual = {1.5, 0.2, 0.0, 0.2, 1.5, 0.2, 0.0, 1.5, 0.2, 1.5};
    return m;
}

// What dense algebra promises from a point along each covariance alone: 0 at a maximum inside.
double dense_promise(const small_model& m, oracle::point at) {
    const oracle::analysis a = m.dense();
    const auto logl = [&] { return oracle::evaluate(a, oracle::variance(a, at)).logl; };
    const double here = logl(), h = 1.0e-3;
    double most = 0.0;
    for (oracle::dense* c : {&at.r[0], &at.g[0]})
        for (std::size_t i = 0; i < c->size(); ++i)
            for (std::size_t j = i; j < c->size(); ++j) {
                const double x = (*c)[i][j];
                if (x == 0.0) continue;
                (*c)[i][j] = (*c)[j][i] = x + h;
                const double up = logl();
                (*c)[i][j] = (*c)[j][i] = x - h;
                const double down = logl(), slope = (up - down) / (2.0 * h);
                (*c)[i][j] = (*c)[j][i] = x;
                EXPECT_LT(up + down, 2.0 * here) << i << j;
                most = std::max(most, 0.5 * slope * slope * h * h / (2.0 * here - up - down));
            }
    return most;
}

TEST_F(maximisers_test, one_answer_for_a_ring_of_zeros) {
    const small_model m = ring(120, 1.5);
    const maximum ai = run(m, {"--aireml200"});
    EXPECT_TRUE(residualvars.filled);
    EXPECT_LT(dense_promise(m, ai.at), 1.0e-4);
    expect_one_answer(m, ai.logl);
}

// Each trait is the sum of what its neighbours have, and the last one has nothing of its own.
TEST_F(maximisers_test, one_answer_at_the_border_of_a_ring_of_zeros) {
    small_model m = ring(36, 0.0);
    std::mt19937 rng(6);
    std::normal_distribution<double> normal;
    for (auto& r : m.rows) {
        std::vector<double> e;
        for (int k = 0; k < 3; ++k) e.push_back(normal(rng));
        r.y = {10.0 + e[0], 12.0 + e[0] + e[1] + 0.4 * normal(rng), 11.0 + e[2], 13.0 + e[0] - e[1] + e[2]};
        for (double& y : r.y) y += 0.1 * r.herd;
    }
    const double want = dense_ring(m);
    for (const char* plan :
         {"", "--aireml", "--pxai", "--emai", "--cycle", "--sure", "--emalg", "--pxem", "--powell"}) {
        SCOPED_TRACE(*plan ? plan : "default");
        const maximum got = *plan ? run(m, {plan}, false) : run(m, {}, false);
        EXPECT_LT(got.logl, want + 1.0e-4);
        // twice as many and more where the model does not know the curvature of the factor
        EXPECT_LT(likelihoods.nfact, std::string(plan) == "--sure" ? 60 : 100000);
        for (const int i : {1, 5, 8, 10}) EXPECT_GT(best_covariances(0)[static_cast<std::size_t>(i - 1)], 0.0);
        if (verdict.last.kind == search_end::not_maximum) { // without AI-REML the way to the border is long
            EXPECT_NE(std::string("--emalg --pxem --powell").find(*plan ? plan : "default"), std::string::npos);
            continue;
        }
        EXPECT_GT(got.logl, want - 1.0e-3);
        EXPECT_EQ(verdict.last.kind, search_end::border) << verdict_line(verdict.last);
    }
}

} // namespace
} // namespace tarvex
