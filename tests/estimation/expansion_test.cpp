// The expansion of a block from its system of equations, and what becomes of expansions that stray or no longer matter.
#include "control/maximise.h"
#include "control/options.h"
#include "estimation/pxem.h"
#include "parameters/randomvars.h"
#include "parameters/variances.h"
#include "support/em_fixture.h"

#include <cmath>

namespace tarvex {
namespace {

class expansion_test : public tarvex_test {
protected:
    // Quadratics such that G^-1 G_EM = I + E for a full block, with `weight` times the identity as coefficient matrix:
    // the expansion is I + nlev/weight E.
    static em_quantities quantities(const array<double, 2>& e, int n, double weight) {
        em_quantities q;
        const double nlev = effective_levels(1);
        array<double, 2> g;
        array<double> cc;
        int ifail = 0;
        parvec2covs_block(cc, ifail);
        g.allocate(n, n);
        for (int i = 1; i <= n; ++i)
            for (int j = i; j <= n; ++j) g(i, j) = g(j, i) = cc((i - 1) * n - i * (i - 1) / 2 + j);
        q.quads.resize(1);
        q.quads(1).allocate(n, n);
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= n; ++j) {
                q.unknowns.push_back({1, i, j});
                for (int k = 1; k <= n; ++k) q.quads(1)(i, j) += nlev * g(i, k) * (e(k, j) + (k == j ? 1.0 : 0.0));
            }
        q.lhs.allocate(n * n, n * n);
        for (int k = 1; k <= n * n; ++k) q.lhs(k, k) = weight;
        return q;
    }
    static void parvec2covs_block(array<double>& cc, int& ifail) {
        array<double, 2> vv;
        array<double> p = estimates.parvec;
        parvec2covs(p, 1, 1, cc, vv, ifail);
    }
    static array<double, 2> deviation(double x) {
        array<double, 2> e;
        e.allocate(2, 2);
        e(1, 1) = x;
        e(1, 2) = -x;
        e(2, 1) = x;
        e(2, 2) = x;
        return e;
    }
};

TEST_F(expansion_test, solves_its_system) {
    set_up(two_traits(), {"--pxem"});
    program_logl(estimates.parvec, 1);
    const double nlev = effective_levels(1);
    array<double, 2> alpha;
    pxem_solve(1, quantities(deviation(0.3), 2, nlev), alpha);
    EXPECT_NEAR(alpha(1, 1), 1.3, 1.0e-10);
    EXPECT_NEAR(alpha(1, 2), -0.3, 1.0e-10);
    EXPECT_NEAR(alpha(2, 1), 0.3, 1.0e-10);
    pxem_solve(1, quantities(deviation(0.0), 2, nlev), alpha); // the estimate of the round is that of plain EM
    for (int i = 1; i <= 2; ++i)
        for (int j = 1; j <= 2; ++j) EXPECT_NEAR(alpha(i, j), i == j ? 1.0 : 0.0, 1.0e-12);
}

TEST_F(expansion_test, large_deviations_are_dropped) {
    set_up(two_traits(), {"--pxem", "-v"});
    program_logl(estimates.parvec, 1);
    const double nlev = effective_levels(1);
    array<double, 2> alpha;
    clear_screen();
    pxem_solve(1, quantities(deviation(1.499), 2, nlev), alpha);
    EXPECT_NEAR(alpha(1, 1), 2.499, 1.0e-9);
    EXPECT_EQ(screen_text().find("deviates"), std::string::npos);
    pxem_solve(1, quantities(deviation(1.501), 2, nlev), alpha);
    for (int i = 1; i <= 2; ++i)
        for (int j = 1; j <= 2; ++j) EXPECT_EQ(alpha(i, j), i == j ? 1.0 : 0.0);
    const std::string text = screen_text();
    EXPECT_NE(text.find("Matrix \"alpha\" deviates greatly from Identity\nSQRT of average squared deviation = 1.50"),
              std::string::npos);
    EXPECT_NE(text.find("\n  1   2.501  -1.501\n  2   1.501   2.501\nSet \"alpha\" to Identity for this iterate\n"),
              std::string::npos);
}

TEST_F(expansion_test, singular_system_stops_the_run) {
    set_up(two_traits(), {"--pxem"});
    program_logl(estimates.parvec, 1);
    em_quantities q = quantities(deviation(0.3), 2, 1.0);
    for (double& x : q.lhs) x = 1.0;
    array<double, 2> alpha;
    EXPECT_STOP(pxem_solve(1, q, alpha), "\"INVVRT\" : matrix is singular\nexit");
}

TEST_F(expansion_test, diagonal_block_has_a_diagonal_expansion) {
    small_model m = two_traits();
    m.random[0] = {"animal", "NRM", 2, 0, {1.3, 1.8}, true};
    set_up(m, {"--pxem", "--nologd"});
    program_logl(estimates.parvec, 1);
    array<double, 2> alpha;
    pxem_solve(1, quantities(deviation(0.3), 2, effective_levels(1)), alpha);
    EXPECT_NEAR(alpha(1, 1), 1.3, 1.0e-10);
    EXPECT_EQ(alpha(1, 2), 0.0);
    EXPECT_EQ(alpha(2, 1), 0.0);
}

TEST_F(expansion_test, small_eigenvalues_are_raised_up_to_the_rank) {
    array<double, 2> g;
    g.allocate(3, 3);
    for (int i = 1; i <= 3; ++i)
        for (int j = 1; j <= 3; ++j) g(i, j) = 1.0; // eigenvalues 3, 0, 0
    array<double, 2> two = g;
    raise_leading(two, 3, 2);
    double trace = 0.0, square = 0.0;
    for (int i = 1; i <= 3; ++i) {
        trace += two(i, i);
        for (int j = 1; j <= 3; ++j) square += two(i, j) * two(i, j);
    }
    EXPECT_NEAR(trace, 3.0 + 1.0e-6, 1.0e-10); // one eigenvalue of two, the third stays away
    EXPECT_NEAR(square, 9.0, 1.0e-8);
    array<double, 2> one = g;
    raise_leading(one, 3, 1);
    for (int i = 1; i <= 3; ++i)
        for (int j = 1; j <= 3; ++j) EXPECT_EQ(one(i, j), 1.0);
}

TEST_F(expansion_test, ends_when_it_no_longer_matters) {
    small_model m = families(3, 80);
    m.principal = true;
    m.random[0].rank = 2;
    set_up(m, {"--pxem300"});
    double x = program_logl(estimates.parvec, 1);
    int iround = 0;
    em_algorithm(1, iround, x, 0.0);
    EXPECT_FALSE(pxempc.skip_px); // far from the maximum
    EXPECT_GT(pxempc.aalpha, 1.0e-4);
    em_algorithm(300, iround, x, 0.0);
    EXPECT_TRUE(pxempc.skip_px);
    EXPECT_LT(pxempc.aalpha, 1.0e-4);
    EXPECT_EQ(pxempc.skippx, 1);
}

TEST_F(expansion_test, rounds_may_end_by_the_change_of_parameters) {
    set_up(families(1), {"--pxem", "-v"});
    maximise.emconv_like = -1.0;
    double x = program_logl(estimates.parvec, 1);
    int iround = 0;
    em_algorithm(3000, iround, x, 0.0);
    EXPECT_TRUE(maximise.converged);
    EXPECT_NE(screen_text().find("*** (PX-) EM has converged !\n   Last change in parameters "), std::string::npos);
    const std::string log = read_file("Iterates");
    const std::size_t at = log.find("*** (PX-) EM has converged\n    Last change in parameters = ");
    ASSERT_NE(at, std::string::npos) << log.substr(log.size() > 400 ? log.size() - 400 : 0);
    std::istringstream in(log.substr(log.find('=', at) + 1));
    double change = 1.0, limit = 0.0;
    in >> change >> limit;
    EXPECT_LT(change, 1.0e-8);
    EXPECT_EQ(limit, 1.0e-8);
}

} // namespace
} // namespace tarvex
