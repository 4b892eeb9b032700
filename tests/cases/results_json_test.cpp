// Results.json against the reports of the same run, the average information on file, and dense algebra.
#include "case_run.h"

#include "population.h"
#include "support/dense_oracle.h"

#include <cstdio>
#include <set>
#include <xxhash.h>

using namespace tarvex;

namespace {

class results_json : public case_run {
protected:
    void SetUp() override {
        name_ = "model";
        p_ = make_population(120, 2, 1, 0.1, 97);
        write_file("ped.dat", p_.pedigree());
        write_file("data.dat", p_.all_traits_lines());
        write_file("model.par", parameters());
    }
    static std::string parameters(const std::string& end = "") {
        return "COM two \"traits\"\nPED ped.dat\nANA MUV 2\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n "
               "parity 3\n age 40\n y1\n y2\nEND\nMOD EQ\n FIX herd\n COV age(2,POL)\n RAN animal NRM\n TR y1 1 -999\n "
               "TR y2 2 -999\nEND\nVAR animal 2\n 4.0 2.0 4.0\nVAR residual 2\n 6.0 0.5 6.0\n" +
               end;
    }
    json results(const std::string& options) {
        finish(options);
        return read_json(read_file("Results.json"));
    }
    population p_;
};

TEST_F(results_json, only_on_demand_and_nothing_else_changes) {
    finish("--aireml100");
    EXPECT_FALSE(std::filesystem::exists("Results.json"));
    std::map<std::string, std::string> before;
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("."))
        before[entry.path().filename()] = read_file(entry.path().filename());
    const auto screen_before = run("--aireml100").output;
    std::vector<std::filesystem::path> made;
    for (const auto& entry : std::filesystem::directory_iterator("."))
        if (const std::string name = entry.path().filename();
            name != "ped.dat" && name != "data.dat" && name != "model.par")
            made.push_back(entry.path());
    for (const auto& path : made) std::filesystem::remove(path);
    const auto first = run("--aireml100 --json");
    EXPECT_EQ(first.status, 0);
    for (const auto& entry : std::filesystem::directory_iterator(".")) names.insert(entry.path().filename());
    EXPECT_TRUE(names.erase("Results.json"));
    ASSERT_EQ(names.size(), before.size());
    for (const auto& [name, text] : before) {
        std::string a = text, b = read_file(name);
        if (name.ends_with(".out")) { // the last line holds the time
            a.resize(a.rfind('=', a.size() - 60));
            b.resize(std::min(b.size(), a.size()));
        }
        if (name == "Iterates" || name == ".tarvex.lock") continue; // hold seconds and the process; iterates: see below
        EXPECT_TRUE(a == b) << name;
    }
    EXPECT_EQ(run("--aireml100 --json").output, screen_before);
}

TEST_F(results_json, estimates_are_those_of_the_report_and_of_the_best_point) {
    const json d = results("--aireml100 --json");
    const auto lines = read_estimates();
    const auto& functions = d["functions"].items;
    ASSERT_EQ(lines.size(), 9u);
    ASSERT_EQ(functions.size(), 9u);
    for (std::size_t i = 0; i < 9; ++i) {
        const json& f = functions[i];
        EXPECT_NEAR(f["estimate"].number, lines[i].value, 5e-6 * std::fabs(lines[i].value) + 1e-9) << i;
        EXPECT_NEAR(f["se"].number, lines[i].error, 5e-6 * lines[i].error) << i;
        if (lines[i].what.empty()) {
            EXPECT_EQ(f["ratio"].is, json::none) << i; // the variance of a phenotype
            continue;
        }
        EXPECT_NEAR(f["ratio"].number, lines[i].ratio, 5.01e-4) << i;
        EXPECT_NEAR(f["ratio_se"].number, lines[i].ratio_error, 5.01e-4) << i;
    }
    const auto best = read_best_point();
    EXPECT_EQ(d["likelihood"]["log_l"].number, best.loglike);
    ASSERT_EQ(d["estimates"].size(), 6u);
    for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(d["estimates"][i]["estimate"].number, best.values[i]) << i;
    EXPECT_EQ(d["traits"][0]["name"].text, "y1");
    EXPECT_EQ(d["run"]["comment"].text, "two \"traits\"");
    EXPECT_EQ(d["blocks"][1]["name"].text, "animal");
    EXPECT_EQ(d["blocks"][1]["rows"][1]["trait"].number, 2.0);
    EXPECT_EQ(d["likelihood"]["parameters"].number, 6.0);
}

