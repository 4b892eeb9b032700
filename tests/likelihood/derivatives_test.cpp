#include "estimation/covs2parvec.h"
#include "likelihood/derivatives.h"

#include "control/numbers.h"
#include "control/options.h"
#include "data/levels.h"
#include "data/pedigreelist.h"
#include "dense/numroutines.h"
#include "equations/mmmatrix.h"
#include "estimation/estimates.h"
#include "estimation/parlists.h"
#include "likelihood/derivative_models.h"
#include "likelihood/likelihood.h"
#include "likelihood/solutions.h"
#include "likelihood/subjectchunks.h"
#include "likelihood/subjects.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "relations/nrminverse.h"
#include "support/em_fixture.h"
#include "support/fixture.h"
#include "support/record_file.h"
#include "support/small_models.h"

#include <algorithm>
#include <cmath>

namespace tarvex {
namespace {

using derivatives_test = tarvex_test;

// Dams become maternal grandsires; one bull is both.
small_model as_sires(small_model m) {
    m.sires = true;
    m.sire.back() = m.dam.back() = 2;
    return m;
}

small_model regressions(bool principal = false) {
    small_model m;
    m.randreg = true;
    m.principal = principal;
    m.make_pedigree(14, 5, 7);
    m.make_rows(3, 4, 2, 0.0, 8);
    m.random = {{"animal", "NRM", 2, principal ? 1 : 0, {2.0, 0.3, 1.0}},
                {"pe", "IDE", 2, principal ? 2 : 0, {1.0, 0.1, 0.6}}};
    m.residual = {1.2, 0.9, 2.0};
    m.class_bounds = {3, 7, 11};
    return m;
}

void expect_gradient() {
    derivatives_here();
    const array<double> der1 = derivs.der1;
    const std::vector<double> want = difference_gradient(estimates.parvec);
    double largest = 0.0;
    for (double g : want) largest = std::max(largest, std::fabs(g));
    for (int i = 1; i <= estimates.nparm; ++i)
        EXPECT_NEAR(der1(i), estimates.ispar(i) ? want[static_cast<std::size_t>(i - 1)] : 0.0, 1.0e-5 * largest)
            << "parameter " << i;
}

void expect_information(const small_model& m) {
    derivatives_here();
    const oracle::analysis a = m.dense();
    const oracle::reml e = oracle::evaluate(a, oracle::variance(a, point_at(m, estimates.parvec)));
    const std::vector<oracle::dense> dv = variance_slopes(m);
    double largest = 0.0;
    for (double x : derivs.der2) largest = std::max(largest, std::fabs(x));
    for (int i = 1; i <= estimates.nparm; ++i) {
        const auto k = static_cast<std::size_t>(i - 1);
        const bool held = estimates.ispar(i) == 0;
        EXPECT_NEAR(derivs.der1(i), held ? 0.0 : oracle::gradient(e, dv[k]), 1.0e-5 * largest) << "parameter " << i;
        for (int j = i; j <= estimates.nparm; ++j)
            EXPECT_NEAR(
                derivs.der2(ihmssf(i, j, estimates.nparm)),
                held || !estimates.ispar(j) ? 0.0 : oracle::information(e, dv[k], dv[static_cast<std::size_t>(j - 1)]),
                1.0e-6 * largest)
                << i << " " << j;
    }
}

// Sums of few subjects together, by threads.
void in_small_chunks() {
    places = {};
    places.together = 3;
    options.threads = 3;
    program_logl(estimates.parvec, 1); // marks where the chunks begin
    EXPECT_GT(shared_chunks(), 1);
}

void expect_derivatives(const small_model& m) {
    expect_gradient();
    expect_information(m);
    in_small_chunks();
    expect_information(m);
    options.threads = 1;
    places = {};
}

TEST_F(derivatives_test, one_trait_on_both_scales) {
    const small_model m = traits(1, {1.3}, {2.1});
    set_up(m);
    expect_derivatives(m);
    on_original_scale();
    expect_derivatives(m);
}

// Many records a subject with levels of their own: its matrix is formed record by record.
void own_levels(small_model& m, int repeats) {
    std::erase_if(m.rows, [](const small_row& r) { return r.animal > 9; });
    int k = 0;
    for (small_row& r : m.rows) {
        r.herd = 1 + k % repeats;
        r.dam = ++k;
    }
}

small_model many_records(double residual) {
    small_model m = traits(1, {1.3}, {residual}, 14);
    own_levels(m, 14);
    m.random.push_back({"pe", "IDE", 1, 0, {0.8}});
    m.random.push_back({"dam", "IDE", 1, 0, {0.6}});
    m.covariable = true;
    return m;
}

int parts_of_the_first_subject() {
    subject_stream stream;
    EXPECT_TRUE(stream.next());
    part_splitter parts(stream);
    design_part part;
    int n = 0;
    for (parts.start(); parts.next(part);) ++n;
    return n;
}

TEST_F(derivatives_test, repeated_records_row_by_row) {
    const small_model m = many_records(2.1);
    set_up(m);
    program_logl(estimates.parvec, 1);
    EXPECT_EQ(parts_of_the_first_subject(), 14);
    const double want = dense_logl(m, estimates.parvec);
    EXPECT_NEAR(program_logl(estimates.parvec), want, 1.0e-8 * std::fabs(want));
    expect_derivatives(m);
}

TEST_F(derivatives_test, reduced_rank_random_regressions_row_by_row) {
    small_model m = regressions(true);
    m.rows.clear();
    m.make_rows(3, 11, 2, 0.0, 8); // each control value once
    own_levels(m, 11);
    m.random.push_back({"dam", "IDE", 1, 1, {0.6}});
    set_up(m);
    program_logl(estimates.parvec, 1);
    EXPECT_EQ(parts_of_the_first_subject(), 11);
    expect_derivatives(m);
}

// Residual variances below 1e-5 have an inverse held in full; every record must still get its own element.
TEST_F(derivatives_test, repeated_records_row_by_row_with_a_tiny_residual) {
    const small_model m = many_records(4.0e-6);
    set_up(m);
    const double x = program_logl(estimates.parvec), want = dense_logl(m, estimates.parvec);
    EXPECT_NEAR(x, want, 1.0e-8 * std::fabs(want));
}

TEST_F(derivatives_test, regression_with_a_tiny_residual_class) {
    small_model m;
    m.randreg = true;
    m.make_pedigree(20, 6, 31);
    m.make_rows(5, 6, 3, 0.0, 32);
    m.random = {{"animal", "NRM", 2, 0, {1.3, 0.2, 0.9}}, {"pe", "IDE", 2, 0, {0.8, 0.1, 0.6}}};
    m.class_bounds = {5, 11};
    m.residual = {2.0, 6.0e-6};
    set_up(m, {"--nologd"});
    const double x = program_logl(estimates.parvec), want = dense_logl(m, estimates.parvec);
    EXPECT_NEAR(x, want, 1.0e-8 * std::fabs(want));
}

TEST_F(derivatives_test, two_traits_two_effects_on_the_factor_scale) {
    const small_model m = two_effects();
    set_up(m);
    EXPECT_EQ(estimates.paraform(1), par_scale::variance);
    expect_derivatives(m);
}

TEST_F(derivatives_test, two_traits_with_logarithms) {
    const small_model m = two_effects();
    set_up(m, {"--aireml", "--logdia"});
    EXPECT_EQ(estimates.logdiagonals(1), 1);
    expect_derivatives(m);
}

TEST_F(derivatives_test, two_traits_on_the_original_scale) {
    const small_model m = two_effects();
    set_up(m);
    on_original_scale();
    expect_derivatives(m);
}

TEST_F(derivatives_test, three_traits_two_records_a_subject) {
    const small_model m = traits(3, {1.3, 0.5, 0.2, 1.8, 0.3, 1.1}, {2.1, 0.4, 0.1, 1.9, 0.2, 1.5}, 2);
    set_up(m);
    expect_derivatives(m);
}

TEST_F(derivatives_test, repeat_effect) {
    small_model m = traits(1, {1.3}, {2.1}, 3);
    m.random.push_back({"pe", "PEQ", 1, 0, {0.7}});
    set_up(m);
    expect_derivatives(m);
}

TEST_F(derivatives_test, repeat_effect_of_two_traits) {
    small_model m = traits(2, {1.3, 0.5, 1.8}, {2.1, 0.2, 1.9}, 2);
    m.random.push_back({"pe", "PEQ", 2, 0, {0.4, 0.1, 0.5}});
    set_up(m);
    expect_derivatives(m);
}

TEST_F(derivatives_test, random_regression_one_class) {
    small_model m = regressions();
    m.residual = {1.2};
    m.class_bounds.clear();
    set_up(m);
    expect_derivatives(m);
}

TEST_F(derivatives_test, random_regression_classes) {
    const small_model m = regressions();
    set_up(m);
    expect_derivatives(m);
    const double x = program_logl(estimates.parvec, 1);
    derivatives_here();
    EXPECT_EQ(program_logl(estimates.parvec, 1), x); // log|R| of the data has not been touched
}

TEST_F(derivatives_test, reduced_rank_random_regression) {
    const small_model m = regressions(true);
    set_up(m);
    EXPECT_EQ(estimates.paraform(1), par_scale::cholesky);
    expect_derivatives(m);
}

TEST_F(derivatives_test, reduced_rank_traits) {
    small_model m = traits(3, {1.3, 0.5, 0.2, 1.8, 0.3, 1.1}, {2.1, 0.4, 0.1, 1.9, 0.2, 1.5});
    m.principal = true;
    m.random[0].rank = 2;
    m.random.push_back({"dam", "IDE", 3, 1, {0.9, 0.1, 0.1, 0.8, 0.1, 0.7}});
    set_up(m);
    expect_derivatives(m);
}

TEST_F(derivatives_test, factor_scale_at_full_rank_solves_for_the_effects) {
    small_model m = two_effects();
    m.principal = true;
    m.random[0].rank = m.random[1].rank = 2;
    set_up(m, {"--aireml", "--logdia"});
    EXPECT_FALSE(options.superai);
    expect_derivatives(m);
}

TEST_F(derivatives_test, diagonal_block) {
    small_model m = traits(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9});
    m.random.push_back({"dam", "IDE", 2, 0, {0.9, 0.8}, true});
    set_up(m);
    EXPECT_TRUE(options.principal);
    expect_derivatives(m);
}

TEST_F(derivatives_test, diagonal_block_without_logarithms) {
    small_model m = traits(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9});
    m.random.push_back({"dam", "IDE", 2, 0, {0.9, 0.8}, true});
    set_up(m, {"--aireml", "--nologd"});
    EXPECT_FALSE(options.principal);
    expect_derivatives(m);
    m.random = {{"animal", "NRM", 2, 0, {1.3, 1.8}, true}}; // levels that are related
    new_analysis();
    set_up(m, {"--aireml", "--nologd"});
    EXPECT_FALSE(options.principal);
    expect_derivatives(m);
}

