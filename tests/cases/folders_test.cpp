// Cases as folders: each folder of tests/cases, and of the folder named by TVX_CASES, is an analysis that the real
// program runs. tests/cases/README.md tells what a folder holds.
#include "support/fixture.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <optional>
#include <sstream>

namespace tarvex {
namespace {

namespace fs = std::filesystem;
using words = std::vector<std::string>;

words split(const std::string& line) {
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), {}};
}

std::vector<fs::path> case_folders() {
    std::vector<fs::path> list;
    const char* more = std::getenv("TVX_CASES");
    for (const std::string& place : {source_dir() + "/tests/cases", std::string(more ? more : "")})
        if (fs::is_directory(place))
            for (const auto& entry : fs::directory_iterator(place))
                if (entry.is_directory()) list.push_back(entry.path());
    std::sort(list.begin(), list.end());
    return list;
}

// The words of the first line of `in` that has `wanted` one after another, from behind them on.
std::optional<words> line_with(std::istream& in, const words& wanted) {
    for (std::string line; std::getline(in, line);) {
        const words found = split(line);
        const auto at = std::search(found.begin(), found.end(), wanted.begin(), wanted.end());
        if (at != found.end()) return words(at + static_cast<std::ptrdiff_t>(wanted.size()), found.end());
    }
    return {};
}

// The same; what stands behind ">>" in `wanted` is looked for on the lines that follow.
std::optional<words> behind(const std::string& text, const words& wanted) {
    std::istringstream in(text);
    for (auto from = wanted.begin();;) {
        const auto mark = std::find(from, wanted.end(), ">>");
        auto found = line_with(in, {from, mark});
        if (!found || mark == wanted.end()) return found;
        from = mark + 1;
    }
}

words last_line(const std::string& text) {
    const auto end = text.find_last_not_of('\n');
    if (end == std::string::npos) return {};
    const auto from = text.rfind('\n', end);
    return split(text.substr(from == std::string::npos ? 0 : from + 1, end - (from + 1) + 1));
}

class case_folder_test : public tarvex_test, public testing::WithParamInterface<fs::path> {
protected:
    void bring(const fs::path& folder) {
        ASSERT_TRUE(fs::is_directory(folder)) << folder;
        for (const auto& entry : fs::directory_iterator(folder)) {
            if (entry.path().filename() == "case.txt") continue;
            fs::copy(entry.path(), entry.path().filename(), fs::copy_options::overwrite_existing);
            fs::permissions(entry.path().filename(), fs::perms::owner_write, fs::perm_options::add);
        }
    }
    void run(const words& args) {
        end_of_run();
        const auto result = run_program(args);
        screen_ = result.output;
        status_ = result.status;
    }
    // Status 0 is expected where the case tells no other.
    void end_of_run() {
        EXPECT_EQ(status_.value_or(0), 0) << screen_;
        status_.reset();
    }
    void expect_status(const words& w) {
        ASSERT_TRUE(status_ && w.size() == 2) << "a line \"status\" follows a run and has a number";
        EXPECT_EQ(*status_, std::stoi(w[1])) << screen_;
        status_.reset();
    }
    std::string text_of(const std::string& name) const {
        return name == "screen" ? screen_ : fs::exists(name) ? read_file(name) : std::string();
    }
    void expect_numbers(const words& found, const words& wanted, double slack, const std::string& line) const {
        for (std::size_t i = 0; i < wanted.size(); ++i) {
            ASSERT_LT(i, found.size()) << line;
            if (wanted[i] == "*") continue;
            std::size_t used = 0;
            double value = NAN;
            try {
                value = std::stod(found[i], &used);
            } catch (const std::exception&) {
            }
            EXPECT_EQ(used, found[i].size()) << line << "\nfinds no number but " << found[i];
            EXPECT_NEAR(value, std::stod(wanted[i]), slack) << line;
        }
    }
    // FILE: words [>> words] [-> numbers +- slack], FILE! words or FILE$ words
    void expect_line(const std::string& line) const {
        const auto mark = line.find_first_of(":!$");
        ASSERT_NE(mark, std::string::npos) << "not understood: " << line;
        const std::string text = text_of(line.substr(0, mark));
        words wanted = split(line.substr(mark + 1)), numbers;
        double slack = 0.0;
        if (const auto arrow = std::find(wanted.begin(), wanted.end(), "->"); arrow != wanted.end()) {
            numbers.assign(arrow + 1, wanted.end());
            wanted.erase(arrow, wanted.end());
            ASSERT_TRUE(numbers.size() >= 3 && *(numbers.end() - 2) == "+-") << "no \"+- slack\": " << line;
            slack = std::stod(numbers.back());
            numbers.resize(numbers.size() - 2);
        }
        if (line[mark] == '$') {
            EXPECT_EQ(last_line(text), wanted) << line;
            return;
        }
        const auto found = behind(text, wanted);
        if (line[mark] == '!') {
            EXPECT_FALSE(found) << line;
        } else {
            ASSERT_TRUE(found) << "not there: " << line << "\n" << screen_;
            expect_numbers(*found, numbers, slack, line);
        }
    }
    void walk(const std::string& script) {
        std::istringstream in(script);
        for (std::string line; std::getline(in, line) && !HasFatalFailure();) {
            const words w = split(line);
            if (w.empty() || w[0][0] == '#') continue;
            if (w[0] == "files" && w.size() == 2)
                bring(source_dir() + "/" + w[1]);
            else if (w[0] == "run")
                run({w.begin() + 1, w.end()});
            else if (w[0] == "status")
                expect_status(w);
            else if (w[0] == "present" || w[0] == "absent")
                for (std::size_t i = 1; i < w.size(); ++i) EXPECT_EQ(fs::exists(w[i]), w[0] == "present") << line;
            else if (w[0] == "remove")
                for (std::size_t i = 1; i < w.size(); ++i) EXPECT_TRUE(fs::remove(w[i])) << line;
            else
                expect_line(line);
        }
        end_of_run();
    }

private:
    std::string screen_;
    std::optional<int> status_;
};

TEST_P(case_folder_test, runs_and_agrees) {
    const fs::path script = GetParam() / "case.txt";
    bring(GetParam());
    if (fs::exists(script)) return walk(read_file(script.string()));
    for (const auto& entry : fs::directory_iterator(".")) // as a user left it: it has to run
        if (entry.path().extension() == ".par") return walk("run " + entry.path().stem().string());
    FAIL() << "neither case.txt nor a parameter file in " << GetParam();
}

std::string name_of(const testing::TestParamInfo<fs::path>& info) {
    std::string name = info.param.filename().string();
    for (char& c : name)
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    return name;
}
INSTANTIATE_TEST_SUITE_P(cases, case_folder_test, testing::ValuesIn(case_folders()), name_of);

} // namespace
} // namespace tarvex
