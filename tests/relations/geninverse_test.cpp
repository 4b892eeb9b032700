#include "support/pedigree_model.h"

#include "relations/geninverse.h"
#include "relations/nrminverse.h"

namespace tarvex {
namespace {

// An effect "animal" with a supplied inverse and three levels in the data, six allowed.
class ginverse_test : public tarvex_test {
protected:
    void SetUp() override {
        animal_model("", "");
        options.pedigrees = false;
        mudmap.kovrnd(1) = covariance_kind::gin;
        levels.rn_nlev(1) = 3;
        levels.rn_codes(1) = {11, 12, 13};
        levels.rn_maxlev(1) = 6;
    }
    static void gin(const std::string& text) { write_file("animal.gin", text); }
};

TEST_F(ginverse_test, elements_are_streamed_in_file_order) {
    gin("-0.5D0\n1 1 2.0\n1 2 -0.25\n\n2,2,1.5d0 and text behind\r\n3\t3 1");
    options.verbose = true;
    gen_inverses();
    EXPECT_EQ(geninverse.detginv(1), -0.5);
    EXPECT_EQ(geninverse.nnginv(1), 4);
    EXPECT_EQ(screen_text(), "  File \"animal.gin\"  No. records =       4\n");
    EXPECT_EQ(levels.rn_nlev(1), 3);
    inverse_stream in(1);
    inverse_element e{};
    for (int pass = 1; pass <= 2; ++pass) {
        double sum = 0.0;
        int n = 0;
        while (in.next(e)) sum += e.value * (e.row + 10 * e.col), ++n;
        EXPECT_EQ(n, 4);
        EXPECT_DOUBLE_EQ(sum, 2.0 * 11 - 0.25 * 12 + 1.5 * 22 + 33);
        in.rewind();
    }
    EXPECT_EQ(in.logdet(), -0.5);
    EXPECT_NE(
        read_file("SumPedigree.out")
            .find(" random effect no. = 1 GIN\n no. of elements in NRM/GIN inverse  4\n log determinant   = -0.5\n"),
        std::string::npos);
}

TEST_F(ginverse_test, file_with_its_first_line_only) {
    gin("0.0\n");
    gen_inverses();
    EXPECT_EQ(geninverse.nnginv(1), 0);
    EXPECT_EQ(levels.rn_nlev(1), 3);
    EXPECT_EQ(geninverse.nwithout(1), 3);
    for (const int level : {1, 2, 3})
        EXPECT_NE(screen_text().find("***** WARNING : level " + std::to_string(level) +
                                     " of \"animal\" has no diagonal in the inverse and is estimated as a fixed one, "
                                     "code " +
                                     std::to_string(10 + level) + "\n"),
                  std::string::npos);
}

TEST_F(ginverse_test, faults_of_the_file_stop) {
    EXPECT_STOP(gen_inverses(),
                "**** ERROR : cannot locate generalised inverse\n     Random effect no. 1   \"animal\"\n"
                "     File with G-inverse expected : \"animal.gin\"\nexit \"Tarvex\"");
    gin("");
    EXPECT_STOP(gen_inverses(), "***** ERROR : Reading file \"animal.gin\"\n      Records processed so far : 0\n");
    gin("text\n1 1 1.0\n");
    EXPECT_STOP(gen_inverses(), "      Records processed so far : 0\n");
    gin("0.0\n1 1 1.0\n2 2\n");
    EXPECT_STOP(gen_inverses(), "      Records processed so far : 1\n");
    gin("0.0\n1 1 1.0\n2 2 x\n");
    EXPECT_STOP(gen_inverses(), "      Records processed so far : 1\n");
    gin("0.0\n3000000000 3000000000 1\n");
    EXPECT_STOP(gen_inverses(), "      Records processed so far : 0\n");
    gin("0.0\n2 1 1.0\n");
    EXPECT_STOP(gen_inverses(),
                "Column no. > row no. 2 1\n*** Generalised inverse should be given as lower  triangle ROW-wise !\n");
    gin("0.0\n0 1 1.0\n");
    EXPECT_STOP(gen_inverses(), "Invalid row no. 1\n");
    gin("0.0\n-3 -2 1.0\n");
    EXPECT_STOP(gen_inverses(), "Invalid row no. -2\n");
}

TEST_F(ginverse_test, negative_elements_are_told_on_the_diagonal_only) {
    gin("0.0\n1 1 -2.5\n1 2 -1.0\n2 2 1\n3 3 1\n");
    gen_inverses();
    EXPECT_EQ(screen_text(), "animal  - Negative diagonal element ? 1 -2.5\n");
    EXPECT_EQ(geninverse.nnginv(1), 4);
}

TEST_F(ginverse_test, more_levels_than_allowed_stop) {
    gin("0.0\n7 7 1.0\n");
    EXPECT_STOP(gen_inverses(), "***** Found more levels of RE in G-inverse than in data\n"
                                "      No. of levels found in data         = 3\n"
                                "      Maximum row/column no. in G-inverse = 7\n"
                                "***** Max. no. of random effects levels is too small\n"
                                "      Allowed = 6   Need = 7\n"
                                "      Edit parameter file accordingly & try again !\n");
}

TEST_F(ginverse_test, more_levels_without_codes_are_in_running_order) {
    gin("0.0\n1 1 1\n2 2 1\n3 3 1\n4 4 1\n5 5 1.0\n");
    options.verbose = true;
    gen_inverses();
    EXPECT_NE(screen_text().find("***** Must supply file with codes \"animal.codes\"\n"
                                 "***** No file with additional codes ! animal.codes\n"
                                 "      Assume \"running order\" of 1 to 5\n"
                                 "      -- If this is not true, program will crash later !\n"
                                 "Max. number of levels for \"animal\" set to 5\n"),
              std::string::npos)
        << screen_text();
    EXPECT_EQ(levels.rn_nlev(1), 5);
    EXPECT_EQ(levels.rn_codes(1), (code_list{1, 2, 3, 4, 5}));
}

TEST_F(ginverse_test, codes_file_gives_the_code_of_each_level_in_any_order) {
    gin("0.0\n1 1 1\n2 2 1\n3 3 1\n4 4 1.0\n");
    write_file("animal.codes", "4 11\n3 12\n2 13\n1 40\n");
    gen_inverses();
    EXPECT_NE(screen_text().find("Have read 4  codes from \"animal.codes\"\n"), std::string::npos);
    EXPECT_EQ(levels.rn_codes(1), (code_list{40, 13, 12, 11}));
}

TEST_F(ginverse_test, faults_of_the_codes_file_stop) {
    gin("0.0\n4 4 1.0\n");
    write_file("animal.codes", "1 11\n2 12\n3 13\n");
    EXPECT_STOP(gen_inverses(), "***** Error : No. of levels/codes disagree \n      No. of codes read = 3\n"
                                "      No. expected      = 4\n");
    write_file("animal.codes", "1 11\n2 x\n");
    EXPECT_STOP(gen_inverses(), "error gin.codes");
}

TEST_F(ginverse_test, progress_of_large_files) {
    std::string text = "0.0\n";
    for (int i = 1; i <= 447; ++i)
        for (int j = 1; j <= i; ++j) text += std::to_string(j) + " " + std::to_string(i) + " 1\n";
    levels.rn_nlev(1) = 447;
    gin(text);
    options.verbose = true;
    gen_inverses();
    EXPECT_EQ(screen_text(), "Check \"animal.gin\" 100000\n  File \"animal.gin\"  No. records =  100128\n");
}

} // namespace
} // namespace tarvex
