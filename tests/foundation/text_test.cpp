// Character services and the reading of numbers.
#include "support/text.h"

#include <cmath>
#include <gtest/gtest.h>

using namespace tarvex;

TEST(text, capitalise_leaves_digits_and_blanks) {
    std::string s = "age*herd(2,pol) z";
    capitalise(s, static_cast<int>(s.size()));
    EXPECT_EQ(s, "AGE*HERD(2,POL) Z");
    s = "abcd";
    capitalise(s, 2);
    EXPECT_EQ(s, "ABcd");
    capitalise(s, 99);
    EXPECT_EQ(s, "ABCD");
}

TEST(text, is_digit) {
    for (char c : std::string("0123456789")) EXPECT_TRUE(is_digit(c));
    for (char c : std::string("a .-+eE/:")) EXPECT_FALSE(is_digit(c));
}

TEST(text, trim) {
    EXPECT_EQ(trim("  a b  "), "a b");
    EXPECT_EQ(trim("    "), "");
    EXPECT_EQ(trim_right("  a b  "), "  a b");
}

TEST(text, whole_numbers) {
    long long i = 5;
    EXPECT_TRUE(to_integer("+9", i));
    EXPECT_EQ(i, 9);
    EXPECT_TRUE(to_integer("-12", i));
    EXPECT_EQ(i, -12);
    for (const char* t : {"", "+", "-", "+-1", "1.0", "1e3", "12a", "0x1", "99999999999999999999"})
        EXPECT_FALSE(to_integer(t, i)) << t;
    EXPECT_EQ(i, -12);
}

TEST(text, reals) {
    const auto real = [](std::string_view t) {
        double x = -77;
        return to_real(t, x) ? x : -77;
    };
    EXPECT_EQ(real("1.5"), 1.5);
    EXPECT_EQ(real(".5"), 0.5);
    EXPECT_EQ(real("5."), 5.0);
    EXPECT_EQ(real("-.5"), -0.5);
    EXPECT_EQ(real("+2"), 2.0);
    EXPECT_EQ(real("1.5D-3"), 0.0015);
    EXPECT_EQ(real("1.5d+3"), 1500.0);
    EXPECT_EQ(real("1E+2"), 100.0);
    EXPECT_EQ(real("2-1"), 0.2);
    EXPECT_EQ(real("1e-400"), 0.0);
    EXPECT_TRUE(std::isinf(real("1e400")));
    EXPECT_TRUE(std::isnan(real("NaN")));
    EXPECT_EQ(real("-inf"), -HUGE_VAL);
    for (const char* t :
         {"", ".", "-", "+", "e5", "1e", "1e5e5", "1.2.3", "1..2", "1x", "x1", "--1", "+-1", "1-", "in", "d"})
        EXPECT_EQ(real(t), -77) << t;
}

TEST(text, list_with_empty_places) {
    list_reader in(" 50 ,, 0.5  7,");
    int i = 0;
    double x = 1;
    EXPECT_EQ(in.next(i), list_read::value);
    EXPECT_EQ(i, 50);
    EXPECT_EQ(in.next(i), list_read::null);
    EXPECT_EQ(i, 50);
    EXPECT_EQ(in.next(x), list_read::value);
    EXPECT_EQ(x, 0.5);
    EXPECT_EQ(in.next(i), list_read::value);
    EXPECT_EQ(i, 7);
    EXPECT_EQ(in.next(i), list_read::end);
    EXPECT_EQ(i, 7);
}

TEST(text, list_ends_at_a_slash) {
    list_reader in("1 / 2");
    int i = 0;
    EXPECT_EQ(in.next(i), list_read::value);
    EXPECT_EQ(in.next(i), list_read::null);
    EXPECT_EQ(in.next(i), list_read::null);
    EXPECT_EQ(i, 1);
}

TEST(text, list_with_repeated_values) {
    list_reader in("3*2.5, 2*,8");
    double x = 0;
    for (int k = 0; k < 3; ++k, x = 0) {
        EXPECT_EQ(in.next(x), list_read::value);
        EXPECT_EQ(x, 2.5);
    }
    EXPECT_EQ(in.next(x), list_read::null);
    EXPECT_EQ(in.next(x), list_read::null);
    EXPECT_EQ(in.next(x), list_read::value);
    EXPECT_EQ(x, 8.0);
}

TEST(text, list_of_one_blank_text) {
    list_reader in("    ");
    EXPECT_TRUE(in.at_end());
    double x = 3;
    EXPECT_EQ(in.next(x), list_read::end);
    EXPECT_EQ(x, 3.0);
}