TEST_F(results_json, covariance_of_the_estimates_is_the_inverse_information) {
    const json d = results("--aireml100,1e-12 --json");
    const auto& rows = d["covariance_of_estimates"].items;
    ASSERT_EQ(rows.size(), 6u);
    const triangle printed = read_triangle("AvInfoCovs");
    for (std::size_t i = 0; i < 6; ++i)
        for (std::size_t j = 0; j <= i; ++j) EXPECT_EQ(rows[i][j].number, printed.rows[i][j]) << i << " " << j;
    std::vector<std::vector<double>> info(6, std::vector<double>(6)); // as the last point has it
    for (std::size_t i = 0; i < 6; ++i)
        for (std::size_t j = 0; j <= i; ++j) info[i][j] = info[j][i] = d["end"]["information"][i][j].number;
    const auto inverse = oracle::inverse(info);
    for (std::size_t i = 0; i < 6; ++i)
        for (std::size_t j = 0; j <= i; ++j)
            EXPECT_NEAR(rows[i][j].number, inverse[i][j], 1e-6 * std::sqrt(inverse[i][i] * inverse[j][j]));
}

TEST_F(results_json, iterates_are_those_on_the_screen_and_the_end_is_told) {
    const auto shown = iterates_of(finish("--aireml100 --json").output);
    json d = read_json(read_file("Results.json"));
    ASSERT_EQ(d["iterates"].size(), shown.size());
    for (std::size_t i = 0; i < shown.size(); ++i) {
        EXPECT_EQ(d["iterates"][i]["method"].text, shown[i].kind);
        EXPECT_EQ(d["iterates"][i]["round"].number, shown[i].round);
        EXPECT_NEAR(d["iterates"][i]["log_l"].number, shown[i].loglike, 1e-6 * std::fabs(shown[i].loglike));
    }
    EXPECT_EQ(d["end"]["converged"].number, 1.0);
    EXPECT_LT(d["end"]["half_decrement"].number, 1e-3);
    EXPECT_EQ(d["end"]["reason"].text.find("limit of"), std::string::npos);
    std::filesystem::remove("BestPoint");
    d = results("--aireml1,1e-12 --json");
    EXPECT_EQ(d["end"]["converged"].number, 0.0);
    EXPECT_EQ(d["end"]["reason"].text, "limit of iterates");
    EXPECT_GT(d["end"]["half_decrement"].number, 1e-3);
}

// A plan of two methods hands over through the stored point, and is one run for all that.
TEST_F(results_json, run_is_continued_where_the_option_says_so) {
    EXPECT_FALSE(results("--pxai2,100 --json")["run"]["continued"].number != 0.0);
    EXPECT_TRUE(results("-c --json")["run"]["continued"].number != 0.0);
}

