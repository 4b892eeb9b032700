// The fixture itself: own directory, captured screen, fresh modules, stops.
#include "support/fixture.h"

#include "control/numbers.h"
#include "control/options.h"
#include "support/record_file.h"
#include "support/screen.h"

#include <filesystem>

using namespace tarvex;

class fixture : public tarvex_test {};

TEST_F(fixture, directory_is_empty_and_own) {
    EXPECT_TRUE(std::filesystem::is_empty("."));
    EXPECT_EQ(std::filesystem::canonical("."), std::filesystem::canonical(directory()));
    write_file("a", "text\n");
    EXPECT_EQ(read_file("a"), "text\n");
    EXPECT_TRUE(file_exists("a"));
}

TEST_F(fixture, screen_is_captured) {
    print_list(screen(), "n =", 3);
    EXPECT_EQ(screen_text(), "n = 3\n");
    clear_screen();
    EXPECT_EQ(screen_text(), "");
}

TEST_F(fixture, stop_is_seen_with_screen_and_last_line) {
    print_list(screen(), "before");
    EXPECT_STOP((print_list(screen(), "message"), stop("alloc x")), "message\nalloc x");
    EXPECT_STOP(stop("numerical problems"), std::string("numerical"));
}

TEST_F(fixture, modules_are_reset) {
    options.verbose = true;
    options.logdia[7] = 1;
    numbers = {};
    new_analysis();
    EXPECT_FALSE(options.verbose);
    EXPECT_EQ(options.logdia[7], 0);
}

TEST_F(fixture, binaries_run_without_input) {
    const auto r = run_binary("/bin/sh", {"-c", "cat; echo out; echo err >&2; exit 3"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.output, "out\nerr\n");
    EXPECT_EQ(run_binary("/bin/sh", {"-c", "kill -8 $$"}).status, 136);
    EXPECT_EQ(run_binary("/no/such/binary", {}).status, 127);
}
