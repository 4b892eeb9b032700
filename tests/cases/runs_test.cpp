// Kinds of run of the real program on the bundled examples.
#include "support/fixture.h"
#include "support/record_file.h"

#include <filesystem>
#include <sstream>

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
    static std::string last_line(const std::string& output) {
        const auto end = output.find_last_not_of('\n');
        const auto from = output.rfind('\n', end);
        return output.substr(from == std::string::npos ? 0 : from + 1,
                             end == std::string::npos ? end : end - (from + 1) + 1);
    }
};

TEST_F(kinds_of_run, normal_run_writes_all_reports) {
    example("mt3");
    const auto run = run_program({"mt3"});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(last_line(run.output), "\"Tarvex\" done");
    for (const char* report : {"SumEstimates.out", "SumModel.out", "SumPedigree.out", "FixSolutions.out",
                               "RnSoln_animal.dat", "Residuals.dat", "BestPoint", "ListofCovs", "Iterates"})
        EXPECT_TRUE(file_exists(report)) << report;
}

TEST_F(kinds_of_run, setup_stops_before_estimation) {
    example("textbook_uni");
    const auto run = run_program({"--setup", "textbook_uni"});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("Set-up complete\n\"Tarvex\" has finished !\n"), std::string::npos);
    EXPECT_FALSE(file_exists("SumEstimates.out"));
    const auto terse = run_program({"--setup", "-t", "textbook_uni"});
    EXPECT_EQ(last_line(terse.output), "\"Tarvex\" done");
}

TEST_F(kinds_of_run, blup_run_says_both_that_it_has_finished_and_that_it_is_done) {
    example("textbook_uni");
    for (const auto& arguments :
         {std::vector<std::string>{"--blup", "textbook_uni"}, {"-v", "--blup", "textbook_uni"}}) {
        const auto run = run_program(arguments);
        EXPECT_EQ(run.status, 0) << run.output;
        EXPECT_TRUE(run.output.ends_with("\"Tarvex\" has finished !\n\"Tarvex\" done\n")) << run.output;
    }
    EXPECT_FALSE(file_exists("SumEstimates.out"));
}

TEST_F(kinds_of_run, best_point_needs_no_data) {
    example("textbook_uni");
    ASSERT_EQ(run_program({"--aireml1", "textbook_uni"}).status, 0);
    std::filesystem::remove("data.dat");
    std::filesystem::remove("ped.dat");
    std::filesystem::remove("SumEstimates.out");
    const auto run = run_program({"--simul", "--setup", "--blup", "--best", "textbook_uni"}); // beats all other kinds
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(read_file("BestSoFar.out").find(" No. of records         =      0\n"), std::string::npos);
    EXPECT_FALSE(file_exists("SumEstimates.out"));
}

TEST_F(kinds_of_run, simulation_ends_the_run_before_setup) {
    example("textbook_uni");
    const auto run = run_program({"--setup", "--blup", "--simul", "textbook_uni"});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_TRUE(file_exists("SimData001.dat"));
    EXPECT_EQ(run.output.find("Set-up complete"), std::string::npos);
}

TEST_F(kinds_of_run, details_tell_that_the_setup_is_complete) {
    example("textbook_uni");
    const auto run = run_program({"-d", "--aireml1", "textbook_uni"});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("Set-up complete\n"), std::string::npos);
}

TEST_F(kinds_of_run, nrm_without_pedigree_file_is_a_fault) {
    example("textbook_uni");
    std::string text = read_file("textbook_uni.par");
    const auto at = text.find("PED ped.dat\n");
    write_file("textbook_uni.par", text.erase(at, 12));
    const auto run = run_program({"textbook_uni"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find(" ... file doesn't seem to exist !\n"), std::string::npos) << run.output;
}

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

TEST_F(kinds_of_run, reports_name_the_reduced_pedigree) {
    example("mt3");
    ASSERT_EQ(run_program({"--setup", "mt3"}).status, 0);
    EXPECT_NE(read_file("SumModel.out").find(" Pedigree file          :   \"ReducedPedFile.dat\"\n"),
              std::string::npos);
}

TEST_F(kinds_of_run, small_problems_run_ai_reml_whatever_has_not_set_the_algorithm) {
    example("textbook_uni");
    EXPECT_NE(run_program({"--pownew", "textbook_uni"}).output.find("AI iterate"), std::string::npos);
    const auto none = run_program({"--simplex", "textbook_uni"});
    EXPECT_EQ(none.status, 0) << none.output;
    EXPECT_EQ(none.output.find("AI iterate     1"), std::string::npos) << none.output;
}

TEST_F(kinds_of_run, terse_runs_show_no_times) {
    example("textbook_uni");
    EXPECT_EQ(run_program({"-t", "--blup", "textbook_uni"}).output.find("***Time:"), std::string::npos);
    EXPECT_NE(run_program({"-v", "--blup", "textbook_uni"}).output.find("***Time:"), std::string::npos);
}

// Diagonals of the inverse coefficient matrix as published with the example; the residual variance is 40.
TEST_F(kinds_of_run, blup_run_gives_published_standard_errors_and_accuracies) {
    example("textbook_uni");
    ASSERT_EQ(run_program({"--blup", "textbook_uni"}).status, 0);
    std::istringstream lines(read_file("RnSoln_animal.dat"));
    for (double diagonal : {0.471, 0.492, 0.456, 0.428, 0.428, 0.442, 0.442, 0.422}) {
        int level = 0, code = 0, trait = 0;
        double solution = 0.0, error = 0.0, accuracy = 0.0;
        ASSERT_TRUE(lines >> level >> code >> trait >> solution >> error >> accuracy);
        EXPECT_NEAR(error * error / 40.0, diagonal, 0.0006);
        EXPECT_NEAR(accuracy * accuracy, 1.0 - 2.0 * error * error / 40.0, 0.001);
    }
    EXPECT_NE(read_file("FixSolutions.out").find("S.Error"), std::string::npos);
}

} // namespace
