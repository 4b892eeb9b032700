// Tests of effects and many runs through Snakemake.
#include "tvx/herd.h"

#include <cstdlib>
#include <nlohmann/json.hpp>

namespace {

using namespace tvx_tests;
using nlohmann::json;

class tvx_jobs : public herd_run {
protected:
    static bool snakemake() { return std::system("command -v snakemake >/dev/null 2>&1") == 0; }
};

TEST_F(tvx_jobs, test_of_an_effect_is_that_of_dense_algebra) {
    ASSERT_NO_FATAL_FAILURE(fit("milk ~ herd + nrm(animal) + (1|pen)"));
    const auto r = run_tvx({"--json", "lrt", run, "--drop", "animal"});
    ASSERT_EQ(r.status, 0) << r.output;
    const json t = json::parse(r.output);
    const auto variances = [](const std::string& folder) { // of the analysis, in the user's units
        EXPECT_EQ(run_tvx({"--quiet", "report", folder}).status, 0);
        std::map<std::string, double> v;
        for (const auto& e : read_table(folder + "/report/estimates.tsv"))
            v[e.at("effect")] = std::stod(e.at("estimate"));
        return v;
    };
    auto large = variances(run), small = variances(t["small"]);
    const dense_herd dense(herd);
    const double statistic = 2.0 * (dense.at(large["animal"], large["residual"], large["pen"]).logl -
                                    dense.at(0.0, small["residual"], small["pen"]).logl);
    EXPECT_NEAR(t["statistic"].get<double>(), std::max(0.0, statistic), 1e-4 * (1.0 + statistic));
    EXPECT_EQ(t["df"], 1);
    EXPECT_NEAR(t["p"].get<double>(), 0.5 * std::erfc(std::sqrt(0.5 * t["statistic"].get<double>())), 1e-12);
    EXPECT_FALSE(t["upper_bound"].get<bool>());
    EXPECT_EQ(run_tvx({"lrt", run, run}).status, 1); // no more parameters
    EXPECT_EQ(run_tvx({"lrt", run, "--drop", "nothing"}).status, 1);
}

TEST_F(tvx_jobs, simulated_sets_give_the_level_of_a_test) {
    if (!snakemake()) GTEST_SKIP() << "no Snakemake here";
    ASSERT_NO_FATAL_FAILURE(fit("milk ~ herd + nrm(animal) + (1|pen)"));
    const auto r = run_tvx({"--json", "lrt", run, "--drop", "pen", "--boot", "9", "-j", "2"});
    ASSERT_EQ(r.status, 0) << r.output;
    const json t = json::parse(r.output);
    const std::string folder = t["small"].get<std::string>() + "/lrt/";
    int beyond = 0, used = 0;
    double last = 0.0;
    for (int i = 1; i <= 9; ++i) {
        const auto log_l = [&](const std::string& which) -> double {
            return json::parse(read_file(folder + which + std::to_string(i) + "/Results.json"))["likelihood"]["log_l"];
        };
        const double small = log_l("small"), large = log_l("large");
        EXPECT_GT(large, small - 1e-3) << i; // nested
        EXPECT_NE(small, last) << "each set is another";
        last = small;
        ++used;
        if (2.0 * (large - small) >= t["statistic"].get<double>() - 1e-6) ++beyond;
    }
    EXPECT_EQ(t["boot"]["sets"], used);
    EXPECT_NEAR(t["boot"]["p"].get<double>(), (beyond + 1.0) / (used + 1.0), 1e-12);
}

TEST_F(tvx_jobs, bootstrap_spreads_around_the_estimates) {
    ASSERT_NO_FATAL_FAILURE(fit());
    if (!snakemake()) GTEST_SKIP() << "no Snakemake here";
    const auto r = run_tvx({"boot", run, "-n", "6", "-j", "2"});
    ASSERT_EQ(r.status, 0) << r.output << read_file(run + "/boot/snakemake.log");
    for (const auto& row : read_table(run + "/boot/boot.tsv")) {
        const double se = std::stod(row.at("boot_se")), mean = std::stod(row.at("boot_mean"));
        EXPECT_GT(se, 0.0);
        EXPECT_NEAR(mean, std::stod(row.at("estimate")), 4.0 * se) << row.at("effect");
        EXPECT_LE(std::stod(row.at("low95")), mean);
        EXPECT_GE(std::stod(row.at("high95")), mean);
    }
    // The same command again does nothing anew, more replicates only the new ones.
    const auto first = fs::last_write_time(run + "/boot/rep1/done");
    ASSERT_EQ(run_tvx({"--quiet", "boot", run, "-n", "8", "-j", "2"}).status, 0);
    EXPECT_EQ(fs::last_write_time(run + "/boot/rep1/done"), first);
    EXPECT_TRUE(fs::exists(run + "/boot/rep8/done"));
    // Other data are other runs.
    const std::string results = read_file(run + "/boot/rep1/Results.json");
    ASSERT_EQ(run_tvx({"--quiet", "boot", run, "-n", "2", "-j", "2", "--seed", "5"}).status, 0);
    EXPECT_NE(json::parse(read_file(run + "/boot/rep1/Results.json"))["likelihood"],
              json::parse(results)["likelihood"]);
    // What is done is not done again, what is missing is.
    const auto before = fs::last_write_time(run + "/boot/rep1/done");
    fs::remove(run + "/boot/rep2/done");
    EXPECT_EQ(
        std::system(
            ("cd " + run + "/boot && snakemake -s Snakefile -j 1 --rerun-triggers mtime >/dev/null 2>&1").c_str()),
        0);
    EXPECT_EQ(fs::last_write_time(run + "/boot/rep1/done"), before);
    EXPECT_TRUE(fs::exists(run + "/boot/rep2/done"));
}

} // namespace
