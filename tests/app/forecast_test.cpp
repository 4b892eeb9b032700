// The line that tells what an analysis is about to cost.
#include "app/forecast.h"

#include <gtest/gtest.h>

namespace tarvex {
namespace {

TEST(forecast, line_tells_what_is_known) {
    cost_forecast c;
    c.equations = 164165;
    c.elements = 20172668;
    c.operations = 18.0e9;
    c.bytes = 0.34e9;
    EXPECT_EQ(forecast_line(c), "Forecast : 164165 equations, 20172668 elements of the factor, memory 0.34 GB, "
                                "18 billion operations");
    c.free = 21.5e9;
    c.rate = 37.0e9;
    EXPECT_DOUBLE_EQ(iterate_seconds(c), 3.7 * 18.0 / (0.4 * 37.0));
    EXPECT_EQ(forecast_line(c), "Forecast : 164165 equations, 20172668 elements of the factor, memory 0.34 GB of 21.50 "
                                "GB free, 18 billion operations, about 4.5 seconds an iterate");
}

TEST(forecast, free_memory_is_what_is_available_and_the_swap_space) {
    EXPECT_EQ(free_memory("MemTotal:  100 kB\nMemFree: 7 kB\nMemAvailable:   40 kB\nSwapTotal: 9 kB\nSwapFree: 2 kB\n"),
              42.0 * 1024.0);
    EXPECT_EQ(free_memory("MemTotal:  100 kB\nSwapFree: 2 kB\n"), -1.0) << "an old kernel";
    EXPECT_EQ(free_memory(""), -1.0);
    EXPECT_EQ(free_memory("MemAvailable: 0 kB\n"), 0.0);
}

} // namespace
} // namespace tarvex