TEST_F(results_json, solutions_are_those_of_the_reports) {
    finish("--aireml100");
    const json d = results("-c --blup --json");
    EXPECT_EQ(d["run"]["kind"].text, "blup");
    EXPECT_EQ(d["likelihood"]["log_l"].is, json::none);
    const json& random = d["solutions"]["random"][0];
    const auto lines = read_random_solutions("animal");
    ASSERT_EQ(random["solutions"].size(), lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(random["codes"][i / 2].number, static_cast<double>(lines[i].code));
        EXPECT_NEAR(random["solutions"][i].number, lines[i].solution, 5e-6 * std::fabs(lines[i].solution) + 1e-12);
        EXPECT_NEAR(random["se"][i].number, lines[i].error, 5e-6 * lines[i].error);
    }
    const auto fixed = read_fixed_solutions();
    std::size_t level = 0, coefficient = 0;
    for (const json& part : d["solutions"]["fixed"].items)
        for (std::size_t k = 0; k < part["solutions"].size(); ++k) {
            const double want = part["kind"].text == "covariable" ? fixed.covariables.at(coefficient++).solution
                                                                  : fixed.levels.at(level++).solution;
            EXPECT_NEAR(part["solutions"][k].number, want, 5e-6 * std::fabs(want) + 1e-12) << part["effect"].text;
        }
    EXPECT_EQ(level, fixed.levels.size());
    EXPECT_EQ(coefficient, fixed.covariables.size());
}

TEST_F(results_json, sums_are_those_of_the_bytes_of_the_inputs) {
    const json d = results("--aireml2 --json");
    ASSERT_EQ(d["inputs"].size(), 3u);
    for (const json& input : d["inputs"].items) {
        const std::string text = read_file(input["name"].text);
        EXPECT_EQ(input["bytes"].number, static_cast<double>(text.size()));
        XXH128_canonical_t bytes;
        XXH128_canonicalFromHash(&bytes, XXH3_128bits(text.data(), text.size()));
        std::string hex;
        for (const unsigned char c : bytes.digest) {
            char two[3];
            std::snprintf(two, sizeof two, "%02x", c);
            hex += two;
        }
        EXPECT_EQ(input["xxh3_128"].text, hex) << input["name"].text;
    }
    EXPECT_EQ(d["run"]["pedigree_file"].text, "ped.dat");
}

TEST_F(results_json, best_point_alone_has_estimates_and_no_errors) {
    finish("--aireml100");
    const json d = results("--best --json");
    EXPECT_EQ(d["run"]["kind"].text, "best point");
    EXPECT_EQ(d["estimates"].size(), 6u);
    EXPECT_EQ(d["covariance_of_estimates"].is, json::none);
    EXPECT_EQ(d["likelihood"]["log_l"].number, read_best_point().loglike);
}

TEST_F(results_json, earlier_results_are_not_left_behind_a_stop) {
    finish("--aireml2 --json");
    write_file("data.dat", "1 1 0 9 1 20 1.0 2.0\n"); // herd 9 of 4
    EXPECT_EQ(run("--aireml2 --json").status, 1);
    EXPECT_FALSE(std::filesystem::exists("Results.json"));
}

TEST_F(results_json, user_functions_are_those_of_the_report) {
    write_file("model.par", parameters("SE+\n SUM phen 1 4\n VRA herit 4 7\n COR rg 5 4 6\nEND\n"));
    const json d = results("--aireml100,1e-12 --json");
    const auto best = read_best_point();
    ASSERT_EQ(d["user_functions"].size(), 3u);
    EXPECT_EQ(d["user_functions"][0]["estimate"].number, best.values[0] + best.values[3]);
    EXPECT_NEAR(d["user_functions"][1]["estimate"].number, best.values[3] / (best.values[0] + best.values[3]), 1e-14);
    EXPECT_NEAR(d["user_functions"][2]["estimate"].number, best.values[4] / std::sqrt(best.values[3] * best.values[5]),
                1e-14);
    EXPECT_NEAR(d["user_functions"][1]["se"].number, d["functions"][3]["ratio_se"].number, 1e-12);
    EXPECT_NEAR(d["user_functions"][2]["se"].number, d["functions"][4]["ratio_se"].number, 1e-12);
}

TEST_F(results_json, output_that_cannot_be_opened_is_a_fault) {
    std::filesystem::create_directory("Results.json.tmp");
    const auto result = run("--aireml2 --json");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("Error opening file \"Results.json\"\n"), std::string::npos) << result.output;
}

} // namespace
