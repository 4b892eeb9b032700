// All searches and their settings lead to the same maximum.
#include "case_run.h"
#include "population.h"

using namespace tarvex;

namespace {

class algorithms : public case_run {
protected:
    void SetUp() override {
        name_ = "model";
        const auto p = make_population(250, 2, 1, 0.2, 41);
        write_file("ped.dat", p.pedigree());
        write_file("data.dat", p.all_traits_lines());
        parameters("MUV 2", "VAR animal 2\n 4.5 1.5 3.5\n");
        finish("--aireml200,1e-9");
        maximum_ = read_best_point();
        std::filesystem::remove("BestPoint");
    }
    static void parameters(const std::string& analysis, const std::string& animal) {
        write_file("model.par",
                   "PED ped.dat\nANA " + analysis +
                       "\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y1\n y2\nEND\n"
                       "MOD EQ\n FIX herd\n COV age(1,POL)\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n" +
                       animal + "VAR residual 2\n 6.0 0.5 5.5\n");
    }
    void expect_maximum(const std::string& options, double in_loglike = 1e-4, double relative = 0.01) const {
        SCOPED_TRACE(options);
        std::filesystem::remove("BestPoint");
        finish(options);
        expect_best(maximum_, in_loglike, relative);
    }
    static std::size_t count(const std::vector<iterate>& list, const std::string& kind) {
        return static_cast<std::size_t>(
            std::count_if(list.begin(), list.end(), [&](const auto& i) { return i.kind == kind; }));
    }

