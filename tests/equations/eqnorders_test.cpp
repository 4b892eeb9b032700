// Equation numbers, pattern and order of small analyses, and what a later run takes over.
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "data/levels.h"
#include "equations/adjacency.h"
#include "equations/eqnorders.h"
#include "equations/equations.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "estimation/estimates.h"
#include "parfile/model.h"
#include "relations/linkedlist.h"
#include "support/fixture.h"
#include "support/record_file.h"
#include "support/resealed.h"
#include "support/small_models.h"

#include <cmath>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tarvex {
namespace {

class eqnorders_test : public tarvex_test {};

small_model two_traits() {
    small_model m;
    m.nq = 2;
    m.covariable = true;
    m.make_pedigree(20, 6, 3);
    m.make_rows(4, 1, 3, 0.2, 4);
    m.random = {{"animal", "NRM", 2, 0, {4.0, 1.0, 3.0}}, {"pe", "IDE", 2, 0, {1.0, 0.2, 1.0}}};
    m.residual = {6.0, 1.0, 5.0};
    return m;
}

void fresh_process() { new_analysis(); }

TEST_F(eqnorders_test, covariables_then_fixed_then_identity_then_pedigree_effects) {
    set_up(two_traits());
    const auto& e = mmequations;
    EXPECT_EQ(e.cv_start(1, 1), 0);
    EXPECT_EQ(e.cv_start(1, 2), 1);
    EXPECT_EQ(e.neq_cov, 2);
    EXPECT_EQ(e.fx_start(1, 1), 2);
    EXPECT_EQ(e.fx_start(1, 2), 2 + levels.fx_nlev(1, 1));
    EXPECT_EQ(e.neq_fix, levels.fx_nlev(1, 1) + levels.fx_nlev(1, 2));
    const int first = e.neq_cov + e.neq_fix;
    EXPECT_EQ(e.rn_start(2), first); // pe, IDE
    EXPECT_EQ(e.rn_start(1), first + 2 * levels.rn_nlev(2));
    EXPECT_EQ(e.neq_rnd, 2 * (levels.rn_nlev(1) + levels.rn_nlev(2)));
    EXPECT_EQ(e.neqns, first + e.neq_rnd);
    EXPECT_EQ(numbers.lim1, 0);
    EXPECT_TRUE(e.ieqzero.empty()) << "one fixed effect a trait drops nothing";
}

TEST_F(eqnorders_test, the_limit_on_equations_is_met_exactly) {
    set_up(two_traits());
    const int others = mmequations.neqns - 2 * levels.rn_nlev(2);
    const int most = 2222222 - others;
    mmequations = {};
    levels.rn_nlev(2) = most / 2; // two equations a level
    equation_nos();
    EXPECT_EQ(mmequations.neqns, others + most / 2 * 2);
    EXPECT_LE(mmequations.neqns, 2222222);
    mmequations = {};
    levels.rn_nlev(2) = most / 2 + 1;
    EXPECT_STOP(equation_nos(), "Max. no. of equations allowed in mixed model exceeded !");
}

TEST_F(eqnorders_test, order_maps_are_a_bijection_with_the_right_hand_side_last) {
    small_model m = two_traits();
    m.mean = true; // with herds: the means are dependent
    set_up(m);
    EXPECT_EQ(mmequations.ieqzero.size(), 2u);
    std::vector<int> met(static_cast<std::size_t>(numbers.nsrow) + 1, 0);
    int out = 0;
    for (int e = 1; e <= mmequations.neqns; ++e) {
        const int k = orders.ieqnew(e);
        if (k <= 0) {
            ++out;
            continue;
        }
        ASSERT_LT(k, numbers.nsrow);
        ++met[static_cast<std::size_t>(k)];
        EXPECT_EQ(orders.ieqold(k), e);
    }
    EXPECT_EQ(out, 2);
    for (int k = 1; k < numbers.nsrow; ++k) EXPECT_EQ(met[static_cast<std::size_t>(k)], 1);
    EXPECT_EQ(orders.ieqnew(mmequations.neqns + 1), numbers.nsrow);
    EXPECT_EQ(orders.ieqold(numbers.nsrow), mmequations.neqns + 1);
    for (int i = 1; i < numbers.nsrow; ++i) { // every row is linked to the right-hand side
        const int last = sparse.ixvec1(i + 1) - 1;
        ASSERT_GE(last, sparse.ixvec1(i));
        EXPECT_EQ(sparse.ixsub(sparse.ixvec2(i) + last - sparse.ixvec1(i)), numbers.nsrow);
    }
}

TEST_F(eqnorders_test, method_follows_the_number_of_equations) {
    struct row {
        int neqns, type;
        std::array<int, 8> metis;
    };
    const std::array<int, 8> none{}, five{3, 1, 2, 1, 0, 1, 0, 5}, ten{3, 1, 2, 1, 0, 1, 0, 10},
        most{3, 3, 1, 2, 0, 1, 0, 14};
    for (const row& r : {row{24999, 1, none}, row{25000, 2, none}, row{49999, 2, none}, row{50000, 3, five},
                         row{199999, 3, five}, row{200000, 3, ten}, row{749999, 3, ten}, row{750000, 3, most}}) {
        orders = {};
        mmequations.neqns = r.neqns;
        EXPECT_FALSE(choose_method());
        EXPECT_EQ(orders.order_type, r.type) << r.neqns;
        EXPECT_EQ(orders.metis_opts, r.metis) << r.neqns;
    }
    orders = {};
    orders.order_type = 2;
    EXPECT_TRUE(choose_method());
    orders.order_type = -3;
    EXPECT_FALSE(choose_method());
    EXPECT_EQ(orders.metis_opts, five);
}

TEST_F(eqnorders_test, a_second_run_reads_order_and_structure_and_makes_no_pass_for_the_pattern) {
    const small_model m = two_traits();
    set_up(m, {"-v2", "--aireml"});
    EXPECT_NE(screen_text().find("Elements in MMM - after data"), std::string::npos);
    const array<int> first = orders.ieqnew;
    const int maxlnz = sparse.maxlnz;
    fresh_process();
    clear_screen();
    set_up(m, {"-v2", "--aireml"});
    EXPECT_NE(screen_text().find("Previous equation ordering found : Order type = 1"), std::string::npos);
    EXPECT_NE(screen_text().find("Read previous symbolic factorisation  info successfully"), std::string::npos);
    EXPECT_EQ(screen_text().find("Elements in MMM - after data"), std::string::npos);
    EXPECT_EQ(sparse.maxlnz, maxlnz);
    for (int e = 1; e <= mmequations.neqns; ++e) EXPECT_EQ(orders.ieqnew(e), first(e));
}

// Replaces the operation count in eqnsorder.bin.
void set_stored_count(double count) {
    std::string file = read_file(filenames.ordersfile);
    std::size_t at = 0;
    for (int record = 0; record < 2; ++record) {
        std::uint64_t length = 0;
        std::memcpy(&length, file.data() + at, sizeof length);
        at += sizeof length + length;
    }
    std::memcpy(file.data() + at + sizeof(std::uint64_t) + 2 * sizeof(int), &count, sizeof count);
    write_file(filenames.ordersfile, resealed(file));
}

TEST_F(eqnorders_test, an_old_order_that_costs_more_than_it_says_does_not_loop) {
    const small_model m = two_traits();
    set_up(m);
    set_stored_count(10.0);
    fresh_process();
    set_up(m);
    EXPECT_NE(screen_text().find("Previous equation ordering found"), std::string::npos);
    EXPECT_GT(sparse.maxlnz, 0);
}

TEST_F(eqnorders_test, a_worse_method_of_the_users_choice_gives_way_to_the_stored_order) {
    const small_model m = two_traits();
    set_up(m, {"--mmd", "--aireml"});
    const array<int> first = orders.ieqnew;
    set_stored_count(10.0);
    const std::string stored = read_file(filenames.ordersfile);
    fresh_process();
    clear_screen();
    set_up(m, {"--amd", "--aireml"});
    EXPECT_NE(screen_text().find("Previous ordering better - using that !"), std::string::npos);
    EXPECT_NE(screen_text().find("\"Bad\" ordering scheme has been pre-selected !"), std::string::npos);
    EXPECT_NE(screen_text().find(" Continue ? (using previously best order)"), std::string::npos);
    for (int e = 1; e <= mmequations.neqns; ++e) EXPECT_EQ(orders.ieqnew(e), first(e));
    EXPECT_EQ(read_file(filenames.ordersfile), stored) << "the better order stays";
}

TEST_F(eqnorders_test, every_ordering_adds_a_line_to_the_counts) {
    const small_model m = two_traits();
    set_up(m, {"--mmd", "--aireml"});
    fresh_process();
    set_up(m, {"--amd", "--aireml"});
    fresh_process();
    set_up(m, {"--metis", "--aireml"});
    const std::string counts = read_file("OperationCounts");
    EXPECT_NE(counts.find("MMD"), std::string::npos);
    EXPECT_NE(counts.find("AMD"), std::string::npos);
    EXPECT_NE(counts.find("Metis   5     0  1  1"), std::string::npos) << counts;
}

TEST_F(eqnorders_test, the_search_ends_with_the_best_setting_in_the_file) {
    const small_model m = two_traits();
    set_up(m, {"--metisall", "--aireml"});
    EXPECT_EQ(orders.order_type, 3);
    std::ifstream in("OperationCounts");
    std::string line;
    double best = 1.0e300, count = 0.0;
    int lines = 0;
    while (std::getline(in, line)) {
        count = std::stod(line.substr(line.size() - 20));
        best = std::min(best, count);
        ++lines;
    }
    EXPECT_GE(lines, 44);
    fresh_process();
    set_up(m, {"-v", "--aireml"});
    EXPECT_NE(screen_text().find("Previous equation ordering found : Order type = 3"), std::string::npos);
    double nnops = 0.0;
    for (int i = 1; i <= numbers.nsrow; ++i) {
        const double c = sparse.ixvec1(i + 1) - sparse.ixvec1(i);
        nnops += c * (c + 3.0) / 2.0;
    }
    EXPECT_EQ(nnops, best);
}

TEST_F(eqnorders_test, all_methods_give_one_likelihood) {
    const small_model m = two_traits();
    double first = 0.0;
    for (const char* method : {"--mmd", "--amd", "--metis"}) {
        fresh_process();
        std::remove(filenames.ordersfile.c_str());
        set_up(m, {method, "--aireml"});
        const double x = program_logl(estimates.parvec);
        if (first == 0.0) first = x;
        EXPECT_NEAR(x, first, 1.0e-10 * std::fabs(first)) << method;
    }
}

TEST_F(eqnorders_test, the_pattern_holds_the_right_hand_side_and_a_torn_one_is_made_anew) {
    const small_model m = two_traits();
    set_up(m);
    std::string file = read_file(filenames.adjacfile);
    std::uint64_t length = 0;
    std::memcpy(&length, file.data(), sizeof length);
    const std::size_t flag = 2 * sizeof length + length; // second record: whether the right-hand side is there
    int llxrhs = 0;
    std::memcpy(&llxrhs, file.data() + flag, sizeof llxrhs);
    EXPECT_EQ(llxrhs, 1);
    std::remove(filenames.ordersfile.c_str());
    write_file(filenames.adjacfile, file.substr(0, file.size() - 7));
    fresh_process();
    clear_screen();
    set_up(m, {"-v2", "--aireml"});
    EXPECT_NE(screen_text().find("Elements in MMM - after data"), std::string::npos) << "a torn file is made anew";
}

} // namespace
} // namespace tarvex
