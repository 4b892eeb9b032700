// Options, messages and exit statuses of the real program.
#include "support/fixture.h"
#include "support/record_file.h"

#include <cstdlib>

using namespace tarvex;

namespace {

using options_run = tarvex_test;

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

TEST_F(options_run, trace_of_options_makes_no_current_options) {
    const auto run = run_program({"-zq", "nothing"});
    EXPECT_EQ(run.status, 1);
    EXPECT_FALSE(file_exists("CurrentOptions"));
    EXPECT_NE(read_file("fort.1").find("parameter file  nothing.par\n"), std::string::npos);
}

} // namespace
