// What one evaluation leaves behind for the next, through failures and new orderings; models at the edge of what is
// fitted.
#include "control/filenames.h"
#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "data/levels.h"
#include "equations/eqnorders.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "estimation/covs2parvec.h"
#include "estimation/estimates.h"
#include "estimation/evaluate.h"
#include "likelihood/derivatives.h"
#include "likelihood/factormmm.h"
#include "likelihood/likelihood.h"
#include "likelihood/solutions.h"
#include "likelihood/subjectchunks.h"
#include "parameters/randomvars.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "support/fixture.h"
#include "support/small_models.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex {
namespace {

using evaluations_test = tarvex_test;

small_model traits(int nq, int repeats = 1) {
    small_model m;
    m.nq = nq;
    m.make_pedigree(20, 6, 5);
    m.make_rows(4, repeats, 2, nq > 1 ? 0.2 : 0.0, 6);
    m.random = {{"animal", "NRM", nq, 0, nq == 1 ? std::vector<double>{1.3} : std::vector<double>{1.3, 0.5, 1.8}}};
    m.residual = nq == 1 ? std::vector<double>{2.1} : std::vector<double>{2.1, 0.4, 1.9};
    return m;
}

void on_original_scale() {
    options.emalgorithm = true;
    covs2parvec();
    forget_likelihoods();
}

int count(std::string_view text, std::string_view word) {
    int n = 0;
    for (std::size_t k = text.find(word); k != std::string_view::npos; k = text.find(word, k + 1)) ++n;
    return n;
}

void expect_dense(const small_model& m, const array<double>& p) {
    const double want = dense_logl(m, p);
    EXPECT_NEAR(program_logl(p, 1), want, 1.0e-8 * std::fabs(want));
}

void expect_blup(const small_model& m, const array<double>& p) {
    const oracle::analysis a = m.dense();
    const oracle::point point = point_at(m, p);
    const oracle::reml e = oracle::evaluate(a, oracle::variance(a, point));
    const oracle::dense u = oracle::blup(a, point, e, 0);
    const int n = m.nq;
    for (int l = 1; l <= levels.rn_nlev(1); ++l)
        for (int r = 1; r <= n; ++r) {
            const auto code = static_cast<std::size_t>(levels.rn_codes(1)(l) - 1);
            EXPECT_NEAR(solutions.solsave(mmequations.rn_start(1) + (l - 1) * n + r), u[code][at(r - 1)], 1.0e-8);
        }
}

// The factor of the last good point is overwritten by the one that fails.
TEST_F(evaluations_test, point_that_fails_in_the_factor_leaves_nothing_to_reuse) {
    const small_model m = traits(2);
    set_up(m);
    on_original_scale();
    const double x = program_logl(estimates.parvec, 1);
    const array<double> before = solutions.solns;
    derivatives_mmm();
    const array<double> slopes = derivs.devl1;
    forget_factor();
    EXPECT_EQ(program_logl(estimates.parvec, 1), x);
    array<double> q = estimates.parvec;
    q(1) = q(3) = 1.0e12;
    EXPECT_EQ(program_logl(q, 1), invalid_logl);
    EXPECT_NE(screen_text().find("invalid pivot - at row"), std::string::npos);
    const int nfact = likelihoods.nfact;
    EXPECT_EQ(program_logl(estimates.parvec, 1), x);
    EXPECT_EQ(likelihoods.nfact, nfact + 1);
    for (int i = 1; i <= before.upper(); ++i) EXPECT_EQ(solutions.solns(i), before(i));
    derivatives_mmm();
    for (int i = 1; i <= slopes.upper(); ++i) EXPECT_EQ(derivs.devl1(i), slopes(i));
    EXPECT_EQ(program_logl(q, -1), invalid_logl);
    EXPECT_EQ(program_logl(estimates.parvec, -1), x);
}

// A look-up leaves the inverses of another point behind; asking for the factor brings those of its own back.
TEST_F(evaluations_test, factor_at_hand_comes_with_its_inverses) {
    const small_model m = traits(2);
    set_up(m);
    program_logl(estimates.parvec);
    const array<double, 3> own = randomvars.zig;
    array<double> q = estimates.parvec;
    q(4) *= 1.3;
    int ifail = 0;
    g_inverse(q, ifail);
    EXPECT_NE(randomvars.zig(1, 1, 1), own(1, 1, 1));
    program_logl(estimates.parvec, -1);
    EXPECT_EQ(likelihoods.nfact, 1);
    EXPECT_EQ(randomvars.zig(1, 1, 1), own(1, 1, 1));
    EXPECT_EQ(randomvars.zig(1, 2, 1), own(1, 2, 1));
}

// Names, times and contents of all files of the folder.
std::vector<std::string> folder() {
    std::vector<std::string> list;
    for (const auto& f : std::filesystem::recursive_directory_iterator("."))
        if (f.is_regular_file())
            list.push_back(f.path().string() + " " + std::to_string(f.last_write_time().time_since_epoch().count()) +
                           " " + read_file(f.path().string()));
    std::sort(list.begin(), list.end());
    return list;
}

TEST_F(evaluations_test, evaluation_writes_no_file) {
    small_model m = traits(2);
    set_up(m);
    const array<double> free = estimates.parvec;
    new_analysis();
    m.residual[1] = 0.0;
    set_up(m);
    options.details = true; // whatever can be told is told
    const auto before = folder();
    ASSERT_GT(before.size(), 5u);
    array<double> p = estimates.parvec;
    EXPECT_TRUE(loglike(p, 1).valid);
    average_info();
    derivatives_mmm();
    jacob_var2chol(1);
    EXPECT_EQ(folder(), before);
    residualvars.fixres.fill(0);
    estimates.parvec = free;
    const evaluation e = loglike(estimates.parvec, 1);
    ASSERT_TRUE(e.reordered);
    EXPECT_EQ(folder(), before);
    average_info(); // passes over the records in the new numbers
    derivatives_mmm();
    EXPECT_EQ(folder(), before);
    array<double> q = free;
    q(1) = std::nan("");
    EXPECT_FALSE(loglike(q, 1).valid);
    EXPECT_EQ(folder(), before);
    const std::string lists = read_file(filenames.recdatfil3);
    keep_order(*e.reordered);
    EXPECT_NE(folder(), before); // the list would have shown it
    EXPECT_NE(read_file(filenames.recdatfil3), lists);
    forget_likelihoods();
    const auto kept = folder();
    EXPECT_EQ(loglike(estimates.parvec, 1).xlike, e.xlike); // now by the lists that were kept
    EXPECT_EQ(folder(), kept);
}

// Until a new order is kept threads translate the old numbers too, from wherever their chunks begin.
TEST_F(evaluations_test, threads_pass_over_records_in_the_numbers_of_a_new_order) {
    const small_model free = traits(2);
    set_up(free);
    const array<double> point = estimates.parvec;
    new_analysis();
    small_model m = free;
    m.residual[1] = 0.0;
    set_up(m);
    residualvars.fixres.fill(0);
    estimates.parvec = point;
    places.together = 3;
    const evaluation e = loglike(estimates.parvec, 1);
    ASSERT_TRUE(e.reordered);
    EXPECT_NE(orders.nlisted, orders.nsymb);
    options.threads = 3;
    forget_likelihoods();
    ASSERT_GT(shared_chunks(), 1);
    EXPECT_NEAR(loglike(estimates.parvec, 1).xlike, dense_logl(free, point), 1.0e-7);
    derivatives_mmm();
    const array<double> slopes = derivs.devl1;
    keep_order(*e.reordered);
    EXPECT_EQ(orders.nlisted, orders.nsymb);
    forget_likelihoods();
    EXPECT_EQ(loglike(estimates.parvec, 1).xlike, e.xlike);
    derivatives_mmm();
    for (int i = 1; i <= slopes.upper(); ++i) EXPECT_EQ(derivs.devl1(i), slopes(i));
    options.threads = 1;
}

// The order and the structure that a search has come to are there for a run that continues.
TEST_F(evaluations_test, new_order_of_a_search_is_kept) {
    small_model m = traits(2);
    m.residual[1] = 0.0;
    set_up(m);
    residualvars.fixres.fill(0);
    array<double> p = estimates.parvec;
    for (int i = 1; i <= p.upper(); ++i) p(i) *= 1.01;
    p(2) = 0.2;
    const std::string order = read_file(filenames.ordersfile), structure = read_file(filenames.symfacfile);
    evaluate_point(p, 1);
    EXPECT_EQ(orders.nsymb, 2);
    EXPECT_NE(read_file(filenames.ordersfile), order);
    EXPECT_NE(read_file(filenames.symfacfile), structure);
}

// A second ordering in the middle of a run, with equations that were taken out before the first.
TEST_F(evaluations_test, new_ordering_keeps_equations_and_solutions) {
    small_model zero = traits(2);
    zero.mean = true; // the means depend on the herds
    zero.residual[1] = 0.0;
    small_model m = zero;
    m.residual[1] = 0.3;
    set_up(m);
    const array<double> free = estimates.parvec;
    new_analysis();
    set_up(zero);
    residualvars.fixres.fill(0); // the covariance is zero no longer
    estimates.parvec = free;
    const int nsrow = numbers.nsrow;
    EXPECT_LT(nsrow, mmequations.neqns + 1);
    EXPECT_EQ(orders.nsymb, 1);
    const double x = program_logl(estimates.parvec);
    EXPECT_EQ(orders.nsymb, 2);
    EXPECT_EQ(numbers.nsrow, nsrow);
    small_model herds = m; // the same columns without those that depend
    herds.mean = false;
    EXPECT_NEAR(x, dense_logl(herds, estimates.parvec), 1.0e-7);
    expect_blup(herds, estimates.parvec);
    int live = 0;
    for (int e = 1; e <= mmequations.neqns; ++e)
        if (orders.ieqnew(e) > 0) {
            ++live;
            EXPECT_EQ(orders.ieqold(orders.ieqnew(e)), e);
        }
    EXPECT_EQ(live, nsrow - 1);
    takaha_inverse();
    EXPECT_NEAR(program_logl(estimates.parvec, 1), x, 1.0e-9);
}

// Warnings of small pivots come with every evaluation, not with the first one of a point only.
TEST_F(evaluations_test, small_pivots_are_told_every_time) {
    small_model m = traits(2);
    m.residual = {2.1, 0.4e-3, 1.9e-6};
    set_up(m);
    clear_screen();
    program_logl(estimates.parvec, 1);
    const int first = count(screen_text(), "SMALL PIVOT");
    EXPECT_GT(first, 0);
    clear_screen();
    const evaluation again = loglike(estimates.parvec, 1);
    EXPECT_EQ(count(screen_text(), "SMALL PIVOT"), first);
    EXPECT_TRUE(again.solved && !again.new_factor);
}

TEST_F(evaluations_test, evaluations_are_timed_where_times_are_asked_for) {
    set_up(traits(1));
    options.print_times = false;
    options.verbose = false;
    clear_screen();
    program_logl(estimates.parvec);
    EXPECT_EQ(screen_text(), "");
    options.print_times = true;
    array<double> p = estimates.parvec;
    p(2) *= 1.1;
    program_logl(p);
    EXPECT_EQ(count(screen_text(), "***Time:"), 1);
    EXPECT_EQ(screen_text().find("***Time: Log L "), 0u);
    clear_screen();
    program_logl(p);    // from the table
    program_logl(p, 1); // from the factor
    EXPECT_EQ(screen_text(), "");
}

// Repeat effects beside components: the factor carries the weights of the others, R the repeat matrix.
TEST_F(evaluations_test, repeat_effect_beside_components) {
    small_model m = traits(2, 2);
    m.principal = true;
    m.residual[1] = 0.2;
    m.random[0].rank = 1;
    m.random.push_back({"pe", "PEQ", 2, 2, {0.4, 0.1, 0.5}});
    set_up(m);
    expect_dense(m, estimates.parvec);
    array<double> p = estimates.parvec;
    p(1) *= 1.05;
    p(4) *= 1.1;
    expect_dense(m, p);
}

// One level, one record: nothing but y'R^-1 y and the diagonal.
TEST_F(evaluations_test, smallest_analysis) {
    small_model m;
    m.herd = false;
    m.sire = {0, 0};
    m.dam = {0, 0};
    m.rows = {{1, 1, 1, 1, 1, 0.0, {3.0}}, {2, 2, 2, 1, 1, 0.0, {-1.0}}};
    m.random = {{"animal", "NRM", 1, 0, {1.5}}};
    m.residual = {0.5};
    set_up(m);
    // V = 2 I: log|V| = 2 log 2, y'y / 2 = 5
    EXPECT_NEAR(program_logl(estimates.parvec), -0.5 * (2.0 * std::log(2.0) + 5.0), 1.0e-12);
    EXPECT_NEAR(solutions.solns(orders.ieqnew(mmequations.rn_start(1) + 1)), 0.75 * 3.0, 1.0e-12);
    EXPECT_NEAR(likelihoods.ypy, 5.0, 1.0e-12);
}

// log|R| and log|G| of a point beside the factor's would not go with its log|C|.
TEST_F(evaluations_test, value_belongs_to_the_factor) {
    set_up(traits(1));
    array<double> p = estimates.parvec;
    const double x = program_logl(p, 1);
    for (int step = 1; step <= 4; ++step) { // the factor stays where it was made, however many steps are taken
        p(1) += 1.0e-9;                     // 2.9e-9 of the residual variance
        const evaluation there = loglike(p, 0);
        EXPECT_EQ(there.new_factor, step > 3) << step;
        EXPECT_EQ(there.xlike == x, step <= 3) << step;
    }
    EXPECT_EQ(likelihoods.nfact, 2);
}

TEST_F(evaluations_test, pattern_that_is_singular_to_rounding_is_invalid) {
    set_up(traits(2), {"--aireml", "--nologd"});
    array<double> p = estimates.parvec;
    p(1) = p(2) = 2.0;
    p(3) = 1.0e-3; // of a variance of 4: 2.5e-7
    EXPECT_GT(program_logl(p), invalid_logl);
    p(3) = 1.0e-4; // 2.5e-9
    EXPECT_EQ(program_logl(p), invalid_logl);
    p(1) = p(2) = 0.5; // the same pivot, of a variance of 0.25: 4e-8
    EXPECT_GT(program_logl(p), invalid_logl);
}

TEST_F(evaluations_test, determinant_that_is_not_a_number_is_invalid) {
    set_up(traits(1));
    const double x = program_logl(estimates.parvec);
    residualvars.detres(1) = std::nan(""); // kept as long as the residual variance stays
    array<double> p = estimates.parvec;
    p(2) += 0.01;
    EXPECT_EQ(program_logl(p), invalid_logl);
    EXPECT_EQ(likelihoods.nlike, 1);
    EXPECT_EQ(bestpoint.xbest, x);
}

} // namespace
} // namespace tarvex