TEST_F(derivatives_test, correlated_effects) {
    small_model m = traits(1, {1.3}, {2.1});
    m.random = {{"animal+dam", "NRM", 2, 0, {1.3, 0.2, 0.6}}};
    set_up(m);
    expect_derivatives(m);
}

TEST_F(derivatives_test, correlated_effects_with_logarithms_and_on_the_original_scale) {
    small_model m = traits(1, {1.3}, {2.1});
    m.random = {{"animal+dam", "NRM", 2, 0, {1.3, 0.2, 0.6}}};
    set_up(m, {"--aireml", "--logdia"});
    expect_derivatives(m);
    on_original_scale();
    expect_derivatives(m);
}

TEST_F(derivatives_test, repeat_effect_of_two_traits_with_logarithms_and_on_the_original_scale) {
    small_model m = traits(2, {1.3, 0.5, 1.8}, {2.1, 0.2, 1.9}, 2);
    m.random.push_back({"pe", "PEQ", 2, 0, {0.4, 0.1, 0.5}});
    set_up(m, {"--aireml", "--logdia"});
    EXPECT_EQ(estimates.logdiagonals(2), 1);
    expect_derivatives(m);
    on_original_scale();
    expect_derivatives(m);
}

TEST_F(derivatives_test, random_regression_classes_with_logarithms_and_on_the_original_scale) {
    const small_model m = regressions();
    set_up(m, {"--aireml", "--logdia"});
    EXPECT_EQ(estimates.logdiagonals(0), 1);
    expect_derivatives(m);
    on_original_scale();
    expect_derivatives(m);
}

