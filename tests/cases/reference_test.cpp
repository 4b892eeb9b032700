// Log likelihoods, estimates, sampling errors and solutions of whole runs against figures of independent programs and
// books.
#include "case_run.h"
#include "support/dense_oracle.h"

#include <cstdio>
#include <map>
#include <set>

using namespace tarvex;

namespace {

constexpr const char* tight = "--aireml200,1e-9";

class reference_test : public case_run, public testing::WithParamInterface<const char*> {
protected:
    void SetUp() override {
        if (!bring(GetParam())) GTEST_SKIP() << "reference data " << GetParam() << " are not at hand";
    }
    bool has_maximum() const { return expected().has("logL_max"); }

    void check_start(const program_result& result) const {
        const double value = expected()["logL_start"].number;
        expect_relative(loglike_at_start(result.output), value, 1e-6, "log L at start");
    }

    void check_nrm(bool pruned) const {
        for (const auto& [effect, figures] : expected()["nrm"].members) {
            const json& nrm = pruned ? figures : figures["without_pruning"];
            const std::string report = "SumPedigree.out";
            EXPECT_EQ(labelled(report, "No. of animals after pruning"), nrm["n"].number) << effect;
            EXPECT_EQ(labelled(report, "no. of elements in NRM/GIN inverse"), nrm["elements"].number) << effect;
            EXPECT_NEAR(labelled(report, "log determinant   ="), nrm["logdet"].number, 1e-8) << effect;
            if (std::isnan(labelled(report, "No. of inbred animals"))) continue; // inverse taken over from a run before
            EXPECT_EQ(labelled(report, "No. of inbred animals"), nrm["n_inbred"].number) << effect;
            EXPECT_NEAR(labelled(report, "Average inbreeding coefficient"), nrm["mean_F_percent"].number, 5.1e-5)
                << effect;
        }
    }

    void check_fixed(const json& fixed, double tolerance) const {
        const auto found = read_fixed_solutions();
        std::size_t covariables = 0, levels = 0;
        for (const auto& f : fixed.items) {
            const int trait = static_cast<int>(f["trait"].number);
            const double value = f["solution"].number;
            const double slack = tolerance * std::max(1.0, std::fabs(value));
            if (f["kind"].text == "cov") {
                ++covariables;
                const auto at = std::find_if(found.covariables.begin(), found.covariables.end(), [&](const auto& c) {
                    return c.trait == trait && c.name == f["effect"].text && c.coefficient == f["level"].number;
                });
                ASSERT_NE(at, found.covariables.end()) << f["effect"].text;
                EXPECT_NEAR(at->solution, value, slack) << f["effect"].text << " trait " << trait;
            } else {
                ++levels;
                const auto at = std::find_if(found.levels.begin(), found.levels.end(), [&](const auto& l) {
                    return l.trait == trait && l.effect == f["effect"].text &&
                           static_cast<double>(l.code) == f["code"].number;
                });
                ASSERT_NE(at, found.levels.end()) << f["effect"].text << " code " << f["code"].number;
                EXPECT_NEAR(at->solution, value, slack)
                    << f["effect"].text << " code " << at->code << " trait " << trait;
                EXPECT_EQ(at->records, f["nrec"].number);
                expect_relative(at->mean, f["mean"].number, 1e-4, "mean of a level");
            }
        }
        EXPECT_EQ(found.covariables.size(), covariables);
        EXPECT_EQ(found.levels.size(), levels);
    }

    // tolerance relative to the size of the value, slack relative to the standard deviation of the solutions
    void check_random(const json& random, double tolerance, double slack, bool whole_pedigree) const {
        for (const auto& [effect, figures] : random.members) {
            std::map<std::pair<long, int>, double> found;
            const auto lines = read_random_solutions(effect);
            const auto nfit = static_cast<std::size_t>(figures["nfit"].number);
            const json& nrm = expected()["nrm"][effect];
            const double nlev =
                whole_pedigree && nrm.has("n") ? nrm["without_pruning"]["n"].number : figures["nlev"].number;
            EXPECT_EQ(static_cast<double>(lines.size()), nlev * figures["nfit"].number) << effect;
            for (const auto& line : lines) found[{line.code, line.iq}] = line.solution;
            for (const auto& level : figures["levels"].items)
                for (std::size_t k = 0; k < nfit; ++k) {
                    const std::pair key{static_cast<long>(level["code"].number), static_cast<int>(k + 1)};
                    ASSERT_TRUE(found.contains(key)) << effect << " " << key.first;
                    const double u = level["u"][k].number;
                    EXPECT_NEAR(found[key], u, tolerance * std::fabs(u) + slack * figures["sd"][k].number)
                        << effect << " code " << key.first << " no. " << key.second;
                }
        }
    }

