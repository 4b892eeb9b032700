// The line that tells what an analysis is about to cost.
#include "app/forecast.h"

#include "control/options.h"
#include "support/fixture.h"

#include <filesystem>
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

// A tree of control groups in the working directory.
class group_test : public tarvex_test {
protected:
    static void group(const std::string& path, const char* limit, const char* used, const char* stat) {
        std::filesystem::create_directories("groups/" + path);
        write_file("groups/" + path + "/memory.max", limit);
        write_file("groups/" + path + "/memory.current", used);
        write_file("groups/" + path + "/memory.stat", stat);
    }
};

TEST_F(group_test, least_of_all_groups_above_the_process_counts) {
    group("a", "1000\n", "700\n", "anon 5\ninactive_file 50\nactive_file 9\n");
    group("a/b", "max\n", "600\n", "inactive_file 40\n");
    group("a/b/c", "500\n", "100\n", "inactive_file 0\n");
    EXPECT_EQ(group_memory("groups", "0::/a/b/c\n"), 350.0) << "of group a";
    group("a/b/c", "500\n", "200\n", "inactive_file 10\n");
    EXPECT_EQ(group_memory("groups", "0::/a/b/c\n"), 310.0) << "of its own group";
    group("a/b/c", "500\n", "600\n", "inactive_file 10\n");
    EXPECT_EQ(group_memory("groups", "0::/a/b/c\n"), 0.0) << "nothing is left";
    EXPECT_EQ(group_memory("groups", "0::/x\n"), -1.0);
}

TEST_F(group_test, root_of_a_container_has_the_limit_of_its_group) {
    group(".", "2000\n", "500\n", "");
    EXPECT_EQ(group_memory("groups", "0::/\n"), 1500.0);
    EXPECT_EQ(group_memory("groups", "0::/not/seen/from/here\n"), 1500.0);
}

TEST_F(group_test, older_hierarchies_are_read_too) {
    std::filesystem::create_directories("groups/memory/a");
    write_file("groups/memory/a/memory.limit_in_bytes", "800\n");
    write_file("groups/memory/a/memory.usage_in_bytes", "300\n");
    write_file("groups/memory/a/memory.stat", "cache 1\ntotal_inactive_file 20\n");
    const char* groups = "5:cpu,cpuacct:/z\n4:memory:/a\n1:name=systemd:/a\n";
    EXPECT_EQ(group_memory("groups", groups), 520.0);
    write_file("groups/memory/a/memory.limit_in_bytes", "9223372036854771712\n"); // none
    EXPECT_EQ(group_memory("groups", groups), -1.0);
}

TEST_F(group_test, no_groups_no_limit) {
    group("a", "max\n", "700\n", "");
    EXPECT_EQ(group_memory("groups", "0::/a\n"), -1.0);
    EXPECT_EQ(group_memory("none", "0::/a\n"), -1.0);
    EXPECT_EQ(group_memory("groups", ""), -1.0);
    EXPECT_EQ(group_memory("groups", "nonsense\n::\n"), -1.0);
}

class forecast_test : public tarvex_test {
protected:
    // Lines on the screen at the default level, for this need of memory and this rate.
    std::string told(double bytes, double rate) {
        clear_screen();
        cost_forecast c;
        c.operations = 10.0e9;
        c.bytes = bytes;
        c.free = 8.0e9;
        c.rate = rate;
        tell_forecast(c);
        return screen_text();
    }
};

TEST_F(forecast_test, is_shown_when_an_iterate_takes_a_minute_or_half_of_the_memory) {
    const double minute = 3.7 * 10.0e9 / 0.4 / 60.0; // rate at which an iterate takes one
    EXPECT_EQ(told(3.9e9, 1.01 * minute), "");
    EXPECT_NE(told(3.9e9, 0.99 * minute).find("Forecast : "), std::string::npos);
    EXPECT_NE(told(4.1e9, 1.01 * minute).find("4.10 GB of 8.00 GB free"), std::string::npos);
    options.terse = true;
    EXPECT_EQ(told(4.1e9, 0.1 * minute), "");
    options.print_times = true;
    EXPECT_NE(told(1.0e9, 9.0 * minute).find("Forecast : "), std::string::npos);
}

TEST_F(forecast_test, a_run_stops_where_memory_cannot_suffice_and_a_set_up_run_does_not) {
    EXPECT_ANY_THROW(told(8.1e9, 1.0e12));
    EXPECT_NE(screen_text().find("8.10 GB of 8.00 GB free"), std::string::npos);
    EXPECT_NE(screen_text().find("The memory of this machine does not suffice for the factorisation !\nWhat helps: "),
              std::string::npos);
    options.setup_only = true;
    EXPECT_NE(told(8.1e9, 1.0e12).find("8.10 GB of 8.00 GB free"), std::string::npos);
}

} // namespace
} // namespace tarvex
