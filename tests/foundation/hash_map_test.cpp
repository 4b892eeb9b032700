#include "support/hash_map.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <map>
#include <random>

using namespace tarvex;

TEST(hash_map, holds_what_an_ordered_map_holds) {
    hash_map<double> table;
    std::map<std::uint64_t, double> truth;
    std::mt19937_64 gen(3);
    for (int k = 0; k < 20000; ++k) {
        const std::uint64_t key = 1 + gen() % 7000; // most of them more than once, and several times more than a table
        table[key] += k;                            // has places at first
        truth[key] += k;
    }
    EXPECT_EQ(table.size(), truth.size());
    std::map<std::uint64_t, double> found;
    table.each([&](std::uint64_t key, double x) { EXPECT_TRUE(found.emplace(key, x).second) << key << " twice"; });
    EXPECT_EQ(found, truth);
}

// Keys that differ in the bits that give the place, or in none of them.
TEST(hash_map, keys_of_one_place_step_aside) {
    hash_map<int> table;
    const std::uint64_t large = std::uint64_t{1} << 63U; // times an odd number it changes the highest bit alone
    for (const std::uint64_t key : {std::uint64_t{1}, 1 + large, std::uint64_t{5}, 5 + large}) table[key] = 7;
    EXPECT_EQ(table.size(), 4u);
    table[1 + large] = 8;
    EXPECT_EQ(table[1], 7);
    EXPECT_EQ(table[1 + large], 8);
    EXPECT_EQ(table[UINT64_MAX], 0);
    EXPECT_EQ(table.size(), 5u);
}