    void check_residuals(const json& residuals, double tolerance) const {
        const auto found = read_residuals();
        const auto& first = residuals["first"].items;
        ASSERT_EQ(static_cast<double>(found.size()), residuals["n"].number);
        double ss = 0.0;
        for (const auto& line : found) ss += line.residual * line.residual;
        expect_relative(ss, residuals["ss"].number, tolerance, "sum of squares of residuals");
        const double size = std::sqrt(ss / static_cast<double>(found.size()));
        for (std::size_t i = 0; i < first.size(); ++i)
            EXPECT_NEAR(found[i].residual, first[i].number, tolerance * size) << "residual " << i + 1;
    }

    void check_solutions(const json& solutions, double tolerance, double slack, bool whole_pedigree) const {
        check_fixed(solutions["fixed"], tolerance);
        check_random(solutions["random"], tolerance, slack, whole_pedigree);
        check_residuals(solutions["residuals"], std::max(tolerance, 1e-5));
    }

    // Relative to an estimate, or to its standard error where this is larger.
    void check_estimates(double relative, double in_errors) const {
        const auto best = read_best_point();
        const auto& components = expected()["components"].items;
        ASSERT_EQ(best.values.size(), components.size());
        EXPECT_EQ(best.nparm, expected()["n_parameters"].number);
        for (std::size_t i = 0; i < components.size(); ++i) {
            const double value = components[i]["estimate"].number, error = components[i]["se"].number;
            EXPECT_NEAR(best.values[i], value, std::max(relative * std::fabs(value), in_errors * error))
                << "component " << i + 1;
        }
    }

    void check_sampling() const {
        const auto& components = expected()["components"].items;
        const auto lines = read_estimates();
        ASSERT_GE(lines.size(), components.size());
        for (std::size_t i = 0; i < components.size(); ++i) {
            EXPECT_EQ(lines[i].number, static_cast<int>(i + 1));
            expect_relative(lines[i].value, components[i]["estimate"].number, 1e-3, "estimate in the report");
            expect_relative(lines[i].error, components[i]["se"].number, 0.01, "sampling error");
        }
        const auto covariances = read_triangle("AvInfoCovs");
        EXPECT_NEAR(covariances.loglike, expected()["logL_max"].number, 1e-4);
        const auto information = oracle::inverse(covariances.rows);
        const auto& truth = expected()["average_information"];
        ASSERT_EQ(information.size(), truth.size());
        for (std::size_t i = 0; i < truth.size(); ++i)
            for (std::size_t j = 0; j <= i; ++j)
                EXPECT_NEAR(information[i][j], truth[i][j].number,
                            0.01 * std::sqrt(truth[i][i].number * truth[j][j].number))
                    << "average information " << i + 1 << " " << j + 1;
    }
};

TEST_P(reference_test, log_likelihood_at_the_start) {
    const auto result = finish("--aireml1");
    check_start(result);
    check_nrm(true);
    const json& dependent = expected()["dependent"];
    EXPECT_EQ(result.output.find("LSQ : additional dependency") != std::string::npos, dependent.size() > 0)
        << result.output;
}

TEST_P(reference_test, solutions_at_the_start) {
    finish("--blup");
    check_solutions(expected()["blup_at_start"], 1e-5, 1e-6, true);
    check_nrm(false); // all animals get a solution
}

TEST_P(reference_test, maximum) {
    if (!has_maximum()) GTEST_SKIP() << "too few data for estimation";
    const auto result = finish(tight);
    check_start(result);
    EXPECT_NEAR(read_best_point().loglike, expected()["logL_max"].number, 1e-4);
    EXPECT_NEAR(labelled("SumEstimates.out", "Maximum log L"), expected()["logL_max"].number, 6e-4);
    check_estimates(1e-4, 0.002);
    check_sampling();
    check_solutions(expected()["solutions_at_max"], 2e-4, 5e-4, false);
}

TEST_P(reference_test, default_options) {
    if (!has_maximum()) GTEST_SKIP() << "too few data for estimation";
    check_start(finish(""));
    EXPECT_NEAR(read_best_point().loglike, expected()["logL_max"].number, 1e-3);
    check_estimates(0.005, 0.05);
}

// All files of options that come with the case, one run after the other in the same directory.
TEST_P(reference_test, further_options) {
    std::set<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(".")) files.insert(entry.path().filename().string());
    for (const auto& file : files) {
        if (!file.starts_with("options") || !file.ends_with(".txt")) continue;
        const std::string options = read_file(file);
        SCOPED_TRACE(file + ": " + options);
        std::filesystem::remove("BestPoint");
        const auto result = finish(options);
        const bool pruned = options.find("--nopru") == std::string::npos && options.find("--blup") == std::string::npos;
        check_nrm(pruned);
        if (options.find("--blup") != std::string::npos) {
            check_solutions(expected()["blup_at_start"], 1e-5, 1e-6, true);
            continue;
        }
        check_start(result);
        if (has_maximum()) {
            EXPECT_NEAR(read_best_point().loglike, expected()["logL_max"].number, 1e-3);
            check_estimates(0.005, 0.05);
        }
    }
}

