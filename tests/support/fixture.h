// Fixture of all tests that touch modules, files or the screen: fresh modules, an empty working directory of its own
// and a captured screen.
#pragma once
#include "app/new_analysis.h"
#include "support/paths.h"
#include "support/stop.h"

#include <cstddef>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex {

// Files of the working directory.
void write_file(const std::string& name, std::string_view text);
std::string read_file(const std::string& name); // fails the test and gives "" where there is none

struct program_result {
    int status;         // exit status, 128 + signal for a killed run
    std::string output; // standard output and error as they came
};
// Runs a binary in the current directory; standard input is empty.
program_result run_binary(const std::string& binary, const std::vector<std::string>& args);
inline program_result run_program(const std::vector<std::string>& args = {}) {
    return run_binary(program_path(), args);
}

class tarvex_test : public testing::Test {
protected:
    tarvex_test();
    ~tarvex_test() override;
    void TearDown() override; // shows the screen of a failed test
    std::string screen_text() const { return text_.str(); }
    void clear_screen() { text_.str({}); }
    const std::string& directory() const { return directory_; }

private:
    std::ostringstream text_;
    std::string directory_, before_;
};

} // namespace tarvex

// Expects that the statement ends in a stop which has put `text` on the screen, its last line included.
#define EXPECT_STOP(statement, words)                                                                                  \
    do {                                                                                                               \
        const std::size_t tvx_from = this->screen_text().size();                                                       \
        bool tvx_stopped = false;                                                                                      \
        try {                                                                                                          \
            statement;                                                                                                 \
        } catch (const tarvex::program_stop& tvx_stop) {                                                               \
            tvx_stopped = true;                                                                                        \
            const std::string tvx_told = this->screen_text().substr(tvx_from) + tvx_stop.text;                         \
            EXPECT_NE(tvx_told.find(words), std::string::npos) << "stop without \"" << (words) << "\" :\n"             \
                                                               << tvx_told;                                            \
        }                                                                                                              \
        EXPECT_TRUE(tvx_stopped) << "no stop by " #statement;                                                          \
    } while (false)