TEST_F(derivatives_test, reduced_rank_with_logarithms) {
    small_model m = traits(3, {1.3, 0.5, 0.2, 1.8, 0.3, 1.1}, {2.1, 0.4, 0.1, 1.9, 0.2, 1.5});
    m.principal = true;
    m.random[0].rank = 2;
    set_up(m, {"--aireml", "--logdia"});
    EXPECT_EQ(estimates.logdiagonals(1), 1);
    expect_derivatives(m);
    new_analysis();
    const small_model rr = regressions(true);
    std::remove("cholnrm1.bin");
    std::remove("nrminvers1.bin");
    set_up(rr, {"--aireml", "--logdia"});
    expect_derivatives(rr);
}

TEST_F(derivatives_test, order_of_the_matrix_without_pivoting) {
    const small_model m = traits(3, {1.3, 0.5, 0.2, 1.8, 0.3, 2.1}, {2.1, 0.4, 0.1, 1.9, 0.2, 2.5});
    set_up(m, {"--aireml", "--noreord"});
    EXPECT_EQ(estimates.cholorder(1, 1), 1);
    expect_derivatives(m);
}

TEST_F(derivatives_test, sire_model) {
    const small_model m = as_sires(traits(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9}));
    set_up(m);
    expect_derivatives(m);
}

