#include "estimation/covs2parvec.h"
#include "likelihood/likelihood.h"

#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "data/levels.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "estimation/estimates.h"
#include "likelihood/buildmmm.h"
#include "likelihood/solutions.h"
#include "likelihood/warnfix.h"
#include "parameters/randomvars.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "support/fixture.h"
#include "support/screen.h"
#include "support/small_models.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace tarvex {
namespace {

using likelihood_test = tarvex_test;

small_model univariate(int repeats = 1) {
    small_model m;
    m.make_pedigree(24, 6, 1);
    m.make_rows(4, repeats, 3, 0.0, 2);
    m.covariable = true;
    m.random = {{"animal", "NRM", 1, 0, {1.3}}};
    m.residual = {2.1};
    return m;
}

small_model bivariate(double rcov = 0.4, double missing = 0.25) {
    small_model m;
    m.nq = 2;
    m.make_pedigree(22, 6, 3);
    m.make_rows(5, 1, 3, missing, 4);
    m.random = {{"animal", "NRM", 2, 0, {1.3, 0.5, 1.8}}};
    m.residual = {2.1, rcov, 1.9};
    return m;
}

void expect_dense(const small_model& m, double tolerance = 1.0e-8) {
    const double x = program_logl(estimates.parvec), want = dense_logl(m, estimates.parvec);
    EXPECT_NEAR(x, want, tolerance * std::max(1.0, std::fabs(want)));
}

TEST_F(likelihood_test, one_trait_animal_model_equals_dense_reml_and_blup) {
    const small_model m = univariate();
    set_up(m);
    expect_dense(m);
    const oracle::analysis a = m.dense();
    const oracle::point at = point_at(m, estimates.parvec);
    const oracle::reml e = oracle::evaluate(a, oracle::variance(a, at));
    const oracle::dense u = oracle::blup(a, at, e, 0);
    for (int l = 1; l <= levels.rn_nlev(1); ++l) {
        const auto code = static_cast<std::size_t>(levels.rn_codes(1)(l));
        EXPECT_NEAR(solutions.solsave(mmequations.rn_start(1) + l), u[code - 1][0], 1.0e-8);
    }
    EXPECT_NEAR(solutions.solsave(1), e.beta[3], 1.0e-8); // the covariable's equation comes first
}

TEST_F(likelihood_test, one_trait_with_repeated_records_and_two_effects) {
    small_model m = univariate(3);
    m.random.push_back({"pe", "IDE", 1, 0, {0.7}});
    set_up(m);
    expect_dense(m);
}

TEST_F(likelihood_test, mean_instead_of_herds) {
    small_model m = univariate();
    m.herd = false;
    m.mean = true;
    set_up(m);
    expect_dense(m);
}

TEST_F(likelihood_test, two_traits_with_missing_records) {
    const small_model m = bivariate();
    set_up(m);
    expect_dense(m);
    EXPECT_EQ(likelihoods.nfact, 1);
}

TEST_F(likelihood_test, three_traits_two_effects_different_from_scale_to_scale) {
    small_model m;
    m.nq = 3;
    m.make_pedigree(20, 6, 5);
    m.make_rows(4, 1, 2, 0.2, 6);
    m.random = {{"animal", "NRM", 3, 0, {1.3, 0.5, 0.2, 1.8, 0.3, 1.1}},
                {"dam", "IDE", 3, 0, {0.5, 0.1, 0.0, 0.4, 0.1, 0.6}}};
    m.residual = {2.1, 0.4, 0.1, 1.9, 0.2, 1.5};
    set_up(m, {"--aireml"});
    expect_dense(m);
    const double factor_scale = program_logl(estimates.parvec, 1);
    options.emalgorithm = true;
    covs2parvec();
    forget_likelihoods();
    EXPECT_EQ(estimates.paraform(1), par_scale::original);
    EXPECT_NEAR(program_logl(estimates.parvec), factor_scale, 1.0e-8);
}

TEST_F(likelihood_test, repeat_effect_in_the_residual) {
    small_model m = univariate(3);
    m.random.push_back({"pe", "PEQ", 1, 0, {0.7}});
    set_up(m);
    expect_dense(m);
    const double with_peq = program_logl(estimates.parvec);
    small_model same = univariate(3);
    same.random.push_back({"pe", "IDE", 1, 0, {0.7}});
    const oracle::analysis a = same.dense();
    oracle::point p;
    p.r = {oracle::dense{{2.1}}};
    p.g = {oracle::dense{{1.3}}, oracle::dense{{0.7}}};
    EXPECT_NEAR(with_peq, oracle::evaluate(a, oracle::variance(a, p)).logl, 1.0e-7);
}

TEST_F(likelihood_test, repeat_matrix_above_the_residual_is_invalid) {
    small_model m = univariate(2);
    m.random.push_back({"pe", "PEQ", 1, 0, {0.7}});
    set_up(m, {"--emalg", "--noreord"});
    array<double> p = estimates.parvec;
    options.emalgorithm = true;
    covs2parvec();
    p = estimates.parvec;
    p(1) = 1.0; // the sum
    p(2) = 1.5; // the repeat variance
    EXPECT_EQ(program_logl(p), invalid_logl);
    EXPECT_NE(screen_text().find("NEGATIVE PIVOT"), std::string::npos);
}

TEST_F(likelihood_test, repeat_matrix_equal_to_the_residual_is_told_as_singular) {
    small_model m = univariate(2);
    m.random.push_back({"pe", "PEQ", 1, 0, {0.7}});
    set_up(m);
    options.emalgorithm = true;
    covs2parvec();
    array<double> p = estimates.parvec;
    p(1) = p(2) = 1.0;
    EXPECT_EQ(program_logl(p), invalid_logl);
    EXPECT_NE(screen_text().find("***** ERROR : Residual covariance matrix not of full rank\n      Dimension   = 2\n"
                                 "      Rank        = 1\n      Combination = 2\n"),
              std::string::npos);
}

TEST_F(likelihood_test, correlated_effects_share_a_block) {
    small_model m = univariate();
    m.random = {{"animal+dam", "NRM", 2, 0, {1.3, 0.2, 0.6}}};
    set_up(m);
    EXPECT_EQ(numbers.krand, 1);
    expect_dense(m);
}

TEST_F(likelihood_test, sire_model_leaves_out_the_log_determinant_of_the_relationships) {
    small_model m = univariate();
    std::fill(m.dam.begin(), m.dam.end(), 0); // the rules for sires alone give the relationships of the pedigree
    m.sires = true;
    set_up(m);
    const double x = program_logl(estimates.parvec);
    EXPECT_LT(randomvars.detl(1), -0.5);
    EXPECT_NEAR(x, dense_logl(m, estimates.parvec) + 0.5 * randomvars.detl(1), 1.0e-8);
}

TEST_F(likelihood_test, supplied_inverse_equals_the_pedigree) {
    small_model m = univariate();
    m.rows.clear();
    m.make_rows(1, 1, 3, 0.0, 9); // a record of every animal: codes are levels
    m.random[0].kov = "GIN";
    const oracle::dense a = oracle::tabular(m.sire, m.dam), inv = oracle::inverse(a);
    std::string text = std::to_string(oracle::log_det(a)) + "\n";
    for (std::size_t i = 0; i < inv.size(); ++i)
        for (std::size_t j = 0; j <= i; ++j)
            if (std::fabs(inv[i][j]) > 1.0e-12)
                text += std::to_string(j + 1) + " " + std::to_string(i + 1) + " " + list_item(inv[i][j]) + "\n";
    write_file("animal.gin", text);
    small_model given = m;
    given.sire.clear();
    set_up(given);
    expect_dense(m, 1.0e-6);
}

TEST_F(likelihood_test, diagnosis_names_the_fixed_effect) {
    const small_model m = univariate();
    set_up(m);
    write_warnfix(orders.ieqnew(mmequations.fx_start(1, 1) + 2));
    EXPECT_NE(screen_text().find("This belongs to fixed effect \"herd\"\nand trait no. 1\n"
                                 "Problem occurs for level no.          = 2\n"
                                 "No. of levels fitted for this effect  = 3\n"),
              std::string::npos);
}

TEST_F(likelihood_test, place_of_an_element_that_is_not_there_is_zero) {
    set_up(univariate());
    int absent = 0;
    for (int i = 1; i < numbers.nsrow; ++i) {
        EXPECT_EQ(locate(i, numbers.nsrow), sparse.ixvec1(i + 1) - 1);
        for (int j = i + 1; j < numbers.nsrow; ++j) absent += locate(j, i) == 0;
    }
    EXPECT_EQ(absent, (numbers.nsrow - 1) * (numbers.nsrow - 2) / 2 - (sparse.maxlnz - numbers.nsrow + 1));
}

TEST_F(likelihood_test, random_regression_one_class) {
    small_model m;
    m.randreg = true;
    m.make_pedigree(14, 5, 7);
    m.make_rows(3, 4, 2, 0.0, 8);
    m.random = {{"animal", "NRM", 3, 0, {2.0, 0.3, 0.1, 1.0, 0.1, 0.5}}, {"pe", "IDE", 2, 0, {1.0, 0.1, 0.6}}};
    m.residual = {1.2};
    set_up(m);
    expect_dense(m);
    EXPECT_NEAR(program_logl(estimates.parvec, 1), dense_logl(m, estimates.parvec), 1.0e-7);
}

small_model regression_in_classes() {
    small_model m;
    m.randreg = true;
    m.make_pedigree(14, 5, 7);
    m.make_rows(3, 4, 2, 0.0, 8);
    m.random = {{"animal", "NRM", 2, 0, {2.0, 0.3, 1.0}}};
    m.residual = {1.2, 0.7, 2.0};
    m.class_bounds = {3, 7, 11};
    return m;
}

TEST_F(likelihood_test, random_regression_classes) {
    const small_model m = regression_in_classes();
    set_up(m);
    expect_dense(m);
}

// A search may try any value: one class without a residual variance, or with one that cannot be inverted, makes the
// point invalid and is forgotten with the next one.
TEST_F(likelihood_test, trial_residual_of_a_class_that_is_too_small_is_invalid) {
    const small_model m = regression_in_classes();
    set_up(m, {"--aireml", "--nologd"});
    ASSERT_NE(estimates.paraform(0), par_scale::original);
    const double least = std::sqrt(numbers.zero); // smaller elements of the factor are taken as this one
    const double start = dense_logl(m, estimates.parvec);
    for (const int iclass : {1, 2, 3})
        for (const double root : {least, 0.3 * least, 1.0e-12, 0.0, -0.3 * least}) {
            array<double> p = estimates.parvec;
            p(iclass) = root;
            EXPECT_EQ(program_logl(p), invalid_logl) << iclass << " " << root;
            EXPECT_NEAR(program_logl(estimates.parvec, 1), start, 1.0e-7);
        }
    for (const double root : {30.0 * least, -30.0 * least}) { // small, but a variance
        array<double> p = estimates.parvec;
        p(2) = root;
        const double want = dense_logl(m, p);
        EXPECT_NEAR(program_logl(p), want, 1.0e-6 * std::fabs(want));
    }
}

// Solutions at given matrices take them as they are: a class with a negative variance, however far from zero, has no
// inverse. A search on the scale of covariances raises it.
TEST_F(likelihood_test, negative_residual_of_a_class_is_refused_or_raised) {
    const small_model m = regression_in_classes();
    set_up(m);
    options.emalgorithm = true;
    covs2parvec();
    ASSERT_EQ(estimates.paraform(0), par_scale::original);
    for (const int iclass : {1, 2, 3})
        for (const double variance : {-0.7, -5.0, -1.0e-3}) {
            array<double> p = estimates.parvec;
            p(iclass) = variance;
            int ifail = 0;
            options.blup = true;
            rinverse(p, ifail);
            EXPECT_NE(ifail, 0) << iclass << " " << variance;
            options.blup = false;
            rinverse(p, ifail);
            EXPECT_EQ(ifail, 0) << iclass << " " << variance;
            EXPECT_GT(residualvars.sigres(1, iclass), 0.0);
        }
}

TEST_F(likelihood_test, reduced_rank_equals_dense_with_the_product_of_its_factor) {
    small_model m;
    m.nq = 3;
    m.principal = true;
    m.make_pedigree(20, 6, 5);
    m.make_rows(4, 1, 2, 0.2, 6);
    m.random = {{"animal", "NRM", 3, 2, {1.3, 0.5, 0.2, 1.8, 0.3, 1.1}}};
    m.residual = {2.1, 0.4, 0.1, 1.9, 0.2, 1.5};
    set_up(m);
    expect_dense(m);
}

TEST_F(likelihood_test, reduced_rank_random_regression) {
    small_model m;
    m.randreg = m.principal = true;
    m.make_pedigree(14, 5, 7);
    m.make_rows(3, 4, 2, 0.0, 8);
    m.random = {{"animal", "NRM", 3, 2, {2.0, 0.3, 0.1, 1.0, 0.1, 0.5}}, {"pe", "IDE", 2, 2, {1.0, 0.1, 0.6}}};
    m.residual = {1.2};
    set_up(m);
    expect_dense(m);
}

TEST_F(likelihood_test, diagonal_block) {
    small_model m = bivariate();
    m.random.push_back({"dam", "IDE", 2, 0, {0.5, 0.8}, true});
    set_up(m);
    expect_dense(m);
}

TEST_F(likelihood_test, table_answers_the_same_vector_and_the_factor_a_nearly_equal_one) {
    const small_model m = bivariate();
    set_up(m);
    const double x = program_logl(estimates.parvec);
    EXPECT_EQ(likelihoods.ncall, 1);
    array<double> p = estimates.parvec;
    const evaluation same = loglike(p, 0);
    EXPECT_EQ(same.xlike, x);
    EXPECT_FALSE(same.solved);
    p(4) += 1.0e-9;
    const evaluation near = loglike(p, 0);
    EXPECT_NEAR(near.xlike, x, 1.0e-7);
    EXPECT_TRUE(near.solved && !near.new_factor);
    EXPECT_EQ(likelihoods.ncall, 1);
}

TEST_F(likelihood_test, table_drops_the_oldest_twenty_rows_when_full) {
    const small_model m = univariate();
    set_up(m);
    array<double> p = estimates.parvec;
    std::vector<double> values;
    for (int k = 0; k < 201; ++k) {
        p(2) = 1.0 + 0.01 * k;
        values.push_back(program_logl(p));
    }
    EXPECT_EQ(likelihoods.nlike, 181);
    EXPECT_EQ(likelihoods.likesav(1, 1), values[20]);
    EXPECT_EQ(likelihoods.likesav(1, 181), values[200]);
}

TEST_F(likelihood_test, factor_at_hand_is_told_with_its_value) {
    const small_model m = univariate();
    set_up(m);
    const double x = program_logl(estimates.parvec, 1);
    EXPECT_EQ(program_logl(estimates.parvec, -1), x);
    EXPECT_EQ(likelihoods.nfact, 1);
    forget_factor();
    EXPECT_NEAR(program_logl(estimates.parvec, -1), x, 1.0e-9);
    EXPECT_EQ(likelihoods.nfact, 2);
}

TEST_F(likelihood_test, invalid_point_leaves_nothing_to_reuse) {
    const small_model m = bivariate();
    set_up(m, {"--aireml", "--zero14"});
    const double x = program_logl(estimates.parvec, 1);
    const array<double> before = solutions.solns;
    array<double> q = estimates.parvec;
    q(1) = std::nan("");
    EXPECT_EQ(program_logl(q, 1), invalid_logl);
    EXPECT_NEAR(program_logl(estimates.parvec, 1), x, 1.0e-9);
    for (int i = 1; i <= before.upper(); ++i) EXPECT_NEAR(solutions.solns(i), before(i), 1.0e-9);
}

TEST_F(likelihood_test, vanishing_eigenvalue_is_invalid) {
    const small_model m = bivariate();
    set_up(m, {"--aireml", "--noreord", "--nologd"});
    array<double> p = estimates.parvec;
    p(4) = 1.0;
    p(5) = 0.8;
    p(6) = 1.0e-4; // second factor column next to nothing: an eigenvalue of 1e-8
    EXPECT_EQ(program_logl(p), invalid_logl);
}

TEST_F(likelihood_test, assembly_twice_gives_the_same_matrix_with_kept_places) {
    const small_model m = bivariate();
    set_up(m);
    program_logl(estimates.parvec);
    int iflag = 0;
    build_mmm(iflag);
    const array<double> diag = sparse.diag, off = sparse.xspars;
    EXPECT_TRUE(places.subjects.complete);
    places = {};
    build_mmm(iflag);
    for (int i = 1; i <= diag.upper(); ++i) EXPECT_EQ(sparse.diag(i), diag(i));
    for (int i = 1; i <= off.upper(); ++i) EXPECT_EQ(sparse.xspars(i), off(i));
}

TEST_F(likelihood_test, structure_of_an_earlier_run_with_a_zero_covariance_is_made_anew) {
    set_up(bivariate(0.0));
    EXPECT_NEAR(program_logl(estimates.parvec), dense_logl(bivariate(0.0), estimates.parvec), 1.0e-7);
    EXPECT_EQ(orders.nsymb, 1);
    new_analysis();
    const small_model m = bivariate(0.3);
    set_up(m);
    expect_dense(m);
    EXPECT_EQ(orders.nsymb, 1);
}

TEST_F(likelihood_test, covariance_that_is_zero_no_longer_asks_for_one_new_ordering) {
    const small_model m = bivariate(0.3);
    set_up(m);
    array<double> p = estimates.parvec;
    new_analysis();
    set_up(bivariate(0.0));
    EXPECT_NEAR(program_logl(estimates.parvec), dense_logl(bivariate(0.0), estimates.parvec), 1.0e-7);
    EXPECT_EQ(orders.nsymb, 1);
    residualvars.fixres.fill(0);
    EXPECT_NEAR(program_logl(p), dense_logl(m, p), 1.0e-7);
    EXPECT_EQ(orders.nsymb, 2);
    p(2) += 0.1;
    EXPECT_NEAR(program_logl(p), dense_logl(m, p), 1.0e-7);
    EXPECT_EQ(orders.nsymb, 2);
}

// An element of the relationships that has no place in the structure asks for a new ordering, as one of the records
// does. The level has no records.
TEST_F(likelihood_test, missing_element_of_a_random_effect_asks_for_a_new_ordering) {
    const small_model m = bivariate();
    set_up(m);
    const double want = dense_logl(m, estimates.parvec);
    EXPECT_NEAR(program_logl(estimates.parvec), want, 1.0e-7);
    int a = 0, b = 0;
    for (int l = 1; l <= levels.rn_nlev(1) && levels.rn_codes(1)(l) < 5; ++l)
        for (int k = l + 1; k <= levels.rn_nlev(1) && a == 0; ++k) {
            const int i = mmequations.rn_start(1) + 2 * l - 1, j = mmequations.rn_start(1) + 2 * k - 1;
            if (locate(orders.ieqnew(i), orders.ieqnew(j)) == 0) a = i, b = j;
        }
    ASSERT_GT(a, 0);
    orders.ieqnew(a) = orders.ieqnew(b); // which it has no link to
    places = {};
    forget_likelihoods();
    EXPECT_NEAR(program_logl(estimates.parvec), want, 1.0e-7);
    EXPECT_EQ(orders.nsymb, 2);
    EXPECT_FALSE(places.lenient); // for that evaluation alone
}

TEST_F(likelihood_test, missing_element_of_a_random_effect_is_fatal) {
    const small_model m = univariate();
    set_up(m);
    program_logl(estimates.parvec);
    orders.ieqnew(mmequations.rn_start(1) + 5) = 0;
    int iflag = 0;
    EXPECT_STOP(build_mmm(iflag), "this should not happen");
}

TEST_F(likelihood_test, two_records_of_a_subject_at_one_control_value_stop_the_run) {
    small_model m;
    m.randreg = true;
    m.make_pedigree(14, 5, 7);
    m.make_rows(3, 4, 2, 0.0, 8);
    m.random = {{"animal", "NRM", 2, 0, {2.0, 0.3, 1.0}}};
    m.residual = {1.2};
    m.rows[5].age = m.rows[4].age;
    set_up(m);
    EXPECT_STOP(program_logl(estimates.parvec), "Residual covariance matrix not of full rank !");
}

} // namespace
} // namespace tarvex
