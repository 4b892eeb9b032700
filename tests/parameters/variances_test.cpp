#include "estimation/covs2parvec.h"
#include "parameters/variances.h"
#include "parameters/zeropattern.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "dense/numroutines.h"
#include "estimation/bestpoint.h"
#include "parameters/residualvars.h"
#include "parfile/model.h"
#include "parfile/mudmap_build.h"
#include "parfile/readparfile.h"
#include "support/em_fixture.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

namespace tarvex {
namespace {

using variances_test = tarvex_test;

struct block {
    array<double> cc;
    array<double, 2> vv;
    int ifail = 0;
    explicit block(int irand, array<double>& parvec = estimates.parvec, int step = 1) {
        parvec2covs(parvec, irand, step, cc, vv, ifail);
    }
};

void expect_covs(int irand, const std::vector<double>& want, double tolerance = 1.0e-12) {
    const block b(irand);
    for (std::size_t k = 0; k < want.size(); ++k) EXPECT_NEAR(b.cc(k + 1), want[k], tolerance) << irand << ": " << k;
}

TEST_F(variances_test, rank_one_of_three_has_three_parameters_and_six_covariances) {
    const small_model m = components(1);
    set_up(m, {"--aireml"});
    EXPECT_EQ(estimates.nnparm(1), 3);
    EXPECT_EQ(estimates.ncov, 12);
    EXPECT_EQ(estimates.nparm, 9);
    EXPECT_EQ(estimates.paraform(0), par_scale::cholesky);
    EXPECT_EQ(estimates.parnames(7), "CHOL A 1 1");
    EXPECT_EQ(estimates.parnames(9), "CHOL A 1 3");
    const block b(1); // the leading column of the pivoted factor
    EXPECT_EQ(estimates.cholorder(1, 1), 2);
    EXPECT_NEAR(b.cc(ihmssf(2, 2, 3)), 1.8, 1.0e-12);
    EXPECT_NEAR(b.cc(ihmssf(1, 2, 3)), 0.5, 1.0e-12);
    EXPECT_NEAR(b.cc(ihmssf(1, 1, 3)), 0.25 / 1.8, 1.0e-12);
    EXPECT_NEAR(program_logl(estimates.parvec), dense_logl(m, estimates.parvec), 1.0e-7);
}

TEST_F(variances_test, list_of_covariances_shows_the_given_matrix) {
    set_up(components(1), {"--aireml"});
    const std::string list = read_file(filenames.covlstfile);
    EXPECT_NE(list.find("   7  COVS A 1 1"), std::string::npos) << list;
    EXPECT_NE(list.find("1.3000000"), std::string::npos);
    EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 12);
}

TEST_F(variances_test, scale_follows_the_algorithm) {
    set_up(two_traits(), {"--aireml"});
    EXPECT_EQ(estimates.paraform(0), par_scale::variance);
    EXPECT_EQ(estimates.parnames(4), "CHOL A 1 1");
    EXPECT_EQ(estimates.parnames(5), "CHOL A 1 2");
    expect_covs(1, {1.3, 0.5, 1.8});
    options.emalgorithm = true;
    covs2parvec();
    EXPECT_EQ(estimates.paraform(1), par_scale::original);
    EXPECT_EQ(estimates.parnames(5), "COVS A 1 2");
    EXPECT_EQ(estimates.parvec(5), 0.5);
    new_analysis();
    std::filesystem::remove("nrminvers1.bin"); // comes without the inbreeding coefficients that components need
    set_up(components(2), {"--emalg"});
    EXPECT_EQ(estimates.paraform(0), par_scale::original);
    EXPECT_EQ(estimates.paraform(1), par_scale::cholesky);
}

TEST_F(variances_test, residual_by_classes_is_labelled_by_class) {
    set_up(growth(true), {"--aireml"});
    EXPECT_EQ(estimates.nresparm, 3);
    EXPECT_EQ(estimates.parnames(3), "CHOL Z 1 1 3");
    EXPECT_EQ(estimates.covnames(2), "COVS Z 1 1 2");
}

TEST_F(variances_test, residual_function_leaves_an_empty_block) {
    set_up(growth(true), {"--aireml"});
    model.me_type = residual_kind::fun;
    estimates = {};
    covs2parvec();
    EXPECT_EQ(estimates.nresparm, 0);
    EXPECT_EQ(estimates.nparm, 6);
    EXPECT_EQ(block_start(1), 1);
    EXPECT_EQ(estimates.parnames(1).substr(0, 6), "CHOL A");
}

TEST_F(variances_test, large_and_small_logarithms_are_written_back) {
    set_up(two_traits(), {"--aireml", "--logdia"});
    ASSERT_EQ(estimates.logdiagonals(1), 1);
    EXPECT_NEAR(estimates.parvec(4), 0.5 * std::log(1.8), 1.0e-12);
    expect_covs(1, {1.3, 0.5, 1.8});
    estimates.parvec(4) = 23.0;
    estimates.parvec(6) = -12.0;
    block b(1);
    EXPECT_EQ(estimates.parvec(4), 22.0);
    EXPECT_EQ(estimates.parvec(6), -9.0);
}

TEST_F(variances_test, nothing_switches_where_logarithms_are_barred) {
    small_model m = two_traits();
    m.random[0].g = {0.01, 0.0, 0.02};
    set_up(m, {"--aireml", "--nologd"});
    EXPECT_EQ(estimates.logdiagonals(1), 0);
    estimates.parvec(4) = 0.0;
    estimates.parvec(6) = -1.0e-9;
    block b(1);
    EXPECT_EQ(estimates.parvec(4), 1.0e-4);
    EXPECT_EQ(estimates.parvec(6), -1.0e-4);
    EXPECT_EQ(estimates.switchlog(1), 0);
}

TEST_F(variances_test, small_diagonals_turn_the_block_at_the_start_and_ask_during_the_run) {
    small_model m = two_traits();
    m.random[0].g = {0.39, 0.0, 0.5}; // roots 0.6245 and 0.707
    set_up(m, {"--aireml"});
    EXPECT_EQ(estimates.logdiagonals(1), 1);
    EXPECT_EQ(estimates.logdiagonals(0), 0);
    new_analysis();
    m.random[0].g = {0.4, 0.0, 0.5};
    set_up(m, {"--aireml"});
    EXPECT_EQ(estimates.logdiagonals(1), 0);
    { block b(1); }
    EXPECT_EQ(estimates.switchlog(1), 0);
    estimates.parvec(4) = 0.24;
    { block b(1); }
    EXPECT_EQ(estimates.switchlog(1), 1);
    { block b(0); }
    EXPECT_EQ(estimates.switchlog(1), 1) << "another block clears only its own mark";
}

TEST_F(variances_test, looking_at_a_point_leaves_it_and_the_marks_alone) {
    set_up(two_traits(), {"--aireml"});
    array<double> point = estimates.parvec;
    const int first = block_start(1), residual = block_start(0);
    point(first) = 0.1;       // asks for logarithms where it is evaluated
    point(residual) = 1.0e-9; // clamped there
    const array<double> before = point;
    const block_at_point a = covariances_at(point, 1), r = covariances_at(point, 0);
    EXPECT_TRUE(a.finite && r.finite);
    for (int k = 1; k <= estimates.nparm; ++k) EXPECT_EQ(point(k), before(k)) << k;
    EXPECT_EQ(estimates.switchlog(1), 0);
    EXPECT_EQ(estimates.switchlog(0), 0);
    const block evaluated(1, point), clamped(0, point); // the same matrices, with their traces
    EXPECT_TRUE(std::equal(a.cc.begin(), a.cc.end(), evaluated.cc.begin(), evaluated.cc.end()));
    EXPECT_TRUE(std::equal(r.cc.begin(), r.cc.end(), clamped.cc.begin(), clamped.cc.end()));
    EXPECT_TRUE(std::equal(r.vv.begin(), r.vv.end(), clamped.vv.begin(), clamped.vv.end()));
    EXPECT_EQ(estimates.switchlog(1), 1);
    EXPECT_EQ(point(residual), std::sqrt(numbers.zero));
    point(first) = std::nan("");
    EXPECT_FALSE(covariances_at(point, 1).finite);
    diagonals_to_logs(1, estimates.parvec);
    estimates.logpar.fill(0);
    covariances_at(estimates.parvec, 1);
    EXPECT_EQ(estimates.logpar(first), 0);
    { const block marked(1); }
    EXPECT_EQ(estimates.logpar(first), 1);
}

TEST_F(variances_test, switch_to_logarithms_keeps_the_matrix_of_a_negative_diagonal) {
    const small_model m = two_traits();
    set_up(m, {"--aireml"});
    estimates.parvec(4) = -0.2;
    estimates.parvec(5) = 0.5;
    bestpoint.parbest = estimates.parvec;
    const std::vector<double> before = [] {
        block b(1);
        return std::vector<double>{b.cc(1), b.cc(2), b.cc(3)};
    }();
    const double x = program_logl(estimates.parvec);
    switch_to_logs(1);
    EXPECT_EQ(estimates.logdiagonals(1), 1);
    expect_covs(1, before);
    EXPECT_NEAR(program_logl(estimates.parvec), x, 1.0e-9);
    EXPECT_EQ(bestpoint.parbest(4), estimates.parvec(4));
    EXPECT_EQ(bestpoint.parbest(5), -0.5);
}

// The table of evaluations knows points by their numbers alone.
TEST_F(variances_test, switch_to_logarithms_makes_the_same_numbers_another_point) {
    set_up(two_traits(), {"--aireml"});
    bestpoint.parbest = estimates.parvec;
    const array<double> numbers_before = estimates.parvec;
    const double x = program_logl(numbers_before);
    switch_to_logs(1);
    EXPECT_GT(std::fabs(program_logl(numbers_before) - x), 0.1);
    EXPECT_NEAR(program_logl(estimates.parvec), x, 1.0e-9);
}

TEST_F(variances_test, traits_never_together_have_no_residual_covariance) {
    small_model m = two_traits();
    for (auto& r : m.rows) r.y[r.animal % 2 ? 0 : 1] = -999.0;
    set_up(m, {"--aireml"});
    expect_covs(0, {2.1, 0.0, 1.9});
    EXPECT_EQ(residualvars.fixres(2), 1);
    EXPECT_EQ(residualvars.fixres(1), 0);
    EXPECT_EQ(estimates.paraform(0), par_scale::variance); // no earlier trait is linked to them
    EXPECT_EQ(estimates.parvec(2), 0.0);
}

// Eigenvalues that are cut off alike leave a covariance of 0 in mid-search, which goes on as a parameter.
TEST_F(variances_test, only_residual_covariances_given_as_zero_are_held) {
    for (const bool given : {false, true}) {
        new_analysis();
        small_model m = two_traits();
        m.residual[1] = given ? 0.0 : 0.4;
        set_up(m, {"--aireml"});
        model.cov(2, 0) = 0.0;
        parvec_from_covs(false, 0.0);
        EXPECT_EQ(residualvars.fixres(2), given ? 1 : 0);
        expect_covs(0, {2.1, 0.0, 1.9});
        EXPECT_EQ(no_fixed_residuals(), given ? 1 : 0);
        const double x = program_logl(estimates.parvec);
        array<double> p = estimates.parvec;
        p(2) += 0.1;
        EXPECT_TRUE(given || std::fabs(program_logl(p) - x) > 1.0e-3);
    }
}

// Traits 2 and 3 never meet, each of them meets trait 1: a factor that begins with trait 2 or 3 keeps the zero.
TEST_F(variances_test, zero_pattern_is_kept_by_the_order_of_pivots) {
    small_model m = components(3);
    m.principal = false;
    for (auto& r : m.rows) {
        r.y = {r.y[0] == -999.0 ? 11.0 : r.y[0], 20.0 + r.animal % 3, 30.0 + r.animal % 5};
        r.y[r.animal % 2 ? 1 : 2] = -999.0;
    }
    set_up(m, {"--aireml"});
    EXPECT_EQ(estimates.paraform(0), par_scale::variance);
    EXPECT_EQ(residualvars.fixres(5), 1);
    EXPECT_EQ(estimates.cholorder(1, 0), 2); // 2.1, 1.9, 1.5: the largest of those that may begin
    expect_covs(0, {2.1, 0.4, 0.1, 1.9, 0.0, 1.5});
    std::mt19937 rng(7);
    std::normal_distribution<double> normal;
    for (int k = 0; k < 20; ++k) { // nor can a step leave the space, or the zero
        array<double> p = estimates.parvec;
        for (int i = 1; i <= 6; ++i)
            if (estimates.ispar(i)) p(i) += normal(rng);
        const array<double> cc = covariances_at(p, 0).cc;
        EXPECT_EQ(cc(5), 0.0);
        EXPECT_GT(cc(1), 0.0);
        EXPECT_GT(cc(1) * cc(4) - cc(2) * cc(2), 0.0);
        EXPECT_GT(cc(1) * cc(4) * cc(6) - cc(6) * cc(2) * cc(2) - cc(4) * cc(3) * cc(3), 0.0);
        EXPECT_NEAR(program_logl(p), dense_logl(m, p), 1.0e-7 * std::fabs(program_logl(p)));
    }
}

// Zeros around a ring of four: whatever pivot begins, its neighbours have a covariance of 0.
small_model ring() {
    small_model m = animal_model(4, {1.3, 0.5, 0.2, 0.1, 1.8, 0.3, 0.2, 1.1, 0.2, 1.2},
                                 {2.1, 0.4, 0.0, 0.3, 1.9, 0.3, 0.0, 1.5, 0.2, 1.7});
    return m;
}

TEST_F(variances_test, zero_pattern_that_no_order_keeps_is_kept_by_a_completed_factor) {
    const small_model m = ring();
    set_up(m, {"--aireml"});
    EXPECT_EQ(estimates.paraform(0), par_scale::variance);
    EXPECT_FALSE(residualvars.pivot_zeros);
    EXPECT_TRUE(residualvars.filled);
    EXPECT_EQ(residualvars.fixres(3), 1); // 1 and 3
    EXPECT_EQ(residualvars.fixres(7), 1); // 2 and 4
    EXPECT_EQ(std::count(estimates.ispar.begin(), estimates.ispar.end(), 0), 2);
    EXPECT_EQ(estimates.cholorder(1, 0), 1); // pivots by size: 2.1, 1.9, 1.7, 1.5
    expect_covs(0, {2.1, 0.4, 0.0, 0.3, 1.9, 0.3, 0.0, 1.5, 0.2, 1.7});
    std::mt19937 rng(8);
    std::normal_distribution<double> normal;
    for (int k = 0; k < 20; ++k) { // nor can a step leave the space, or the zeros
        array<double> p = estimates.parvec;
        for (int i = 1; i <= 10; ++i)
            if (estimates.ispar(i)) p(i) += 0.5 * normal(rng);
        const block_at_point at = covariances_at(p, 0);
        EXPECT_EQ(at.cc(3), 0.0);
        EXPECT_EQ(at.cc(7), 0.0);
        const array<double, 2> a = unpack(at.cc.prefix(10), 4);
        array<double, 2> vectors;
        array<double> eig;
        int nzero = 0;
        eigem(a, eig, vectors, 4, 0.0, nzero);
        EXPECT_GT(eig(4), 0.0);
        for (int i = 1; i <= 4; ++i)
            for (int j = 1; j <= 4; ++j) {
                double s = 0.0;
                for (int c = 1; c <= 4; ++c) s += at.vv(i, c) * at.vv(j, c);
                EXPECT_NEAR(s, a(i, j), 1.0e-12) << i << j;
            }
        EXPECT_NEAR(program_logl(p), dense_logl(m, p), 1.0e-7 * std::fabs(program_logl(p)));
    }
}

TEST_F(variances_test, orders_of_pivots_exist_for_chordal_patterns_only) {
    const auto pattern = [](int n, const std::vector<std::pair<int, int>>& zeros) {
        zero_pattern z{n, std::vector<char>(static_cast<std::size_t>(n) * static_cast<std::size_t>(n), 0)};
        for (const auto& [i, j] : zeros)
            z.zero[static_cast<std::size_t>((i - 1) * n + j - 1)] =
                z.zero[static_cast<std::size_t>((j - 1) * n + i - 1)] = 1;
        return z;
    };
    EXPECT_TRUE(order_exists(pattern(3, {})));
    EXPECT_TRUE(order_exists(pattern(3, {{1, 2}, {1, 3}, {2, 3}})));
    EXPECT_TRUE(order_exists(pattern(4, {{1, 3}, {1, 4}, {2, 4}})));                  // a chain
    EXPECT_FALSE(order_exists(pattern(4, {{1, 3}, {2, 4}})));                         // a ring of four
    EXPECT_FALSE(order_exists(pattern(5, {{1, 3}, {1, 4}, {2, 4}, {2, 5}, {3, 5}}))); // of five
    EXPECT_FALSE(order_exists(pattern(5, {{1, 4}, {2, 4}, {2, 5}, {3, 5}})));         // with one chord, four are left
    EXPECT_TRUE(order_exists(pattern(5, {{2, 4}, {2, 5}, {3, 5}})));
}

TEST_F(variances_test, rebuild_may_change_the_pivot_order) {
    set_up(two_traits(), {"--aireml"});
    EXPECT_EQ(estimates.cholorder(1, 1), 2);
    model.cov(1, 1) = 3.0;
    covs2parvec();
    EXPECT_EQ(estimates.cholorder(1, 1), 1);
    expect_covs(1, {3.0, 0.5, 1.8});
}

TEST_F(variances_test, order_of_the_matrix_without_pivoting) {
    set_up(two_traits(), {"--aireml", "--noreord"});
    EXPECT_EQ(estimates.cholorder(1, 1), 1);
    EXPECT_NEAR(estimates.parvec(4), std::sqrt(1.3), 1.0e-12);
    expect_covs(1, {1.3, 0.5, 1.8});
}

TEST_F(variances_test, starting_matrices_must_be_positive_definite) {
    small_model m = two_traits();
    m.random[0].g = {1.0, 2.0, 1.0};
    for (const char* plan : {"--aireml", "--emalg"}) {
        new_analysis();
        EXPECT_STOP(set_up(m, {plan}),
                    "***** Routine \"CHOLESKY\": negative/small pivot encountered\n"
                    "      Random effect no. = 1\n      No. of effects    = 2\n      Pivot no.         = 2 -3.0\n"
                    "Matrix of starting values is \"invalid\" \n"
                    " - change, making sure matrix is positive definite !\n"
                    "   (check that UPPER triangle of matrix is given)\nexit");
    }
}

TEST_F(variances_test, each_residual_class_must_start_with_a_positive_variance) {
    for (const std::size_t iclass : {0, 1, 2})
        for (const char* plan : {"--aireml", "--emalg"}) {
            small_model m = growth(true);
            m.residual[iclass] = -0.7;
            new_analysis();
            EXPECT_STOP(set_up(m, {plan}), "Matrix of starting values is \"invalid\" \n");
        }
}

// Of a class of records of two traits the matrix counts, not its variances alone. (The phases fit one trait; a matrix
// of two is put in their place.)
TEST_F(variances_test, indefinite_matrix_of_a_class_is_invalid) {
    set_up(two_traits(), {"--emalg"});
    ASSERT_EQ(estimates.paraform(0), par_scale::original);
    model.anal_type = 3;
    options.randreg = options.blup = true; // matrices are taken as they are
    array<double> p = estimates.parvec;
    const double bound = std::sqrt(p(1) * p(3));
    for (const double share : {0.0, 0.9, -0.9, 1.1, -1.1, 3.0}) {
        p(2) = share * bound;
        int ifail = 0;
        rinverse(p, ifail);
        EXPECT_EQ(ifail != 0, std::fabs(share) > 1.0) << share;
    }
    p(1) = p(3) = -2.0; // of a positive determinant
    p(2) = 0.5;
    int ifail = 0;
    rinverse(p, ifail);
    EXPECT_NE(ifail, 0);
}

TEST_F(variances_test, starting_variances_below_the_operational_zero_are_named) {
    small_model m = two_traits();
    m.random[0].g = {1.0e-9, 0.0, 1.0};
    for (const char* plan : {"--aireml", "--emalg"}) {
        new_analysis();
        EXPECT_STOP(set_up(m, {plan}),
                    "(check that UPPER triangle of matrix is given)\n"
                    "   Starting variance below the operational zero : \"animal\", no. 1 : 1e-09\nexit");
    }
    new_analysis();
    m = two_traits();
    m.residual = {2.1, 0.0, 1.0e-10};
    EXPECT_STOP(set_up(m), "   Starting variance below the operational zero : \"residual\", no. 2 : 1e-10\nexit");
}

TEST_F(variances_test, small_eigenvalues_are_raised_in_the_matrix_only) {
    set_up(two_traits(), {"--emalg"});
    for (int k = 4; k <= 6; ++k) estimates.parvec(k) = 1.0;
    const block b(1);
    EXPECT_EQ(b.ifail, 0);
    EXPECT_EQ(estimates.parvec(5), 1.0);
    EXPECT_NEAR(b.cc(1), 1.0 + 0.5e-4, 1.0e-10); // (1,1) keeps 2, (1,-1) gets 1e-4
    EXPECT_NEAR(b.cc(2), 1.0 - 0.5e-4, 1.0e-10);
}

TEST_F(variances_test, repeat_effect_makes_the_residual_block_a_sum) {
    set_up(repeats_with_peq(), {"--emalg"});
    EXPECT_EQ(estimates.npeqparm, 1);
    EXPECT_EQ(estimates.nrespeq, 2);
    EXPECT_NEAR(estimates.parvec(1), 2.8, 1.0e-12);
    EXPECT_EQ(estimates.parvec(2), 0.7);
    EXPECT_EQ(block_start(1), 3);
    EXPECT_EQ(block_start(2), 2);
}

TEST_F(variances_test, diagonal_block_holds_logarithms_in_the_order_of_the_matrix) {
    small_model m = with_dams();
    m.random[1] = {"dam", "IDE", 2, 0, {0.9, 0.8}, true};
    set_up(m, {"--aireml"});
    EXPECT_TRUE(options.principal);
    EXPECT_EQ(estimates.nnparm(2), 2);
    EXPECT_NEAR(estimates.parvec(7), 0.5 * std::log(0.9), 1.0e-12);
    EXPECT_NEAR(estimates.parvec(8), 0.5 * std::log(0.8), 1.0e-12);
    expect_covs(2, {0.9, 0.0, 0.8});
    EXPECT_NEAR(program_logl(estimates.parvec), dense_logl(m, estimates.parvec), 1.0e-7);
}

// ---- best point

class best_point_test : public tarvex_test {
protected:
    static void write_point(const std::string& records) { write_file("BestPoint", records + bestpoint_sums(records)); }
    void SetUp() override {
        set_up(two_traits(), {"--aireml"});
        bestpoint.parbest = estimates.parvec;
        bestpoint.xbest = -123.25;
    }
};

TEST_F(best_point_test, writes_covariances_whatever_the_scale) {
    writebestpoint(0);
    std::istringstream in(read_file("BestPoint"));
    double x = 0.0, v = 0.0;
    int n = 0;
    in >> x >> n;
    EXPECT_EQ(x, -123.25);
    EXPECT_EQ(n, 6);
    for (double want : {2.1, 0.4, 1.9, 1.3, 0.5, 1.8}) {
        in >> v;
        EXPECT_NEAR(v, want, 1.0e-14);
    }
}

TEST_F(best_point_test, values_return_to_the_bit) {
    std::vector<double> covs;
    for (int irand = 0; irand <= 1; ++irand)
        for (double x : best_covariances(irand)) covs.push_back(x);
    bestpoint.xbest = -1234.5678901234567;
    writebestpoint(0);
    ASSERT_TRUE(readbestpoint(true));
    EXPECT_EQ(bestpoint.xlike_file, bestpoint.xbest);
    for (int k = 1; k <= 6; ++k)
        EXPECT_EQ(model.cov((k - 1) % 3 + 1, (k - 1) / 3), covs[static_cast<std::size_t>(k - 1)]) << k;
    new_analysis();
    set_up(two_traits(), {"-c", "--emalg"}); // on the scale of the matrices the parameters are the values of the file
    ASSERT_EQ(estimates.paraform(1), par_scale::original);
    for (int k = 1; k <= 6; ++k) EXPECT_EQ(estimates.parvec(k), covs[static_cast<std::size_t>(k - 1)]) << k;
    bestpoint.xbest = -1234.5678901234567;
    const std::string before = read_file("BestPoint");
    writebestpoint(0);
    EXPECT_EQ(read_file("BestPoint"), before);
}

TEST_F(best_point_test, open_unit_takes_the_same_records) {
    text_out all;
    ASSERT_TRUE(all.open("Estimates"));
    writebestpoint(3, &all);
    writebestpoint(1000, &all); // neither file nor unit
    all.close();
    const std::string records = read_file("Estimates");
    EXPECT_EQ(records + bestpoint_sums(records), read_file("BestPoint003"));
}

TEST_F(best_point_test, numbered_copies) {
    for (int round : {1, 10, 999, 1000}) writebestpoint(round);
    EXPECT_TRUE(std::filesystem::exists("BestPoint001"));
    EXPECT_TRUE(std::filesystem::exists("BestPoint010"));
    EXPECT_TRUE(std::filesystem::exists("BestPoint999"));
    EXPECT_FALSE(std::filesystem::exists("BestPoint1000"));
    EXPECT_FALSE(std::filesystem::exists("BestPoint"));
}

TEST_F(best_point_test, reads_what_was_written_and_says_so) {
    writebestpoint(0);
    model.cov(1, 1) = 99.0;
    EXPECT_TRUE(readbestpoint(false));
    EXPECT_NEAR(model.cov(1, 1), 1.3, 1.0e-14);
    EXPECT_EQ(bestpoint.xlike_file, -123.25);
    EXPECT_NE(
        screen_text().find("\"BestPoint\" from previous run  successfully read\n maximum of log L so far = -123.25\n"),
        std::string::npos);
}

TEST_F(best_point_test, foreign_short_or_missing_files_change_nothing) {
    for (const char* text : {"", "-1.0", "-1.0 7\n1 0 1\n1 0 1\n", "-1.0 6\n1 0 1\n1 0\n", "x 6\n1 0 1 1 0 1\n",
                             "-1.0 6\n1 0 1\n1 0 z\n"}) {
        write_point(text);
        EXPECT_FALSE(readbestpoint(true)) << text;
        EXPECT_EQ(model.cov(1, 1), 1.3) << text;
        EXPECT_EQ(bestpoint.xlike_file, invalid_logl) << text;
    }
    std::filesystem::remove("BestPoint");
    EXPECT_FALSE(readbestpoint(true));
}

TEST_F(best_point_test, numbers_may_stand_on_any_lines) {
    write_point("-1.5\n6 1.0 0.1\n1.0 2.0\n0.2\n\n3.0\n");
    EXPECT_TRUE(readbestpoint(true));
    EXPECT_EQ(model.cov(2, 0), 0.1);
    EXPECT_EQ(model.cov(3, 1), 3.0);
}

TEST_F(best_point_test, any_file_serves_before_the_parameters_are_counted) {
    write_point("-1.5 99\n1.0 0.1 1.0\n2.0 0.2 3.0\n");
    EXPECT_FALSE(readbestpoint(true));
    estimates.nparm = 0;
    EXPECT_TRUE(readbestpoint(true));
}

TEST_F(best_point_test, continued_run_starts_there) {
    write_point("-100000.5 6\n2.5 0.3 2.0\n1.0 0.2 1.5\n");
    new_analysis();
    set_up(two_traits(), {"-c"});
    EXPECT_EQ(bestpoint.xlike_file, -100000.5);
    EXPECT_NEAR(point_at(two_traits(), estimates.parvec).g[0][0][0], 1.0, 1.0e-12);
    const double there = program_logl(estimates.parvec);
    get_estimates();
    std::istringstream first(read_file("Iterates")), second(read_file("BestPoint"));
    std::string method, round;
    double x = 0.0, y = 0.0;
    first >> method >> round >> x;
    second >> y;
    EXPECT_NEAR(x, there, 1.0e-3); // by its three decimals
    EXPECT_EQ(y, bestpoint.xbest);
    EXPECT_GT(y, there);
}

// A value that no run of this model reaches, as from another scale of the parameters: the file stays.
TEST_F(best_point_test, continued_run_that_ends_below_its_point_leaves_it_in_place) {
    write_point("-1.5 6\n2.5 0.3 2.0\n1.0 0.2 1.5\n");
    const std::string stored = read_file("BestPoint");
    new_analysis();
    set_up(two_traits(), {"-c", "--emalg3"});
    get_estimates();
    EXPECT_LT(bestpoint.xbest, -1.5);
    EXPECT_EQ(read_file("BestPoint"), stored);
    EXPECT_NE(screen_text().find("\"BestPoint\" keeps the better point of the run before : log L = -1.5\n"),
              std::string::npos)
        << screen_text();
}

TEST_F(best_point_test, matrices_of_a_best_point_need_no_positive_pivots) {
    write_point("-1.5 6\n2.5 0.3 2.0\n1.0 1.0 1.0\n");
    ASSERT_TRUE(readbestpoint(true));
    covs2parvec(); // rank 1: no stop
    EXPECT_NEAR(point_at(two_traits(), estimates.parvec).g[0][0][1], 1.0, 1.0e-7);
}

TEST_F(best_point_test, diagonal_blocks_are_stored_as_variances_and_repeats_apart) {
    new_analysis();
    small_model m = with_dams();
    m.random[1] = {"dam", "IDE", 2, 0, {0.9, 0.8}, true};
    set_up(m, {"--aireml"});
    EXPECT_EQ(best_covariances(2).size(), 2u);
    EXPECT_NEAR(best_covariances(2)[1], 0.8, 1.0e-12);
    new_analysis();
    set_up(repeats_with_peq(2), {"--aireml"});
    EXPECT_NEAR(best_covariances(0)[0], 2.1, 1.0e-12);
    EXPECT_NEAR(best_covariances(0)[1], 0.4, 1.0e-12);
    EXPECT_NEAR(best_covariances(2)[1], 0.1, 1.0e-12);
    new_analysis();
    set_up(components(2), {"--aireml"});
    EXPECT_EQ(best_covariances(1).size(), 6u);
}

TEST_F(best_point_test, continued_run_of_repeat_effects_returns_to_the_same_likelihood) {
    new_analysis();
    set_up(repeats_with_peq(2), {"--emalg4"});
    get_estimates();
    const double x = bestpoint.xbest;
    new_analysis();
    set_up(repeats_with_peq(2), {"-c", "--aireml"});
    EXPECT_NEAR(program_logl(estimates.parvec), x, 1.0e-6);
}

// Whatever the model and the scale, the matrices on file give the likelihood on file.
TEST_F(best_point_test, continued_runs_start_at_the_stored_likelihood) {
    small_model diagonal = with_dams();
    diagonal.random[1] = {"dam", "IDE", 2, 0, {0.9, 0.8}, true};
    small_model correlated = animal_model(1, {1.3}, {2.1});
    correlated.random = {{"animal+dam", "NRM", 2, 0, {1.3, 0.2, 0.6}}};
    small_model apart = two_traits();
    for (auto& r : apart.rows) r.y[r.animal % 2 ? 0 : 1] = -999.0;
    const std::vector<small_model> models{
        families(1),        with_dams(),         components(1), components(2), growth(true),
        growth(true, true), repeats_with_peq(2), diagonal,      correlated,    apart};
    for (std::size_t k = 0; k < models.size(); ++k) {
        for (const auto& entry : std::filesystem::directory_iterator(".")) std::filesystem::remove(entry.path());
        new_analysis();
        set_up(models[k], {"--pxai2,2"});
        get_estimates();
        const double x = bestpoint.xbest;
        const std::string stored = read_file("BestPoint");
        for (const char* next : {"--aireml", "--emalg", "--logdia"}) {
            SCOPED_TRACE(std::to_string(k) + " " + next);
            write_file("BestPoint", stored);
            new_analysis();
            set_up(models[k], {"-c", next});
            EXPECT_EQ(bestpoint.xlike_file, x);
            // on the scale of the matrices themselves eigenvalues below 1e-4 are raised
            EXPECT_NEAR(program_logl(estimates.parvec), x, std::string(next) == "--emalg" ? 2.0e-3 : 1.0e-7);
        }
    }
}

} // namespace
} // namespace tarvex
