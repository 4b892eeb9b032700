#include "control/maximise.h"
#include "control/options.h"
#include "estimation/dense_em.h"
#include "estimation/iteratelog.h"
#include "estimation/searchstate.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/mudmap.h"
#include "support/em_fixture.h"

#include <algorithm>
#include <cmath>

namespace tarvex {
namespace {

using em_round_test = tarvex_test;
using oracle::dense;
using oracle::vec;

void expect_matrix(const dense& got, const dense& want, const char* what, double tolerance = 1.0e-9) {
    ASSERT_EQ(got.size(), want.size()) << what;
    for (std::size_t i = 0; i < got.size(); ++i)
        for (std::size_t j = 0; j < got.size(); ++j)
            EXPECT_NEAR(got[i][j], want[i][j], tolerance * std::max(1.0, std::fabs(want[i][j])))
                << what << " " << i << j;
}

struct before_round {
    oracle::analysis a;
    oracle::point at;
    dense h;
    explicit before_round(const small_model& m) : a(m.dense()), at(point_at(m, estimates.parvec)) {
        h = score_matrix(oracle::evaluate(a, oracle::variance(a, at)));
    }
    dense effect(std::size_t k) const { return em_effect(a, at, h, k, effective_levels(static_cast<int>(k) + 1)); }
};

void unpack(const vec& v, std::size_t nr, std::size_t nb, oracle::point& p) {
    p.r = {oracle::zeros(nr, nr)};
    p.b = oracle::zeros(nb, nb);
    std::size_t k = 0;
    for (dense* t : {&p.r[0], &p.b})
        for (std::size_t i = 0; i < t->size(); ++i)
            for (std::size_t j = i; j < t->size(); ++j) (*t)[i][j] = (*t)[j][i] = v[k++];
}

enum class residual_form { patterns, scoring, classes };

void expect_em_round(const small_model& m, residual_form form) {
    const before_round b(m);
    em_rounds(1);
    const oracle::point after = point_at(m, estimates.parvec);
    for (std::size_t k = 0; k < m.random.size(); ++k)
        if (m.random[k].kov != "PEQ") expect_matrix(after.g[k], b.effect(k), "effect");
    if (form == residual_form::patterns) expect_matrix(after.r[0], em_residual(b.a, b.at.r[0], b.h), "residual");
    if (form == residual_form::classes) {
        const vec want = em_classes(b.a, b.at, b.h);
        for (std::size_t c = 0; c < want.size(); ++c) EXPECT_NEAR(after.r[c][0][0], want[c], 1.0e-9);
    }
    if (form == residual_form::scoring) {
        // With a repeat effect the covariances of two traits are only known as a sum: the matrices of the records
        // count.
        oracle::point want;
        unpack(em_scoring(b.a, b.at, b.h), b.at.r[0].size(), b.at.b.size(), want);
        expect_matrix(within(b.a, after), within(b.a, want), "records of subjects");
    }
}

TEST_F(em_round_test, one_trait) {
    const small_model m = animal_model(1, {1.3}, {2.1});
    set_up(m, {"--emalg"});
    ASSERT_EQ(estimates.paraform(0), par_scale::original);
    expect_em_round(m, residual_form::patterns);
}

TEST_F(em_round_test, one_trait_repeated_records_two_effects) {
    small_model m = animal_model(1, {1.3}, {2.1}, 0.0, 3, 20);
    m.random.push_back({"pe", "IDE", 1, 0, {0.7}});
    set_up(m, {"--emalg"});
    expect_em_round(m, residual_form::classes);
}

TEST_F(em_round_test, two_traits_with_missing_records_and_dams) {
    const small_model m = with_dams();
    set_up(m, {"--emalg"});
    expect_em_round(m, residual_form::patterns);
}

TEST_F(em_round_test, three_traits) {
    small_model m = components(3);
    m.principal = false;
    set_up(m, {"--emalg"});
    expect_em_round(m, residual_form::patterns);
}

TEST_F(em_round_test, repeated_records_of_two_traits_score_the_residual) {
    const small_model m = animal_model(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9}, 0.2, 2, 24);
    set_up(m, {"--emalg"});
    expect_em_round(m, residual_form::scoring);
}

TEST_F(em_round_test, repeat_effect_of_one_trait) {
    const small_model m = repeats_with_peq();
    set_up(m, {"--emalg"});
    expect_em_round(m, residual_form::scoring);
}

TEST_F(em_round_test, repeat_effect_of_two_traits) {
    const small_model m = repeats_with_peq(2);
    set_up(m, {"--emalg"});
    expect_em_round(m, residual_form::scoring);
}

TEST_F(em_round_test, random_regression_one_class) {
    const small_model m = growth(false);
    set_up(m, {"--emalg"});
    expect_em_round(m, residual_form::classes);
}

TEST_F(em_round_test, random_regression_classes) {
    const small_model m = growth(true);
    set_up(m, {"--emalg"});
    expect_em_round(m, residual_form::classes);
}

TEST_F(em_round_test, diagonal_block_stays_diagonal) {
    small_model m = with_dams();
    m.random[1] = {"dam", "IDE", 2, 0, {0.9, 0.8}, true};
    set_up(m, {"--emalg", "--nologd"});
    const before_round b(m);
    ASSERT_FALSE(options.principal);
    dense want = b.effect(1);
    want[0][1] = want[1][0] = 0.0;
    em_rounds(1);
    expect_matrix(point_at(m, estimates.parvec).g[1], want, "diagonal");
}

// With covariances held at 0 the round leaves the maximiser of the expected log density over the others.
void expect_held_maximiser(const small_model& m, const std::vector<std::pair<std::size_t, std::size_t>>& held) {
    const before_round b(m);
    em_rounds(1);
    const oracle::point after = point_at(m, estimates.parvec);
    for (std::size_t k = 0; k < m.random.size(); ++k) expect_matrix(after.g[k], b.effect(k), "effect");
    const dense& r = after.r[0];
    const auto q = [&](const dense& at) { return residual_expectation(b.a, at, b.at.r[0], b.h); };
    EXPECT_GT(q(r), q(b.at.r[0]));
    for (std::size_t i = 0; i < r.size(); ++i)
        for (std::size_t j = i; j < r.size(); ++j) {
            if (std::find(held.begin(), held.end(), std::pair{i, j}) != held.end()) {
                EXPECT_EQ(r[i][j], 0.0);
                continue;
            }
            const double step = 1.0e-4;
            dense up = r, down = r;
            up[i][j] = up[j][i] = r[i][j] + step;
            down[i][j] = down[j][i] = r[i][j] - step;
            EXPECT_NEAR((q(up) - q(down)) / (2.0 * step), 0.0, 1.0e-5) << i << j;
            EXPECT_LT(q(up), q(r));
            EXPECT_LT(q(down), q(r));
        }
}

TEST_F(em_round_test, traits_never_together_keep_a_zero_covariance) {
    small_model m = two_traits();
    for (auto& r : m.rows) r.y[r.animal % 2 ? 0 : 1] = -999.0;
    set_up(m, {"--emalg"});
    expect_held_maximiser(m, {{0, 1}});
}

TEST_F(em_round_test, covariance_given_as_zero_is_left_out_of_the_round) {
    small_model m = components(3);
    m.principal = false;
    m.residual = {2.1, 0.0, 0.6, 1.9, 0.5, 1.5};
    set_up(m, {"--emalg"});
    expect_held_maximiser(m, {{0, 1}});
}

TEST_F(em_round_test, two_of_three_traits_are_never_together) {
    small_model m = families(3, 120, 0.1);
    for (auto& r : m.rows) r.y[r.animal % 2 ? 0 : 1] = -999.0;
    set_up(m, {"--emalg"});
    expect_held_maximiser(m, {{0, 1}});
}

TEST_F(em_round_test, round_that_loses_is_taken_back_and_told_and_ends_the_rounds) {
    const small_model m = with_dams();
    set_up(m, {"--emalg"});
    double x = program_logl(estimates.parvec, 1);
    const array<double> start = estimates.parvec;
    likelihoods.xlast += 500.0; // more than any round can gain
    int iround = 0;
    em_algorithm(5, iround, x, 0.0);
    EXPECT_EQ(iround, 0);
    EXPECT_FALSE(maximise.converged);
    for (int i = 1; i <= estimates.nparm; ++i) EXPECT_EQ(estimates.parvec(i), start(i)) << i;
    for (const std::string& text : {screen_text(), read_file("Iterates")}) {
        EXPECT_NE(text.find("*** (PX-) EM : round lost 49"), std::string::npos) << text;
        EXPECT_NE(text.find(" in log L - taken back\n"), std::string::npos);
        EXPECT_EQ(text.find("has converged"), std::string::npos);
    }
    EXPECT_EQ(iterate_log.ended, "a round that lost log L");
}

TEST_F(em_round_test, correlated_effects_share_a_matrix) {
    small_model m = animal_model(1, {1.3}, {2.1});
    m.random = {{"animal+dam", "NRM", 2, 0, {1.3, 0.2, 0.6}}};
    set_up(m, {"--emalg"});
    expect_em_round(m, residual_form::patterns);
}

TEST_F(em_round_test, sire_model) {
    small_model m = animal_model(1, {1.3}, {2.1}, 0.0, 2);
    std::fill(m.dam.begin(), m.dam.end(), 0); // the rules for sires alone give the relationships of the pedigree
    m.sires = true;
    set_up(m, {"--emalg"});
    expect_em_round(m, residual_form::classes);
}

TEST_F(em_round_test, supplied_inverse) {
    const small_model m = supplied(0);
    set_up_supplied(m, {"--emalg"});
    expect_em_round(m, residual_form::patterns);
}

TEST_F(em_round_test, levels_treated_as_fixed_never_lose_likelihood) {
    small_model m = families(1, 60);
    m.extra = "PSE 0.0\n animal 20\n animal 33\nEND\n";
    set_up(m, {"--emalg"});
    double last = program_logl(estimates.parvec, 1);
    for (int k = 0; k < 10; ++k) {
        const double x = em_rounds(1);
        EXPECT_GT(x, last) << k;
        last = x;
    }
}

// ---- expansion

TEST_F(em_round_test, expansion_of_one_trait_is_a_scalar) {
    const small_model m = animal_model(1, {1.3}, {2.1});
    set_up(m, {"--pxem"});
    ASSERT_TRUE(search_state.method.pxem);
    const before_round b(m);
    const dense want = px_effect(b.a, b.at, b.h, 0, effective_levels(1));
    em_rounds(1);
    ASSERT_TRUE(search_state.method.pxem);
    expect_matrix(point_at(m, estimates.parvec).g[0], want, "expanded");
}

TEST_F(em_round_test, expansions_of_two_effects_are_solved_apart) {
    const small_model m = with_dams();
    set_up(m, {"--pxem"});
    const before_round b(m);
    const dense g1 = px_effect(b.a, b.at, b.h, 0, effective_levels(1)),
                g2 = px_effect(b.a, b.at, b.h, 1, effective_levels(2));
    const dense r = em_residual(b.a, b.at.r[0], b.h);
    em_rounds(1);
    ASSERT_TRUE(search_state.method.pxem);
    const oracle::point after = point_at(m, estimates.parvec);
    expect_matrix(after.g[0], g1, "animals");
    expect_matrix(after.g[1], g2, "dams");
    expect_matrix(after.r[0], r, "residual");
}

TEST_F(em_round_test, expansion_of_random_regressions) {
    const small_model m = growth(true);
    set_up(m, {"--pxem"});
    const before_round b(m);
    const dense g1 = px_effect(b.a, b.at, b.h, 0, effective_levels(1)),
                g2 = px_effect(b.a, b.at, b.h, 1, effective_levels(2));
    em_rounds(1);
    ASSERT_TRUE(search_state.method.pxem);
    const oracle::point after = point_at(m, estimates.parvec);
    expect_matrix(after.g[0], g1, "animals");
    expect_matrix(after.g[1], g2, "repeats");
}

TEST_F(em_round_test, expansion_with_a_supplied_inverse) {
    const small_model m = supplied(0);
    set_up_supplied(m, {"--pxem"});
    const before_round b(m);
    const dense g = px_effect(b.a, b.at, b.h, 0, effective_levels(1));
    em_rounds(1);
    ASSERT_TRUE(search_state.method.pxem);
    expect_matrix(point_at(m, estimates.parvec).g[0], g, "expanded");
}

TEST_F(em_round_test, expanded_rounds_list_what_they_do) {
    set_up(two_traits(), {"--pxem", "-d"});
    em_rounds(1);
    const std::string text = screen_text();
    for (const char* words :
         {" est ", "  rhs ", "\nalpha 1 2 ", "\n var(u*)  1  2", "\ncov 2 2 3 ", "COVS Z 1 1   Old =", " New ="})
        EXPECT_NE(text.find(words), std::string::npos) << words;
}

// A round that seems to have lost is done again without the expansion, from where it began.
std::vector<dense> covariances(const small_model& m) {
    oracle::point p = point_at(m, estimates.parvec);
    p.g.push_back(p.r[0]);
    return p.g;
}

void expect_taken_back(const small_model& m, const std::string& told) {
    set_up(m, {"--emalg"});
    const double want = em_rounds(1);
    const std::vector<dense> plain = covariances(m);
    new_analysis();
    for (const char* f : {"Iterates", "BestPoint"}) std::remove(f);
    set_up(m, {"--pxem", "-v"});
    double x = program_logl(estimates.parvec, 1);
    const double start = x;
    likelihoods.xlast += 500.0; // more than any round can gain
    int iround = 0;
    em_algorithm(1, iround, x, 0.0);
    EXPECT_FALSE(search_state.method.pxem);
    EXPECT_EQ(iround, 1);
    EXPECT_GT(x, start);
    EXPECT_NEAR(x, want, 1.0e-6) << told;
    const auto log = iterates();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].label, "PX");
    EXPECT_EQ(log[1].label, "EM");
    if (options.principal) return; // these go on from the point on file, which the first trial has left there
    const std::vector<dense> got = covariances(m);
    for (std::size_t k = 0; k < plain.size(); ++k) expect_matrix(got[k], plain[k], told.c_str(), 1.0e-8);
}

