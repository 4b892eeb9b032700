#include "data/data.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/fixture.h"
#include "support/special_files.h"

#include <utility>

namespace tarvex {
namespace {

class data_reader_test : public tarvex_test {
protected:
    // Data file `text` of `ncol` columns a line; one trait or all traits a line, observations in the last columns.
    void data(const std::string& text, int nq, int ncol, bool alltraits = true) {
        write_file("test.dat", text);
        filenames.datfile = "test.dat";
        numbers.nq = nq;
        mudmap.alltraits = alltraits;
        mudmap.maxcol = ncol;
        mudmap.tr_dcolno.allocate(nq);
        mudmap.subj_dcolno.allocate(nq);
        for (int jq = 1; jq <= nq; ++jq) {
            datafile.ndatcol[jq] = ncol;
            datafile.missvalue[jq] = -999;
            datafile.iq_newno[jq] = jq;
            mudmap.tr_dcolno(jq) = alltraits ? ncol - nq + jq : ncol;
            mudmap.subj_dcolno(jq) = alltraits ? 1 : 2;
        }
        dvec.allocate(ncol);
        datalines.nskip_drecs = -1;
    }
    bool next() { return getrec_dvec(reader, dvec, iq, iskip); }
    data_reader reader;
    array<double> dvec;
    int iq = 0;
    bool iskip = false;
};

TEST_F(data_reader_test, missing_file_stops) {
    filenames.datfile = "none.dat";
    EXPECT_STOP(open_datfile(reader), "exit \"Tarvex\"");
    EXPECT_EQ(screen_text(), "Looking for data file : \"none.dat\" ...\n***** ERROR : cannot find data file *****\n");
}

TEST_F(data_reader_test, file_that_cannot_be_opened_stops) {
    write_unopenable("shut.dat");
    filenames.datfile = "shut.dat";
    EXPECT_STOP(open_datfile(reader), "Trying to open  data file : \"shut.dat\" ...\n"
                                      "***** ERROR : opening data file *****\nexit \"Tarvex\"");
}

TEST_F(data_reader_test, missing_value_is_compared_as_a_number) {
    data("1 -999.0\n1 -999.5\n1 -9.99E2\n", 1, 2);
    open_datfile(reader);
    for (const bool missing : {true, false, true}) {
        ASSERT_TRUE(next());
        EXPECT_EQ(iskip, missing);
    }
}

TEST_F(data_reader_test, comments_behind_the_first_record_are_faults) {
    data("# a\n1 2.5\n# b\n1 3.5\n", 1, 2);
    open_datfile(reader);
    ASSERT_TRUE(next());
    EXPECT_STOP(next(), "***** ERROR : reading data file *****\n      No. of records read successfully =      1\n");
}

TEST_F(data_reader_test, comments_are_counted_once) {
    data("# a\n#b\n1 2.5\n", 1, 2);
    options.verbose = true;
    open_datfile(reader);
    EXPECT_EQ(datalines.nskip_drecs, 2);
    EXPECT_EQ(screen_text(), "\"test.dat\" : skipping first 2  lines\n");
    ASSERT_TRUE(next());
    EXPECT_EQ(dvec(2), 2.5);
    EXPECT_FALSE(next());
    open_datfile(reader);
    EXPECT_EQ(screen_text(), "\"test.dat\" : skipping first 2  lines\n");
    ASSERT_TRUE(next());
    EXPECT_EQ(dvec(1), 1.0);
    EXPECT_EQ(reader.ndatrec, 1);
}

TEST_F(data_reader_test, free_form_of_numbers) {
    data("\t+1 -2.5e1\r\n\n  \n3, 1.5D+02 77 88\n4 .5", 1, 2);
    open_datfile(reader);
    ASSERT_TRUE(next());
    EXPECT_EQ(dvec(1), 1.0);
    EXPECT_EQ(dvec(2), -25.0);
    ASSERT_TRUE(next());
    EXPECT_EQ(dvec(1), 3.0);
    EXPECT_EQ(dvec(2), 150.0);
    ASSERT_TRUE(next());
    EXPECT_EQ(dvec(2), 0.5);
    EXPECT_FALSE(next());
    EXPECT_EQ(reader.ndatrec, 3);
}

TEST_F(data_reader_test, short_line_stops) {
    data("1 2\n1\n3 4\n", 1, 2);
    open_datfile(reader);
    ASSERT_TRUE(next());
    EXPECT_STOP(next(), "exit \"Tarvex\"");
    EXPECT_EQ(screen_text(),
              "***** ERROR : reading data file *****\n      No. of records read successfully =      1\n");
}

TEST_F(data_reader_test, text_that_is_no_number_stops) {
    for (const char* bad :
         {"1 x\n", "1 2x\n", "1 nan\n", "1 inf\n", "1 1e999\n", "# c\n1 2\n# late\n", "1 ,\n", "1 0x10\n"}) {
        SCOPED_TRACE(bad);
        data(bad, 1, 2);
        open_datfile(reader);
        EXPECT_STOP(while (next()){}, "exit \"Tarvex\"");
    }
}

TEST_F(data_reader_test, all_missing_sets_iskip_and_counts) {
    data("1 -999.0 -999\n2 -999 3\n", 2, 3);
    open_datfile(reader);
    ASSERT_TRUE(next());
    EXPECT_TRUE(iskip);
    EXPECT_EQ(iq, 0);
    EXPECT_EQ(reader.ndatrec, 1);
    ASSERT_TRUE(next());
    EXPECT_FALSE(iskip);
    EXPECT_TRUE(is_missing(1, dvec(2)));
    EXPECT_FALSE(is_missing(2, dvec(3)));
}

TEST_F(data_reader_test, trait_numbers_outside_the_analysis_are_skipped) {
    data("0 1 5\n7 x\n250 1 2\n-3\n2 4 -999\n1 4 6\n", 2, 3, false);
    open_datfile(reader);
    for (int i = 1; i <= 5; ++i) {
        ASSERT_TRUE(next());
        EXPECT_TRUE(iskip) << i;
    }
    ASSERT_TRUE(next());
    EXPECT_FALSE(iskip);
    EXPECT_EQ(iq, 1);
    EXPECT_EQ(dvec(1), 1.0);
    EXPECT_EQ(reader.ndatrec, 6);
}

TEST_F(data_reader_test, trait_numbers_are_whole) {
    data("1.5 1 5\n", 2, 3, false);
    open_datfile(reader);
    EXPECT_STOP(next(), "      No. of records read successfully =      0\n");
}

TEST_F(data_reader_test, renumbered_traits) {
    data("17 1 5\n2 1 6\n1 1 7\n", 2, 3, false);
    options.renumbered = true;
    datafile.iq_newno[17] = 1;
    datafile.iq_newno[2] = -1;
    datafile.iq_newno[1] = 2;
    open_datfile(reader);
    ASSERT_TRUE(next());
    EXPECT_EQ(iq, 1);
    EXPECT_EQ(dvec(1), 1.0);
    ASSERT_TRUE(next());
    EXPECT_TRUE(iskip);
    ASSERT_TRUE(next());
    EXPECT_EQ(iq, 2);
}

TEST_F(data_reader_test, renumbered_traits_that_share_a_list_of_columns) {
    data("17 1 5\n2 1 6\n17 2 -999\n2 3 -999\n2 4 8\n", 2, 3, false);
    options.renumbered = options.equal_model = true;
    datafile.iq_newno[17] = 1;
    datafile.ndatcol[2] = 0; // those of the first trait
    open_datfile(reader);
    const double codes[] = {1, 1, 2, 3, 4};
    const int traits[] = {1, 2, 1, 2, 2}, skips[] = {0, 0, 1, 1, 0};
    for (int i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        ASSERT_TRUE(next());
        EXPECT_EQ(iq, traits[i]);
        EXPECT_EQ(dvec(2), codes[i]);
        EXPECT_EQ(iskip, skips[i] != 0);
    }
    EXPECT_EQ(dvec(3), 8.0);
}

TEST_F(data_reader_test, lines_longer_than_the_buffer_part) {
    std::string text;
    for (int i = 1; i <= 60000; ++i) text += std::to_string(i) + " " + std::to_string(i) + ".25\n";
    text += "60001 " + std::string(600000, ' ') + "1\n";
    data(text, 1, 2);
    open_datfile(reader);
    for (int i = 1; i <= 60000; ++i) {
        ASSERT_TRUE(next());
        ASSERT_EQ(dvec(2), i + 0.25);
    }
    ASSERT_TRUE(next());
    EXPECT_EQ(dvec(2), 1.0);
    EXPECT_FALSE(next());
}

TEST_F(data_reader_test, codes_are_truncated) {
    dvec.allocate(2);
    dvec(1) = 0.9;
    EXPECT_EQ(effect_code(dvec, 1, 0, 1), 0);
    dvec(1) = 1.9;
    EXPECT_EQ(effect_code(dvec, 1, 0, 1), 1);
    dvec(1) = 5000000000.0;
    EXPECT_EQ(effect_code(dvec, 1, 0, 1), -1);
    dvec(1) = 12;
    dvec(2) = 2004;
    EXPECT_EQ(effect_code(dvec, 1, 2, 10000), 122004);
    for (const double bad : {5000000000.0, -1.0, -2147483649.0}) {
        dvec(2) = bad;
        EXPECT_EQ(effect_code(dvec, 1, 2, 10000), -1) << bad;
        std::swap(dvec(1), dvec(2));
        EXPECT_EQ(effect_code(dvec, 1, 2, 10000), -1) << bad;
        std::swap(dvec(1), dvec(2));
    }
    dvec(1) = -0.5;
    EXPECT_EQ(effect_code(dvec, 1, 0, 1), 0);
}

TEST_F(data_reader_test, subjects_are_runs_of_one_code) {
    data("", 2, 3);
    subject_run run;
    auto starts = [&](double code) {
        dvec(1) = code;
        return starts_subject(run, dvec, 0);
    };
    EXPECT_TRUE(starts(0));
    EXPECT_FALSE(starts(0));
    EXPECT_TRUE(starts(4));
    EXPECT_TRUE(starts(0));
    options.siremodel = true;
    EXPECT_TRUE(starts(0));
    options.siremodel = false;
    mudmap.subj_dcolno(1) = -1;
    EXPECT_TRUE(starts(0));
    EXPECT_TRUE(starts(0));
    mudmap.subj_dcolno(1) = 1; // a record of its own is not gone on with
    EXPECT_TRUE(starts(0));
    EXPECT_FALSE(starts(0));
}

TEST_F(data_reader_test, traits_may_have_subject_columns_of_their_own) {
    data("", 2, 3, false);
    mudmap.subj_dcolno(2) = 3;
    subject_run run;
    auto starts = [&](int trait, double code2, double code3) {
        dvec(2) = code2;
        dvec(3) = code3;
        return starts_subject(run, dvec, trait);
    };
    EXPECT_TRUE(starts(1, 4, 9));
    EXPECT_FALSE(starts(2, 9, 4));
    EXPECT_TRUE(starts(2, 9, 5));
    EXPECT_FALSE(starts(1, 5, 9));
    options.siremodel = true; // only a line with all traits tells a progeny of a sire from the next
    EXPECT_FALSE(starts(1, 5, 9));
}

} // namespace
} // namespace tarvex