    best_point maximum_;
};

TEST_F(algorithms, step_control) {
    for (int i = 0; i <= 5; ++i) expect_maximum("--aireml100,1e-8 --modaim" + std::to_string(i));
}

TEST_F(algorithms, scales) {
    for (const char* option : {"--logdia", "--nologd", "--noreord", "--reconst", "--norecon", "--forchol", "--nostrict",
                               "--strictai", "--nooptai", "--zero10", "--zero6", "--super", "--mmmpdst", "--nommmpd"}) {
        std::filesystem::remove("nrminvers1.bin"); // the factor of the relationship matrix needs inbreeding of this run
        expect_maximum("--aireml100,1e-8 " + std::string(option));
    }
}

TEST_F(algorithms, orderings) {
    for (const char* option : {"--amd", "--mmd", "--metis", "--metis3,1,1,1", "--metisall"}) {
        for (const char* file : {"adjacency.bin", "eqnsorder.bin", "symbfact.bin"}) std::filesystem::remove(file);
        expect_maximum("--aireml100,1e-8 " + std::string(option));
    }
}

TEST_F(algorithms, every_round_of_em_gains) {
    for (const std::string kind : {"EM", "PX"}) {
        std::filesystem::remove("BestPoint");
        const auto list = iterates_of(finish(kind == "EM" ? "--emalg30" : "--pxem30").output);
        EXPECT_EQ(count(list, kind), list.size());
        ASSERT_EQ(list.size(), 31u);
        for (std::size_t i = 1; i < list.size(); ++i)
            EXPECT_GE(list[i].loglike, list[i - 1].loglike - 1e-6) << kind << " round " << i;
        EXPECT_LE(list.back().loglike, maximum_.loglike + 1e-4);
        EXPECT_GE(list.back().loglike, maximum_.loglike - 0.5);
    }
}

TEST_F(algorithms, em_and_px_em_reach_the_maximum) {
    const auto rounds_to_maximum = [&](const std::string& options) {
        std::filesystem::remove("BestPoint");
        const auto list = iterates_of(finish(options).output);
        EXPECT_NEAR(read_best_point().loglike, maximum_.loglike, 1e-3) << options;
        return list.size();
    };
    const auto em = rounds_to_maximum("--emalg2000,1e-6"), px = rounds_to_maximum("--pxem2000,1e-6");
    EXPECT_LE(px, em);
}

TEST_F(algorithms, mixtures_of_em_and_ai_reml) {
    for (const char* options :
         {"--pxai", "--emai", "--pxai5,50,1e-7", "--emai5,50,1e-7", "--good", "--bad", "--cycle2"}) {
        SCOPED_TRACE(options);
        std::filesystem::remove("BestPoint");
        finish(options);
        EXPECT_NEAR(read_best_point().loglike, maximum_.loglike, 1e-3);
    }
    std::filesystem::remove("BestPoint");
    const auto list = iterates_of(finish("--pxai3,50,1e-7").output);
    EXPECT_GE(count(list, "PX"), 1u);
    EXPECT_GE(count(list, "AI"), 2u);
}

TEST_F(algorithms, principal_components_at_full_rank) {
    parameters("MUV PC 2", "VAR animal 2 2\n 4.5 1.5 3.5\n");
    expect_maximum("--aireml100,1e-8");
    for (const char* options : {"", "--pxai3,100,1e-8", "--emai3,100,1e-8"}) {
        SCOPED_TRACE(options);
        std::filesystem::remove("BestPoint");
        finish(options);
        EXPECT_NEAR(read_best_point().loglike, maximum_.loglike, 1e-3);
    }
}

TEST_F(algorithms, reduced_rank_reaches_one_maximum_by_all_ways) {
    parameters("MUV PC 2", "VAR animal 2 1\n 4.5 1.5 3.5\n");
    std::filesystem::remove("nrminvers1.bin"); // the factor of the relationship matrix needs inbreeding of its run
    finish("--aireml200,1e-9");
    const auto best = read_best_point();
    EXPECT_LE(best.loglike, maximum_.loglike);
    EXPECT_EQ(best.nparm, 5);
    ASSERT_EQ(best.values.size(), 6u);
    EXPECT_NEAR(best.values[4] * best.values[4], best.values[3] * best.values[5], 1e-8); // of rank 1
    for (const char* options : {"--emai3,100,1e-8", "--pxai3,100,1e-8", "--emalg1000,1e-7", "--pxem1000,1e-7"}) {
        SCOPED_TRACE(options);
        std::filesystem::remove("BestPoint");
        finish(options);
        EXPECT_NEAR(read_best_point().loglike, best.loglike, 5e-3);
    }
}

TEST_F(algorithms, search_without_derivatives) {
    write_file("model.par",
               "PED ped.dat\nANA UNI\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n"
               " y1\n y2\nEND\nMOD\n FIX herd\n RAN animal NRM\n TR y1 1 -999\nEND\nVAR animal 1\n 2.0\n"
               "VAR residual 1\n 9.0\n");
    finish("--aireml200,1e-9");
    const auto best = read_best_point();
    std::filesystem::remove("BestPoint");
    finish("--powell");
    EXPECT_NEAR(read_best_point().loglike, best.loglike, 0.002);
}

TEST_F(algorithms, empty_searches_report_the_starting_point) {
    for (const char* option : {"--simplex", "--pownew --pxai"}) {
        std::filesystem::remove("BestPoint");
        finish(option);
        EXPECT_EQ(read_best_point().values.size(), 6u);
    }
    std::filesystem::remove("BestPoint");
    finish("--simplex");
    const std::vector<double> given{6.0, 0.5, 5.5, 4.5, 1.5, 3.5};
    for (std::size_t i = 0; i < given.size(); ++i) EXPECT_NEAR(read_best_point().values.at(i), given[i], 1e-10);
}

// From poor starting values the safe beginning leads to the maximum as well.
TEST_F(algorithms, poor_starting_values) {
    parameters("MUV 2", "VAR animal 2\n 0.1 0.0 40.0\n");
    for (const char* options : {"--aireml200,1e-8", "--pxai5,100,1e-8", "--bad", "--sure"}) {
        SCOPED_TRACE(options);
        std::filesystem::remove("BestPoint");
        const auto list = iterates_of(finish(options).output);
        EXPECT_NEAR(read_best_point().loglike, maximum_.loglike, 1e-3);
        EXPECT_EQ(count(list, "PX") > 0, options[2] == 'p') << "--bad has no rounds below 18 parameters";
    }
}

// The bundled population of three traits: estimates within three standard errors of the matrices behind the data.
TEST_F(case_run, bundled_population_comes_out_near_the_truth) {
    ASSERT_TRUE(bring("mt3"));
    finish("");
    std::vector<double> truth;
    for (const char* block : {"residual", "animal"})
        for (const auto& line : lines_of(read_file("truth.txt"))) {
            const auto words = words_of(line);
            if (words.empty() || words[0] != block) continue;
            for (std::size_t i = 2; i < words.size(); ++i) truth.push_back(number_of(words[i]));
        }
    const auto lines = read_estimates();
    ASSERT_EQ(truth.size(), 12u);
    ASSERT_GE(lines.size(), truth.size());
    for (std::size_t i = 0; i < truth.size(); ++i) {
        EXPECT_GT(lines[i].error, 0.0) << lines[i].name;
        EXPECT_NEAR(lines[i].value, truth[i], 3.0 * lines[i].error) << lines[i].name;
    }
}

} // namespace
