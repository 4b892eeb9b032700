// Kinds of run of the real program on the bundled examples.
#include "support/fixture.h"
#include "support/record_file.h"

#include <filesystem>

using namespace tarvex;

namespace {

class kinds_of_run : public tarvex_test {
protected:
    // The working directory as that of a bundled example.
    void example(const std::string& name) {
        namespace fs = std::filesystem;
        for (const auto& file : fs::directory_iterator(source_dir() + "/examples/" + name))
            fs::copy(file.path(), fs::current_path() / file.path().filename());
    }
};

TEST_F(kinds_of_run, changed_data_are_seen_by_the_next_run) {
    example("textbook_uni");
    ASSERT_EQ(run_program({"--blup", "textbook_uni"}).status, 0);
    const std::string before = read_file("RnSoln_animal.dat");
    std::string data = read_file("data.dat");
    const auto at = data.find("4.5");
    ASSERT_NE(at, std::string::npos);
    write_file("data.dat", data.replace(at, 3, "7.5"));
    ASSERT_EQ(run_program({"--blup", "textbook_uni"}).status, 0);
    EXPECT_NE(read_file("RnSoln_animal.dat"), before);
}

TEST_F(kinds_of_run, windows_line_ends_and_tabs_give_the_same_solutions) {
    example("textbook_uni");
    ASSERT_EQ(run_program({"--blup", "textbook_uni"}).status, 0);
    const std::string before = read_file("RnSoln_animal.dat");
    for (const char* name : {"textbook_uni.par", "data.dat", "ped.dat"}) {
        std::string text;
        for (char c : read_file(name)) text += c == '\n' ? "\r\n" : c == ' ' ? "\t" : std::string(1, c);
        write_file(name, text.substr(0, text.size() - 2));
    }
    const auto run = run_program({"--blup", "textbook_uni"});
    ASSERT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(read_file("RnSoln_animal.dat"), before);
}

TEST_F(kinds_of_run, continuation_goes_on_from_the_best_point) {
    example("mt3");
    ASSERT_EQ(run_program({"--aireml2", "mt3"}).status, 0);
    const auto run = run_program({"-c", "mt3"});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("AIREML has converged"), std::string::npos) << run.output;
    const std::string report = read_file("SumEstimates.out");
    std::filesystem::remove("BestPoint");
    ASSERT_EQ(run_program({"mt3"}).status, 0); // in one go
    const auto log_l = [](const std::string& text) {
        return std::stod(text.substr(text.find("Maximum log L") + 26, 18));
    };
    EXPECT_NEAR(log_l(report), log_l(read_file("SumEstimates.out")), 1e-3);
}

TEST_F(kinds_of_run, small_problems_run_ai_reml_whatever_has_not_set_the_algorithm) {
    example("textbook_uni");
    EXPECT_NE(run_program({"--pownew", "textbook_uni"}).output.find("AI iterate"), std::string::npos);
    const auto none = run_program({"--simplex", "textbook_uni"});
    EXPECT_EQ(none.status, 0) << none.output;
    EXPECT_EQ(none.output.find("AI iterate     1"), std::string::npos) << none.output;
}

} // namespace
