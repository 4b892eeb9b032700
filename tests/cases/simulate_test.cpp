// Simulated data on the structure of given ones, and estimates from them.
#include "case_run.h"
#include "population.h"

using namespace tarvex;

namespace {

class Simulate : public CaseRun {
protected:
    void SetUp() override {
        name_ = "model";
        p_ = make_population(500, 2, 1, 0.2, 61);
        write_file("ped.dat", p_.pedigree());
        write_file("data.dat", p_.all_traits_lines());
        parameters("model.par", "data.dat", "", "y");
        write_file("RandomSeeds", "12345 67890\n");
    }
    static void parameters(const std::string& file, const std::string& data, const std::string& columns, const std::string& trait) {
        write_file(file, "PED ped.dat\nANA MUV 2\nDAT " + data +
                             "\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y1\n y2\n" + columns +
                             "END\nMOD EQ\n FIX herd\n RAN animal NRM\n TR " + trait + "1 1 -999\n TR " + trait +
                             "2 2 -999\nEND\nVAR animal 2\n 4.0 2.0 5.0\nVAR residual 2\n 6.0 1.0 5.0\n");
    }
    population p_;
};

TEST_F(Simulate, LinesOfTheDataGetNewValues) {
    finish("--simul2");
    const auto given = lines_of(read_file("data.dat"));
    const auto simulated = lines_of(read_file("SimData001.dat"));
    ASSERT_EQ(simulated.size(), given.size());
    EXPECT_NE(read_file("SimData001.dat"), read_file("SimData002.dat"));
    EXPECT_FALSE(std::filesystem::exists("SimData003.dat"));
    for (std::size_t i = 0; i < given.size(); ++i) {
        const auto old = words_of(given[i]), now = words_of(simulated[i]);
        ASSERT_EQ(old.size() + 2, now.size()) << simulated[i];
        for (std::size_t k = 0; k < old.size(); ++k) EXPECT_NEAR(number_of(now[k]), number_of(old[k]), 1e-6) << simulated[i];
        for (std::size_t t = 0; t < 2; ++t)
            EXPECT_EQ(number_of(old[6 + t]) == -999.0, number_of(now[8 + t]) == -999.0) << simulated[i];
    }
}

TEST_F(Simulate, SameSeedsGiveTheSameFiles) {
    finish("--simul2");
    const std::string first = read_file("SimData001.dat"), seeds = read_file("RandomSeeds");
    EXPECT_NE(words_of(seeds), words_of("12345 67890"));
    std::filesystem::remove("nrminvers1.bin");
    finish("--simul2"); // from the advanced seeds
    EXPECT_NE(read_file("SimData001.dat"), first);
    std::filesystem::remove("nrminvers1.bin");
    write_file("RandomSeeds", "12345 67890\n");
    finish("--simul2");
    EXPECT_EQ(read_file("SimData001.dat"), first);
    EXPECT_EQ(read_file("RandomSeeds"), seeds);
}

TEST_F(Simulate, WithoutReadableSeedsTheClockSetsThem) {
    for (const char* text : {"abc def\n", "12345\n", "0 5\n", ""}) {
        write_file("RandomSeeds", text);
        std::filesystem::remove("nrminvers1.bin");
        const auto result = finish("--simul");
        EXPECT_NE(result.output.find("Error reading random seeds from \"RandomSeeds\""), std::string::npos) << result.output;
        EXPECT_NE(result.output.find(" ... switching to initialisation from clock"), std::string::npos);
        EXPECT_EQ(words_of(read_file("RandomSeeds")).size(), 2u);
    }
}

TEST_F(Simulate, EffectsThatCannotBeSimulatedAreRefused) {
    std::string text = read_file("model.par");
    text.replace(text.find("RAN animal NRM"), 14, "RAN animal NRM\n RAN perm PEQ");
    write_file("model.par", text + "VAR perm 2\n 1.0 0.1 1.0\n");
    EXPECT_EQ(run("--simul").status, 1);
    EXPECT_FALSE(std::filesystem::exists("SimData001.dat"));
}

// The mean of the estimates of some replicates lies within three standard errors of the truth.
TEST_F(Simulate, EstimatesComeBackToTheTruth) {
    constexpr int replicates = 6;
    finish("--simul" + std::to_string(replicates));
    name_ = "again";
    const std::vector<double> truth{6.0, 1.0, 5.0, 4.0, 2.0, 5.0};
    std::vector<double> mean(truth.size()), error(truth.size());
    for (int r = 1; r <= replicates; ++r) {
        const std::string data = "SimData00" + std::to_string(r) + ".dat";
        parameters("again.par", data, " s1\n s2\n", "s");
        std::filesystem::remove("BestPoint");
        finish("--aireml50");
        const auto best = read_best_point();
        const auto lines = read_estimates();
        ASSERT_EQ(best.values.size(), truth.size());
        ASSERT_GE(lines.size(), truth.size());
        for (std::size_t i = 0; i < truth.size(); ++i) {
            mean[i] += best.values[i] / replicates;
            error[i] += std::fabs(lines[i].error) / replicates;
        }
    }
    for (std::size_t i = 0; i < truth.size(); ++i) EXPECT_NEAR(mean[i], truth[i], 3.0 * error[i] / std::sqrt(replicates)) << i + 1;
}

} // namespace