TEST_F(derivatives_test, sire_model_at_reduced_rank) {
    for (const char* option : {"--aireml", "--logdia", "--super"}) {
        new_analysis();
        std::remove("cholnrm1.bin");
        small_model m = as_sires(traits(3, {1.3, 0.5, 0.2, 1.8, 0.3, 1.1}, {2.1, 0.4, 0.1, 1.9, 0.2, 1.5}));
        m.principal = true;
        m.random[0].rank = 2;
        set_up(m, {"--aireml", option});
        EXPECT_EQ(file_exists("cholnrm1.bin"), options.write_factor);
        expect_derivatives(m);
    }
}

TEST_F(derivatives_test, sire_model_through_the_factor_at_full_rank) {
    small_model m = as_sires(traits(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9}));
    m.principal = true;
    m.random[0].rank = 2;
    set_up(m, {"--aireml", "--super"});
    EXPECT_TRUE(options.superai);
    expect_derivatives(m);
    new_analysis();
    m.principal = false;
    m.random[0].rank = 0;
    set_up(m, {"--aireml", "--super"});
    expect_derivatives(m);
}

TEST_F(derivatives_test, random_regression_of_sires_at_reduced_rank) {
    const small_model m = as_sires(regressions(true));
    set_up(m);
    expect_derivatives(m);
}

TEST_F(derivatives_test, levels_treated_as_fixed) {
    small_model m = traits(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9});
    m.extra = "PSE 0.0\n animal 6\n animal 9\nEND\n";
    set_up(m);
    ASSERT_TRUE(options.pseudofix);
    EXPECT_EQ(effective_levels(1), levels.rn_nlev(1) - 2.0);
    expect_gradient();
    on_original_scale();
    expect_gradient();
}

// Jacobian of every block against differences of its matrix.
void expect_jacobian(int irand, int step) {
    array<double, 2> jac;
    block_jacobian(irand, step, jac);
    array<double> up, down;
    array<double, 2> vv;
    int ifail = 0;
    for (int p = 1; p <= jac.upper(2); ++p) {
        const double h = 1.0e-5;
        array<double> par = estimates.parvec;
        par(block_start(irand, step) + p - 1) += h;
        parvec2covs(par, irand, step, up, vv, ifail);
        par(block_start(irand, step) + p - 1) -= 2.0 * h;
        parvec2covs(par, irand, step, down, vv, ifail);
        for (int k = 1; k <= jac.upper(1); ++k)
            EXPECT_NEAR(jac(k, p), (up(k) - down(k)) / (2.0 * h), 1.0e-8) << k << " " << p;
    }
}

