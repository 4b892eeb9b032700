// What the routines of the likelihood print, and how they end a run.
#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "data/datavecs.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "estimation/covs2parvec.h"
#include "estimation/estimates.h"
#include "likelihood/buildmmm.h"
#include "likelihood/factormmm.h"
#include "likelihood/likelihood.h"
#include "likelihood/setups.h"
#include "likelihood/solutions.h"
#include "likelihood/warnfix.h"
#include "parameters/randomvars.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "relations/nrminverse.h"
#include "support/fixture.h"
#include "support/screen.h"
#include "support/small_models.h"

#include <cmath>
#include <cstdio>
#include <filesystem>

namespace tarvex {
namespace {

using likelihood_messages_test = tarvex_test;

small_model bivariate(double rcov = 0.4) {
    small_model m;
    m.nq = 2;
    m.make_pedigree(22, 6, 3);
    m.make_rows(5, 1, 3, 0.25, 4);
    m.random = {{"animal", "NRM", 2, 0, {1.3, 0.5, 1.8}}};
    m.residual = {2.1, rcov, 1.9};
    return m;
}

bool told(const std::string& screen, const std::string& text) { return screen.find(text) != std::string::npos; }

TEST_F(likelihood_messages_test, unknown_types_of_analysis) {
    set_up(one_trait_model());
    int ifail = 0;
    for (int type : {0, 5}) {
        model.anal_type = type;
        EXPECT_STOP(build_mmm(ifail), "error mmm_data");
        EXPECT_STOP(g_inverse(estimates.parvec, ifail), "ginverse");
        EXPECT_STOP(rinverse(estimates.parvec, ifail), "rinverse");
    }
    model.anal_type = 4;
    EXPECT_STOP(rinverse(estimates.parvec, ifail), "rinverse");
}

TEST_F(likelihood_messages_test, variance_functions_of_the_residual_are_not_there) {
    small_model m;
    m.randreg = true;
    m.make_pedigree(14, 5, 7);
    m.make_rows(3, 4, 2, 0.0, 8);
    m.random = {{"animal", "NRM", 2, 0, {2.0, 0.3, 1.0}}};
    m.residual = {1.2};
    set_up(m);
    model.me_type = residual_kind::fun;
    int ifail = 0;
    EXPECT_STOP(rinverse(estimates.parvec, ifail), "FUN not yet");
}

// The numbers before ordering are those of the equations as they were counted, taken-out ones included.
TEST_F(likelihood_messages_test, element_of_a_random_effect_without_a_place) {
    small_model m = bivariate();
    m.extra = "ZER\n herd 2 1\nEND\n"; // from there on the numbers of the equations that stay are other ones
    set_up(m);
    program_logl(estimates.parvec);
    ASSERT_EQ(numbers.nsrow, mmequations.neqns);
    // one equation of a level is swapped for that of a level which it has no link to
    int a = 0, b = 0;
    const int n = mmequations.rn_start(1);
    for (int i = n + 1; i <= mmequations.neqns && a == 0; i += 2)
        for (int j = i + 2; j <= mmequations.neqns && a == 0; j += 2)
            if (locate(orders.ieqnew(i), orders.ieqnew(j)) == 0) {
                a = i;
                b = j;
            }
    ASSERT_GT(a, 0);
    const int other = orders.ieqnew(b);
    orders.ieqnew(a) = other;
    places = {};
    int iflag = 0;
    clear_screen();
    EXPECT_STOP(build_mmm(iflag), "this should not happen");
    int row = 0, col = 0, old1 = 0, old2 = 0;
    ASSERT_EQ(std::sscanf(screen_text().c_str(),
                          "***** ERROR : cannot locate element in compressed array\n"
                          "      Recoded row and column no. = %d %d\n"
                          "      Original equation no.s     = %d %d",
                          &row, &col, &old1, &old2),
              4)
        << screen_text();
    EXPECT_EQ(old1, orders.ieqold(row));
    EXPECT_EQ(old2, orders.ieqold(col));
    EXPECT_TRUE(row == other || col == other) << row << " " << col << " " << other;
    EXPECT_TRUE(old1 == b || old2 == b);
    EXPECT_EQ(locate(row, col), 0);
}

TEST_F(likelihood_messages_test, equation_of_a_level_that_was_taken_out) {
    set_up(one_trait_model());
    program_logl(estimates.parvec);
    orders.ieqnew(mmequations.rn_start(1) + 1) = 0; // the founder whose diagonal comes first
    places = {};
    int iflag = 0;
    clear_screen();
    EXPECT_STOP(build_mmm(iflag), "this should not happen");
    EXPECT_TRUE(told(screen_text(), "***** ERROR : cannot locate element in compressed array\n"
                                    "      Recoded row and column no. = 0 0\n"
                                    "      Original equation no.s     = 0 0\n"))
        << screen_text();
}

TEST_F(likelihood_messages_test, diagnosis_of_the_first_evaluation_line_by_line) {
    set_up(one_trait_model());
    const int eq = mmequations.fx_start(1, 1) + 3, row = orders.ieqnew(eq);
    ASSERT_GT(row, 0);
    clear_screen();
    write_warnfix(row);
    const std::string head = "This occurred in first likelihood evaluation attempted.\n"
                             "This indicates that - most likely - this is due to an \n"
                             "unidentified dependency among the fixed effects levels fitted.\n"
                             "Error ocuured at row no.              = ";
    EXPECT_EQ(screen_text(), head + std::to_string(row) +
                                 "\nCorresponding \"original\" equation no. = " + std::to_string(eq) +
                                 "\nThis belongs to fixed effect \"herd\"\nand trait no. 1\n"
                                 "Problem occurs for level no.          = 3\n"
                                 "No. of levels fitted for this effect  = 3\n"
                                 "Check \"fixed\" part of the model carefully !\n");
    clear_screen();
    const int random = mmequations.rn_start(1) + 2;
    write_warnfix(orders.ieqnew(random));
    const std::string level = "This occurred in first likelihood evaluation attempted.\n"
                              "The equation belongs to random effect \"animal\", level no. 2\n";
    const std::string place = "Error ocuured at row no.              = " + std::to_string(orders.ieqnew(random)) +
                              "\nCorresponding \"original\" equation no. = " + std::to_string(random) + "\n";
    EXPECT_EQ(screen_text(), level +
                                 "Its starting values do not go with the others - check variances and "
                                 "covariances !\n" +
                                 place);
    clear_screen();
    if (!geninverse.nwithout.allocated()) geninverse.nwithout.allocate(1);
    geninverse.nwithout(1) = 2; // levels of a supplied inverse without elements
    write_warnfix(orders.ieqnew(random));
    EXPECT_EQ(screen_text(), level +
                                 "Levels of this effect are treated as fixed : one of them depends on the fixed "
                                 "effects !\n" +
                                 place);
    clear_screen();
    write_warnfix(numbers.nsrow); // y'Py
    EXPECT_TRUE(told(screen_text(), "Records differ by too little for their size - subtract a constant from all of a "
                                    "trait !\n"))
        << screen_text();
    EXPECT_EQ(screen_text().find("dependency"), std::string::npos);
    clear_screen();
    model.cov(1, 1) = 1.0e12;
    write_warnfix(row); // the fixed part is not to blame
    EXPECT_EQ(screen_text().find("dependency"), std::string::npos);
    EXPECT_TRUE(told(screen_text(), "Starting variances far from those of the data make pivots vanish.\n"));
}

// Residual variances so large that the equations of the fixed effects have no pivots above the limit.
TEST_F(likelihood_messages_test, failed_first_evaluation_gives_the_diagnosis_only_then) {
    small_model m = one_trait_model();
    m.residual = {1.0e12};
    set_up(m);
    options.mmmposdef = true;
    likelihoods.first = true;
    clear_screen();
    EXPECT_STOP(program_logl(estimates.parvec), "exit \"Tarvex\"");
    EXPECT_EQ(screen_text().find("invalid pivot - at row "), 0u);
    EXPECT_TRUE(told(screen_text(), "\n***** ERROR in sparse matrix factorisation \n"
                                    "      mixed model matrix is not positive definite !!!\n"
                                    "This occurred in first likelihood evaluation attempted.\n"));
    likelihoods.first = false;
    clear_screen();
    EXPECT_STOP(program_logl(estimates.parvec), "exit \"Tarvex\"");
    EXPECT_FALSE(told(screen_text(), "This occurred"));
    options.mmmposdef = false;
    clear_screen();
    EXPECT_EQ(program_logl(estimates.parvec), invalid_logl);
    EXPECT_FALSE(told(screen_text(), "***** ERROR"));
    EXPECT_EQ(likelihoods.ncall, 0);
    EXPECT_EQ(likelihoods.nlike, 0);
}

TEST_F(likelihood_messages_test, residual_matrix_is_shown_under_details) {
    set_up(bivariate());
    options.details = true;
    clear_screen();
    int ifail = 0;
    rinverse(estimates.parvec, ifail);
    EXPECT_TRUE(told(screen_text(), "sigr  1  2.10000     0.400000    \nsigr  2 0.400000      1.90000    \n"))
        << screen_text();
    options.details = false;
    clear_screen();
    rinverse(estimates.parvec, ifail);
    EXPECT_EQ(screen_text(), "");
}

TEST_F(likelihood_messages_test, singular_pattern_is_shown_with_its_triangle) {
    small_model m = one_trait_model();
    m.rows.clear();
    m.make_rows(4, 2, 3, 0.0, 2);
    m.random.push_back({"pe", "PEQ", 1, 0, {0.7}});
    set_up(m);
    options.emalgorithm = true;
    covs2parvec();
    estimates.parvec(1) = estimates.parvec(2) = 1.25;
    clear_screen();
    int ifail = 0;
    rinverse(estimates.parvec, ifail);
    EXPECT_EQ(ifail, 1);
    EXPECT_TRUE(told(screen_text(), "***** ERROR : Residual covariance matrix not of full rank\n"
                                    "      Dimension   = 2\n"
                                    "      Rank        = 1\n"
                                    "      Combination = 2\n"
                                    "  1     1.250000\n"
                                    "  2     1.250000     1.250000\n"))
        << screen_text();
}

TEST_F(likelihood_messages_test, singular_subject_is_named) {
    small_model m;
    m.randreg = true;
    m.make_pedigree(14, 5, 7);
    m.make_rows(3, 4, 2, 0.0, 8);
    m.random = {{"animal", "NRM", 2, 0, {2.0, 0.3, 1.0}}};
    m.residual = {1.2};
    m.rows[5].age = m.rows[4].age; // second animal with records
    set_up(m);
    clear_screen();
    EXPECT_STOP(program_logl(estimates.parvec), "exit \"Tarvex\"");
    EXPECT_EQ(screen_text().find("Residual covariance matrix not of full rank !\n"
                                 "   Individual no.      = 2\n"
                                 "   No. of observations = 4\n"
                                 "   Rank found          = 3\n"
                                 " ... this could be due to different records with the same\n"
                                 "     value of the covariable ... \n"),
              0u)
        << screen_text();
}

TEST_F(likelihood_messages_test, evaluations_are_told_and_logged) {
    set_up(one_trait_model());
    options.verbose = true;
    clear_screen();
    const double x = program_logl(estimates.parvec);
    char line[80]; // the time is that of the process, which may have run other tests
    std::snprintf(line, sizeof line, "***log L    1   %15.3f   Time ", x);
    EXPECT_TRUE(told(screen_text(), line)) << screen_text();
    EXPECT_FALSE(std::filesystem::exists("logL.dat"));
    array<double> p = estimates.parvec;
    p(2) += 0.1;
    const double x2 = program_logl(p);
    clear_screen();
    EXPECT_EQ(program_logl(estimates.parvec), x); // one row below the newest
    EXPECT_EQ(screen_text(), "-1 " + list_item(x) + " logl found\n");
    options.verbose = false;
    options.details = true;
    clear_screen();
    EXPECT_EQ(program_logl(p), x2);
    EXPECT_FALSE(told(screen_text(), "logl found"));
    write_file("logL.dat", "an older line\n");
    p(2) += 0.1;
    const double x3 = program_logl(p);
    char logged[80];
    std::snprintf(logged, sizeof logged, "    3%22.6f ", x3);
    EXPECT_EQ(read_file("logL.dat").find(std::string("an older line\n") + logged), 0u) << read_file("logL.dat");
}

TEST_F(likelihood_messages_test, inverse_is_timed) {
    set_up(one_trait_model());
    program_logl(estimates.parvec);
    options.verbose = false;
    options.print_times = true;
    clear_screen();
    takaha_inverse();
    EXPECT_EQ(screen_text().find("***Time: Takaha-inv"), 0u) << screen_text();
    EXPECT_FALSE(likelihoods.factor_valid);
    program_logl(estimates.parvec, 1);
    EXPECT_EQ(likelihoods.nfact, 2); // the factor is gone
}

} // namespace
} // namespace tarvex
