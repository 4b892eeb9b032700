// What makes the information safe, method by method, with matrices given by hand.
#include "control/maximise.h"
#include "dense/numroutines.h"
#include "estimation/aireml.h"
#include "estimation/stepcontrol.h"
#include "likelihood/derivatives.h"
#include "support/em_fixture.h"

#include <cmath>
#include <limits>

namespace tarvex {
namespace {

class methods_test : public tarvex_test {
protected:
    void SetUp() override {
        set_up(families(1), {"--aireml", "--logdia"});
        set_linesearch();
        program_logl(estimates.parvec, 1);
    }
    // Step by a diagonal information and a gradient of two parameters.
    static void step(int method, double a, double b, double ga, double gb) {
        maximise.modify_chol = method;
        derivs.der1.allocate(2);
        derivs.der2.allocate(3);
        derivs.der1(1) = ga;
        derivs.der1(2) = gb;
        derivs.der2(1) = a;
        derivs.der2(2) = 0.0;
        derivs.der2(3) = b;
        derivs.nparm2 = 2;
        derivs.subset.allocate(2);
        derivs.subset(1) = 1;
        derivs.subset(2) = 2;
        aireml_terms.tau = 0.0;
        double xnew = 0.0;
        eztimates(xnew);
    }
};

TEST_F(methods_test, eigenvalues_below_tau_are_replaced_by_it) {
    for (const double small : {0.0, 0.0002, 0.0009}) {
        step(1, 2.0, small, 0.1, 1.0e-5);
        EXPECT_NEAR(derivs.dvec(1), 0.05, 1.0e-12);
        EXPECT_NEAR(derivs.dvec(2), 1.0e-5 / 0.001, 1.0e-12) << small;
    }
    step(1, 2.0, 0.0011, 0.1, 1.0e-5);
    EXPECT_NEAR(derivs.dvec(2), 1.0e-5 / 0.0011, 1.0e-10);
}

TEST_F(methods_test, element_sticks_out_wherever_it_stands) {
    step(4, 1.0, 1.0, 0.01, 0.26);
    EXPECT_NEAR(derivs.dvec(2), 0.8 * 0.26, 1.0e-12);
    EXPECT_NEAR(derivs.dvec(1), 0.01, 1.0e-12);
}

// A pivot counts as positive from eps^0.6 of the largest diagonal element on, some 4e-10.
TEST_F(methods_test, small_pivot_is_left_where_it_is_safe) {
    for (const double small : {2.0e-9, 1.0e-8}) {
        step(3, 2.0, small, 0.02, 0.02 * small);
        EXPECT_NEAR(derivs.dvec(2), 0.02, 1.0e-9) << small;
    }
    step(3, 2.0, 4.0e-10, 0.02, 0.02 * 4.0e-10);
    EXPECT_LT(derivs.dvec(2), 0.019);
}

// Eigenvalues 2 and -0.5 of the last block: both are raised by 0.5 and eps^0.5 / (1 - eps^0.5) of their distance.
TEST_F(methods_test, negative_block_is_raised_to_the_root_of_the_rounding_unit) {
    const double g = 1.0e-9, root = std::sqrt(std::numeric_limits<double>::epsilon());
    step(3, 2.0, -0.5, 0.0, g);
    const double want = g / (2.5 * root / (1.0 - root));
    EXPECT_NEAR(derivs.dvec(2), want, 1.0e-6 * want);
}

// Shares of the root of the operational zero times the largest eigenvalue, between 13000 and 60000 and beyond.
TEST_F(methods_test, tau_rises_with_steep_information) {
    const double rate = 0.44 * 0.08 * 1.0e-4;
    EXPECT_NEAR(set_tau(20000.0, 0.001), rate * 8000.0, 1.0e-12);
    EXPECT_NEAR(set_tau(50000.0, 0.001), rate * 38000.0, 1.0e-12);
    EXPECT_NEAR(set_tau(70000.0, 0.001), rate * 0.8 * 70000.0, 1.0e-12);
}

} // namespace
} // namespace tarvex
