// Recoded records of random regression, reduced-rank, correlated and permanent-environment models.
#include "recode_fixture.h"

#include "basis/phimatrix.h"

#include <cmath>

namespace tarvex {
namespace {

using ints = std::vector<int>;
class layouts_test : public recode_test {};

const char* const rr = "DAT t.dat\n animal 10\n cg 9\n age 40\n y\nEND\nPED p\nANA RR\nMOD\n FIX cg\n"
                       " RAN animal(3,LEG) NRM\n RRC age\n TRAIT y 1 -9\nEND\n"
                       "VAR animal 3\n 9 1 1 9 1 9\nVAR residual 1 HOM\n 2.0\n";

TEST_F(layouts_test, random_regression_of_one_trait_gives_form_d) {
    prepare(rr, "2 5 3.7 1.5\n2 6 8 2.5\n1 5 5 3.5\n", 2);
    recode();
    EXPECT_EQ(levels.mm_codes(1, 1), (code_list{3, 5, 8})); // control values are truncated
    record_reader in;
    ASSERT_TRUE(in.open("recoded1.bin"));
    int nobs = 0;
    std::vector<double> y(2);
    ints age(2), places(8);
    ASSERT_TRUE(in.record(nobs, std::span<double>(y), std::span<int>(age)));
    EXPECT_EQ(in.bytes_left(), 0u);
    EXPECT_EQ(nobs, 2);
    EXPECT_EQ(age, (ints{1, 3}));
    ASSERT_TRUE(in.record(std::span<int>(places)));
    EXPECT_EQ(in.bytes_left(), 0u);
    EXPECT_EQ(places, (ints{1, 3, 4, 5, 2, 3, 4, 5}));
    setup_recdata(pass, filenames.recdatfil2);
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(pass.record.icombi, 0);
    EXPECT_EQ(pass.record.nobs, 2);
    EXPECT_EQ(row(1), (ints{1, 6, 7, 8}));
    EXPECT_EQ(pass.record.imeta(1, 2), 3);
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(row(1), (ints{1, 3, 4, 5}));
    EXPECT_EQ(pass.record.imeta(1, 1), 2);
}

// The sizes of tables of records and of tables of equations differ.
TEST_F(layouts_test, one_record_with_many_equations) {
    prepare(rr, "2 5 3.5 1.5\n1 6 8 2.5\n", 2);
    recode();
    EXPECT_EQ(numbers.maxnr, 1);
    EXPECT_EQ(numbers.maxnreq, 4);
    EXPECT_EQ(covmeans.mm_nrec(1, 1), 2);
    EXPECT_EQ(covmeans.mm_xbar(1, 1), 5.75);
    EXPECT_DOUBLE_EQ(covmeans.mm_var(1, 1), 4.5 / std::sqrt(2.0));
    EXPECT_EQ(covmeans.mm_min(1, 1), 3.5);
    EXPECT_EQ(covmeans.mm_max(1, 1), 8.0);
    setup_recdata(pass, filenames.recdatfil2);
    ASSERT_TRUE(next_subject(pass) && next_subject(pass));
    EXPECT_EQ(pass.record.nr, 4);
}

TEST_F(layouts_test, zero_is_a_value_of_a_control_variable) {
    prepare(rr, "2 5 0.7 1.5\n1 6 8 2.5\n", 2);
    data_scan1st();
    EXPECT_EQ(levels.mm_codes(1, 1), (code_list{0, 8}));
}

TEST_F(layouts_test, values_of_a_control_variable_have_either_sign) {
    prepare(rr, "2 5 -0.7 1.5\n2 6 7 0.5\n1 6 -8 2.5\n1 6 -123 0.5\n", 2);
    recode();
    EXPECT_EQ(levels.mm_codes(1, 1), (code_list{-123, -8, 0, 7}));
    EXPECT_EQ(covmeans.mm_min(1, 1), -123.0);
    setup_recdata(pass, filenames.recdatfil2);
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(pass.record.imeta(1, 1), 3);
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(pass.record.imeta(1, 1), 2);
    EXPECT_EQ(pass.record.imeta(1, 2), 1);
    write_file("t.dat", "2 5 -9 1.5\n"); // the code of missing records
    EXPECT_STOP(data_scan1st(), "Invalid effect code :  age -9.0 -9\n");
    for (const char* beyond : {"-2147483648", "2147483648", "-3e9"}) {
        write_file("t.dat", std::string("2 5 ") + beyond + " 1.5\n");
        EXPECT_STOP(data_scan1st(), "Invalid effect code :  age ");
    }
}

TEST_F(layouts_test, control_value_that_the_scan_has_not_seen) {
    prepare(rr, "2 5 3 1.5\n1 6 8 2.5\n", 2);
    data_scan1st();
    number_equations();
    write_file("t.dat", "2 5 3 1.5\n1 6 9 2.5\n");
    EXPECT_STOP(data_recode(starts_of_equations()),
                "***** Error : Routine \"find_code\" \n      Could not find code for RR control variable \"age\"\n"
                "      Code in data file = 9\n      No. of levels     = 2\n");
}

TEST_F(layouts_test, control_variable_with_one_value_is_refused) {
    prepare(rr, "2 5 3 1.5\n1 6 3 2.5\n", 2);
    EXPECT_STOP(data_scan1st(), "Control variable has a single value only : \"age\"");
}

TEST_F(layouts_test, traits_share_the_levels_of_a_control_variable_form_e) {
    prepare("ANA MUV 2\nDAT t.dat\n TR1 tno\n animal 10\n age 40\n y1\n TR2 tno\n animal 10\n age 40\n y2\nEND\nPED p\n"
            "MOD\n RAN animal NRM\n TRAIT y1 1 -9\n TRAIT y2 2 -9\nEND\n"
            "VAR animal 2\n 9 1 9\nVAR residual 2\n 2.0 0.1 2.0\n",
            "2 1 4 1.5\n1 1 4 2.5\n1 1 2 3.5\n2 2 7 4.5\n", 2);
    // Several traits with random regressions: a mean for each (POL, order 1).
    options.randreg = true;
    model.me_type = residual_kind::hom;
    model.nrrc = 1;
    model.rrcontrol = {"age"};
    for (int iq = 1; iq <= 2; ++iq) {
        model.nmeta(iq) = 1;
        model.rricontrol(1, iq) = "age";
        mudmap.rr_dcolno(1, iq) = 3;
        mudmap.mm_mlev(1, iq) = 40;
        mudmap.irmeta(1, iq) = 1;
    }
    recode();
    EXPECT_EQ(levels.mm_codes(1, 1), (code_list{2, 4, 7}));
    EXPECT_EQ(levels.mm_codes(1, 2), (code_list{2, 4, 7}));
    record_reader in;
    ASSERT_TRUE(in.open("recoded1.bin"));
    int icombi = 0, nobs = 0;
    ints ynq(3), age(3);
    std::vector<double> y(3);
    ASSERT_TRUE(in.record(icombi, nobs, std::span<int>(ynq), std::span<double>(y), std::span<int>(age)));
    EXPECT_EQ(in.bytes_left(), 0u);
    EXPECT_EQ(ynq, (ints{1, 1, 2}));
    EXPECT_EQ(y, (std::vector<double>{2.5, 3.5, 1.5}));
    EXPECT_EQ(age, (ints{2, 1, 2}));
    setup_recdata(pass, filenames.recdatfil2);
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(pass.record.nobs, 3);
    EXPECT_EQ(row(1), (ints{1}));
    EXPECT_EQ(row(3), (ints{2}));
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(row(1), (ints{4}));
    EXPECT_EQ(pass.record.imeta(1, 1), 3);
}

TEST_F(layouts_test, reduced_rank_rows_hold_all_components) {
    prepare("DAT t.dat\n animal 10\n herd 5\n y1\n y2\n y3\nEND\nPED p\nANA MUV PC 3\nMOD EQ\n FIX herd\n MU\n"
            " RAN animal NRM\n TRAIT y1 1 -9\n TRAIT y2 2 -9\n TRAIT y3 3 -9\nEND\nVAR animal 3 2\n 9 1 1 9 1 9\n"
            "VAR residual 3\n 9 1 1 9 1 9\n",
            "2 1 1.5 2.5 -9\n1 1 3 -9 1\n", 2);
    ASSERT_TRUE(options.principal);
    recode();
    options.superai = true;
    data_recode(starts_of_equations());
    EXPECT_EQ(max_row_length(), 4);
    EXPECT_EQ(mmequations.neqns, 3 + 4 + 3);
    setup_recdata(pass, filenames.recdatfil2);
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(row(1), (ints{1, 8, 6, 7}));
    EXPECT_EQ(row(2), (ints{2, 9, 6, 7}));
    record_reader in;
    ASSERT_TRUE(in.open("recoded1.bin"));
    ASSERT_TRUE(in.next() && in.next());
    ints animal(2);
    ASSERT_TRUE(in.record(std::span<int>(animal)));
    EXPECT_EQ(animal, (ints{2, 2}));
}

TEST_F(layouts_test, permanent_environment_in_r_has_no_position) {
    prepare("DAT t.dat\n animal 10\n pe 10\n y\nEND\nPED p\nANA UNI\nMOD\n RAN pe PEQ\n RAN animal NRM\n"
            " TRAIT y 1 -9\nEND\nVAR pe 1\n 1.0\nVAR animal 1\n 1.0\nVAR residual 1\n 2.0\n",
            "2 2 1.5\n2 2 2.5\n", 2);
    recode();
    EXPECT_EQ(row_length(1), 1);
    EXPECT_EQ(position_width(1, 1), 0);
    setup_recdata(pass, filenames.recdatfil2);
    ASSERT_TRUE(next_subject(pass));
    EXPECT_EQ(row(1), (ints{2}));
}

TEST_F(layouts_test, sire_model_line_is_a_subject) {
    prepare(
        "DAT t.dat\n sire 10\n y1\n y2\nEND\nPED p SIR\nANA MUV 2\nMOD EQ\n RAN sire NRM\n TRAIT y1 1 -9\n"
        " TRAIT y2 2 -9\nEND\nVAR sire 2\n 1.0 0.1 1.0\nVAR residual 2\n 2.0 0.1 2.0\n",
        [] {
            std::string text;
            for (int i = 1; i <= 600; ++i) text += "2 1.5 2.5\n";
            return text;
        }(),
        2);
    recode();
    EXPECT_EQ(numbers.nsubject, 600);
    EXPECT_EQ(numbers.maxnr, 2);
    EXPECT_EQ(means.pairs(2), 600);
}

TEST_F(layouts_test, effects_without_relationships_make_every_record_a_subject) {
    prepare("DAT t.dat\n a 10\n b 10\n y\nEND\nANA UNI\nMOD\n RAN a IDE\n RAN b IDE\n TRAIT y 1 -9\nEND\n"
            "VAR a 1\n 1.0\nVAR b 1\n 1.0\nVAR residual 1\n 2.0\n",
            "1 2 5\n1 2 6\n");
    recode();
    EXPECT_EQ(numbers.nsubject, 2);
    EXPECT_EQ(numbers.maxnr, 1);
}

TEST_F(layouts_test, torn_records_stop) {
    prepare(rr, "2 5 3 1.5\n2 6 8 2.5\n1 5 5 3.5\n", 2);
    recode();
    write_file("recoded1.bin", read_file("recoded1.bin").substr(0, 60));
    setup_recdata(pass, filenames.recdatfil2);
    EXPECT_STOP(next_subject(pass), "Error reading recoded data !");
    EXPECT_STOP(setup_recdata(pass, "none.bin"), "Error reading file \"none.bin\"");
}

} // namespace
} // namespace tarvex
