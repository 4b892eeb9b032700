// Numbers of the equations of models that are set up by hand, what is told of them, and the lists of the data in their
// order of elimination.
#include "equations/equations.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "data/levels.h"
#include "equations/mmequations.h"
#include "equations/orders.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/fixture.h"
#include "support/record_file.h"

#include <gtest/gtest.h>
#include <vector>

namespace tarvex {
namespace {

// Trait 1: herd (3 levels), year (2). Trait 2: year (2), herd (4), a mean; a regression of order 2 within herd and a
// plain one. Blocks: animal (NRM, both traits, 5 levels), perm (PEQ), litter (IDE, trait 1, 6), sow (GIN, 2).
class numbering_test : public tarvex_test {
protected:
    void SetUp() override {
        numbers.nq = 2;
        numbers.krand = 4;
        fixed_effects();
        covariables();
        random_effects();
    }
    static void fixed_effects() {
        model.nfix.allocate(2);
        model.fixed.allocate(2, 2);
        model.fitmean.allocate(2);
        levels.fx_nlev.allocate(2, 2);
        levels.fx_codes.allocate(2, 2);
        model.nfix.fill(2);
        model.fitmean(2) = 1;
        const char* names[2][2] = {{"herd", "year"}, {"year", "herd"}};
        const code_list codes[2][2] = {{{7, 8, 12}, {1, 2}}, {{1, 2}, {7, 8, 9, 12}}};
        for (int iq = 1; iq <= 2; ++iq)
            for (int i = 1; i <= 2; ++i) {
                model.fixed(i, iq) = names[iq - 1][i - 1];
                levels.fx_codes(i, iq) = codes[iq - 1][i - 1];
                levels.fx_nlev(i, iq) = static_cast<int>(codes[iq - 1][i - 1].size());
            }
    }
    static void covariables() {
        model.ncov.allocate(2);
        model.ncov(2) = 2;
        mudmap.cv_order.allocate(2, 2);
        mudmap.cv_nestcolno.allocate(2, 2);
        mudmap.cv_nestfix.allocate(2, 2);
        mudmap.cv_order(1, 2) = 2;
        mudmap.cv_nestcolno(1, 2) = 3;
        mudmap.cv_nestfix(1, 2) = 2;
        mudmap.cv_order(2, 2) = 1;
    }
    static void random_effects() {
        mudmap.kovrnd.allocate(4);
        levels.rn_nlev.allocate(4);
        model.kkfit.allocate(4);
        model.krfit.allocate(4);
        const char* kind[] = {"NRM", "PEQ", "IDE", "GIN"};
        const int nlev[] = {5, 5, 6, 2}, order[] = {2, 1, 1, 1};
        for (int i = 1; i <= 4; ++i) {
            mudmap.kovrnd(i) = kind_named(kind[i - 1]);
            levels.rn_nlev(i) = nlev[i - 1];
            model.kkfit(i) = model.krfit(i) = order[i - 1];
        }
    }
    static void zero(const std::string& name, int code, int iq) {
        ++zerout.nzerout;
        zerout.addzername.push_back(name);
        zerout.iaddzer1.push_back(code);
        zerout.iaddzer2.push_back(iq);
    }
};

TEST_F(numbering_test, every_trait_has_its_own_effects_in_its_own_order) {
    equation_nos();
    const auto& e = mmequations;
    EXPECT_EQ(e.cv_start(1, 2), 0);
    EXPECT_EQ(e.cv_start(2, 2), 8) << "two coefficients in each of four herds";
    EXPECT_EQ(e.neq_cov, 9);
    EXPECT_EQ(e.fx_start(1, 1), 9);
    EXPECT_EQ(e.fx_start(2, 1), 12);
    EXPECT_EQ(e.fx_start(1, 2), 14);
    EXPECT_EQ(e.fx_start(2, 2), 16);
    EXPECT_EQ(e.neq_fix, 11);
    EXPECT_EQ(e.rn_start(3), 20) << "identity effects stand first";
    EXPECT_EQ(e.rn_start(1), 26);
    EXPECT_EQ(e.rn_start(4), 36);
    EXPECT_EQ(e.rn_start(2), -1) << "repeats have no equations";
    EXPECT_EQ(e.neq_rnd, 18);
    EXPECT_EQ(e.ieq_trait(1), 0);
    EXPECT_EQ(e.ieq_trait(2), 39);
    EXPECT_EQ(e.neqns, 39);
    EXPECT_EQ(e.ieqzero, (std::vector<int>{13, 17})) << "first level of the second effect of each trait";
}

TEST_F(numbering_test, regressions_within_an_effect_that_is_only_counted_and_reduced_rank) {
    mudmap.cv_nestfix(1, 2) = -1;
    levels.ex_nlev.allocate(1, 2);
    levels.ex_nlev(1, 2) = 3;
    options.principal = true;
    model.krfit(1) = 1;
    equation_nos();
    EXPECT_EQ(mmequations.neq_cov, 7);
    EXPECT_EQ(mmequations.neq_rnd, 13);
    EXPECT_EQ(mmequations.rn_start(1), 24);
    EXPECT_EQ(mmequations.rn_start(4), 29);
    EXPECT_EQ(mmequations.ieq_trait(2), 32);
}

TEST_F(numbering_test, levels_of_the_user_are_found_by_name_code_and_trait) {
    zero("herd", 12, 1);
    zero("herd ", 12, 2); // blanks behind a name do not count
    zero("year", 1, 1);   // is out as a first level
    zero("herd", 12, 1);
    equation_nos();
    EXPECT_EQ(mmequations.ieqzero, (std::vector<int>{13, 12, 17, 20}));
    equation_nos(); // does not double them
    EXPECT_EQ(mmequations.ieqzero.size(), 4u);
}

TEST_F(numbering_test, steps_are_traced) {
    zero("herd", 8, 2);
    options.devtrace = options.verbose = true;
    equation_nos();
    EXPECT_EQ(screen_text(), "cov 2 1 8 0\ncov 2 2 9 8\n"
                             "fix 1 1 12 9\nfix 1 2 14 12\ndep 1st 1 2 1 13\n"
                             "fix 2 1 16 14\nfix 2 2 20 16\ndep 1st 2 2 2 17\ndep usr 2 1 3 18\n"
                             "rn 3 26 20\nrn 1 36 26\nrn 4 38 36\n"
                             "39 18 11 9\nlim1 0\n");
    for (bool* flag : {&options.devtrace, &options.verbose}) {
        clear_screen();
        *flag = false;
        equation_nos();
        EXPECT_EQ(screen_text(), "") << "both flags are needed";
        *flag = true;
    }
}

TEST_F(numbering_test, unknown_levels_and_effects_of_the_user_stop) {
    zero("herd", 9, 1); // a herd of the other trait
    EXPECT_STOP(equation_nos(), "***** Error : Routine \"find_code\" \n"
                                "      Could not find code for fixed effect \"herd\"\n"
                                "      Code in data file = 9\n"
                                "      No. of levels     = 3\n"
                                "exit \"Tarvex\"");
    zerout = {};
    zero("parity", 1, 2);
    EXPECT_STOP(equation_nos(), "      Could not find code for fixed effect \"parity\"\n");
}

TEST_F(numbering_test, no_fixed_part_at_all) {
    model.nfix.fill(0);
    model.ncov.fill(0);
    model.fitmean.fill(0);
    equation_nos();
    EXPECT_EQ(mmequations.neq_cov + mmequations.neq_fix, 0);
    EXPECT_EQ(mmequations.rn_start(3), 0);
    EXPECT_EQ(mmequations.neqns, 18);
    EXPECT_TRUE(mmequations.ieqzero.empty());
}

class renumber_test : public tarvex_test {
protected:
    static void lists(const std::vector<std::vector<int>>& all) {
        record_writer out;
        ASSERT_TRUE(out.open(filenames.recdatfil2));
        for (const auto& list : all) out.record(static_cast<int>(list.size()), list);
        ASSERT_TRUE(out.close());
    }
    void SetUp() override {
        numbers.maxnreq = 3;
        mmequations.neqns = 4;
        orders.ieqnew.allocate(4);
        for (int i = 1; i <= 4; ++i) orders.ieqnew(i) = i == 2 ? 0 : 5 - i;
    }
};

TEST_F(renumber_test, lists_are_translated_record_by_record) {
    lists({{1, 2, 4}, {}, {3}});
    numbers.nsubject = 3;
    const std::string before = read_file(filenames.recdatfil2);
    new_eqnnos();
    const std::vector<std::vector<int>> expected{{4, 0, 1}, {}, {2}};
    record_reader in;
    ASSERT_TRUE(in.open(filenames.recdatfil3));
    for (const auto& list : expected) {
        int nr = -1;
        ASSERT_TRUE(in.next() && in.get(nr));
        ASSERT_EQ(nr, static_cast<int>(list.size()));
        std::vector<int> found(list.size());
        ASSERT_TRUE(in.get(std::span<int>(found)));
        EXPECT_EQ(found, list);
        EXPECT_EQ(in.bytes_left(), 0u);
    }
    EXPECT_FALSE(in.next());
    EXPECT_EQ(read_file(filenames.recdatfil2), before) << "the lists in old numbers stay";
    numbers.nsubject = 4;
    EXPECT_STOP(new_eqnnos(), "Error reading file \"recoded2.bin\""); // a subject is missing
}

TEST_F(renumber_test, lists_that_cannot_be_stop) {
    EXPECT_STOP(new_eqnnos(), "Cannot open file \"recoded2.bin\"");
    lists({{1, 2, 3, 4}}); // longer than the longest
    EXPECT_STOP(new_eqnnos(), "Error reading file \"recoded2.bin\"");
    record_writer out;
    ASSERT_TRUE(out.open(filenames.recdatfil2));
    out.record(3, 1, 2); // one short
    ASSERT_TRUE(out.close());
    EXPECT_STOP(new_eqnnos(), "Error reading file \"recoded2.bin\"");
}

} // namespace
} // namespace tarvex
