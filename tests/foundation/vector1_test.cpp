// Vectors that grow, with indices from 1.
#include "support/vector1.h"

#include <gtest/gtest.h>
#include <numeric>
#include <span>
#include <string>

using namespace tarvex;

TEST(vector1, counts_from_one) {
    vector1<int> v{7, 8, 9};
    EXPECT_EQ(v.size(), 3);
    EXPECT_EQ(v(1), 7);
    EXPECT_EQ(v(v.size()), 9);
    EXPECT_EQ(v.back(), 9);
    v(2) = 80;
    EXPECT_EQ(v, (vector1<int>{7, 80, 9}));
    v.erase(2);
    EXPECT_EQ(v, (vector1<int>{7, 9}));
    EXPECT_EQ(v.front(), 7);
}

TEST(vector1, grows_at_its_end) {
    vector1<std::string> v;
    EXPECT_TRUE(v.empty());
    for (int i = 1; i <= 100; ++i) {
        v.push_back(std::to_string(i));
        EXPECT_EQ(v.size(), i);
    }
    for (int i = 1; i <= 100; ++i) EXPECT_EQ(v(i), std::to_string(i));
    v.append(2, "more");
    EXPECT_EQ(v.size(), 102);
    EXPECT_EQ(v(101) + v(102), "moremore");
    v.append(0, "none");
    EXPECT_EQ(v.size(), 102);
}

TEST(vector1, is_zero_by_size_and_keeps_what_it_has_on_resize) {
    vector1<double> v(3);
    EXPECT_EQ(v, (vector1<double>{0.0, 0.0, 0.0}));
    v(3) = 1.5;
    v.resize(5);
    EXPECT_EQ(v, (vector1<double>{0.0, 0.0, 1.5, 0.0, 0.0}));
    v.resize(-1);
    EXPECT_TRUE(v.empty());
    v.assign(2, 4.0);
    EXPECT_EQ(v, (vector1<double>{4.0, 4.0}));
}

TEST(vector1, is_a_range) {
    vector1<int> v(6);
    std::iota(v.begin(), v.end(), 1);
    vector1<int> w;
    w.assign(v.begin() + 1, v.begin() + 4);
    EXPECT_EQ(w, (vector1<int>{2, 3, 4}));
    const std::span<const int> all(v);
    EXPECT_EQ(all.size(), 6u);
    EXPECT_EQ(all[3], 4);
    EXPECT_EQ(v.data() + 2, &v(3));
}

#ifdef TVX_BOUNDS
TEST(vector1, stops_outside_its_bounds) {
    vector1<int> v(3);
    EXPECT_DEATH(v(0) = 1, "");
    EXPECT_DEATH(v(4) = 1, "");
    vector1<int> none;
    EXPECT_DEATH((void)none.back(), "");
    EXPECT_DEATH((void)none.front(), "");
    EXPECT_DEATH(v.erase(4), "");
}
#endif
