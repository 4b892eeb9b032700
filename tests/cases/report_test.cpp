// Sections of the estimates report by kind of run.
#include "case_run.h"

#include "population.h"

using namespace tarvex;

namespace {

class report_test : public case_run {
protected:
    void SetUp() override {
        name_ = "model";
        p_ = make_population(120, 2, 1, 0.1, 97);
        write_file("ped.dat", p_.pedigree());
        write_file("data.dat", p_.all_traits_lines());
        write_file("model.par", "PED ped.dat\nANA MUV 2\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n "
                                "parity 3\n age 40\n y1\n y2\n"
                                "END\nMOD EQ\n FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n"
                                "VAR animal 2\n 4.0 2.0 4.0\nVAR residual 2\n 6.0 0.5 6.0\n");
    }
    static bool has(const std::string& words) { return read_file("SumEstimates.out").find(words) != std::string::npos; }
    population p_;
};

TEST_F(report_test, without_ai_reml_there_are_no_errors_and_no_criteria) {
    finish("--aireml100");
    EXPECT_TRUE(has(" Parameter estimates with approx. sampling erors\n"));
    EXPECT_TRUE(has("\n Convergence criteria for last 3 iterates\n"));
    EXPECT_FALSE(has("Full convergence has not been achieved"));
    for (const char* options : {"--pxem20", "--emalg20", "--powell"}) { // AvInfoParms of the first run lies there
        std::filesystem::remove("BestPoint");
        finish(options);
        EXPECT_TRUE(has("\n Parameter estimates\n")) << options;
        EXPECT_FALSE(has("sampling er")) << options;
        EXPECT_FALSE(has("Convergence criteria")) << options;
        EXPECT_FALSE(has("... not estimated")) << options;
        const double aic = labelled("SumEstimates.out", "-1/2 AIC & AICC"),
                     log_l = labelled("SumEstimates.out", "Maximum log L");
        EXPECT_NEAR(aic, log_l - 6.0, 0.0011) << options; // all parameters count
    }
}

TEST_F(report_test, iterations_that_ran_out_are_told) {
    finish("--aireml1,1e-12");
    EXPECT_TRUE(has("\n*** \"Tarvex\" : Full convergence has not been achieved \n               Treat results with "
                    "caution !!!  \n"));
}

TEST_F(report_test, best_point_has_no_errors) {
    finish("--aireml100");
    const double best = read_best_point().loglike;
    finish("--best");
    const std::string text = read_file("BestSoFar.out");
    EXPECT_NE(text.find("\n Parameter estimates\n"), std::string::npos);
    EXPECT_NEAR(labelled("BestSoFar.out", "Maximum log L so far"), best, 0.0006);
    EXPECT_EQ(text.find("No. of levels"), std::string::npos);
    EXPECT_EQ(text.find("AIC"), std::string::npos);
}

TEST_F(report_test, reports_that_cannot_be_written_are_faults) {
    for (const char* name :
         {"FixSolutions.out", "RnSoln_animal.dat", "Residuals.dat", "SumEstimates.out", "SumModel.out"}) {
        std::filesystem::remove(name);
        std::filesystem::create_directory(name);
        const auto result = run("--aireml2");
        EXPECT_EQ(result.status, 1) << name;
        EXPECT_NE(result.output.find("Error opening file \"" + std::string(name) + "\"\n"), std::string::npos)
            << result.output;
        std::filesystem::remove(name);
    }
    finish("--aireml2");
}

// Units of the traits change the estimates and their errors, and nothing else.
TEST_F(report_test, errors_follow_the_units) {
    finish("--aireml100,1e-10");
    const auto before = read_estimates();
    auto q = p_;
    for (auto& r : q.records)
        if (r.y[0] != population::missing) r.y[0] *= 100.0;
    write_file("data.dat", q.all_traits_lines());
    std::string text = read_file("model.par");
    text.replace(text.find("4.0 2.0 4.0"), 11, "4e4 200 4.0");
    text.replace(text.find("6.0 0.5 6.0"), 11, "6e4 50. 6.0");
    write_file("model.par", text);
    std::filesystem::remove("BestPoint");
    finish("--aireml100,1e-10");
    const auto after = read_estimates();
    ASSERT_EQ(before.size(), after.size());
    ASSERT_EQ(before.size(), 9u);
    const double factor[] = {1e4, 1e2, 1};
    for (std::size_t i = 0; i < before.size(); ++i) {
        EXPECT_NEAR(after[i].value, factor[i % 3] * before[i].value,
                    2e-3 * std::fabs(after[i].value) + 1e-3 * factor[i % 3])
            << i;
        EXPECT_NEAR(after[i].error, factor[i % 3] * before[i].error, 2e-3 * after[i].error) << i;
        if (i < 6) {
            EXPECT_NEAR(after[i].ratio_error, before[i].ratio_error, 0.0021) << i;
        }
    }
}

} // namespace