TEST_P(reference_test, mixtures_of_algorithms) {
    if (!has_maximum()) GTEST_SKIP() << "too few data for estimation";
    for (const char* options : {"--pxai3,100,1e-8", "--emai3,100,1e-8", "--bad"}) {
        SCOPED_TRACE(options);
        std::filesystem::remove("BestPoint");
        finish(options);
        EXPECT_NEAR(read_best_point().loglike, expected()["logL_max"].number, 1e-3);
        check_estimates(0.005, 0.05);
    }
}

TEST_P(reference_test, without_pruning) {
    const auto result = finish("--aireml1 --nopru");
    check_start(result);
    check_nrm(false);
}

INSTANTIATE_TEST_SUITE_P(cases, reference_test,
                         testing::Values("milk_uni", "textbook_uni", "textbook_rep", "textbook_biv", "milk_rep",
                                         "milk_biv", "rr_chick", "rr_small", "rr_milk"),
                         [](const auto& at) { return std::string(at.param); });

using textbook = case_run;

// Sampling errors of solutions and accuracies of the animal model, by the inverse of the eight-animal system of
// equations written out densely.
TEST_F(textbook, errors_of_solutions) {
    ASSERT_TRUE(bring("textbook_uni"));
    finish("--blup");
    const std::vector<int> sire{0, 0, 0, 1, 3, 1, 4, 3}, dam{0, 0, 0, 0, 2, 2, 5, 6}, sex{1, 2, 2, 1, 1};
    const std::size_t neq = 10;
    std::vector<std::vector<double>> c(neq, std::vector<double>(neq, 0.0));
    for (std::size_t record = 0; record < 5; ++record) {
        const std::size_t s = static_cast<std::size_t>(sex[record] - 1), a = 2 + 3 + record;
        for (const auto i : {s, a})
            for (const auto j : {s, a}) c[i][j] += 1.0 / 40.0;
    }
    for (std::size_t i = 0; i < 8; ++i) {
        std::vector<std::pair<std::size_t, double>> row{{2 + i, 1.0}};
        if (sire[i] > 0) row.push_back({static_cast<std::size_t>(sire[i] + 1), -0.5});
        if (dam[i] > 0) row.push_back({static_cast<std::size_t>(dam[i] + 1), -0.5});
        const double d = 1.0 - 0.25 * static_cast<double>(row.size() - 1);
        for (const auto& [p, x] : row)
            for (const auto& [q, y] : row) c[p][q] += x * y / (20.0 * d);
    }
    const auto inverse = oracle::inverse(c);
    const auto animals = read_random_solutions("animal");
    const auto fixes = read_fixed_solutions().levels;
    ASSERT_EQ(animals.size(), 8u);
    ASSERT_EQ(fixes.size(), 2u);
    for (std::size_t i = 0; i < 2; ++i) expect_relative(fixes[i].error, std::sqrt(inverse[i][i]), 1e-5, "error of sex");
    for (std::size_t i = 0; i < 8; ++i) {
        const double pev = inverse[2 + i][2 + i];
        expect_relative(animals[i].error, std::sqrt(pev), 1e-5, "error of an animal");
        EXPECT_NEAR(animals[i].accuracy, std::sqrt(1.0 - pev / 20.0), 6e-4) << i + 1;
    }
}

} // namespace
