// Arrays with indices from 1: order in memory, lower bounds, resizing, allocation that fails.
#include "support/array.h"
#include "support/stop.h"

#include <gtest/gtest.h>

using namespace tarvex;

TEST(array, first_index_runs_fastest) {
    array<int, 3> a;
    a.allocate(2, 3, 4);
    int n = 0;
    for (int k = 1; k <= 4; ++k)
        for (int j = 1; j <= 3; ++j)
            for (int i = 1; i <= 2; ++i) a(i, j, k) = n++;
    ASSERT_EQ(a.size(), 24);
    for (int i = 0; i < 24; ++i) EXPECT_EQ(a.data()[i], i);
}

TEST(array, last_dimension_starts_at_its_lower_bound) {
    array<double, 2, 0> cov;
    cov.allocate(3, 7);
    EXPECT_EQ(cov.size(), 24);
    cov(1, 0) = 1.0;
    cov(3, 7) = 2.0;
    EXPECT_EQ(cov.data()[0], 1.0);
    EXPECT_EQ(cov.data()[23], 2.0);
    EXPECT_EQ(cov.column(7)[2], 2.0);
    EXPECT_EQ(cov.upper(1), 3);
    EXPECT_EQ(cov.upper(2), 7);
}

TEST(array, is_zero_after_allocate) {
    array<int> a;
    EXPECT_FALSE(a.allocated());
    a.allocate(5);
    a.fill(3);
    a.allocate(7);
    EXPECT_TRUE(a.allocated());
    for (int x : a) EXPECT_EQ(x, 0);
    a.deallocate();
    EXPECT_FALSE(a.allocated());
    EXPECT_EQ(a.size(), 0);
}

TEST(array, empty_and_negative_bounds_hold_nothing) {
    array<double, 2> a;
    a.allocate(0, 5);
    EXPECT_TRUE(a.allocated());
    EXPECT_EQ(a.size(), 0);
    a.allocate(4, -3);
    EXPECT_EQ(a.size(), 0);
}

TEST(array, resize_keeps_values) {
    array<int, 2> a;
    a.allocate(2, 2);
    a(1, 2) = 12;
    a(2, 2) = 22;
    a.resize(3);
    EXPECT_EQ(a(1, 2), 12);
    EXPECT_EQ(a(2, 2), 22);
    EXPECT_EQ(a(2, 3), 0);
    a.resize(1);
    EXPECT_EQ(a.size(), 2);
}

TEST(array, prefix_and_columns_are_views) {
    array<int, 2> a;
    a.allocate(3, 2);
    a.column(2)[0] = 5;
    EXPECT_EQ(a(1, 2), 5);
    a.prefix(3)[2] = 9;
    EXPECT_EQ(a(3, 1), 9);
}

TEST(array, sizes_beyond_the_machine_stop_with_the_tag) {
    array<double, 3> a;
    EXPECT_THROW(a.allocate(3000000000LL, 3000000000LL, 3000000000LL), std::bad_alloc);
    try {
        allocate("all nnparm", a, 2000000000, 2000000000, 2000000000);
        FAIL();
    } catch (const program_stop& s) {
        EXPECT_EQ(s.text, "all nnparm");
        EXPECT_EQ(s.status, 1);
    }
}

#ifdef TVX_BOUNDS
TEST(array, bounds_are_checked) {
    array<int, 2, 0> a;
    a.allocate(2, 2);
    EXPECT_DEATH(a(3, 0) = 1, "");
    EXPECT_DEATH(a(0, 0) = 1, "");
    EXPECT_DEATH(a(1, 3) = 1, "");
    EXPECT_DEATH(a(1, -1) = 1, "");
}

TEST(array, bounds_of_views_are_checked) {
    array<int, 2, 0> a;
    a.allocate(2, 2);
    EXPECT_EQ(a.prefix(6).size(), 6u);
    EXPECT_DEATH((void)a.prefix(7), "");
    EXPECT_DEATH((void)a.prefix(-1), "");
    EXPECT_EQ(a.column(0).size(), 2u);
    EXPECT_DEATH((void)a.column(3), "");
    EXPECT_DEATH((void)a.column(-1), "");
}
#endif