TEST_F(em_round_test, expanded_round_is_taken_back) {
    expect_taken_back(with_dams(), "full rank");
    EXPECT_NE(screen_text().find("switch to EM algorithm !  "), std::string::npos);
}
TEST_F(em_round_test, expanded_round_of_random_regressions_is_taken_back) {
    expect_taken_back(growth(false), "random regression");
}
TEST_F(em_round_test, expanded_round_of_reduced_rank_is_taken_back) {
    expect_taken_back(components(2), "components");
    EXPECT_NE(screen_text().find("switch to EM algorithm !  "), std::string::npos);
}
TEST_F(em_round_test, expanded_round_of_reduced_rank_with_logarithms_is_taken_back) {
    small_model m = components(2);
    m.random[0].g = {0.3, 0.05, 0.02, 0.35, 0.03, 0.31}; // the order of the pivots moves with the first round
    expect_taken_back(m, "components on logarithms");
}

// ---- principal components

std::vector<dense> factors() {
    std::vector<dense> list;
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        array<double> cc, p = estimates.parvec;
        array<double, 2> vv;
        int ifail = 0;
        parvec2covs(p, irand, 1, cc, vv, ifail);
        list.push_back(oracle::zeros(static_cast<std::size_t>(vv.upper(1)), static_cast<std::size_t>(vv.upper(2))));
        for (int i = 1; i <= vv.upper(1); ++i)
            for (int c = 1; c <= vv.upper(2); ++c)
                list.back()[static_cast<std::size_t>(i - 1)][static_cast<std::size_t>(c - 1)] = vv(i, c);
    }
    return list;
}

