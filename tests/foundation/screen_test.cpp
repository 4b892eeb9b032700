// List-directed lines and text outputs.
#include "support/screen.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <sstream>

using namespace tarvex;

TEST(screen, items_are_parted_by_one_blank) {
    std::ostringstream sink;
    text_out out(sink);
    print_list(out, "No. =", 12, -3LL, true, false, 0.5, std::string("x "));
    print_list(out);
    print_list(out, 1e22, 100.0);
    EXPECT_EQ(sink.str(), "No. = 12 -3 T F 0.5 x \n\n1e+22 100.0\n");
}

TEST(screen, reals_read_back_equal_and_are_short) {
    EXPECT_EQ(list_item(0.1), "0.1");
    EXPECT_EQ(list_item(0.0), "0.0");
    EXPECT_EQ(list_item(-0.0), "-0.0");
    EXPECT_EQ(list_item(30.0), "30.0");
    EXPECT_EQ(list_item(0.1 + 0.2), "0.30000000000000004");
    EXPECT_EQ(list_item(NAN), "NaN");
    EXPECT_EQ(list_item(-HUGE_VAL), "-Infinity");
    std::mt19937_64 bits(4711);
    for (int k = 0; k < 20000; ++k) {
        const std::uint64_t b = bits();
        double x;
        std::memcpy(&x, &b, sizeof x);
        if (!std::isfinite(x)) continue;
        const std::string s = list_item(x);
        EXPECT_EQ(std::strtod(s.c_str(), nullptr), x) << s;
        EXPECT_LE(s.size(), 26u);
    }
}

TEST(screen, appending_keeps_and_opening_replaces) {
    const std::string name = testing::TempDir() + "tvx_screen_test";
    const auto content = [&] {
        std::ifstream in(name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    text_out out;
    EXPECT_FALSE(out.is_open());
    out.line("nowhere"); // a closed output takes nothing
    ASSERT_TRUE(out.open(name));
    out.line("first");
    flush_all();
    EXPECT_EQ(content(), "first\n");
    out.close();
    ASSERT_TRUE(out.open_append(name));
    out.raw("second");
    out.close();
    EXPECT_EQ(content(), "first\nsecond");
    ASSERT_TRUE(out.open(name));
    out.close();
    EXPECT_EQ(content(), "");
    EXPECT_FALSE(out.open(testing::TempDir() + "no_such_directory/file"));
    std::filesystem::remove(name);
}

TEST(screen, failures_to_write_are_kept_in_mind) {
    outputs = {};
    text_out out;
    const std::string good = testing::TempDir() + "tvx_screen_test";
    ASSERT_TRUE(out.open(good));
    out.line("text");
    EXPECT_TRUE(out.close());
    EXPECT_EQ(outputs.failed, "");
    ASSERT_TRUE(out.open("/dev/full"));
    out.line("text");
    out.flush();
    EXPECT_EQ(outputs.failed, "/dev/full");
    EXPECT_FALSE(out.close());
    ASSERT_TRUE(out.open(good)); // and the output serves again
    EXPECT_TRUE(out.close());
    outputs = {};
    EXPECT_FALSE(out.open_append(testing::TempDir() + "no_such_directory/file"));
    EXPECT_EQ(outputs.failed, testing::TempDir() + "no_such_directory/file");
    outputs = {};
    std::filesystem::remove(good);
}