TEST_F(derivatives_test, jacobian_of_reduced_rank_and_logarithms) {
    small_model m = traits(3, {1.3, 0.5, 0.2, 1.8, 0.3, 1.1}, {2.1, 0.4, 0.1, 1.9, 0.2, 1.5});
    m.principal = true;
    m.random[0].rank = 2;
    set_up(m, {"--aireml", "--logdia"});
    EXPECT_EQ(block_size(1), 5);
    expect_jacobian(0, 1);
    expect_jacobian(1, 1);
}

TEST_F(derivatives_test, jacobian_of_residual_classes) {
    set_up(regressions());
    for (int step = 1; step <= 3; ++step) expect_jacobian(0, step);
    expect_jacobian(1, 1);
    expect_jacobian(2, 1);
}

void expect_supplied(int rank, const std::vector<std::string>& list) {
    const small_model m = supplied(rank);
    set_up_supplied(m, list);
    expect_derivatives(m);
}

TEST_F(derivatives_test, supplied_inverse) { expect_supplied(0, {"--aireml"}); }
TEST_F(derivatives_test, supplied_inverse_at_full_rank_of_components) { expect_supplied(3, {"--aireml", "--super"}); }
TEST_F(derivatives_test, supplied_inverse_at_reduced_rank) { expect_supplied(2, {"--aireml"}); }
TEST_F(derivatives_test, supplied_inverse_at_reduced_rank_with_logarithms) {
    expect_supplied(1, {"--aireml", "--logdia"});
}

// That of a pedigree is taken from its sealed file at each evaluation, that of a supplied inverse from its module.
TEST_F(derivatives_test, no_value_where_a_log_determinant_is_no_number) {
    set_up_supplied(supplied(0), {"--aireml"});
    ASSERT_GT(program_logl(estimates.parvec, 1), invalid_logl);
    const double given = geninverse.detginv(1);
    geninverse.detginv(1) = std::nan("");
    forget_likelihoods();
    EXPECT_EQ(loglike(estimates.parvec, 1).why, invalid_point::value);
    EXPECT_EQ(program_logl(estimates.parvec, 1), invalid_logl);
    geninverse.detginv(1) = given;
    EXPECT_GT(program_logl(estimates.parvec, 1), invalid_logl) << "a failed evaluation leaves no factor behind";
}

TEST_F(derivatives_test, supplied_inverse_without_some_levels_is_refused_at_reduced_rank_before_estimation) {
    EXPECT_STOP(set_up_supplied(supplied(2), {"--aireml"}, 2),
                "Level without a diagonal in the inverse : 29  code 29\n***** ERROR : Reading file \"animal.gin\"");
    EXPECT_EQ(likelihoods.ncall, 0);
}

TEST_F(derivatives_test, repeat_effect_of_reduced_rank_is_refused_before_estimation) {
    for (const char* plan : {"--aireml", "--emalg", "--pxem", "--pxai"}) {
        new_analysis();
        std::remove("nrminvers1.bin");
        small_model m = traits(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9}, 2);
        m.random.push_back({"pe", "PEQ", 2, 1, {0.4, 0.1, 0.5}});
        m.principal = true;
        m.random[0].rank = 2;
        set_up(m, {plan});
        EXPECT_STOP(get_estimates(), "not yet");
        EXPECT_EQ(likelihoods.ncall, 0) << plan;
    }
}

TEST_F(derivatives_test, factor_of_another_pedigree_stops_the_run) {
    small_model m = traits(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9});
    m.principal = true;
    m.random[0].rank = 1;
    set_up(m);
    program_logl(estimates.parvec, 1);
    average_info();
    {
        record_writer out;
        ASSERT_TRUE(out.open("cholnrm1.bin"));
        out.record(std::int32_t{33});
    }
    average_info(); // goes through the pedigree
    options.write_factor = true;
    EXPECT_STOP(average_info(), "cholnrm1.bin 33 1 " + std::to_string(pedigreelist.nannew(1)) + "\nexit");
}

