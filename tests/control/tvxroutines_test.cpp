#include "control/tvxroutines.h"

#include "control/filenames.h"
#include "control/options.h"
#include "parfile/model.h"
#include "support/array.h"
#include "support/fixture.h"
#include "support/text.h"

#include <iostream>

using namespace tarvex;

namespace {

// The text with a 9 for every digit.
std::string pattern(std::string text) {
    for (char& c : text)
        if (is_digit(c)) c = '9';
    return text;
}

class stops_test : public tarvex_test {
protected:
    // Text and status of the stop that `f` ends in.
    template <class F> std::pair<std::string, int> end_of(F f) {
        try {
            f();
        } catch (const program_stop& end) {
            return {end.text, end.status};
        }
        ADD_FAILURE() << "no stop";
        return {};
    }
};

TEST_F(stops_test, error_exit_speaks_more_under_verbose) {
    EXPECT_EQ(end_of(stoptarvex), (std::pair<std::string, int>{"exit \"Tarvex\"", 1}));
    EXPECT_EQ(screen_text(), "");
    options.verbose = true;
    EXPECT_EQ(end_of(stoptarvex), (std::pair<std::string, int>{"exit", 1}));
    EXPECT_EQ(screen_text(), "Programmed (error) stop for \"Tarvex\" encountered\n");
}

TEST_F(stops_test, finish_has_no_text_under_verbose) {
    EXPECT_EQ(finish_run(), "\"Tarvex\" done");
    EXPECT_EQ(screen_text(), "");
    options.verbose = true;
    EXPECT_EQ(finish_run(), "");
    EXPECT_EQ(screen_text(), "\"Tarvex\" has finished !\n");
}

TEST_F(stops_test, refused_combination_explains_itself) {
    EXPECT_EQ(end_of(tvx_notyet).first, "exit \"Tarvex\"");
    EXPECT_EQ(screen_text(), "*** Tarvex is work in progress !\n"
                             "Unfortunately, the combination of features selected (model and\n"
                             "run time options) for this run of Tarvex has not yet been fully\n"
                             "tested or implemented.\n");
}

TEST_F(stops_test, caution_waits_for_a_line_or_the_end_of_input) {
    std::istringstream answer("go\n"), none;
    auto* before = std::cin.rdbuf(answer.rdbuf());
    tvx_caution();
    std::cin.rdbuf(none.rdbuf());
    tvx_caution();
    std::cin.rdbuf(before);
    std::cin.clear();
    const std::string text = "*** Tarvex is work in progress !\n"
                             "    The combination of features selected has not \n"
                             "    been fully tested/fault trapped & may cause\n"
                             "    problems - Proceed with CAUTION ! \n";
    EXPECT_EQ(screen_text(), text + text);
}

TEST_F(stops_test, large_array_that_cannot_be_allocated_is_named) {
    EXPECT_EQ(end_of([] { tvx_noalloc("XSPARS", 123456789); }).first, "exit \"Tarvex\"");
    EXPECT_EQ(screen_text(), " Cannot allocate large array : \"XSPARS\"\n"
                             " ... size required           :    123456789 elements\n");
}

TEST_F(stops_test, message_and_stop_in_one) {
    EXPECT_EQ(end_of([] { stop_with("what was wrong"); }).second, 1);
    EXPECT_EQ(screen_text(), "what was wrong\n");
}

TEST_F(stops_test, times_are_shown_under_verbose_or_times_only) {
    tvxtimes(1, "reading");
    EXPECT_EQ(screen_text(), "");
    options.verbose = true;
    tvxtimes(1); // only notes the time
    EXPECT_EQ(screen_text(), "");
    times.prev = cpu_time() - 100.0;
    tvxtimes(2, "reading");
    EXPECT_EQ(screen_text().size(), 44u + 16 + 12 + 1);
    EXPECT_TRUE(screen_text().starts_with("***Time: reading              "));
    EXPECT_TRUE(screen_text().ends_with(" Used since last       100.0\n"));
    clear_screen();
    options.verbose = false;
    options.print_times = true;
    tvxtimes(1, "x");
    EXPECT_EQ(screen_text().size(), std::string("***Time: x").size() + 19 + 15 + 1);
}

class report_frame : public tarvex_test {
protected:
    std::string written(void (*f)(text_out&)) {
        std::ostringstream text;
        text_out out(text);
        f(out);
        return text.str();
    }
};

TEST_F(report_frame, header_is_78_columns_wide_or_112) {
    const auto top = [](text_out& out) { write_tvxtop(out, "Model", false); };
    EXPECT_EQ(written(top), "======= Version " + program_version() +
                                " ======================================= **ZQ** ====\n\n"
                                "        Program Tarvex : Model\n" +
                                std::string(78, '=') + "\n\n");
    const auto wide_top = [](text_out& out) { write_tvxtop(out, "Model", true); };
    EXPECT_EQ(written(wide_top), "======= Version " + program_version() +
                                     " ======================================= **ZQ** " + std::string(38, '=') +
                                     "\n\n        Program Tarvex : Model\n" + std::string(112, '=') + "\n\n");
}

TEST_F(report_frame, files_are_named_without_trailing_blanks) {
    model.analysis = "UNI";
    filenames.datfile = "wean.dat";
    filenames.pedfile = "wean.ped";
    EXPECT_EQ(written(write_tvxfiles), " Analysis type          :   \"UNI\"\n"
                                       " Data file              :   \"wean.dat\"\n"
                                       " Parameter file         :   \"tarvex.par\"\n"
                                       "\n\n");
    options.comment = options.pedigrees = true;
    model.commentline = "a comment";
    EXPECT_EQ(written(write_tvxfiles), " a comment\n\n"
                                       " Analysis type          :   \"UNI\"\n"
                                       " Data file              :   \"wean.dat\"\n"
                                       " Pedigree file          :   \"wean.ped\"\n"
                                       " Parameter file         :   \"tarvex.par\"\n"
                                       "\n\n");
}

TEST_F(report_frame, footer_shows_date_and_time_and_closes_the_file) {
    const std::string narrow = written([](text_out& out) { write_tvxbottom(out, false); });
    EXPECT_EQ(pattern(narrow), "======== end of file ============================99-99-9999==========99:99====\n");
    EXPECT_EQ(written([](text_out& out) { write_tvxbottom(out, true); }).size(), 113u);
    text_out out;
    ASSERT_TRUE(out.open("report"));
    write_tvxbottom(out, false);
    EXPECT_FALSE(out.is_open());
}

TEST(file_names, number_of_the_relationship_matrix_takes_its_place) {
    filenames = {};
    EXPECT_EQ(nrminv_name(1), "nrminvers1.bin");
    EXPECT_EQ(cholnrm_name(2), "cholnrm2.bin");
    EXPECT_EQ(nrminv_name(10), "nrminvers*.bin");
}

} // namespace
