// Files of the relationship matrices to the byte, and when those of an earlier run serve again.
#include "parfile/randasfix.h"
#include "support/pedigree_model.h"

#include "relations/cholnrm.h"
#include "relations/inverse_stream.h"
#include "relations/nrminverse.h"
#include "support/record_file.h"

#include <cstdint>
#include <tuple>

namespace tarvex {
namespace {

using element = std::tuple<int, int, double>;

class inverse_files : public tarvex_test {
protected:
    // Reads the next `n` records of two integers and a real, which nothing follows.
    static std::vector<element> elements(record_reader& in, int n) {
        std::vector<element> all;
        std::int32_t i = 0, j = 0;
        double x = 0.0;
        while (n-- > 0) {
            EXPECT_TRUE(in.record(i, j, x));
            EXPECT_EQ(in.bytes_left(), 0u);
            all.emplace_back(i, j, x);
        }
        EXPECT_FALSE(in.next());
        return all;
    }
    static void family() { // two founders, two full sibs and their offspring
        animal_model("", "");
        pedigree_by_hand({0, 0, 1, 1, 3}, {0, 0, 2, 2, 4});
    }
};

TEST_F(inverse_files, elements_of_the_inverse_follow_its_head) {
    family();
    gen_inverses();
    record_reader in;
    ASSERT_TRUE(in.open("nrminvers1.bin"));
    std::int32_t nan = 0, ian1 = 0, ian2 = 0, sm = 9, nnrm = 0;
    double detl = 0.0, diag[5] = {};
    ASSERT_TRUE(in.record(nan, ian1, ian2, sm));
    EXPECT_EQ(in.bytes_left(), 0u);
    ASSERT_TRUE(in.record(nnrm, detl));
    EXPECT_EQ(in.bytes_left(), 0u);
    ASSERT_TRUE(in.record(std::span<double>(diag)));
    EXPECT_EQ(in.bytes_left(), 0u);
    // every animal with two parents of F = 0: variance 1/2, weight 2; halves and quarters are exact
    EXPECT_EQ(elements(in, nnrm), (std::vector<element>{{1, 1, 2.0},
                                                        {1, 2, 1.0},
                                                        {2, 2, 2.0},
                                                        {1, 3, -1.0},
                                                        {2, 3, -1.0},
                                                        {3, 3, 2.5},
                                                        {1, 4, -1.0},
                                                        {2, 4, -1.0},
                                                        {3, 4, 0.5},
                                                        {4, 4, 2.5},
                                                        {3, 5, -1.0},
                                                        {4, 5, -1.0},
                                                        {5, 5, 2.0}}));
}

TEST_F(inverse_files, rows_of_the_factor_follow_the_number_of_animals) {
    family();
    options.superai = true;
    gen_inverses();
    cholnrm_animal();
    record_reader in;
    ASSERT_TRUE(in.open("cholnrm1.bin"));
    std::int32_t n = 0;
    ASSERT_TRUE(in.record(n));
    EXPECT_EQ(in.bytes_left(), 0u);
    EXPECT_EQ(n, 5);
    const double h = std::sqrt(0.5);
    EXPECT_EQ(elements(in, 13), (std::vector<element>{{1, 1, 1.0},
                                                      {2, 2, 1.0},
                                                      {3, 3, h},
                                                      {3, 1, 0.5},
                                                      {3, 2, 0.5},
                                                      {4, 4, h},
                                                      {4, 1, 0.5},
                                                      {4, 2, 0.5},
                                                      {5, 5, h},
                                                      {5, 1, 0.5},
                                                      {5, 2, 0.5},
                                                      {5, 3, 0.5 * h},
                                                      {5, 4, 0.5 * h}}));
}

TEST_F(inverse_files, factor_of_another_pedigree_or_spoilt_is_made_again) {
    family();
    options.superai = true;
    gen_inverses();
    cholnrm_animal();
    const std::string whole = read_file("cholnrm1.bin");
    for (const std::string& file : {std::string(), std::string("xx"), std::string(100, '\0'), whole}) {
        write_file("cholnrm1.bin", file);
        if (file == whole) pedigreelist.nannew(1) = 4; // the first four animals
        cholnrm_animal();
        if (file != whole) {
            EXPECT_EQ(read_file("cholnrm1.bin"), whole);
        }
    }
    EXPECT_LT(read_file("cholnrm1.bin").size(), whole.size());
    pedigreelist.nannew(1) = 5;
    for (const std::string& spoilt : {whole.substr(0, whole.size() / 2), std::string(whole).replace(60, 1, "q")}) {
        write_file("cholnrm1.bin", spoilt);
        cholnrm_animal();
        EXPECT_EQ(read_file("cholnrm1.bin"), whole);
    }
    pedigreelist.sire(1)[4] = 0; // a corrected parent
    cholnrm_animal();
    EXPECT_NE(read_file("cholnrm1.bin"), whole);
}

TEST_F(inverse_files, coefficients_of_pedigrees_of_different_size_stand_side_by_side) {
    animal_model("", "", 2);
    pedigree_by_hand({0, 0, 1}, {0, 0, 2}, 1);
    pedigree_by_hand({0, 0, 1, 1, 3}, {0, 0, 2, 2, 4}, 2);
    filenames.pedfile = "a_file_name_longer_than_thirty_characters.ped";
    options.superai = true;
    gen_inverses();
    record_reader in;
    ASSERT_TRUE(in.open("inbreed.bin"));
    std::int32_t m = 0, n = 0, nannew = 0;
    std::string ped(30, '-');
    double f[10] = {};
    ASSERT_TRUE(in.record(m, n, nannew, ped));
    EXPECT_EQ(in.bytes_left(), 0u);
    EXPECT_EQ(m, 5);
    EXPECT_EQ(n, 2);
    EXPECT_EQ(nannew, 3) << "animals of the first pedigree";
    EXPECT_EQ(ped, "a_file_name_longer_than_thirty");
    ASSERT_TRUE(in.record(std::span<double>(f)));
    EXPECT_EQ(in.bytes_left(), 0u);
    EXPECT_EQ(std::vector<double>(f, f + 10), (std::vector<double>{0, 0, 0, 0, 0, 0, 0, 0, 0, 0.25}));
    const std::string whole = read_file("inbreed.bin");
    write_file("inbreed.bin", "older");
    std::remove("nrminvers2.bin"); // one of the two is taken over: its coefficients are computed
    gen_inverses();
    EXPECT_EQ(read_file("inbreed.bin"), whole);
}

TEST_F(inverse_files, each_pedigree_has_a_file_of_its_own) {
    animal_model("", "", 2);
    pedigree_by_hand({0, 0, 1}, {0, 0, 2}, 1);
    pedigree_by_hand({0, 0, 1, 1, 3}, {0, 0, 2, 2, 4}, 2);
    options.verbose = true;
    options.terse = false;
    gen_inverses();
    EXPECT_EQ(screen_text().find("NRM inverse found"), std::string::npos);
    EXPECT_NE(screen_text().find("NRM Inverse no. : 2   \"effect2\"\nNo. of elements = 13 "), std::string::npos);
    EXPECT_NE(screen_text().find("Inbreeding coefficients for random effect   2 computed\n"), std::string::npos);
    EXPECT_EQ(geninverse.nnginv(1), 6);
    EXPECT_EQ(geninverse.nnginv(2), 13);
    EXPECT_DOUBLE_EQ(geninverse.detginv(1), std::log(0.5));
    EXPECT_DOUBLE_EQ(geninverse.detginv(2), 3.0 * std::log(0.5));
    EXPECT_NE(read_file("nrminvers1.bin"), read_file("nrminvers2.bin"));
}

TEST_F(inverse_files, heads_without_elements_are_no_match) {
    family();
    gen_inverses();
    const std::string whole = read_file("nrminvers1.bin");
    for (const std::int32_t nnrm : {-1, 0, 4}) { // there is a diagonal for each animal
        std::string file = whole;
        file.replace(8 + 16 + 8, sizeof nnrm, reinterpret_cast<const char*>(&nnrm), sizeof nnrm);
        write_file("nrminvers1.bin", file);
        clear_screen();
        gen_inverses();
        EXPECT_EQ(screen_text(), "File with NRM-inverse found - but no match for analysis !\n") << nnrm;
        EXPECT_EQ(read_file("nrminvers1.bin"), whole);
    }
}

TEST_F(inverse_files, inverse_with_levels_treated_as_fixed_is_no_match_for_a_run_without) {
    family();
    gen_inverses();
    const std::string whole = read_file("nrminvers1.bin");
    options.pseudofix = true;
    randasfix.npsfix = 1;
    randasfix.psfixname = {"animal"};
    randasfix.psfixcode = {40};
    gen_inverses();
    EXPECT_NE(read_file("nrminvers1.bin"), whole);
    randasfix = {};
    options.pseudofix = false;
    clear_screen();
    gen_inverses();
    EXPECT_EQ(screen_text(), "File with NRM-inverse found - but no match for analysis !\n");
    EXPECT_EQ(read_file("nrminvers1.bin"), whole);
}

TEST_F(inverse_files, other_parents_under_the_same_codes_are_no_match) {
    family();
    gen_inverses();
    pedigreelist.sire(1)[4] = 2;
    pedigreelist.dam(1)[4] = 0;
    clear_screen();
    gen_inverses();
    EXPECT_EQ(screen_text(), "File with NRM-inverse found - but no match for analysis !\n");
    EXPECT_DOUBLE_EQ(geninverse.detginv(1), 2.0 * std::log(0.5) + std::log(0.75));
}

TEST_F(inverse_files, summary_of_inbreeding_is_that_of_the_run_that_made_the_inverse) {
    family();
    gen_inverses();
    const std::string summary = read_file(filenames.sumpedfile);
    EXPECT_NE(summary.find("No. of inbred animals          =       1\n"), std::string::npos) << summary;
    gen_inverses();
    const auto body = [](const std::string& text) { return text.substr(0, text.find(" end of file ")); };
    EXPECT_EQ(body(read_file(filenames.sumpedfile)), body(summary));
}

TEST_F(inverse_files, any_cut_is_no_match) {
    animal_model("", "");
    pedigree_by_hand({0, 1}, {0, 0});
    gen_inverses();
    const std::string whole = read_file("nrminvers1.bin");
    for (std::size_t n = 0; n < whole.size(); ++n) {
        write_file("nrminvers1.bin", whole.substr(0, n));
        clear_screen();
        gen_inverses();
        EXPECT_NE(screen_text().find("no match"), std::string::npos) << n;
        EXPECT_EQ(read_file("nrminvers1.bin"), whole);
    }
}

} // namespace
} // namespace tarvex