// One round: new loadings of the blocks in `moving` by regression, the others and, with the expansion, all by moments.
void expect_principal_round(const small_model& m, const std::vector<std::size_t>& moving, bool expanded) {
    const before_round b(m);
    const std::vector<dense> q0 = factors();
    const oracle::equations e = dense_equations(b.a, b.at, q0);
    std::vector<dense> q = q0;
    if (!moving.empty()) {
        const oracle::regression r = loadings_regression(b.a, b.at, e, moving);
        vec rhs = r.rhs;
        for (std::size_t i = 0; i < rhs.size(); ++i) // less the effects that stay
            for (std::size_t k = 0; k < q0.size(); ++k) {
                if (std::find(moving.begin(), moving.end(), k) != moving.end()) continue;
                const oracle::regression both = loadings_regression(b.a, b.at, e, {r.block[i], k});
                std::size_t row = 0;
                while (both.block[row] != r.block[i] || both.row[row] != r.row[i] || both.col[row] != r.col[i]) ++row;
                for (std::size_t l = 0; l < both.block.size(); ++l)
                    if (both.block[l] == k) rhs[i] -= both.lhs[row][l] * q0[k][both.row[l]][both.col[l]];
            }
        const vec x = oracle::solve(r.lhs, rhs);
        for (std::size_t i = 0; i < x.size(); ++i) q[r.block[i]][r.row[i]][r.col[i]] = x[i];
    }
    em_rounds(1);
    const oracle::point after = point_at(m, estimates.parvec);
    for (std::size_t k = 0; k < q.size(); ++k) {
        const bool by_moments = expanded || std::find(moving.begin(), moving.end(), k) == moving.end();
        dense g = oracle::product(q[k], oracle::transpose(q[k]));
        if (by_moments)
            g = oracle::product(oracle::product(q[k], moments(b.a, e, k, effective_levels(static_cast<int>(k) + 1))),
                                oracle::transpose(q[k]));
        expect_matrix(after.g[k], g, k == 0 ? "first effect" : "second effect", 1.0e-8);
    }
}