TEST_F(derivatives_test, fixed_levels_are_refused_at_reduced_rank_before_estimation) {
    small_model m = traits(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9});
    m.principal = true;
    m.random[0].rank = 1;
    set_up(m);
    options.pseudofix = true;
    EXPECT_STOP(get_estimates(), "not yet");
    EXPECT_EQ(likelihoods.ncall, 0);
}

TEST_F(derivatives_test, residual_covariance_fixed_at_zero_has_no_derivative) {
    const small_model m = traits(2, {1.3, 0.5, 1.8}, {2.1, 0.0, 1.9});
    set_up(m);
    derivatives_here();
    EXPECT_EQ(residualvars.fixres(2), 1);
    EXPECT_EQ(derivs.devl1(2), 0.0);
    for (int i = 1; i <= estimates.nparm; ++i)
        EXPECT_EQ(derivs.devl2(ihmssf(std::min(i, 2), std::max(i, 2), estimates.nparm)), 0.0);
    expect_gradient();
}

// Traits 2 and 3 never meet, each of them meets trait 1.
small_model apart() {
    small_model m = traits(3, {1.3, 0.5, 0.2, 1.8, 0.3, 1.1}, {2.1, 0.4, 0.1, 1.9, 0.2, 1.5});
    for (auto& r : m.rows) {
        r.y = {r.y[0] == -999.0 ? 11.0 : r.y[0], 20.0 + r.animal % 3, 30.0 + r.animal % 5};
        r.y[r.animal % 2 ? 1 : 2] = -999.0;
    }
    return m;
}

TEST_F(derivatives_test, zero_pattern_of_the_residual_on_both_scales) {
    for (const char* scale : {"factor", "covariances"}) {
        new_analysis();
        const small_model m = apart();
        set_up(m, {"--aireml"});
        if (std::string(scale) == "covariances") {
            options.emalgorithm = true;
            parvec_from_covs(true, 0.0);
        }
        EXPECT_EQ(estimates.paraform(0), options.emalgorithm ? par_scale::original : par_scale::variance);
        EXPECT_EQ(residualvars.fixres(5), 1);
        EXPECT_EQ(std::count(estimates.ispar.begin(), estimates.ispar.end(), 0), 1) << "one parameter is held";
        EXPECT_NEAR(program_logl(estimates.parvec), dense_logl(m, estimates.parvec), 1.0e-7);
        expect_derivatives(m);
    }
}

TEST_F(derivatives_test, completed_factor_of_the_residual) {
    const small_model m = traits(4, {1.3, 0.5, 0.2, 0.1, 1.8, 0.3, 0.2, 1.1, 0.2, 1.2},
                                 {2.1, 0.4, 0.0, 0.3, 1.9, 0.3, 0.0, 1.5, 0.2, 1.7}); // zeros around a ring
    for (const char* option : {"--aireml", "--logdia"}) {
        new_analysis();
        set_up(m, {"--aireml", option});
        EXPECT_TRUE(residualvars.filled);
        expect_jacobian(0, 1);
        expect_derivatives(m);
    }
}

TEST_F(derivatives_test, solutions_and_log_likelihood_are_the_same_after_derivatives) {
    set_up(two_effects());
    const double x = program_logl(estimates.parvec, 1);
    const array<double> before = solutions.solns;
    derivatives_here();
    EXPECT_EQ(program_logl(estimates.parvec, 1), x);
    for (int i = 1; i <= before.upper(); ++i) EXPECT_NEAR(solutions.solns(i), before(i), 1.0e-10);
}

TEST_F(derivatives_test, information_files_hold_the_upper_triangle) {
    const small_model m = traits(1, {1.3}, {2.1});
    set_up(m);
    derivatives_here();
    write_avinfo(-12.5);
    const std::string text = read_file("AvInfoParms");
    EXPECT_EQ(text.substr(0, text.find('\n')), "-12.5");
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4);
    EXPECT_FALSE(read_file("AvInfoCovs").empty());
}

} // namespace
} // namespace tarvex
