// The state that an analysis starts from, and the stages at which it can halt.
#include "app/new_analysis.h"

#include "app/phases.h"
#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "equations/mmmatrix.h"
#include "estimation/estimates.h"
#include "likelihood/factormmm.h"
#include "support/fixture.h"
#include "support/record_file.h"
#include "support/screen.h"
#include "support/small_models.h"

#include <filesystem>
#include <fstream>
#include <regex>

using namespace tarvex;

namespace {

using new_analysis_test = tarvex_test;

// Names that `pattern` has in its first group, in all lines with `word` of the sources with the ending.
std::vector<std::string> names_in_sources(const std::string& word, const std::regex& pattern,
                                          const std::string& ending) {
    namespace fs = std::filesystem;
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(source_dir() + "/src")) {
        if (entry.path().extension() != ending || entry.path().parent_path().filename() == "tvx") continue;
        std::ifstream in(entry.path());
        std::smatch found;
        for (std::string line; std::getline(in, line);)
            if (line.find(word) != std::string::npos && std::regex_search(line, found, pattern))
                names.push_back(found[1]);
    }
    return names;
}

TEST_F(new_analysis_test, knows_every_module) {
    const std::string routine = read_file(source_dir() + "/src/app/new_analysis.cpp");
    const auto modules = names_in_sources("_module", std::regex("^inline [a-z0-9_]+_module ([a-z0-9_]+);"), ".h");
    EXPECT_GT(modules.size(), 30u);
    for (const auto& name : modules)
        EXPECT_TRUE(std::regex_search(routine, std::regex("[(, ]" + name + "[,)]"))) << name << " is not reset";
}

// Variables of a function that outlive it hold what is no part of an analysis.
TEST_F(new_analysis_test, functions_keep_nothing_of_an_analysis) {
    const std::regex kept("^ +static (?!const |constexpr |const_|inline |edit_form edited|void |std::uint64_t "
                          "bytes_of|std::size_t )[^(]* ([a-z0-9_]+)(\\(std::cout\\))?( =.*)?;");
    EXPECT_EQ(names_in_sources("static", kept, ".cpp"), (std::vector<std::string>{"all", "out"}));
    EXPECT_EQ(names_in_sources("static", kept, ".h"), std::vector<std::string>{});
}

TEST_F(new_analysis_test, no_variable_stands_outside_modules) {
    const std::regex kept("^(?!using |namespace |enum |extern |(?:template <[^>]*> )?(?:const|constexpr|inline) )"
                          "[^ (/#}][^()=]* ([a-z0-9_]+)( = .*|\\{.*\\})?;$");
    EXPECT_EQ(names_in_sources(";", kept, ".cpp"), std::vector<std::string>{"signal_seen"}); // by a handler
}

TEST_F(new_analysis_test, modules_and_kernels_start_anew) {
    set_up(one_trait_model());
    program_logl(estimates.parvec);
    kernels.choice = kernel_kind::supernodes;
    ASSERT_TRUE(supernodes_wanted());
    ASSERT_GT(numbers.nsrow, 0);
    ASSERT_TRUE(sparse.diag.allocated());
    outputs.failed = "x";
    new_analysis();
    EXPECT_EQ(kernels.choice, kernel_kind::automatic);
    EXPECT_EQ(numbers.nsrow, 0);
    EXPECT_FALSE(sparse.diag.allocated());
    EXPECT_EQ(estimates.nparm, 0);
    EXPECT_TRUE(options.emalgorithm);
    EXPECT_TRUE(outputs.failed.empty());
    EXPECT_FALSE(supernodes_wanted());
}

TEST_F(new_analysis_test, run_halts_behind_the_stage) {
    one_trait_model().write_files("model");
    const char* arguments[] = {"tarvex", "--aireml", "model"};
    EXPECT_FALSE(run_to(run_stage::model, 3, arguments));
    EXPECT_EQ(numbers.nq, 1);
    EXPECT_FALSE(file_exists("nrminvers1.bin"));
    new_analysis();
    EXPECT_FALSE(run_to(run_stage::data, 3, arguments));
    EXPECT_TRUE(file_exists("nrminvers1.bin"));
    EXPECT_FALSE(file_exists("recoded1.bin"));
    new_analysis();
    EXPECT_FALSE(run_to(run_stage::equations, 3, arguments));
    EXPECT_EQ(estimates.nparm, 2);
    EXPECT_FALSE(sparse.diag.allocated());
    new_analysis();
    EXPECT_FALSE(run_to(run_stage::stores, 3, arguments));
    EXPECT_TRUE(sparse.diag.allocated());
    EXPECT_FALSE(file_exists("SumEstimates.out"));
    new_analysis();
    EXPECT_EQ(run_to(run_stage::reports, 3, arguments), "\"Tarvex\" done");
    EXPECT_TRUE(file_exists("SumEstimates.out"));
}

TEST_F(new_analysis_test, kinds_of_run_end_early) {
    one_trait_model().write_files("model");
    for (const char* option : {"--limit", "--setup", "--blup"}) {
        new_analysis();
        const char* arguments[] = {"tarvex", option, "model"};
        const auto end = run_to(run_stage::reports, 3, arguments);
        EXPECT_EQ(end, std::string(option) == "--setup" ? "" : "\"Tarvex\" done") << option; // it is verbose
        EXPECT_FALSE(file_exists("SumEstimates.out"));
    }
}

TEST_F(new_analysis_test, runs_in_a_directory_with_a_screen_of_its_own) {
    namespace fs = std::filesystem;
    fs::create_directory("there");
    fs::current_path("there");
    one_trait_model().write_files("model");
    fs::current_path("..");
    std::ostringstream lines;
    const char* arguments[] = {"tarvex", "--blup", "model"};
    EXPECT_EQ(run_phases(3, arguments, {"there", &lines}), 0);
    EXPECT_TRUE(file_exists("there/Residuals.dat"));
    EXPECT_FALSE(file_exists("Residuals.dat"));
    EXPECT_TRUE(lines.str().ends_with("\n\"Tarvex\" has finished !\n\"Tarvex\" done\n")) << lines.str();
    EXPECT_EQ(screen_text(), "");
    screen().line("here");
    EXPECT_EQ(screen_text(), "here\n");
}

TEST_F(new_analysis_test, faults_are_a_status_and_a_line) {
    const char* arguments[] = {"tarvex", "nothing"};
    std::ostringstream lines;
    EXPECT_EQ(run_phases(2, arguments, {"", &lines}), 1);
    EXPECT_TRUE(lines.str().ends_with("exit \"Tarvex\"\n")) << lines.str();
    EXPECT_EQ(run_phases(2, arguments, {"no such place", nullptr}), 1);
    EXPECT_EQ(screen_text(), "Cannot work in directory \"no such place\"\n");
}

} // namespace
