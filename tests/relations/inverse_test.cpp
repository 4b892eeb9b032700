#include "parfile/randasfix.h"
#include "support/pedigree_model.h"

#include "data/pedigrees.h"
#include "relations/animalnrm.h"
#include "relations/cholnrm.h"
#include "relations/inbreeding.h"
#include "relations/inverse_stream.h"
#include "relations/nrminverse.h"
#include "support/edit_form.h"
#include "support/record_file.h"

#include <numeric>

namespace tarvex {
namespace {

class inverse_test : public tarvex_test {
protected:
    // One or more effects on pedigrees by hand, no data.
    static void model_by_hand(const std::vector<int>& sire, const std::vector<int>& dam, int nrun = 1) {
        animal_model("", "", nrun);
        for (int irun = 1; irun <= nrun; ++irun) pedigree_by_hand(sire, dam, irun);
    }
    // The inverse as read back from the file.
    static dense inverse(int irand = 1) {
        const int n = pedigreelist.nannew(mudmap.iranno(irand));
        dense a(n, std::vector<double>(n));
        inverse_stream in(irand);
        inverse_element e{}, last{0, 0, 0.0};
        while (in.next(e)) {
            EXPECT_TRUE(e.row > last.row || (e.row == last.row && e.col > last.col)) << "not row by row";
            a[e.row - 1][e.col - 1] = a[e.col - 1][e.row - 1] = e.value;
            last = e;
        }
        return a;
    }
    static void expect_inverse_of(const dense& a) {
        gen_inverses();
        EXPECT_LT(oracle::distance_to_identity(a, inverse()), 1e-10);
        EXPECT_NEAR(geninverse.detginv(1), oracle::log_det(a), 1e-10);
        EXPECT_EQ(inverse_stream(1).logdet(), geninverse.detginv(1));
    }
};

TEST_F(inverse_test, random_pedigrees_with_inbreeding_and_selfing) {
    for (unsigned seed = 1; seed <= 12; ++seed) {
        const auto [sire, dam] = random_pedigree(60, seed, seed % 2 == 0);
        model_by_hand(sire, dam);
        std::remove("nrminvers1.bin");
        const dense a = tabular(sire, dam);
        const std::vector<double> f = inbreeding(sire, dam);
        for (int i = 0; i < 60; ++i) EXPECT_NEAR(f[i], a[i][i] - 1.0, 1e-14);
        expect_inverse_of(a);
    }
}

TEST_F(inverse_test, two_selfings_of_four_animals) {
    model_by_hand({0, 1, 0, 2}, {0, 1, 0, 2});
    expect_inverse_of(tabular({0, 1, 0, 2}, {0, 1, 0, 2}));
    EXPECT_EQ(geninverse.nnginv(1), 6);
}

TEST_F(inverse_test, forty_generations_of_full_sib_mating) {
    std::vector<int> sire{0, 0}, dam{0, 0};
    std::vector<double> expected{0.0, 0.0};
    double f0 = 0.0, f1 = 0.0; // F(t) = (1 + 2 F(t-1) + F(t-2)) / 4
    for (int t = 1; t <= 40; ++t) {
        const int n = static_cast<int>(sire.size());
        const double f = t == 1 ? 0.0 : 0.25 * (1.0 + 2.0 * f1 + f0);
        for (int k = 0; k < 2; ++k) {
            sire.push_back(n - 1);
            dam.push_back(n);
            expected.push_back(f);
        }
        f0 = f1;
        f1 = f;
    }
    const std::vector<double> f = inbreeding(sire, dam);
    for (std::size_t i = 0; i < f.size(); ++i) EXPECT_NEAR(f[i], expected[i], 1e-12);
    EXPECT_EQ(f[3], 0.0);
    EXPECT_EQ(f[4], 0.25);
}

TEST_F(inverse_test, no_common_ancestor_means_exactly_zero) {
    std::vector<int> sire, dam;
    for (int i = 1; i <= 64; ++i) sire.push_back(0), dam.push_back(0);
    for (int from = 1, n = 64; n > 1; from += n, n /= 2)
        for (int k = 0; k < n; k += 2) sire.push_back(from + k), dam.push_back(from + k + 1);
    for (const double f : inbreeding(sire, dam)) EXPECT_EQ(f, 0.0);
}

TEST_F(inverse_test, unrelated_animals_give_the_identity) {
    model_by_hand({0, 0, 0}, {0, 0, 0});
    options.verbose = true;
    gen_inverses();
    EXPECT_EQ(geninverse.nnginv(1), 3);
    EXPECT_EQ(geninverse.detginv(1), 0.0);
    EXPECT_NE(screen_text().find("\nInbreeding coefficients for random effect   1 computed\n"
                                 "No. of inbred animals          =       0\n"
                                 "Average inbreeding coefficient =  0.0000 (in %)\n"
                                 "NRM Inverse no. : 1   \"animal\"\nNo. of elements = 3   log determinant = 0.0\n"),
              std::string::npos)
        << screen_text();
    EXPECT_EQ(screen_text().find("amongst"), std::string::npos);
    EXPECT_NE(read_file("SumPedigree.out").find("No. of inbred animals          =       0\n"), std::string::npos);
}

TEST_F(inverse_test, full_sibs_share_the_elements_of_their_parents) {
    model_by_hand({0, 0, 1, 1, 3}, {0, 0, 2, 2, 4});
    options.verbose = true;
    gen_inverses();
    const dense a = inverse();
    EXPECT_EQ(geninverse.nnginv(1), 13);
    EXPECT_DOUBLE_EQ(a[0][0], 2.0);
    EXPECT_DOUBLE_EQ(a[1][0], 1.0);
    EXPECT_DOUBLE_EQ(a[2][2], 2.5);
    EXPECT_NE(screen_text().find("No. of inbred animals          =       1\n"
                                 "Average inbreeding coefficient =  5.0000 (in %)\n"
                                 "... amongst inbred animals     = 25.0000 (in %)\n"),
              std::string::npos)
        << screen_text();
}

TEST_F(inverse_test, file_has_its_layout) {
    model_by_hand({0, 0, 1}, {0, 0, 2});
    gen_inverses();
    record_reader in;
    ASSERT_TRUE(in.open("nrminvers1.bin"));
    std::int32_t nan = 0, ian1 = 0, ian2 = 0, sm = 9, nnrm = 0;
    double detl = 0.0, diag[3];
    EXPECT_TRUE(in.record(nan, ian1, ian2, sm));
    EXPECT_EQ(nan, 3);
    EXPECT_EQ(ian1, 10);
    EXPECT_EQ(ian2, 30);
    EXPECT_EQ(sm, 0);
    EXPECT_TRUE(in.record(nnrm, detl));
    EXPECT_EQ(nnrm, 6);
    EXPECT_DOUBLE_EQ(detl, std::log(0.5));
    EXPECT_TRUE(in.record(std::span<double>(diag)));
    EXPECT_EQ(diag[2], 2.0);
}

TEST_F(inverse_test, later_run_takes_the_file_over) {
    model_by_hand({0, 0, 1}, {0, 0, 2});
    options.terse = false;
    gen_inverses();
    const double det = geninverse.detginv(1);
    clear_screen();
    options.verbose = true;
    nrminverse = {};
    gen_inverses();
    EXPECT_EQ(screen_text(), "NRM inverse found 1 1\n");
    EXPECT_EQ(geninverse.nnginv(1), 6);
    EXPECT_EQ(geninverse.detginv(1), det);
    options.siremodel = true; // parents are sire and maternal grandsire then
    clear_screen();
    gen_inverses();
    EXPECT_EQ(screen_text().find("File with NRM-inverse found - but no match for analysis !\n"), 0u) << screen_text();
}

TEST_F(inverse_test, files_of_another_pedigree_or_torn_ones_are_made_again) {
    const std::string nomatch = "File with NRM-inverse found - but no match for analysis !\n";
    model_by_hand({0, 0, 1}, {0, 0, 2});
    gen_inverses();
    const std::string whole = read_file("nrminvers1.bin");
    for (const std::size_t n : {std::size_t{0}, std::size_t{5}, std::size_t{30}, whole.size() - 30}) {
        write_file("nrminvers1.bin", whole.substr(0, n));
        clear_screen();
        gen_inverses();
        EXPECT_EQ(screen_text(), nomatch);
        EXPECT_EQ(read_file("nrminvers1.bin"), whole);
    }
    write_file("nrminvers1.bin", std::string(500, 'x'));
    clear_screen();
    gen_inverses();
    EXPECT_EQ(screen_text(), nomatch);
    pedigreelist.idwec(1)[2] = 31;
    clear_screen();
    gen_inverses();
    EXPECT_EQ(screen_text(), nomatch);
    pedigreelist.idwec(1)[2] = 30;
    write_file("nrminvers1.bin", whole.substr(0, whole.size() - 5));
    clear_screen();
    gen_inverses();
    EXPECT_EQ(screen_text(), nomatch);
    EXPECT_EQ(read_file("nrminvers1.bin"), whole);
}

TEST_F(inverse_test, single_animal_is_taken_over_as_any_other) {
    model_by_hand({0}, {0});
    gen_inverses();
    clear_screen();
    gen_inverses();
    EXPECT_EQ(screen_text(), "");
    EXPECT_EQ(inverse()[0][0], 1.0);
}

TEST_F(inverse_test, two_effects_on_one_pedigree_share_a_file) {
    model_by_hand({0, 0, 1}, {0, 0, 2}, 2);
    mudmap.iranno(2) = 1;
    options.terse = false;
    gen_inverses();
    EXPECT_EQ(screen_text(), "NRM inverse found 2 1\n");
    EXPECT_FALSE(file_exists("nrminvers2.bin"));
    const std::string det = list_item(std::log(0.5)), text = read_file("SumPedigree.out");
    for (const char* irand : {"1", "2"})
        EXPECT_NE(text.find(std::string(" random effect no. = ") + irand +
                            " NRM\n no. of elements in NRM/GIN inverse  6\n" + " log determinant   = " + det + "\n"),
                  std::string::npos)
            << text;
}

TEST_F(inverse_test, ten_and_more_matrices_get_an_asterisk) {
    EXPECT_EQ(nrminv_name(9), "nrminvers9.bin");
    EXPECT_EQ(nrminv_name(10), "nrminvers*.bin");
}

TEST_F(inverse_test, other_effects_print_nothing) {
    model_by_hand({0}, {0});
    mudmap.kovrnd(1) = covariance_kind::ide;
    levels.rn_nlev(1) = 4;
    options.details = true;
    gen_inverses();
    EXPECT_EQ(screen_text(), "END gen_inverses\n");
    inverse_stream in(1);
    inverse_element e{};
    int n = 0;
    while (in.next(e)) {
        ++n;
        EXPECT_EQ(e.col, n);
        EXPECT_EQ(e.row, n);
        EXPECT_EQ(e.value, 1.0);
    }
    EXPECT_EQ(n, 4);
    EXPECT_EQ(in.logdet(), 0.0);
    in.rewind();
    EXPECT_TRUE(in.next(e));
    EXPECT_EQ(e.col, 1);
}

TEST_F(inverse_test, without_pedigree_the_report_starts_new) {
    model_by_hand({0}, {0});
    mudmap.kovrnd(1) = covariance_kind::ide;
    write_file("SumPedigree.out", "old\n");
    options.pedigrees = false;
    gen_inverses();
    EXPECT_EQ(read_file("SumPedigree.out").find("======== end of file"), 0U);
}

TEST_F(inverse_test, progress_of_large_pedigrees) {
    model_by_hand(std::vector<int>(20000), std::vector<int>(20000));
    options.terse = false;
    gen_inverses();
    EXPECT_NE(screen_text().find("  inbreed : at      5000  of     20000\n  inbreed : at     10000  of     20000\n"),
              std::string::npos);
    EXPECT_NE(screen_text().find("  NRM : at     20000  of     20000\n"), std::string::npos);
}

class pseudofix_test : public inverse_test {
protected:
    void SetUp() override {
        model_by_hand({0, 0, 1, 3}, {0, 0, 2, 2});
        options.pseudofix = true;
        randasfix.psfixfact = 0.001;
        randasfix.npsfix = 2;
        randasfix.psfixname = {"animal", "animal"};
        randasfix.psfixcode = {30, 35};
        randasfix.nasfix.allocate(1);
    }
};

TEST_F(pseudofix_test, level_gets_a_plain_diagonal_and_no_determinant) {
    gen_inverses();
    const dense a = inverse();
    // Rules without animal 3: 4 is half of 3 and 2, with d = 0.375.
    const double w = 1.0 / (1.0 - 0.25 * (1.0 + 1.0));
    EXPECT_DOUBLE_EQ(geninverse.detginv(1), std::log(0.5));
    EXPECT_DOUBLE_EQ(a[0][0], 1.0);
    EXPECT_EQ(a[1][0], 0.0);
    EXPECT_DOUBLE_EQ(a[1][1], 1.0 + 0.25 * w);
    EXPECT_DOUBLE_EQ(a[2][2], 0.001 + 0.25 * w);
    EXPECT_DOUBLE_EQ(a[3][2], -0.5 * w);
    EXPECT_EQ(geninverse.nnginv(1), 7);
    const std::string text = read_file("SumPedigree.out");
    EXPECT_NE(text.find("\n\n Levels treated as \"fixed\" \n   1  animal             30      3             30\n"
                        " No. of levels to be treated as fixed = 1\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(randasfix.nasfix(1), 1);
    record_reader in;
    ASSERT_TRUE(in.open("nrminvers1.bin"));
    double diag[4] = {};
    ASSERT_TRUE(in.next() && in.next() && in.record(std::span<double>(diag)));
    EXPECT_EQ(diag[2], -1.0);
}

TEST_F(pseudofix_test, file_is_never_taken_over) {
    gen_inverses();
    clear_screen();
    options.terse = false;
    gen_inverses();
    EXPECT_EQ(screen_text(),
              "***** WARNING : level 35 of \"animal\", to be treated as fixed, is not in the pedigree\n");
    EXPECT_EQ(geninverse.nnginv(1), 7);
}

TEST_F(pseudofix_test, effect_that_is_not_named_has_none) {
    randasfix.psfixname = {"sire", "sire"};
    EXPECT_STOP(gen_inverses(), "No random effect with a relationship matrix has levels to be fixed : \"sire\"");
    randasfix.psfixname = {};
    randasfix.npsfix = 0;
    gen_inverses();
    EXPECT_NE(read_file("SumPedigree.out").find(" No. of levels to be treated as fixed = 0\n"), std::string::npos);
    EXPECT_LT(oracle::distance_to_identity(tabular({0, 0, 1, 3}, {0, 0, 2, 2}), inverse()), 1e-12);
}

TEST_F(pseudofix_test, effects_on_one_pedigree_must_agree) {
    model_by_hand({0, 0, 1, 3}, {0, 0, 2, 2}, 2);
    mudmap.iranno(2) = 1;
    EXPECT_STOP(gen_inverses(), "*** Tarvex is work in progress !");
}

using sire_test = inverse_test;

TEST_F(sire_test, inverse_and_determinant_of_unrelated_parents) {
    const std::vector<int> s{0, 0, 0, 1, 1, 0, 0}, m{0, 0, 0, 2, 0, 3, 0};
    model_by_hand(s, m);
    options.siremodel = options.verbose = true;
    expect_inverse_of(oracle::related_sires(s, m));
    EXPECT_DOUBLE_EQ(geninverse.detginv(1), std::log(0.6875) + std::log(0.75) + std::log(0.9375));
    EXPECT_EQ(screen_text().find("sire model\nNRM Inverse no. : 1   \"animal\"\n"), 0U) << screen_text();
    EXPECT_NE(screen_text().find("\nSire model !\n"), std::string::npos);
    EXPECT_EQ(screen_text().find("inbred"), std::string::npos);
    record_reader in;
    ASSERT_TRUE(in.open("nrminvers1.bin"));
    double factor[7] = {};
    ASSERT_TRUE(in.next() && in.next() && in.record(std::span<double>(factor)));
    EXPECT_EQ(factor[3], 0.6875);
    EXPECT_EQ(factor[4], 0.75);
    EXPECT_EQ(factor[5], 0.9375);
    EXPECT_EQ(factor[6], 1.0);
}

TEST_F(sire_test, one_bull_as_sire_and_grandsire) {
    model_by_hand({0, 1}, {0, 1});
    options.siremodel = true;
    gen_inverses();
    const dense a = inverse();
    EXPECT_DOUBLE_EQ(a[0][0], 1.0 + 4.0 / 7.0);
    EXPECT_DOUBLE_EQ(a[1][0], -8.0 / 7.0);
    EXPECT_DOUBLE_EQ(a[1][1], 16.0 / 7.0);
    EXPECT_NEAR(geninverse.detginv(1), -oracle::log_det(a), 1e-12);
}

TEST_F(sire_test, sons_may_stand_in_front_and_negative_codes_are_unknown) {
    model_by_hand({3, -2, 0}, {2, 0, -1});
    options.siremodel = true;
    gen_inverses();
    const dense a = inverse();
    EXPECT_DOUBLE_EQ(a[0][0], 16.0 / 11.0);
    EXPECT_DOUBLE_EQ(a[1][0], -4.0 / 11.0);
    EXPECT_DOUBLE_EQ(a[2][0], -8.0 / 11.0);
    EXPECT_DOUBLE_EQ(a[2][1], 2.0 / 11.0);
    EXPECT_DOUBLE_EQ(a[1][1], 1.0 + 1.0 / 11.0);
}

TEST_F(sire_test, pseudo_fixed_sire_stands_on_the_diagonal) {
    model_by_hand({0, 1}, {0, 0});
    options.siremodel = options.pseudofix = true;
    randasfix.psfixfact = 0.01;
    randasfix.npsfix = 1;
    randasfix.psfixname = {"animal"};
    randasfix.psfixcode = {20};
    gen_inverses();
    const dense a = inverse();
    EXPECT_EQ(a[0][0], 1.0);
    EXPECT_EQ(a[1][1], 0.01);
    EXPECT_EQ(geninverse.nnginv(1), 2);
    EXPECT_EQ(geninverse.detginv(1), 0.0);
}

class factor_test : public inverse_test {
protected:
    static dense factor() {
        record_reader in;
        std::int32_t n = 0, i = 0, j = 0;
        double x = 0.0;
        EXPECT_TRUE(in.open("cholnrm1.bin") && in.record(n));
        dense l(n, std::vector<double>(n));
        while (in.record(i, j, x)) l[i - 1][j - 1] = x;
        return l;
    }
};

TEST_F(factor_test, factor_and_product_of_inbred_pedigrees) {
    for (unsigned seed = 21; seed <= 26; ++seed) {
        const auto [sire, dam] = random_pedigree(50, seed, seed % 2 == 0);
        model_by_hand(sire, dam);
        options.superai = true;
        std::remove("nrminvers1.bin");
        std::remove("cholnrm1.bin");
        gen_inverses();
        cholnrm_animal();
        const dense a = tabular(sire, dam), l = factor();
        std::vector<double> x(50), y;
        for (int i = 0; i < 50; ++i) x[i] = std::sin(i + 1.0);
        nrm_product(1, x, y);
        for (int i = 0; i < 50; ++i) {
            double ax = 0.0;
            for (int j = 0; j < 50; ++j) {
                double ll = 0.0;
                for (int k = 0; k < 50; ++k) ll += l[i][k] * l[j][k];
                EXPECT_NEAR(ll, a[i][j], 1e-13);
                ax += a[i][j] * x[j];
            }
            EXPECT_NEAR(y[i], ax, 1e-12);
        }
    }
}

// Animals 6 and 9 have one known parent each, inbred, once the sire and once the dam.
TEST_F(factor_test, one_known_parent_that_is_inbred) {
    const std::vector<int> sire{0, 0, 1, 1, 3, 5, 3, 3, 0, 9}, dam{0, 0, 2, 2, 4, 0, 4, 7, 8, 6};
    model_by_hand(sire, dam);
    options.superai = true;
    gen_inverses();
    cholnrm_animal();
    const dense a = tabular(sire, dam), l = factor(), inv = inverse();
    EXPECT_GT(a[4][4], 1.2);
    EXPECT_GT(a[7][7], 1.2);
    for (std::size_t i = 0; i < a.size(); ++i)
        for (std::size_t j = 0; j < a.size(); ++j) {
            double ll = 0.0, one = 0.0;
            for (std::size_t k = 0; k < a.size(); ++k) {
                ll += l[i][k] * l[j][k];
                one += a[i][k] * inv[k][j];
            }
            EXPECT_NEAR(ll, a[i][j], 1e-14) << i << " " << j;
            EXPECT_NEAR(one, i == j ? 1.0 : 0.0, 1e-13) << i << " " << j;
        }
}

// A sire has half of his sire and a quarter of his maternal grandsire; one bull as both counts as a sire.
TEST_F(factor_test, factor_and_product_of_sires) {
    for (unsigned seed = 31; seed <= 34; ++seed) {
        auto [sire, grandsire] = random_pedigree(50, seed, true);
        grandsire[30] = sire[30] = 7;
        model_by_hand(sire, grandsire);
        options.siremodel = options.superai = true;
        std::remove("nrminvers1.bin");
        std::remove("cholnrm1.bin");
        gen_inverses();
        cholnrm_animal();
        dense a(50, std::vector<double>(50)), l = factor();
        for (int i = 0; i < 50; ++i) {
            const int s = sire[i], m = grandsire[i] == sire[i] ? 0 : grandsire[i];
            for (int j = 0; j < i; ++j)
                a[i][j] = a[j][i] = (s > 0 ? 0.5 * a[s - 1][j] : 0.0) + (m > 0 ? 0.25 * a[m - 1][j] : 0.0);
            a[i][i] = s > 0 && s == grandsire[i] ? 0.4375 : 1.0 - (s > 0 ? 0.25 : 0.0) - (m > 0 ? 0.0625 : 0.0);
            if (s > 0) a[i][i] += 0.25 * a[s - 1][s - 1];
            if (m > 0) a[i][i] += 0.0625 * a[m - 1][m - 1];
            if (s > 0 && m > 0) a[i][i] += 0.25 * a[s - 1][m - 1];
        }
        std::vector<double> x(50), y;
        for (int i = 0; i < 50; ++i) x[i] = std::sin(i + 1.0);
        nrm_product(1, x, y);
        const dense inv = inverse();
        for (int i = 0; i < 50; ++i) {
            double back = 0.0, ax = 0.0;
            for (int j = 0; j < 50; ++j) {
                back += inv[i][j] * y[j];
                ax += a[i][j] * x[j];
                double ll = 0.0;
                for (int k = 0; k < 50; ++k) ll += l[i][k] * l[j][k];
                EXPECT_NEAR(ll, a[i][j], 1e-13);
            }
            EXPECT_NEAR(y[i], ax, 1e-12);
            EXPECT_NEAR(back, x[i], 1e-12);
        }
    }
}

TEST_F(factor_test, line_of_parents_and_offspring) {
    std::vector<int> sire(13), dam(13);
    std::iota(sire.begin(), sire.end(), 0);
    model_by_hand(sire, dam);
    options.superai = true;
    gen_inverses();
    cholnrm_animal();
    const dense l = factor();
    EXPECT_EQ(l[0][0], 1.0);
    EXPECT_DOUBLE_EQ(l[12][0], std::pow(0.5, 12));
    EXPECT_DOUBLE_EQ(l[12][12], std::sqrt(0.75));
}

TEST_F(factor_test, more_elements_than_allowed_stop_and_leave_no_file) {
    std::vector<int> sire(13), dam(13);
    std::iota(sire.begin(), sire.end(), 0); // 78 elements
    model_by_hand(sire, dam);
    options.superai = true;
    gen_inverses();
    cholnrm.maxlzhz = 77;
    EXPECT_STOP(cholnrm_animal(), "\"lnkloc\" : dimensions exceeded !!\nexit \"Tarvex\"");
    EXPECT_FALSE(file_exists("cholnrm1.bin"));
    cholnrm.maxlzhz = 78;
    cholnrm_animal();
    EXPECT_TRUE(file_exists("cholnrm1.bin"));
}

TEST_F(factor_test, founders_give_the_identity_and_progress_has_no_flag) {
    model_by_hand(std::vector<int>(500), std::vector<int>(500));
    options.superai = true;
    gen_inverses();
    clear_screen();
    cholnrm_animal();
    EXPECT_EQ(screen_text(), "nrm 500 0\n");
    const dense l = factor();
    EXPECT_EQ(l[7][7], 1.0);
    EXPECT_EQ(l[7][6], 0.0);
}

TEST_F(factor_test, coefficients_of_a_taken_over_inverse_are_read_or_computed) {
    const auto [sire, dam] = random_pedigree(50, 27, true);
    model_by_hand(sire, dam);
    options.superai = true;
    options.terse = false;
    gen_inverses();
    ASSERT_TRUE(file_exists("inbreed.bin"));
    cholnrm_animal();
    const dense l = factor(), a = tabular(sire, dam);
    const std::string whole = read_file("inbreed.bin");
    for (const bool keep : {true, false}) {
        if (!keep) std::remove("inbreed.bin");
        std::remove("cholnrm1.bin");
        nrminverse = {};
        clear_screen();
        gen_inverses();
        EXPECT_NE(screen_text().find("NRM inverse found"), std::string::npos);
        for (int i = 1; i <= 50; ++i) EXPECT_NEAR(nrminverse.inbreed(i, 1), a[i - 1][i - 1] - 1.0, 1e-14);
        cholnrm_animal();
        EXPECT_EQ(factor(), l);
        EXPECT_EQ(read_file("inbreed.bin"), whole);
    }
    nrminverse = {}; // of a run that has not kept them
    std::remove("cholnrm1.bin");
    EXPECT_STOP(cholnrm_animal(), "Inbreeding coefficients not set - cannot calculate NRM \n");
}

TEST_F(factor_test, coefficients_are_kept_for_simulation_only_where_asked) {
    model_by_hand({0, 0, 1, 1, 3}, {0, 0, 2, 2, 4});
    gen_inverses();
    EXPECT_FALSE(file_exists("inbreed.bin"));
    std::remove("nrminvers1.bin");
    options.simulation = true;
    gen_inverses();
    record_reader in;
    ASSERT_TRUE(in.open("inbreed.bin"));
    std::int32_t m = 0, n = 0, nannew = 0;
    std::string ped(30, '-');
    double f[5] = {};
    EXPECT_TRUE(in.record(m, n, nannew, ped));
    EXPECT_EQ(m, 5);
    EXPECT_EQ(n, 1);
    EXPECT_EQ(nannew, 5);
    EXPECT_EQ(ped, "test.ped                      ");
    EXPECT_TRUE(in.record(std::span<double>(f)));
    EXPECT_EQ(f[4], 0.25);
}

} // namespace
} // namespace tarvex
