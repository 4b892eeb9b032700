// Repeat effects that have no equations (PEQ), and what makes a point invalid.
#include "control/numbers.h"
#include "control/options.h"
#include "estimation/covs2parvec.h"
#include "estimation/estimates.h"
#include "likelihood/derivatives.h"
#include "likelihood/likelihood.h"
#include "parameters/randomvars.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "support/fixture.h"
#include "support/small_models.h"

#include <cmath>
#include <limits>

namespace tarvex {
namespace {

using repeat_effects_test = tarvex_test;

small_model traits(int nq, int repeats, double missing) {
    small_model m;
    m.nq = nq;
    m.make_pedigree(20, 6, 5);
    m.make_rows(4, repeats, 2, missing, 6);
    if (nq == 1) {
        m.random = {{"animal", "NRM", 1, 0, {1.3}}};
        m.residual = {2.1};
    } else {
        m.random = {{"animal", "NRM", 2, 0, {1.3, 0.5, 1.8}}};
        m.residual = {2.1, 0.2, 1.9};
    }
    return m;
}

void on_original_scale() {
    options.emalgorithm = true;
    covs2parvec();
    forget_likelihoods();
}

void expect_dense(const small_model& m) {
    const double want = dense_logl(m, estimates.parvec);
    EXPECT_NEAR(program_logl(estimates.parvec, 1), want, 1.0e-8 * std::fabs(want));
}

// Covariance of two records by hand: the sum on the diagonal, the repeat matrix between records of a trait, and both
// between records of different traits.
oracle::dense by_hand(const small_model& m, const oracle::dense& e, const oracle::dense& b, const oracle::dense& g) {
    const oracle::analysis a = m.dense();
    oracle::dense v = oracle::zeros(a.obs.size(), a.obs.size());
    for (std::size_t i = 0; i < a.obs.size(); ++i)
        for (std::size_t j = 0; j < a.obs.size(); ++j) {
            const oracle::observation &o = a.obs[i], &w = a.obs[j];
            const auto q = static_cast<std::size_t>(o.trait - 1), p = static_cast<std::size_t>(w.trait - 1);
            const auto k = static_cast<std::size_t>(o.terms[0][0].level - 1);
            const auto l = static_cast<std::size_t>(w.terms[0][0].level - 1);
            v[i][j] = a.a[0][k][l] * g[q][p];
            if (o.subject != w.subject) continue;
            if (i == j)
                v[i][j] += e[q][q] + b[q][q];
            else
                v[i][j] += q == p ? b[q][q] : e[q][p] + 2.0 * b[q][p];
        }
    return v;
}

TEST_F(repeat_effects_test, two_traits_with_repeats_and_missing_records) {
    small_model m = traits(2, 2, 0.2);
    m.random.push_back({"pe", "PEQ", 2, 0, {0.4, 0.1, 0.5}});
    set_up(m);
    EXPECT_EQ(residualvars.ipeq, 2);
    expect_dense(m);
    const oracle::analysis a = m.dense();
    const auto v = by_hand(m, {{2.1, 0.2}, {0.2, 1.9}}, {{0.4, 0.1}, {0.1, 0.5}}, {{1.3, 0.5}, {0.5, 1.8}});
    const double want = oracle::evaluate(a, v).logl;
    EXPECT_NEAR(program_logl(estimates.parvec), want, 1.0e-8 * std::fabs(want));
    on_original_scale();
    EXPECT_NEAR(program_logl(estimates.parvec), want, 1.0e-8 * std::fabs(want));
}

TEST_F(repeat_effects_test, diagonal_repeat_matrix_of_two_traits) {
    small_model m = traits(2, 3, 0.2);
    m.random.push_back({"pe", "PEQ", 2, 0, {0.9, 0.7}, true});
    set_up(m);
    expect_dense(m);
    const auto v = by_hand(m, {{2.1, 0.2}, {0.2, 1.9}}, {{0.9, 0.0}, {0.0, 0.7}}, {{1.3, 0.5}, {0.5, 1.8}});
    const double want = oracle::evaluate(m.dense(), v).logl;
    EXPECT_NEAR(program_logl(estimates.parvec), want, 1.0e-8 * std::fabs(want));
}

// By records: those of one line have both covariances, those of different lines the repeat effect alone.
oracle::reml dense_by_record(const small_model& m, const array<double>& parvec) {
    const oracle::analysis a = m.dense();
    array<double> cc;
    array<double, 2> vv;
    std::vector<oracle::dense> matrix; // residual, animals, repeat effect
    for (int irand = 0; irand <= 2; ++irand) {
        array<double> p = parvec;
        int ifail = 0;
        parvec2covs(p, irand, 1, cc, vv, ifail);
        matrix.push_back({{cc(1), cc(2)}, {cc(2), cc(3)}});
    }
    oracle::dense v = oracle::zeros(a.obs.size(), a.obs.size());
    for (std::size_t i = 0; i < a.obs.size(); ++i)
        for (std::size_t j = 0; j < a.obs.size(); ++j) {
            const oracle::observation &o = a.obs[i], &w = a.obs[j];
            const auto q = static_cast<std::size_t>(o.trait - 1), p = static_cast<std::size_t>(w.trait - 1);
            v[i][j] = matrix[1][q][p] * a.a[0][static_cast<std::size_t>(o.terms[0][0].level - 1)]
                                           [static_cast<std::size_t>(w.terms[0][0].level - 1)];
            if (o.subject != w.subject) continue;
            v[i][j] += matrix[2][q][p];
            if (o.age == w.age) v[i][j] += matrix[0][q][p]; // age numbers the lines of an animal
        }
    return oracle::evaluate(a, v);
}

TEST_F(repeat_effects_test, repeat_effect_by_record) {
    small_model m = traits(2, 3, 0.2);
    m.random.push_back({"pe", "PEQ", 2, 0, {0.9, 0.4, 0.7}, false, true});
    m.residual = {2.1, -0.8, 1.9}; // of the other sign than the repeat effect
    set_up(m);
    const double want = dense_by_record(m, estimates.parvec).logl;
    EXPECT_NEAR(program_logl(estimates.parvec), want, 1.0e-8 * std::fabs(want));
    // the covariances of both are estimable, each by its own slope
    program_logl(estimates.parvec, 1);
    average_info();
    derivatives_mmm();
    jacob_var2chol(0);
    for (int k = 1; k <= estimates.nparm; ++k) {
        const auto logl = [&](double step) {
            array<double> p = estimates.parvec;
            p(k) += step;
            return dense_by_record(m, p).logl;
        };
        const double h = 1.0e-3;
        const double slope = (8.0 * (logl(h) - logl(-h)) - (logl(2.0 * h) - logl(-2.0 * h))) / (12.0 * h);
        EXPECT_NEAR(derivs.der1(k), slope, 1.0e-6 * (1.0 + std::fabs(slope))) << "parameter " << k;
    }
    on_original_scale();
    array<double> p = estimates.parvec;
    p(2) = 0.5;
    p(8) = -0.3;
    const double other = dense_by_record(m, p).logl;
    EXPECT_NEAR(program_logl(p), other, 1.0e-8 * std::fabs(other));
}

// The repeat effect stands first: its parameters follow those of the residual all the same.
TEST_F(repeat_effects_test, repeat_effect_before_the_others) {
    small_model m = traits(1, 3, 0.0);
    m.random.insert(m.random.begin(), {"pe", "PEQ", 1, 0, {0.7}});
    m.random.push_back({"dam", "IDE", 1, 0, {0.6}});
    set_up(m);
    EXPECT_EQ(residualvars.ipeq, 1);
    expect_dense(m);
    small_model same = traits(1, 3, 0.0);
    same.random.insert(same.random.begin(), {"pe", "IDE", 1, 0, {0.7}});
    same.random.push_back({"dam", "IDE", 1, 0, {0.6}});
    oracle::point p;
    p.r = {oracle::dense{{2.1}}};
    p.g = {oracle::dense{{0.7}}, oracle::dense{{1.3}}, oracle::dense{{0.6}}};
    const oracle::analysis a = same.dense();
    EXPECT_NEAR(program_logl(estimates.parvec), oracle::evaluate(a, oracle::variance(a, p)).logl, 1.0e-7);
}

TEST_F(repeat_effects_test, determinant_of_a_repeat_block_is_left_alone) {
    small_model m = traits(1, 3, 0.0);
    m.random.push_back({"pe", "PEQ", 1, 0, {0.7}});
    set_up(m);
    program_logl(estimates.parvec);
    EXPECT_NEAR(randomvars.detg(1), std::log(1.3), 1.0e-12);
    randomvars.detg(2) = 123.0;
    EXPECT_NEAR(program_logl(estimates.parvec, 1), dense_logl(m, estimates.parvec), 1.0e-7);
    EXPECT_EQ(randomvars.detg(2), 123.0);
}

// Two lines of two traits: the covariance holds between every pair, so a correlation above 1/2 makes R indefinite.
TEST_F(repeat_effects_test, two_lines_of_two_traits) {
    small_model m = traits(2, 2, 0.0);
    m.residual = {2.0, 0.9, 2.0};
    set_up(m, {"--emalg"});
    on_original_scale();
    expect_dense(m);
    array<double> p = estimates.parvec;
    p(2) = 1.1;
    const int before = likelihoods.ncall, rows = likelihoods.nlike;
    clear_screen();
    EXPECT_EQ(program_logl(p), invalid_logl);
    EXPECT_NE(screen_text().find("NEGATIVE PIVOT"), std::string::npos);
    EXPECT_EQ(likelihoods.ncall, before);
    EXPECT_EQ(likelihoods.nlike, rows);
    p(2) = 0.9;
    EXPECT_NEAR(program_logl(p, 1), dense_logl(m, p), 1.0e-7); // nothing of the invalid point is left
}

// Two negative pivots give a positive determinant: the point is invalid all the same.
TEST_F(repeat_effects_test, even_number_of_negative_pivots_is_invalid) {
    small_model m = traits(1, 3, 0.0);
    m.random.push_back({"pe", "PEQ", 1, 0, {0.7}});
    set_up(m, {"--emalg"});
    on_original_scale();
    array<double> p = estimates.parvec;
    p(1) = 1.0;
    p(2) = 1.5; // eigenvalues -0.5, -0.5 and 4
    EXPECT_EQ(program_logl(p), invalid_logl);
}

// A direction that vanishes is no ridge any more: the point must not look better than the boundary.
TEST_F(repeat_effects_test, vanishing_variance_never_passes_the_boundary) {
    small_model m;
    m.randreg = true;
    m.make_pedigree(14, 5, 7);
    m.make_rows(3, 4, 2, 0.0, 8);
    m.random = {{"animal", "NRM", 2, 0, {2.0, 0.0, 0.5}}};
    m.residual = {1.2};
    set_up(m, {"--emalg"});
    on_original_scale();
    oracle::analysis a = m.dense();
    oracle::point at = point_at(m, estimates.parvec);
    at.g[0] = {{2.0, 0.0}, {0.0, 0.0}};
    const double boundary = oracle::evaluate(a, oracle::variance(a, at)).logl;
    int invalid = 0;
    for (double slope = 1.0e-2; slope > 1.0e-12; slope *= 0.1) {
        array<double> p = estimates.parvec;
        p(2) = 2.0;
        p(3) = 0.0;
        p(4) = slope;
        const double x = program_logl(p);
        EXPECT_LT(x, boundary + 0.5) << slope;
        if (x == invalid_logl)
            ++invalid;
        else
            EXPECT_NEAR(x, dense_logl(m, p), 1.0e-6) << slope;
    }
    RecordProperty("invalid", invalid);
}

// Eigenvalues below 1e-6 are left out of inverse and determinant, and the block is marked.
TEST_F(repeat_effects_test, block_with_a_vanishing_eigenvalue_is_a_generalised_inverse) {
    small_model m = traits(2, 1, 0.2);
    set_up(m, {"--aireml", "--noreord", "--nologd"});
    array<double> p = estimates.parvec;
    p(4) = 1.0;
    p(5) = 2.0;
    p(6) = 1.0e-5; // G = (1 2; 2 4) and next to nothing: eigenvalues 5 and 2e-11
    int ifail = 0;
    g_inverse(p, ifail);
    EXPECT_EQ(ifail, 0);
    EXPECT_EQ(randomvars.deficient(1), 1);
    EXPECT_TRUE(any_deficient());
    EXPECT_NEAR(randomvars.detg(1), std::log(5.0), 1.0e-6);
    EXPECT_NEAR(randomvars.zig(1, 1, 1), 1.0 / 25.0, 1.0e-6);
    EXPECT_NEAR(randomvars.zig(1, 2, 1), 2.0 / 25.0, 1.0e-6);
    EXPECT_NEAR(randomvars.zig(2, 2, 1), 4.0 / 25.0, 1.0e-6);
    EXPECT_EQ(program_logl(p), invalid_logl);
    EXPECT_LT(program_logl(estimates.parvec), 0.0);
    EXPECT_FALSE(any_deficient());
}

TEST_F(repeat_effects_test, diagonal_block_with_a_vanishing_variance) {
    small_model m = traits(2, 1, 0.2);
    m.random.push_back({"dam", "IDE", 2, 0, {0.5, 0.8}, true});
    set_up(m, {"--aireml", "--noreord", "--nologd"});
    array<double> p = estimates.parvec;
    p(8) = 1.0e-5;
    EXPECT_EQ(program_logl(p), invalid_logl);
    EXPECT_EQ(randomvars.deficient(2), 1);
    EXPECT_NEAR(randomvars.detg(2), std::log(0.5), 1.0e-9);
    EXPECT_NEAR(randomvars.zig(1, 1, 2), 2.0, 1.0e-9);
    EXPECT_EQ(randomvars.zig(2, 2, 2), 0.0);
}

TEST_F(repeat_effects_test, value_that_is_not_a_number_is_invalid) {
    const small_model m = traits(1, 1, 0.0);
    set_up(m);
    program_logl(estimates.parvec);
    array<double> p = estimates.parvec;
    p(2) = std::nan("");
    EXPECT_EQ(program_logl(p), invalid_logl);
    p(2) = std::numeric_limits<double>::infinity();
    EXPECT_EQ(program_logl(p), invalid_logl);
    EXPECT_EQ(likelihoods.nlike, 1);
}

} // namespace
} // namespace tarvex
