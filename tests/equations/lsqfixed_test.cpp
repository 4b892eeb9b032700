// Rank of the fixed part of small analyses: what is told, which equations go, and the solutions that are left; and the
// numbering on which it rests, as it is traced.
#include "equations/lsqfixed.h"

#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "data/levels.h"
#include "equations/equations.h"
#include "equations/mmequations.h"
#include "support/fixture.h"
#include "support/small_models.h"

#include <gtest/gtest.h>
#include <map>

namespace tarvex {
namespace {

class lsqfixed_test : public tarvex_test {
protected:
    void SetUp() override {
        m.make_pedigree(20, 6, 3);
        m.make_rows(1, 1, 3, 0.0, 4);
        m.random = {{"animal", "NRM", 1, 0, {4.0}}};
        m.residual = {6.0};
    }
    bool told(const std::string& text) const { return screen_text().find(text) != std::string::npos; }
    small_model m;
};

TEST_F(lsqfixed_test, solutions_of_one_effect_are_means) {
    set_up(m, {"-v", "--aireml"});
    std::map<int, std::pair<double, int>> herds;
    for (const auto& r : m.rows) {
        herds[r.herd].first += r.y[0];
        ++herds[r.herd].second;
    }
    EXPECT_EQ(numbers.nrankx, 3);
    EXPECT_TRUE(mmequations.ieqzero.empty());
    for (const auto& [herd, sum] : herds) {
        EXPECT_NEAR(lsqsolutions.xsol(herd), sum.first / sum.second, 1e-12);
        EXPECT_NEAR(lsqsolutions.rhs(herd), sum.first, 1e-10);
    }
    EXPECT_TRUE(
        told("\nEND data\n Coefficient matrix fixed effects - rank =     3  no. of rows =     3\nEND \"lsqfixed\"\n"))
        << screen_text();
}

TEST_F(lsqfixed_test, the_mean_is_what_depends_on_a_complete_effect) {
    m.mean = true;
    set_up(m, {"-v", "--aireml"});
    const int mean = mmequations.ieq_trait(1);
    EXPECT_EQ(mean, mmequations.neqns);
    EXPECT_EQ(mmequations.ieqzero, std::vector<int>{mean});
    EXPECT_EQ(numbers.nrankx, 3);
    EXPECT_TRUE(told("LSQ : small pivot " + std::to_string(mean) + " "));
    EXPECT_TRUE(told("\nLSQ : additional dependency " + std::to_string(mean) + "\n"));
    EXPECT_FALSE(told("(nested ?)"));
    EXPECT_EQ(lsqsolutions.xsol(4), 0.0);
}

TEST_F(lsqfixed_test, a_covariable_of_tiny_scale_vanishes_with_a_warning) {
    m.covariable = true;
    for (auto& r : m.rows) r.x *= 1.0e-5; // sum of squares below 1e-6
    set_up(m);
    EXPECT_EQ(mmequations.ieqzero, std::vector<int>{1});
    EXPECT_EQ(numbers.nrankx, 3);
    EXPECT_TRUE(told("\nLSQ : additional dependency 1\n"
                     "    Rows/columns to be zero-ed out to account for the\n"
                     "    additional dependency among fixed effects found  \n"
                     "    corresponds to a (nested ?) regression coefficient !        \n"
                     "    This may cause problems - it would be highly advisable to\n"
                     "    identify the level(s) of fixed effects fitted which\n"
                     "    cause this & specify these explicitely (in the .par file)\n"
                     "    as to be zero-ed out instead !!! \n"));
    EXPECT_FALSE(told("small pivot")) << "not told without the flag";
    new_analysis();
    clear_screen();
    set_up(m, {"--zero12", "--aireml"}); // the limit goes with the operational zero
    EXPECT_TRUE(mmequations.ieqzero.empty());
    EXPECT_EQ(numbers.nrankx, 4);
    EXPECT_FALSE(told("(nested ?)"));
}

TEST_F(lsqfixed_test, equations_taken_out_before_are_told_in_detail) {
    m.mean = true;
    set_up(m);
    mmequations.ieqzero = {2};
    options.details = true;
    clear_screen();
    lsq_fixed();
    double n = 0.0;
    for (const auto& r : m.rows) n += r.herd == 2 ? 1.0 : 0.0;
    EXPECT_EQ(screen_text(), "zero out 2 " + std::to_string(static_cast<int>(n)) + ".0\n")
        << "the mean takes its place";
    EXPECT_EQ(mmequations.ieqzero, std::vector<int>{2});
    EXPECT_EQ(numbers.nrankx, 3);
    EXPECT_EQ(lsqsolutions.xsol(2), 0.0);
    EXPECT_NEAR(lsqsolutions.xsol(4) * n, lsqsolutions.rhs(2), 1e-9) << "the mean is that of the herd";
}

TEST_F(lsqfixed_test, numbering_is_traced) {
    m.nq = 2;
    m.covariable = true;
    m.rows.clear();
    m.make_rows(1, 1, 3, 0.0, 4);
    m.random = {{"animal", "NRM", 2, 0, {4.0, 1.0, 3.0}}, {"pe", "IDE", 2, 0, {1.0, 0.2, 1.0}}};
    m.residual = {6.0, 1.0, 5.0};
    set_up(m);
    options.devtrace = options.verbose = true;
    clear_screen();
    equation_nos();
    const int pe = 2 * levels.rn_nlev(2), animals = 2 * levels.rn_nlev(1);
    std::ostringstream expected;
    expected << "cov 1 1 1 0\ncov 2 1 2 1\nfix 1 1 5 2\nfix 2 1 8 5\nrn 2 " << 8 + pe << " 8\nrn 1 " << 8 + pe + animals
             << " " << 8 + pe << "\n"
             << 8 + pe + animals << " " << pe + animals << " 6 2\nlim1 0\n";
    EXPECT_EQ(screen_text(), expected.str());
}

TEST_F(lsqfixed_test, too_many_equations_are_told_with_both_numbers) {
    set_up(m);
    const int others = mmequations.neqns - levels.rn_nlev(1);
    levels.rn_nlev(1) = maxeqns - others;
    equation_nos();
    EXPECT_EQ(mmequations.neqns, 2222222);
    ++levels.rn_nlev(1);
    EXPECT_STOP(equation_nos(), "Max. no. of equations allowed in mixed model exceeded !\n"
                                "Current limit is                :  2222222\n"
                                "Number required for analysis is :  2222223\n"
                                "exit \"Tarvex\"");
    levels.rn_nlev(1) = 2147483647; // far beyond 32 bits with several components
    numbers.krand = 1;
    EXPECT_STOP(equation_nos(), "Number required for analysis is :  " + std::to_string(2147483647LL + others));
}

} // namespace
} // namespace tarvex
