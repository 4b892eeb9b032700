// --help and --version.
#include "app/helptext.h"
#include "app/runoptions.h"
#include "control/tvxroutines.h"
#include "support/fixture.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace tarvex {
namespace {

std::string told(std::vector<const char*> args) {
    args.insert(args.begin(), "tarvex");
    return told_without_run(static_cast<int>(args.size()), args.data()).value_or("");
}

TEST(help_text, fits_a_screen_and_names_the_guide) {
    std::istringstream lines(told({"--help"}));
    int n = 0;
    for (std::string line; std::getline(lines, line); ++n) EXPECT_LE(line.size(), 80u) << line;
    EXPECT_GT(n, 10);
    EXPECT_LE(n, 31); // with a prompt on a terminal of 32 lines
    EXPECT_NE(told({"--help"}).find("docs/guide.md"), std::string::npos);
}

// Words that begin with a hyphen, the number behind them taken off.
TEST(help_text, each_option_of_the_text_is_one_of_the_program) {
    std::istringstream words(told({"--help"}));
    int n = 0;
    for (std::string word; words >> word;) {
        if (word[0] != '-') continue;
        while (std::ispunct(static_cast<unsigned char>(word.back())) || word.back() == 'N') word.pop_back();
        if (word == "--help" || word == "--version") continue;
        const auto table = option_table();
        EXPECT_TRUE(std::any_of(table.begin(), table.end(), [&](const auto& o) { return o.lower == word; })) << word;
        ++n;
    }
    EXPECT_GT(n, 15);
}

TEST(help_text, version_is_that_of_the_reports) {
    const std::string number = version_number(); // year.month.day; reports show dd-mm-yyyy
    EXPECT_EQ(told({"-v", "--version", "wean"}), "Tarvex " + number + "\n");
    int y = 0, m = 0, d = 0;
    ASSERT_EQ(std::sscanf(number.c_str(), "%d.%d.%d", &y, &m, &d), 3);
    char shown[40];
    std::snprintf(shown, sizeof shown, "%02d-%02d-%04d", d, m, y);
    EXPECT_EQ(program_version(), shown);
}

TEST(help_text, other_arguments_ask_for_an_analysis) {
    EXPECT_EQ(told({}), "");
    EXPECT_EQ(told({"--helper", "--versions", "help", "-v", "wean"}), "");
}

TEST(completion, knows_each_option) {
    std::string completions[2];
    for (int k = 0; k < 2; ++k) {
        std::ifstream file(source_dir() + "/packaging/completions/" + (k == 0 ? "tarvex.bash" : "_tarvex"));
        ASSERT_TRUE(file.is_open());
        for (char c; file.get(c);) completions[k] += c == '"' || std::isspace(static_cast<unsigned char>(c)) ? ' ' : c;
    }
    for (const option_record& o : option_table()) {
        if (o.lower == "--tensor") continue; // is never matched
        const std::string option(o.lower);
        EXPECT_NE(completions[0].find(" " + option + " "), std::string::npos) << option;
        EXPECT_NE(completions[1].find(" '" + option), std::string::npos) << option;
    }
}

class help_run : public tarvex_test {};

TEST_F(help_run, no_analysis_is_run_and_nothing_is_written) {
    for (const char* option : {"--help", "--HELP", "--version", "--VERSION"}) {
        const auto result = run_program({option, "none"});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output, told({option}));
    }
    EXPECT_TRUE(std::filesystem::is_empty("."));
}

} // namespace
} // namespace tarvex
