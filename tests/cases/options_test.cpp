// Options, messages and exit statuses of the real program.
#include "support/fixture.h"
#include "support/record_file.h"

#include <cstdlib>

using namespace tarvex;

namespace {

class options_run : public tarvex_test {
protected:
    static std::string last_line(const std::string& output) {
        const auto end = output.find_last_not_of('\n');
        const auto from = output.rfind('\n', end);
        return output.substr(from == std::string::npos ? 0 : from + 1,
                             end == std::string::npos ? end : end - (from + 1) + 1);
    }
};

TEST_F(options_run, limits_finish_with_status_zero) {
    const auto run = run_program({"--limit"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(last_line(run.output), "\"Tarvex\" done");
    EXPECT_TRUE(run.output.starts_with("********  Hard-coded program limits"));
}

TEST_F(options_run, limits_under_verbose_end_without_a_text) {
    const auto run = run_program({"-v", "--limit"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(last_line(run.output), "\"Tarvex\" has finished !");
}

TEST_F(options_run, limits_may_stand_in_the_file_of_options) {
    write_file("RunOptions", "--limit\n");
    EXPECT_EQ(run_program({"nothing"}).status, 0);
}

TEST_F(options_run, unknown_option_is_told_and_the_run_goes_on) {
    const auto run = run_program({"--foo", "nothing"});
    EXPECT_TRUE(run.output.starts_with("option not recognised --foo\n"));
    EXPECT_NE(run.output.find("Can not open parameter file !\n"), std::string::npos);
    EXPECT_NE(run.output.find("nothing.par"), std::string::npos);
    EXPECT_EQ(last_line(run.output), "exit \"Tarvex\"");
    EXPECT_EQ(run.status, 1);
}

TEST_F(options_run, number_that_cannot_be_read_ends_the_run) {
    const auto run = run_program({"--zerox", "nothing"});
    EXPECT_EQ(run.output, "invalid number in option --zerox\n");
    EXPECT_EQ(run.status, 1);
}

TEST_F(options_run, bad_keyword_ends_with_status_one) {
    write_file("tarvex.par", "BAD line\n");
    const auto run = run_program();
    EXPECT_NE(run.output.find("Invalid descriptor !"), std::string::npos);
    EXPECT_EQ(last_line(run.output), "exit \"Tarvex\"");
    EXPECT_EQ(run.status, 1);
    const auto verbose = run_program({"-v"});
    EXPECT_NE(verbose.output.find("Programmed (error) stop for \"Tarvex\" encountered\nexit\n"), std::string::npos);
    EXPECT_EQ(verbose.status, 1);
}

#if defined(__x86_64__)
TEST_F(options_run, details_die_by_an_arithmetic_fault_behind_the_message) {
    setenv("ASAN_OPTIONS", "handle_sigfpe=0", 1);
    write_file("tarvex.par", "BAD line\n");
    const auto run = run_program({"-d"});
    EXPECT_NE(run.output.find("Invalid descriptor !"), std::string::npos);
    EXPECT_NE(run.output.find("Programmed (error) stop"), std::string::npos);
    EXPECT_EQ(run.status, 128 + 8);
    const auto terse = run_program({"-d", "-t"});
    EXPECT_EQ(terse.output.find("Programmed"), std::string::npos);
    EXPECT_EQ(terse.status, 128 + 8);
    unsetenv("ASAN_OPTIONS");
}
#endif

TEST_F(options_run, file_of_options_names_the_parameter_file) {
    write_file("RunOptions", "-t\nmine\n\n");
    const auto run = run_program();
    EXPECT_NE(run.output.find("mine.par"), std::string::npos);
    EXPECT_EQ(run.status, 1);
}

TEST_F(options_run, trace_of_options_makes_no_current_options) {
    const auto run = run_program({"-zq", "nothing"});
    EXPECT_EQ(run.status, 1);
    EXPECT_FALSE(file_exists("CurrentOptions"));
    EXPECT_NE(read_file("fort.1").find("parameter file  nothing.par\n"), std::string::npos);
}

} // namespace
