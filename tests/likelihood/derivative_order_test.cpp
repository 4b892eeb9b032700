// Derivatives are formed behind an evaluation of their point only.
#include "likelihood/derivative_models.h"

#include "control/limits.h"
#include "dense/numroutines.h"
#include "likelihood/emquants.h"
#include "likelihood/factormmm.h"
#include "support/fixture.h"

#include <cmath>
#include <string>

namespace tarvex {
namespace {

using derivative_order_test = tarvex_test;

// Derivatives against the dense ones at estimates.parvec.
void expect_dense_derivatives(const small_model& m, const char* what) {
    const oracle::analysis a = m.dense();
    const oracle::reml e = oracle::evaluate(a, oracle::variance(a, point_at(m, estimates.parvec)));
    const std::vector<oracle::dense> dv = variance_slopes(m);
    for (int i = 1; i <= estimates.nparm; ++i) {
        const auto k = static_cast<std::size_t>(i - 1);
        EXPECT_NEAR(derivs.der1(i), oracle::gradient(e, dv[k]), 1.0e-4) << what << " " << i;
        EXPECT_NEAR(derivs.der2(ihmssf(i, i, estimates.nparm)), oracle::information(e, dv[k], dv[k]), 1.0e-4)
            << what << " " << i;
    }
}

array<double> beside(const array<double>& here) {
    array<double> other = here;
    for (int i = 1; i <= other.upper(); ++i) other(i) *= i % 2 == 0 ? 1.1 : 0.93;
    return other;
}

constexpr const char* no_evaluation = "needs an evaluation of its point";

// Each call out of turn stops the program; an evaluation puts things right.
TEST_F(derivative_order_test, only_behind_an_evaluation_of_their_point) {
    const small_model m = two_effects();
    set_up(m);
    const array<double> here = estimates.parvec, other = beside(here);
    const auto expect_refusal = [&](const char* why) {
        EXPECT_STOP(average_info(), std::string("programming error: \"average_info\" ") + why);
        EXPECT_STOP(derivatives_mmm(), std::string("programming error: \"derivatives_mmm\" ") + why);
        em_quantities q;
        EXPECT_STOP(em_expectations({}, q), std::string("programming error: \"em_expectations\" ") + why);
        derivatives_here();
        expect_dense_derivatives(m, why);
    };
    expect_refusal("needs the factor, the store holds nothing"); // before any evaluation
    expect_refusal("needs the factor, the store holds the derivative");
    program_logl(here, 1);
    program_logl(other, 1);
    expect_refusal(no_evaluation); // the factor of another point
    program_logl(other, 1);
    program_logl(here, 0); // from the table: the inverses without their factor
    expect_refusal(no_evaluation);
    program_logl(here, 1);
    program_logl(other, 0); // and the factor without its inverses
    expect_refusal(no_evaluation);
    program_logl(here, 1);
    forget_factor();
    expect_refusal(no_evaluation);
    program_logl(here, 1);
    takaha_inverse();
    expect_refusal("needs the factor, the store holds the inverse");
}

TEST_F(derivative_order_test, not_behind_a_point_without_a_value) {
    const small_model m = two_effects();
    set_up(m);
    on_original_scale();
    program_logl(estimates.parvec, 1);
    array<double> q = estimates.parvec;
    q(1) = q(3) = 1.0e12; // fails in the factor
    EXPECT_EQ(program_logl(q, 1), invalid_logl);
    EXPECT_STOP(average_info(), "needs the factor, the store holds nothing");
    new_analysis();
    set_up(m);
    program_logl(estimates.parvec, 1);
    q = estimates.parvec;
    q(2) = std::nan(""); // no residual matrix: the factor of the point before is still there
    EXPECT_EQ(program_logl(q, 1), invalid_logl);
    EXPECT_STOP(average_info(), no_evaluation);
    EXPECT_STOP(derivatives_mmm(), no_evaluation);
    derivatives_here();
    expect_dense_derivatives(m, "and again");
}

TEST_F(derivative_order_test, not_in_a_new_analysis_without_an_evaluation) {
    const small_model m = two_effects();
    set_up(m);
    derivatives_here();
    new_analysis();
    set_up(m);
    EXPECT_STOP(average_info(), "needs the factor, the store holds nothing");
    EXPECT_STOP(derivatives_mmm(), "needs the factor, the store holds nothing");
    EXPECT_STOP(jacob_var2chol(0), "\"jacob_var2chol\" needs derivatives at its point");
}

TEST_F(derivative_order_test, transformed_only_behind_both_at_their_point) {
    const small_model m = two_effects();
    set_up(m);
    const array<double> here = estimates.parvec, other = beside(here);
    program_logl(here, 1);
    average_info();
    EXPECT_STOP(jacob_var2chol(0), "\"jacob_var2chol\" needs derivatives at its point"); // no gradient
    derivatives_mmm();
    estimates.parvec = other;
    EXPECT_STOP(jacob_var2chol(0), "\"jacob_var2chol\" needs derivatives at its point");
    program_logl(other, 1);
    derivatives_mmm();
    EXPECT_STOP(jacob_var2chol(0), "\"jacob_var2chol\" needs derivatives at its point"); // of another point
    estimates.parvec = here;
    derivatives_here();
    expect_dense_derivatives(m, "in turn");
}

} // namespace
} // namespace tarvex