TEST_F(em_round_test, full_rank_components_take_the_ordinary_round) {
    const small_model m = components(3);
    set_up(m, {"--emalg"});
    ASSERT_TRUE(options.principal);
    expect_em_round(m, residual_form::patterns);
}

TEST_F(em_round_test, reduced_rank_moves_the_loadings) {
    const small_model m = components(2);
    set_up(m, {"--emalg"});
    expect_principal_round(m, {0}, false);
}

TEST_F(em_round_test, reduced_rank_with_a_second_full_rank_effect) {
    small_model m = components(1);
    m.random.push_back({"dam", "IDE", 3, 3, {0.9, 0.1, 0.0, 0.8, 0.1, 0.7}});
    set_up(m, {"--emalg"});
    expect_principal_round(m, {0}, false);
}

TEST_F(em_round_test, reduced_rank_with_expansion) {
    const small_model m = components(2);
    set_up(m, {"--pxem"});
    ASSERT_TRUE(search_state.method.pxem);
    expect_principal_round(m, {0}, true);
    EXPECT_TRUE(search_state.method.pxem);
}

TEST_F(em_round_test, reduced_rank_random_regression_with_expansion_of_both_effects) {
    const small_model m = growth(true, true);
    set_up(m, {"--pxem"});
    expect_principal_round(m, {0, 1}, true);
}

TEST_F(em_round_test, reduced_rank_with_a_supplied_inverse) {
    const small_model m = supplied(2);
    set_up_supplied(m, {"--emalg"});
    expect_principal_round(m, {0}, false);
}

} // namespace
} // namespace tarvex
