// Scan and recoding of small data sets, against figures by hand; equation numbers are laid out here independently.
#include "recode_fixture.h"

#include "basis/splines.h"

#include <cmath>

namespace tarvex {
namespace {

using ints = std::vector<int>;

const char* const uni = "DAT t.dat\n animal 10\n sex 5\n age\n y\nEND\nPED p\nANA UNI\nMOD\n FIX sex\n COV age(1,POL)\n"
                        " RAN animal NRM\n TRAIT y 1 -9\nEND\nVAR animal 1\n 1.0\nVAR residual 1\n 2.0\n";

TEST_F(recode_test, one_record_a_subject_gives_form_a) {
    prepare(uni, "3 0.9 1 5\n1 1.9 2 -9\n2 1.9 4 7\n", 4);
    recode();
    EXPECT_EQ(numbers.maxnr, 1);
    EXPECT_EQ(numbers.nsubject, 2);
    EXPECT_EQ(levels.fx_codes(1, 1), (code_list{0, 1}));
    EXPECT_EQ(levels.rn_nlev(1), 4);
    EXPECT_EQ(means.nrec(1), 2);
    EXPECT_EQ(means.tr_xbar(1), 6.0);
    EXPECT_DOUBLE_EQ(means.tr_var(1), std::sqrt(2.0));
    EXPECT_EQ(means.tr_min(1), 5.0);
    EXPECT_EQ(means.tr_max(1), 7.0);
    EXPECT_EQ(covmeans.cv_xbar(1, 1), 2.5);
    record_reader in;
    ASSERT_TRUE(in.open("recoded1.bin"));
    double y = 0, x = 0;
    int eq = 0, p1 = 0, p2 = 0;
    ASSERT_TRUE(in.next() && in.get(y));
    EXPECT_EQ(in.bytes_left(), 0u);
    EXPECT_EQ(y, 5.0); // as read
    ASSERT_TRUE(in.next() && in.get(x));
    EXPECT_EQ(in.bytes_left(), 0u);
    EXPECT_EQ(x, -1.5);
    ASSERT_TRUE(in.next() && in.get(eq));
    EXPECT_EQ(eq, 1);
    ASSERT_TRUE(in.next() && in.get(p1) && in.get(p2));
    EXPECT_EQ(in.bytes_left(), 0u);
    EXPECT_EQ(p1, 1);
    EXPECT_EQ(p2, 2);
    setup_recdata(pass, filenames.recdatfil2);
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(pass.record.icombi, 1);
    EXPECT_EQ(pass.record.ynq(1), 1);
    EXPECT_EQ(pass.record.nobs, 1);
    EXPECT_EQ(row(1), (ints{2, 3 + 3})); // covariable 1, sex 2 and 3, animals from 4
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(row(1), (ints{3, 3 + 2}));
    EXPECT_FALSE(next_subject(pass));
}

TEST_F(recode_test, last_subject_largest_and_form_b) {
    prepare(uni, "3 1 1 5\n2 1 2 6\n2 2 4 7\n2 1 5 8\n", 4);
    recode();
    EXPECT_EQ(numbers.maxnr, 3);
    EXPECT_EQ(numbers.maxnreq, 3); // two sexes and the animal
    EXPECT_EQ(combinations.ncombi, 2);
    EXPECT_EQ(combinations.nqcombi(2), (vector1<int>{3}));
    EXPECT_EQ(means.pairs(1), 4);
    record_reader in;
    ASSERT_TRUE(in.open("recoded1.bin"));
    int icombi = 0, nobs = 0, kk = 0;
    double y = 0;
    for (int i = 1; i <= 4; ++i) ASSERT_TRUE(in.next());
    ASSERT_TRUE(in.record(icombi, nobs, kk, y));
    EXPECT_EQ(in.bytes_left(), 16u);
    EXPECT_EQ(icombi, 2);
    EXPECT_EQ(nobs, 3);
    EXPECT_EQ(kk, 3);
    EXPECT_EQ(y, 6.0);
    setup_recdata(pass, filenames.recdatfil2);
    ASSERT_TRUE(next_subject(pass));
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(row(1), (ints{2, 5}));
    EXPECT_EQ(row(2), (ints{3, 5}));
    EXPECT_EQ(row(3), (ints{2, 5}));
    EXPECT_FALSE(next_subject(pass));
}

const char* const eq2 = "DAT t.dat\n animal 10\n herd 5\n y1\n y2\nEND\nPED p\nANA MUV 2\nMOD EQ\n FIX herd\n"
                        " RAN animal NRM\n TRAIT y1 1 -9\n TRAIT y2 2 -9\nEND\nVAR animal 2\n 1.0 0.2 1.0\n"
                        "VAR residual 2\n 2.0 0.1 2.0\n";

TEST_F(recode_test, all_traits_in_a_line_give_form_c_sorted_by_trait) {
    prepare(eq2, "1 7 1.5 2.5\n1 9 3.5 -9\n2 7 -9 -9\n3 9 -9 4.5\n", 3);
    recode();
    EXPECT_EQ(numbers.maxnr, 3);
    EXPECT_EQ(numbers.nsubject, 2);
    EXPECT_EQ(means.pairs(1), 2);
    EXPECT_EQ(means.pairs(2), 1);
    EXPECT_EQ(means.pairs(3), 2);
    EXPECT_EQ(combinations.ncomb_pairs(1), 1);
    EXPECT_EQ(combinations.nqcombi(1), (vector1<int>{2, 1}));
    record_reader in;
    ASSERT_TRUE(in.open("recoded1.bin"));
    int icombi = 0, nobs = 0, kk = 0;
    ints ynq(3);
    std::vector<double> y(3);
    ASSERT_TRUE(in.record(icombi, nobs, kk, std::span<int>(ynq), std::span<double>(y)));
    EXPECT_EQ(in.bytes_left(), 0u);
    EXPECT_EQ(ynq, (ints{1, 1, 2}));
    EXPECT_EQ(y, (std::vector<double>{1.5, 3.5, 2.5}));
    setup_recdata(pass, filenames.recdatfil2);
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(pass.record.nobs, 3);
    EXPECT_EQ(row(1), (ints{1, 5})); // herd 7 and 9 of both traits, then animal by trait
    EXPECT_EQ(row(2), (ints{2, 5}));
    EXPECT_EQ(row(3), (ints{3, 6}));
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(row(1), (ints{4, 10}));
    EXPECT_FALSE(next_subject(pass));
}

TEST_F(recode_test, one_trait_lines_in_any_order_give_the_same_records) {
    const std::string par = "ANA MUV 2\nDAT t.dat\n TR1 tno\n animal 10\n herd 5\n y1\n TR2 tno\n animal 10\n herd 5\n"
                            " y2\nEND\nPED p\nMOD\n FIX herd\n RAN animal NRM\n TRAIT y1 1 -9\n"
                            " TRAIT y2 2 -9\nEND\nVAR animal 2\n 1.0 0.2 1.0\nVAR residual 2\n 2.0 0.1 2.0\n";
    prepare(eq2, "1 7 1.5 2.5\n2 8 5.5 6.5\n", 3);
    recode();
    const std::string want1 = read_file("recoded1.bin"), want2 = read_file("recoded2.bin");
    const int pairs = means.pairs(2);
    new_analysis();
    prepare(par, "2 1 7 2.5\n1 1 7 1.5\n1 2 8 5.5\n0 9 9 9\n2 2 8 6.5\n", 3);
    recode();
    EXPECT_EQ(read_file("recoded1.bin"), want1);
    EXPECT_EQ(read_file("recoded2.bin"), want2);
    EXPECT_EQ(means.pairs(2), pairs);
}

TEST_F(recode_test, subject_with_nobs_equal_to_maxnr_and_limit_of_observations) {
    std::string data;
    for (int i = 1; i <= 499; ++i) data += "1 1 " + std::to_string(i) + " 5\n";
    prepare(uni, data, 4);
    recode();
    EXPECT_EQ(numbers.maxnr, 499);
    write_file("t.dat", data + "1 1 3 5\n");
    EXPECT_STOP(data_scan1st(), "Max. no. of observations of a subject exceeded !");
}

TEST_F(recode_test, counts_of_100_and_101_records_are_two_patterns) {
    std::string data;
    for (int i = 1; i <= 100; ++i) data += "1 1 1 5\n";
    for (int i = 1; i <= 101; ++i) data += "2 1 2 5\n";
    prepare(uni, data, 4);
    options.details = true;
    recode();
    EXPECT_EQ(combinations.ncombi, 2);
    EXPECT_NE(screen_text().find("Combination    1 ** 100\nCombination    2 ** 101\n"), std::string::npos)
        << screen_text();
    EXPECT_EQ(combinations.nqcombi(2), (vector1<int>{101}));
}

TEST_F(recode_test, text_of_ten_records) {
    std::string data = "2 1 2 5\n";
    for (int i = 1; i <= 10; ++i) data += "1 1 1 5\n";
    prepare(uni, data, 4);
    options.details = true;
    recode();
    EXPECT_NE(screen_text().find("Combination    1  1   1\nCombination    2 10  10\n"), std::string::npos)
        << screen_text();
}

TEST_F(recode_test, combination_1000_stops) {
    numbers.maxnr = 50;
    combinations.ncomb_pairs.allocate(1);
    array<int> mark;
    mark.allocate(2);
    int icombi = 0;
    for (int k = 1; k <= 999; ++k) {
        mark(1) = 1 + k % 40;
        mark(2) = 1 + k / 40;
        combination_no(icombi, 2, mark);
        ASSERT_EQ(icombi, k);
    }
    combination_no(icombi, 2, mark);
    EXPECT_EQ(icombi, 999);
    EXPECT_EQ(combinations.ncomb_subj(999), 2);
    EXPECT_EQ(combinations.ncomb_pairs(1), 1000);
    mark(1) = 45;
    EXPECT_STOP(combination_no(icombi, 2, mark), "too many combinations");
}

TEST_F(recode_test, model_without_covariables_has_no_such_records) {
    prepare("DAT t.dat\n animal 10\n y\nEND\nPED p\nANA UNI\nMOD\n RAN animal NRM\n TRAIT y 1 -9\nEND\n"
            "VAR animal 1\n 1.0\nVAR residual 1\n 2.0\n",
            "2 5\n1 6\n", 2);
    recode();
    record_reader in;
    ASSERT_TRUE(in.open("recoded1.bin"));
    double y = 0;
    int place = 0;
    ASSERT_TRUE(in.record(y) && in.record(place) && in.record(y) && in.record(place));
    EXPECT_FALSE(in.next());
    options.superai = true;
    data_recode(starts_of_equations());
    ASSERT_TRUE(in.open("recoded1.bin"));
    int level = 0;
    ASSERT_TRUE(in.record(y) && in.record(place) && in.record(level));
    EXPECT_EQ(level, 2);
    ASSERT_TRUE(in.record(y) && in.record(place) && in.record(level));
    EXPECT_EQ(level, 1);
    setup_recdata(pass, filenames.recdatfil2);
    ASSERT_TRUE(next_subject(pass) && next_subject(pass));
    EXPECT_EQ(pass.record.yvec(1), y);
    EXPECT_EQ(row(1), (ints{1}));
    EXPECT_FALSE(next_subject(pass));
}

TEST_F(recode_test, trait_mean_is_a_leading_position_behind_all_blocks) {
    prepare("DAT t.dat\n animal 10\n y\nEND\nPED p\nANA UNI\nMOD\n MU\n RAN animal NRM\n TRAIT y 1 -9\nEND\n"
            "VAR animal 1\n 1.0\nVAR residual 1\n 2.0\n",
            "2 5\n1 6\n", 2);
    recode();
    setup_recdata(pass, filenames.recdatfil2);
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(row(1), (ints{3, 2}));
    EXPECT_EQ(pass.record.jvec(1), 2);
    EXPECT_EQ(pass.record.jvec(2), 3);
    EXPECT_EQ(lead_positions(1), 1);
}

TEST_F(recode_test, interaction_codes) {
    prepare(
        "DAT t.dat\n animal 10\n herd 12\n year 3000\n y\nEND\nPED p\nANA UNI\nMOD\n FIX herd*year\n RAN animal NRM\n"
        " TRAIT y 1 -9\nEND\nVAR animal 1\n 1.0\nVAR residual 1\n 2.0\n",
        "1 12 1990 5\n2 1 2010 6\n3 12 1991 7\n4 1 2010 7\n", 4);
    recode();
    EXPECT_EQ(levels.fx_base(1, 1), 10000);
    EXPECT_EQ(levels.fx_codes(1, 1), (code_list{12010, 121990, 121991}));
    setup_recdata(pass, filenames.recdatfil2);
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(row(1), (ints{2, 4}));
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(row(1), (ints{1, 5}));
}

TEST_F(recode_test, codes_of_interactions_stay_apart) {
    const std::string par = "DAT t.dat\n a 12\n b 20\n y\nEND\nANA UNI\nMOD\n FIX a*b\n RAN b*a\n TRAIT y 1 -9\nEND\n"
                            "VAR b*a 1\n 1.0\nVAR residual 1\n 2.0\n";
    prepare(par, "1 10 5\n2 0 6\n0 7 4\n");
    recode();
    EXPECT_EQ(levels.fx_base(1, 1), 100);
    EXPECT_EQ(levels.fx_codes(1, 1), (code_list{7, 110, 200}));
    EXPECT_EQ(levels.rn_base(1), 10);
    EXPECT_EQ(levels.rn_codes(1), (code_list{2, 70, 101}));
    setup_recdata(pass, filenames.recdatfil2);
    for (const ints& want : {ints{2, 6}, ints{3, 4}, ints{1, 5}}) {
        ASSERT_TRUE(next_subject(pass));
        EXPECT_EQ(row(1), want);
    }
    write_file("t.dat", "3 -1 5\n");
    EXPECT_STOP(data_scan1st(), "Invalid effect code :  a*b 3.0");
    write_file("t.dat", "-1 3 5\n");
    EXPECT_STOP(data_scan1st(), "Invalid effect code :  a*b -1.0 -1\n");
    write_file("t.dat", "0 0 5\n"); // a level of the fixed effect, none of the random one
    EXPECT_STOP(data_scan1st(), "Invalid effect code :  b*a 0.0 0\n");
}

TEST_F(recode_test, zero_is_a_level_of_extra_effects) {
    prepare("DAT t.dat\n animal 10\n herd 5\n y\nEND\nPED p\nANA UNI\nMOD\n MEA\n EXT herd\n RAN animal NRM\n"
            " TRAIT y 1 -9\nEND\nVAR animal 1\n 1.0\nVAR residual 1\n 2.0\n",
            "1 0 5\n2 3 5\n", 4);
    data_scan1st();
    EXPECT_EQ(levels.ex_codes(1, 1), (code_list{0, 3}));
    write_file("t.dat", "1 -1 5\n");
    EXPECT_STOP(data_scan1st(), "Invalid effect code :  herd -1.0 -1\n");
}

// The first trait has the larger model, the second other means of its covariable.
TEST_F(recode_test, rows_hold_the_largest_model_and_means_are_those_of_the_trait) {
    prepare("ANA MUV 2\nDAT t.dat\n TR1 tno\n animal 10\n herd 5\n age\n y1\n TR2 tno\n animal 10\n herd 5\n age\n"
            " y2\nEND\nPED p\nMOD\n FIX herd 1\n MEA 2\n FIX animal 1\n COV age(2,POL) 1\n COV age(1,POL) 2\n"
            " RAN animal NRM\n TRAIT y1 1 -9\n TRAIT y2 2 -9\nEND\nVAR animal 2\n 1.0 0.2 1.0\n"
            "VAR residual 2\n 2.0 0.1 2.0\n",
            "1 1 3 1 5\n1 2 3 4 5\n2 2 9 10 5\n2 3 9 20 6\n", 3);
    recode();
    EXPECT_EQ(row_length(1), 3);
    EXPECT_EQ(row_length(2), 2);
    EXPECT_EQ(max_row_length(), 3);
    EXPECT_EQ(max_covariable_width(), 2);
    setup_recdata(pass, filenames.recdatfil2);
    ASSERT_TRUE(next_subject(pass) && next_subject(pass));
    EXPECT_EQ(pass.record.nobs, 2);
    EXPECT_EQ(pass.record.xcov(1, 1), 1.5);
    EXPECT_EQ(pass.record.xcov(2, 1), 2.25);
    EXPECT_EQ(pass.record.xcov(1, 2), -5.0);
    EXPECT_EQ(pass.record.xcov(2, 2), 0.0);
    EXPECT_EQ(pass.record.icov(2, 2), 0);
    EXPECT_EQ(row(2).back(), 0);
}

// Lines of a subject by trait, and from the last trait to the first: with regressions, with levels of animals, and long
// enough for a sort that is not stable to be seen.
TEST_F(recode_test, all_tables_of_a_subject_follow_the_order_of_traits) {
    const std::string par =
        "ANA MUV 2\nDAT t.dat\n TR1 tno\n animal 10\n pe 50\n age\n y1\n TR2 tno\n animal 10\n pe 50\n"
        " age\n y2\nEND\nPED p\nMOD\n COV age(2,POL)\n RAN animal NRM\n RAN pe IDE\n"
        " TRAIT y1 1 -9\n TRAIT y2 2 -9\nEND\nVAR animal 2\n 1.0 0.2 1.0\nVAR pe 2\n 1 0 1\n"
        "VAR residual 2\n 2.0 0.1 2.0\n";
    std::string first, second, mixed;
    for (int i = 1; i <= 24; ++i) {
        const std::string rest =
            " 1 " + std::to_string(i) + " " + std::to_string(i * i % 17) + " " + std::to_string(i) + ".5\n";
        first += "1" + rest;
        second += "2" + rest;
        mixed += "2" + rest + "1" + rest;
    }
    options.superai = true;
    prepare(par, first + second, 3);
    recode();
    const std::string want1 = read_file("recoded1.bin"), want2 = read_file("recoded2.bin");
    for (const auto& data : {second + first, mixed}) {
        new_analysis();
        options.superai = true;
        prepare(par, data, 3);
        recode();
        EXPECT_EQ(read_file("recoded1.bin"), want1);
        EXPECT_EQ(read_file("recoded2.bin"), want2);
    }
}

TEST_F(recode_test, records_of_all_traits_missing_leave_no_trace) {
    prepare(eq2, "1 7 1.5 2.5\n2 8 -9 -9\n1 7 1.0 1.0\n", 3);
    recode();
    EXPECT_EQ(numbers.nsubject, 1);
    EXPECT_EQ(numbers.maxnr, 4);
    EXPECT_EQ(levels.fx_codes(1, 1), (code_list{7}));
}

TEST_F(recode_test, faults_of_the_scan) {
    prepare(uni, "0.9 1 1 5\n2 1 1 5\n", 4);
    EXPECT_STOP(data_scan1st(), "Invalid effect code :  animal 0.9 0\n***** ERROR : reading data file *****\n"
                                "      No. of records read successfully =      1\n");
    write_file("t.dat", "1 5000000000 1 5\n");
    EXPECT_STOP(data_scan1st(), "Invalid effect code :  sex");
    write_file("t.dat", "1 -1 1 5\n");
    EXPECT_STOP(data_scan1st(), "Invalid effect code :  sex -1.0 -1");
    write_file("t.dat", "1 1 1 5\n7 1 1 5\n");
    EXPECT_STOP(data_scan1st(),
                "Genetic effect code in data not found in pedigree list !\n   ID in data : 7 ;  Record no. : 2\n");
    write_file("t.dat", "1 1 1 -9\n");
    EXPECT_STOP(data_scan1st(), "No records found for trait \"y\"");
    write_file("t.dat", "1 1 1 5\n1 2 1 5\n1 3 1 5\n1 4 1 5\n1 5 1 5\n1 1 1 5\n1 6 1 5\n");
    EXPECT_STOP(data_scan1st(), "***** ERROR scanning data : too many levels ! *****\n  Effect : \"sex\";  Code :  6\n"
                                "  Trait no. : 1 ;  Effect no. : 1\n  Record no.  7\n"
                                "  Max.  no. of levels allowed :  5\nexit");
}

TEST_F(recode_test, trait_without_any_record_is_refused) {
    prepare(eq2, "1 7 1.5 -9\n2 7 2.5 -9\n", 3);
    EXPECT_STOP(data_scan1st(), "No records found for trait \"y2\"\nexit");
}

TEST_F(recode_test, limit_that_was_never_declared) {
    prepare(uni, "1 1 1 5\n", 4);
    mudmap.fx_mlev(1, 1) = 0;
    EXPECT_STOP(data_scan1st(), "  Max.  no. of levels allowed :  0\n"
                                "  Could you have forgotten to specify the maximum no. of \n"
                                "  levels in the parameter file (description of data) ??? \nexit");
}

TEST_F(recode_test, details_of_scan_and_recoding) {
    prepare(uni, "3 1 1 5\n2 1 2 6\n2 2 4 7\n1 1 3 -9\n", 4);
    options.details = options.verbose = true;
    datalines.nskip_drecs = 0;
    clear_screen();
    data_scan1st();
    EXPECT_EQ(screen_text(), "Start \"DATA_SCAN1ST\" \nEND data_scan1st\n");
    number_equations();
    clear_screen();
    data_recode(starts_of_equations());
    EXPECT_EQ(screen_text(), "Start DATA_RECODE\nCombination    1 1   1\nCombination    2 2   2\n"
                             "No. of \"subjects\" in data 2  maxnr = 2   ncombi = 2\n"
                             "End of routine \"data_recode\" \n");
}

TEST_F(recode_test, texts_of_patterns_of_ten_and_more_records) {
    std::string data;
    for (int i = 1; i <= 12; ++i) data += "1 7 1.5 " + std::string(i < 4 ? "2.5" : "-9") + "\n";
    prepare(eq2, data + "2 7 1.5 2.5\n", 3);
    options.details = true;
    recode();
    EXPECT_NE(screen_text().find("Combination    1 12 3  12  3\nCombination    2  1 1   1  1\n"), std::string::npos);
}

TEST_F(recode_test, constant_legendre_covariable_is_refused) {
    std::string par = uni;
    par.replace(par.find("POL"), 3, "LEG");
    prepare(par, "1 1 3 5\n2 1 3 6\n", 4);
    EXPECT_STOP(data_scan1st(), "Covariable has a single value only : \"age(1,LEG)\"");
    par.replace(par.find("1,LEG"), 5, "3,BSP");
    prepare(par, "1 1 3 5\n2 1 3 6\n", 4);
    EXPECT_STOP(data_scan1st(), "Covariable has a single value only : \"age(3,BSP)\"");
    par.replace(par.find("3,BSP"), 5, "1,POL");
    prepare(par, "1 1 3 5\n2 1 3 6\n", 4);
    data_scan1st();
    EXPECT_EQ(covmeans.cv_var(1, 1), 0.0);
}

TEST_F(recode_test, values_of_a_covariable_are_listed_in_ascending_order) {
    prepare(uni, "1 1 -3 5\n2 1 2.5 6\n3 1 -0.0 6\n4 1 -3.5 7\n1 1 2.5 5\n2 1 -3 5\n", 4);
    data_scan1st();
    EXPECT_EQ(covmeans.cv_values(1, 1), (std::vector<double>{-3.5, -3.0, 0.0, 2.5}));
}

TEST_F(recode_test, code_that_the_scan_has_not_seen) {
    prepare(uni, "1 1 1 5\n2 1 2 5\n", 4);
    data_scan1st();
    number_equations();
    write_file("t.dat", "1 1 1 5\n2 3 2 5\n");
    EXPECT_STOP(data_recode(starts_of_equations()),
                "***** Error : Routine \"find_code\" \n      Could not find code for fixed effect \"sex\"\n"
                "      Code in data file = 3\n      No. of levels     = 1\n");
}

TEST_F(recode_test, codes_of_random_effects_that_the_scan_has_not_seen) {
    std::string par = uni;
    par.replace(par.find("animal NRM"), 10, "animal IDE");
    par.erase(par.find("PED p\n"), 6);
    prepare(par, "1 1 1 5\n2 1 2 5\n");
    data_scan1st();
    number_equations();
    write_file("t.dat", "1 1 1 5\n3 1 2 5\n");
    EXPECT_STOP(data_recode(starts_of_equations()),
                "***** Error : Routine \"find_code\" \n      Could not find code for random effect \"animal\"\n"
                "      Code in data file = 3\n      No. of levels     = 2\n");
}

TEST_F(recode_test, codes_of_extra_effects_that_the_scan_has_not_seen) {
    prepare("DAT t.dat\n animal 10\n herd 5\n age\n y\nEND\nPED p\nANA UNI\nMOD\n MEA\n EXT herd\n"
            " COV age*herd(1,POL)\n RAN animal NRM\n TRAIT y 1 -9\nEND\nVAR animal 1\n 1.0\nVAR residual 1\n 2.0\n",
            "1 1 1 5\n2 3 2 5\n", 4);
    data_scan1st();
    number_equations();
    write_file("t.dat", "1 1 1 5\n2 2 2 5\n");
    EXPECT_STOP(data_recode(starts_of_equations()),
                "***** Error : Routine \"find_code\" \n      Could not find code for extra effect \"herd\"\n"
                "      Code in data file = 2\n      No. of levels     = 2\nexit");
}

TEST_F(recode_test, larger_subject_than_the_scan_has_seen) {
    prepare(uni, "1 1 1 5\n2 1 2 5\n", 4);
    data_scan1st();
    number_equations();
    write_file("t.dat", "1 1 1 5\n1 1 2 5\n");
    EXPECT_STOP(data_recode(starts_of_equations()), "this should not happen");
}

TEST_F(recode_test, files_without_animal_levels_are_not_read_as_files_with_them) {
    prepare(uni, "3 1 1 5\n2 1 2 6\n", 4);
    recode();
    options.superai = true;
    setup_recdata(pass, filenames.recdatfil2);
    EXPECT_STOP(while (next_subject(pass)){}, "Error reading recoded data !");
}

TEST_F(recode_test, covariable_rows) {
    prepare("DAT t.dat\n animal 10\n herd 5\n age\n y\nEND\nPED p\nANA UNI\nMOD\n FIX herd\n COV age(2,POL)\n"
            " COV age*herd(2,LEG)\n COV age(4,BSPL)\n RAN animal NRM\n TRAIT y 1 -9\nEND\n"
            "VAR animal 1\n 1.0\nVAR residual 1\n 2.0\n",
            "1 5 2 5\n2 6 4 5\n3 6 9 5\n", 4);
    recode();
    setup_recdata(pass, filenames.recdatfil2);
    ASSERT_TRUE(next_subject(pass) && next_subject(pass));
    EXPECT_EQ(pass.record.mcov, 8);
    const auto x = pass.record.xcov.column(1);
    EXPECT_DOUBLE_EQ(x[0], -1.0);
    EXPECT_DOUBLE_EQ(x[1], 1.0);
    const double t = -1.0 + 4.0 / 7.0;
    EXPECT_DOUBLE_EQ(x[2], std::sqrt(1.5) * t);
    EXPECT_NEAR(x[3], std::sqrt(2.5) * (1.5 * t * t - 0.5), 1e-14);
    EXPECT_NEAR(x[4], 1.0 - 2.0 / (7.0 / 3.0), 1e-14); // hat functions at 2, 13/3, 20/3, 9
    EXPECT_NEAR(x[5], 2.0 / (7.0 / 3.0), 1e-14);
    EXPECT_EQ(x[6], 0.0);
    EXPECT_EQ(x[7], 0.0);
    const auto c = pass.record.icov.column(1);
    EXPECT_EQ(ints(c.begin(), c.end()), (ints{1, 2, 5, 6, 7, 8, 9, 10})); // herd 6 is level 2 of the nest
    EXPECT_STOP(bspline_place(1, 5.0), "bspl code not found");
    mudmap.cv_type(1, 1) = basis_kind::spl;
    double none[2];
    EXPECT_STOP(covariable_row(1, 1, 2.0, none), "option not yet implemented");
}

TEST_F(recode_test, supplied_level_order_is_kept) {
    prepare("DAT t.dat\n animal 10\n y\nEND\nANA UNI\nMOD\n RAN animal IDE\n TRAIT y 1 -9\nEND\n"
            "VAR animal 1\n 1.0\nVAR residual 1\n 2.0\n",
            "2 5\n1 6\n9 7\n");
    data_scan1st();
    levels.rn_codes(1) = {9, 1, 5, 2};
    levels.rn_nlev(1) = 4;
    number_equations();
    data_recode(starts_of_equations());
    setup_recdata(pass, filenames.recdatfil2);
    for (int want : {4, 2, 1}) {
        ASSERT_TRUE(next_subject(pass));
        EXPECT_EQ(row(1), (ints{want}));
    }
}

} // namespace
} // namespace tarvex
