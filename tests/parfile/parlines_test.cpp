// How lines are taken and cut into tokens, seen through whole parameter files, and what the blocks make of odd lines.
#include "parfile/parlines.h"
#include "parfile/randasfix.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "parfile/examples.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "parfile/mudmap_build.h"
#include "parfile/readparfile.h"
#include "relations/nrminverse.h"
#include "support/fixture.h"

#include <cstdio>
#include <random>

namespace tarvex {
namespace {

using examples::with;

class parlines : public tarvex_test {
protected:
    parlines() { EXPECT_NE(std::freopen("/dev/null", "r", stdin), nullptr); }
    void read(const std::string& text) {
        write_file("tarvex.par", text);
        read_parfile();
    }
    void map(const std::string& text) {
        read(text);
        model2mudmap();
    }
    bool told(const std::string& text) const { return screen_text().find(text) != std::string::npos; }
    const datafile_module& d = datafile;
};

const std::string& uni = examples::weaning;
const std::string& two = examples::two_traits;

TEST_F(parlines, a_token_may_end_in_the_last_column) {
    const std::string blanks(static_cast<std::size_t>(plinelen - 3), ' ');
    read(with(two, " 10.0 3.0\n", "1" + blanks + "34\n"));
    EXPECT_EQ(model.cov(1, 1), 1.0);
    EXPECT_EQ(model.cov(2, 1), 34.0);
    EXPECT_EQ(model.cov(3, 1), 12.0);
    read(with(two, " 10.0 3.0\n", "1" + blanks + "3456 9\n")); // what stands behind is lost
    EXPECT_EQ(model.cov(2, 1), 34.0);
    EXPECT_EQ(model.cov(3, 1), 12.0);
}

TEST_F(parlines, tabs_carriage_returns_and_an_unfinished_last_line) {
    std::string text;
    for (char c : two.substr(0, two.size() - 1)) text += c == '\n' ? "\r\n" : c == ' ' ? "\t" : std::string(1, c);
    read(text);
    EXPECT_EQ(model.cov(3, 0), 25.0);
    EXPECT_EQ(d.colname[4][1], "ywt");
    EXPECT_EQ(filenames.datfile, "two.dat");
    EXPECT_EQ(model.random(1, 1), "animal");
}

TEST_F(parlines, keywords_count_by_three_letters_in_any_case) {
    std::string text = with(with(uni, "DAT wean", "dataFILE wean"), "ANA UNI", "analysis uni");
    text = with(with(with(text, "MOD\n", "Model\n"), " FIX sex", " fixed sex"), "VAR animal", "variance animal");
    read(with(text, "END\nPED", "endofblock\npedigree"));
    EXPECT_EQ(model.fixed(2, 1), "sex");
    EXPECT_EQ(filenames.datfile, "wean.dat");
    read(with(uni, "PED wean.ped", "TOTAL nothing\nPED wean.ped"));
    EXPECT_EQ(numbers.krand, 1);
}

TEST_F(parlines, comments) {
    read(with(uni, "COM Weaning weight, animal model", "# COM no\n\nCOMMENT x # y"));
    EXPECT_EQ(model.commentline, "MENT x # y");
    EXPECT_EQ(model.analysis, "UNI");
    EXPECT_EQ(d.mlevels[1][1], 2000);
    read(with(uni, " weight\n", " weight # kg\n"));
    EXPECT_EQ(d.colname[5][1], "weight");
    EXPECT_EQ(d.mlevels[5][1], 0);
    read(with(uni, " weight\n", " weight # kg # new\n"));
    EXPECT_EQ(d.mlevels[5][1], 0);
    read(with(uni, " sex    2\n", "  # no column\n  # nor # here\n sex 2# two\n"));
    EXPECT_EQ(d.ndatcol[1], 5);
    EXPECT_EQ(d.colname[3][1], "sex");
    EXPECT_EQ(d.mlevels[3][1], 2);
}

TEST_F(parlines, blank_lines_inside_covariances) {
    read(with(two, " 10.0 3.0\n", " 10.0\n\n# comment\n 3.0\n"));
    EXPECT_EQ(model.cov(3, 1), 12.0);
}

TEST_F(parlines, values_stand_on_any_number_of_lines) {
    for (const char* lines :
         {" 1 2 3 4 5 6\n", " 1 2 3 +\n 4 5 6 and a comment\n", " 1 2\n + \n+\n 3 4D0\n 0.5e1 6\n"}) {
        read(with(examples::growth, " 20 4 1 5 0.5 2\n", lines));
        for (int i = 1; i <= 6; ++i) EXPECT_EQ(model.cov(i, 1), i) << lines;
        EXPECT_FALSE(options.sigam);
    }
}

TEST_F(parlines, names_are_cut) {
    read(with(uni, "PED wean.ped", "PED a23456789b123456789c123456789d.ped"));
    EXPECT_EQ(filenames.pedfile, "a23456789b123456789c123456789d");
    read(with(uni, " sex    2\n", " a23456789b123456789c1 2\n sex 2\n"));
    EXPECT_EQ(d.colname[3][1], "a23456789b123456789c");
}

TEST_F(parlines, echo_under_verbose_shows_lines_as_they_stand) {
    options.verbose = true;
    read(with(uni, "DAT wean.dat", "dat wean.dat"));
    const std::string line = "dat wean.dat";
    EXPECT_TRUE(told("**" + line + std::string(plinelen - line.size(), ' ') + "**\n"));
    EXPECT_TRUE(told("  Data - column :   1  \"animal\"  2000\n"));
    EXPECT_TRUE(told("Pedigree file : \" wean.ped \"\n"));
    EXPECT_TRUE(told("  Analysis type = 1  \"UNI\"\n"));
    EXPECT_TRUE(told("  No. of traits =  1\n"));
    EXPECT_TRUE(told("  Trait no.  1  \"weight\"  Missing value        -999\n"));
    EXPECT_TRUE(told("\n End of parameter file reached :  21 lines read\n"));
}

TEST_F(parlines, lists_under_verbose) {
    options.verbose = true;
    read(examples::repeatability + examples::extras);
    EXPECT_TRUE(told(" Additional dependencies among fixed effects\n   1  parity                 5   1\n"));
    EXPECT_TRUE(told(" Additional covariances & parameters defined\nphenvar\nhalf\nherit\nrepeat_cow\n"));
    read(with(examples::growth, "VAR residual 1 HOM\n 12.0", "VAR residual 1 IND 2 mevars\n 12.0\n 13.0"));
    EXPECT_TRUE(told("Expect to read codes for ME variances from file \" mevars \"\n"));
    EXPECT_EQ(model.me_type, residual_kind::ind);
    EXPECT_EQ(model.rr_resteps, 2);
    EXPECT_EQ(model.cov(2, 0), 13.0);
    EXPECT_EQ(cov_length(0), 2);
}

TEST_F(parlines, names_keep_their_case_in_lists_of_levels) {
    std::string text = with(examples::repeatability, " parity 5", " Fixed 5");
    read(with(text, "FIX parity", "FIX Fixed") + "zer\n Fixed 5 and more\nend\npse 0.5\n cow 17\nEnd\n");
    EXPECT_EQ(model.fixed(2, 1), "Fixed");
    EXPECT_EQ(zerout.addzername(1), "Fixed");
    EXPECT_EQ(randasfix.psfixfact, 0.5);
    EXPECT_EQ(randasfix.npsfix, 1);
    read(two + "ZER\n herd 12 2\nEND\nSE+\n COR rg 5 4 6\nEND\n");
    EXPECT_EQ(zerout.iaddzer1(1), 12);
    EXPECT_EQ(zerout.iaddzer2(1), 2);
    EXPECT_EQ(usrdefcovs.igpadd(1), (std::array<int, 4>{2, 5, 4, 6}));
}

TEST_F(parlines, missing_value_of_one_trait) {
    read(with(uni, "weight 1 -999", "weight -999"));
    EXPECT_EQ(d.missvalue[1], -999);
    read(with(uni, "weight 1 -999", "weight 1"));
    EXPECT_EQ(d.missvalue[1], -123456789);
    read(with(uni, "weight 1 -999", "weight \"2\"->1 -9"));
    EXPECT_EQ(d.missvalue[1], -9);
    EXPECT_EQ(d.iq_newno[2], 1);
    EXPECT_EQ(d.iq_newno[1], -1);
    EXPECT_TRUE(options.renumbered);
}

TEST_F(parlines, residual_by_its_name_or_qualifier) {
    read(with(examples::growth, "VAR residual 1 HOM", "VAR E 3 HOM"));
    EXPECT_EQ(model.krandom(0), "E");
    EXPECT_EQ(model.kkfit(0), 1);
    read(with(examples::growth, "VAR residual 1 HOM", "VAR error HOM age"));
    EXPECT_EQ(model.me_control, "age");
    // a random effect with such a name is taken for the residual, which has its own already
    std::string text = with(examples::repeatability, " cowpe  800", " resid_herd 800");
    EXPECT_STOP(read(with(with(text, "RAN cowpe", "RAN resid_herd"), "VAR cowpe", "VAR resid_herd")),
                "Residual covariances given twice");
}

TEST_F(parlines, starting_values_from_a_file) {
    write_file("start", "# animal\n10.0 3.0 +\n 12.0 # more\n# residual\n20.0\n5D0, 25.0\n");
    std::string text = with(two, " 10.0 3.0\n      12.0\n", "");
    text = with(text, " 20.0 5.0 +\n 25.0\n", "");
    read("STA start\n" + text);
    EXPECT_TRUE(options.start_vals);
    const double values[2][3] = {{20, 5, 25}, {10, 3, 12}};
    for (int irand = 0; irand <= 1; ++irand)
        for (int i = 1; i <= 3; ++i) EXPECT_EQ(model.cov(i, irand), values[irand][i - 1]);
    write_file("start", "10 3 12 20 5\n");
    EXPECT_STOP(read("STA start\n" + text), "Reading covariances failed !");
    const auto at = examples::growth.find("VAR animal");
    write_file("start", "20 4 1 5 0.5 2\n15 2 4\n1 10 9\n11 20 12\n");
    read("STA start\n" + examples::growth.substr(0, at) + "VAR animal 3\nVAR pe 2\nVAR res HET 2\n");
    EXPECT_EQ(model.me_range(2, 2), 20);
    EXPECT_EQ(model.cov(2, 0), 12.0);
    const std::string four = "STA start\n" + examples::growth.substr(0, at) + "VAR animal 3\nVAR pe 2\nVAR res IND 4\n";
    EXPECT_STOP(read(four), "Values left over in file \"start\" : 2");
    write_file("start", "20 4 1 5 0.5 2\n15 2 4\n1 10 9\n11\n");
    options.verbose = true;
    read(four);
    EXPECT_EQ(model.cov(4, 0), 11.0);
    EXPECT_TRUE(told("Read starting values from :\" start \"\n"));
}

TEST_F(parlines, code_of_the_analysis) {
    read(with(two, "ANA MUV 2", "ANA muv  2 # traits"));
    EXPECT_EQ(model.analysis, "muv  2");
    EXPECT_EQ(model.anal_type, 2);
    read(with(examples::four_pc, "ANA MUV PC 4", "ANA MUV pc          4"));
    EXPECT_EQ(model.analysis, "MUV pc"); // cut at 15 characters
    EXPECT_TRUE(options.principal);
    EXPECT_EQ(numbers.nq, 4);
}

TEST_F(parlines, the_last_hash_begins_the_comment_of_the_analysis) {
    read(with(uni, "ANA UNI         # univariate", "ANA UNI # a # b"));
    EXPECT_EQ(model.analysis, "UNI # a");
    EXPECT_EQ(model.anal_type, 1);
    read(with(examples::growth, "ANA RR", "ANA RR#x"));
    EXPECT_EQ(model.analysis, "RR");
    EXPECT_EQ(model.anal_type, 3);
}

TEST_F(parlines, reduced_rank_of_random_regressions) {
    std::string text = with(examples::growth, "ANA RR", "ANA rr pC");
    read(with(with(text, "VAR animal 3", "VAR animal 3 2"), "VAR pe 2", "VAR pe 2 2"));
    EXPECT_TRUE(options.principal && options.randreg);
    EXPECT_EQ(numbers.nq, 1);
    EXPECT_EQ(model.krfit(1), 2);
    EXPECT_EQ(model.kkfit(1), 3);
    EXPECT_STOP(read(text), "Missing number !"); // no rank
}

TEST_F(parlines, lines_of_the_model_in_lower_case) {
    std::string text = with(examples::grouped, " MEA 3\n", " mu 3\n");
    read(with(with(text, "RAN animal NRM", "ran animal nrm"), "FIX herd", "fix herd"));
    EXPECT_EQ(model.fitmean(3), 1);
    EXPECT_EQ(model.fitmean(2), 0);
    EXPECT_EQ(model.rnd_opt(1, 3), covariance_kind::nrm);
    EXPECT_EQ(model.nfix(2), 1);
    read(with(text, " mu 3\n", " MU\n"));
    EXPECT_EQ(model.fitmean(1), 1);
}

TEST_F(parlines, a_plus_behind_the_keyword_ties_effects) {
    for (const char* line : {"VAR animal 1 # a+b", "VAR animal 1    +"}) {
        read(with(uni, "VAR animal 1", line));
        EXPECT_TRUE(options.sigam) << line;
    }
    EXPECT_STOP(read(with(uni, "VAR animal 1", "VAR animal 1+")), "Something wrong parsing line !");
    read(with(uni, "VAR residual 1", "VAR residual 1 +"));
    EXPECT_FALSE(options.sigam);
}

TEST_F(parlines, names_that_begin_with_end_close_lists_of_levels) {
    EXPECT_STOP(read(uni + "ZER\n herd 1\n endow 5\n herd 2\nEND\n"), "Invalid descriptor !");
    EXPECT_EQ(zerout.nzerout, 1);
    EXPECT_STOP(read(uni + "PSE\n animal 1\n Endow 5\n animal 2\nEND\n"), "Invalid descriptor !");
    EXPECT_EQ(randasfix.npsfix, 1);
    read(uni + "SE+\n SUM a 1 2\neNd\n");
    EXPECT_EQ(usrdefcovs.ncovadd, 1);
}

TEST_F(parlines, functions_of_a_later_block_replace_earlier_ones) {
    read(uni + "SE+\n SUM a 1 2\n VRA h 2 3\nEND\nSE+\n SUM a_name_of_more_than_14 1(-1.5D0)\nEND\n");
    ASSERT_EQ(usrdefcovs.ncovadd, 1);
    EXPECT_EQ(usrdefcovs.naddgps, 0);
    EXPECT_EQ(usrdefcovs.addcovname(1), "a_name_of_more");
    EXPECT_EQ(usrdefcovs.addcov(1)[0].factor, -1.5);
}

TEST_F(parlines, a_later_model_replaces_an_earlier_one) {
    const std::string before = "MOD\n FIX dam\n MEA\n NUM 1 2\n TR a \"4\"->1\nEND\n";
    read(with(examples::renumbered, "MOD\n", before + "MOD\n"));
    EXPECT_EQ(model.nfix(1), 1);
    EXPECT_EQ(model.fitmean(1), 0);
    EXPECT_EQ(d.trno_pos[2], -1);
    EXPECT_EQ(d.iq_newno[4], -1);
    EXPECT_EQ(d.iq_newno[3], 1);
}

TEST_F(parlines, odd_first_words_of_data_columns) {
    read(with(uni, " age\n", " age\n colour 5\n COL treatment 3\n"));
    EXPECT_EQ(d.ndatcol[1], 7);
    EXPECT_EQ(d.colname[5][1], "5");
    EXPECT_EQ(d.colname[6][1], "treatment");
    EXPECT_EQ(d.mlevels[6][1], 3);
    read(with(uni, " age\n", " age\n tR5 7\n col x\n Tr 1 y 4\n COL\n"));
    EXPECT_EQ(d.ndatcol[1], 8);
    EXPECT_EQ(d.colname[5][1], "tR5");
    EXPECT_EQ(d.colname[6][1], "x");
    EXPECT_EQ(d.colname[7][1], "y");
    EXPECT_EQ(d.mlevels[7][1], 4);
    EXPECT_STOP(read(with(uni, " age\n", " endpoint 5\n")), "Invalid descriptor !"); // ends the block
}

TEST_F(parlines, trait_on_a_line_of_its_own) {
    read(examples::renumbered);
    const datafile_module joined = datafile;
    std::string text = with(examples::renumbered, " TR1 qno\n", " TR 1\n COL qno\n");
    read(with(text, " TR2 qno\n", " tr02\n qno\n"));
    for (int iq = 1; iq <= 2; ++iq) {
        EXPECT_EQ(d.ndatcol[iq], joined.ndatcol[iq]);
        for (int j = 1; j <= 5; ++j) EXPECT_EQ(d.colname[j][iq], joined.colname[j][iq]);
    }
}

TEST_F(parlines, data_may_stand_in_front_of_the_analysis) {
    map(with(with(two, "ANA MUV 2\n", ""), "MOD EQ\n", "ANA MUV 2\nMOD EQ\n"));
    EXPECT_EQ(mudmap.tr_dcolno(2), 4);
}

TEST_F(parlines, grouped_form_is_the_third_word) {
    read(with(uni, "DAT wean.dat", "DAT GRPdata"));
    EXPECT_FALSE(d.grouped);
    read(with(with(examples::grouped, "grp.dat GRP", "grp.dat grp"), " TRN 1 2 3", " trn"));
    EXPECT_TRUE(d.grouped);
    EXPECT_EQ(d.ndatcol[3], 4);
}

// A column may have the name of the word for lines.
TEST_F(parlines, subjects_of_lines_beside_a_column_of_that_name) {
    const std::string text = "\"SUBject LINE\" makes a subject of each line, not of what the column of that name holds";
    for (const char* line : {" SUB LINE\n", " SUB line\n", " SUB herd\n"}) {
        clear_screen();
        new_analysis();
        map(with(with(with(uni, " sex    2\n", " Line   2\n"), " FIX sex\n", ""), "MOD\n",
                 "MOD\n" + std::string(line)));
        EXPECT_EQ(told(text), std::string(line).find("herd") == std::string::npos) << line;
        EXPECT_EQ(model.subject_line, std::string(line).find("herd") == std::string::npos);
    }
}

TEST_F(parlines, options_of_pedigree_and_covariance_lines) {
    read(with(uni, "PED wean.ped", "PED wean.ped sire"));
    EXPECT_TRUE(options.siremodel);
    read(with(uni, "PED wean.ped", "PED wean.ped SI"));
    EXPECT_FALSE(options.siremodel);
    read(with(uni, "VAR animal 1", "VAR animal 1 NRM"));
    EXPECT_EQ(model.diagonal(1), 0);
    EXPECT_FALSE(options.sigam);
    read(with(uni, "VAR animal 1", "VAR animal 1 +"));
    EXPECT_TRUE(options.sigam);
    read(with(uni, "RAN animal NRM", "RAN animal nrmX"));
    EXPECT_EQ(model.rnd_opt(1, 1), covariance_kind::nrm);
}

TEST_F(parlines, words_behind_the_order_of_a_matrix) {
    const auto passed_over = [](const std::string& word, const std::string& block) {
        return "***** WARNING : \"" + word + "\" behind the order of the covariance matrix of \"" + block +
               "\" is not looked at\n";
    };
    const auto expect_passed_over = [&](const std::string& line, const std::string& word, const std::string& block) {
        clear_screen();
        new_analysis();
        read(with(two, "VAR " + line.substr(0, line.find(' ', line.find(' ') + 1)), "VAR " + line));
        EXPECT_EQ(told(passed_over(word, block)), true) << line << screen_text();
    };
    expect_passed_over("animal 2 1", "1", "animal"); // a rank that is not fitted
    expect_passed_over("animal 2 DAI", "DAI", "animal");
    expect_passed_over("residual 2 DIA", "DIA", "residual");
    for (const char* line : {"VAR animal 2 2", "VAR animal 2 # start", "VAR animal 2"}) {
        clear_screen();
        new_analysis();
        read(with(two, "VAR animal 2", line));
        EXPECT_FALSE(told("is not looked at")) << line;
    }
}

TEST_F(parlines, a_second_analysis_starts_anew) {
    read(with(with(uni, "ANA UNI", "ANA RR PC\nANA UNI"), "MOD\n", "MOD\n RAN other\n TR x\nEND\nMOD\n"));
    EXPECT_FALSE(options.randreg || options.principal);
    EXPECT_EQ(model.nrnd(1), 1);
    EXPECT_EQ(model.trait(1), "weight");
}

TEST_F(parlines, ways_in_which_data_are_described_agree) {
    // one line with all traits: individual and grouped form
    map(two);
    const auto columns = mudmap.tr_dcolno;
    const std::string group = with(with(two, "two.dat\n", "two.dat GRP\n TRN\n"), " wwt\n ywt\n", " NAM wwt ywt\n");
    map("ANA MUV 2\n" + with(group, "ANA MUV 2\n", ""));
    for (int iq = 1; iq <= 2; ++iq) EXPECT_EQ(mudmap.tr_dcolno(iq), columns(iq));
    EXPECT_EQ(mudmap.maxcol, 4);
}

TEST_F(parlines, short_list_of_names) {
    read(with(examples::grouped, " NAM w1 w2 w3\n", " NAM w1 w2 # w3\n"));
    EXPECT_EQ(d.ndatcol[2], 4);
    EXPECT_EQ(d.ndatcol[3], 3);
}

TEST_F(parlines, spoilt_files_end_in_a_stop_or_are_read) {
    std::mt19937 random(20240601);
    const std::string all[] = {uni,
                               two,
                               examples::repeatability + examples::extras,
                               examples::renumbered,
                               examples::growth,
                               examples::grouped,
                               examples::four_pc,
                               examples::rr_chick};
    const std::string letters = " \n#+(),*\"->019.eDx";
    for (int n = 0; n < 500; ++n) {
        std::string text = all[random() % std::size(all)];
        for (auto k = random() % 4 + 1; k > 0; --k) {
            const std::size_t at = random() % text.size();
            switch (random() % 4) {
            case 0:
                text[at] = letters[random() % letters.size()];
                break;
            case 1:
                text.erase(at, random() % 20);
                break;
            case 2:
                text.insert(at, 1, letters[random() % letters.size()]);
                break;
            default:
                text.insert(at, text.substr(random() % text.size(), random() % 40));
                break;
            }
            if (text.empty()) text = "\n";
        }
        try {
            map(text);
        } catch (const program_stop& stopped) {
            EXPECT_EQ(stopped.status, 1);
        }
        clear_screen();
        new_analysis();
    }
}

} // namespace
} // namespace tarvex
