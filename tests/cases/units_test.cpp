// Files of whole runs for one data set in two units.
#include "case_run.h"
#include "support/small_models.h"

#include <map>

using namespace tarvex;

namespace {

class unit_runs : public case_run {
protected:
    static small_model two_traits(double c) {
        small_model m;
        m.nq = 2;
        m.make_pedigree(150, 30, 11);
        m.make_rows(20, 2, 3, 0.1, 12);
        m.covariable = true;
        m.random = {{"animal", "NRM", 2, 0, {1.0 * c * c, 0.5 * c * c, 1.4 * c * c}}};
        m.residual = {2.0 * c * c, 1.0 * c * c, 2.2 * c * c};
        for (auto& r : m.rows)
            for (double& y : r.y)
                if (y != -999.0) y *= c;
        return m;
    }
    void run_model(const small_model& m, const std::string& options) {
        std::filesystem::remove("BestPoint");
        m.write_files("model");
        name_ = "model";
        finish(options);
    }
};

TEST_F(unit_runs, estimates_errors_and_criteria_scale) {
    run_model(two_traits(1.0), "--aireml60,1e-10");
    const auto best = read_best_point();
    const auto plain = read_estimates();
    ASSERT_GE(plain.size(), 9u);
    for (double c : {1.0e-6, 1.0e6}) {
        run_model(two_traits(c), "--aireml60,1e-10");
        const auto scaled = read_best_point();
        ASSERT_EQ(scaled.values.size(), best.values.size());
        for (std::size_t k = 0; k < best.values.size(); ++k)
            expect_relative(scaled.values[k] / (c * c), best.values[k], 1.0e-4, "covariance " + std::to_string(k));
        const auto lines = read_estimates();
        ASSERT_EQ(lines.size(), plain.size());
        for (std::size_t k = 0; k < plain.size(); ++k) {
            expect_relative(lines[k].value / (c * c), plain[k].value, 2.0e-4, plain[k].name);
            expect_relative(lines[k].error / (c * c), plain[k].error, 2.0e-4, plain[k].name + " error");
            if (plain[k].what.empty()) continue;
            EXPECT_NEAR(lines[k].ratio, plain[k].ratio, 0.0011) << plain[k].name;
            EXPECT_NEAR(lines[k].ratio_error, plain[k].ratio_error, 0.0011) << plain[k].name;
        }
        // restarted at the stored point, which is in the units of the data
        const auto again = finish("-c --aireml1").output;
        EXPECT_NEAR(loglike_at_start(again), scaled.loglike, 1.0e-5);
        finish("--best");
        EXPECT_NEAR(labelled("BestSoFar.out", "Maximum log L so far"), scaled.loglike, 0.0006);
    }
}

TEST_F(unit_runs, solutions_and_residuals_scale) {
    run_model(two_traits(1.0), "--blup");
    const auto fixed = read_fixed_solutions();
    const auto animals = read_random_solutions("animal");
    const auto residuals = read_residuals();
    for (double c : {1.0e-6, 1.0e6}) {
        run_model(two_traits(c), "--blup");
        const auto f = read_fixed_solutions();
        ASSERT_EQ(f.levels.size(), fixed.levels.size());
        for (std::size_t k = 0; k < f.levels.size(); ++k) {
            expect_relative(f.levels[k].solution / c, fixed.levels[k].solution, 1.0e-5, "level");
            expect_relative(f.levels[k].error / c, fixed.levels[k].error, 1.0e-5, "error of a level");
        }
        for (std::size_t k = 0; k < f.covariables.size(); ++k)
            expect_relative(f.covariables[k].solution / c, fixed.covariables[k].solution, 1.0e-5, "covariable");
        const auto a = read_random_solutions("animal");
        ASSERT_EQ(a.size(), animals.size());
        for (std::size_t k = 0; k < a.size(); ++k) {
            expect_relative(a[k].solution / c, animals[k].solution, 1.0e-5, "animal");
            expect_relative(a[k].error / c, animals[k].error, 1.0e-5, "error of an animal");
            EXPECT_NEAR(a[k].accuracy, animals[k].accuracy, 0.0011);
        }
        const auto r = read_residuals();
        ASSERT_EQ(r.size(), residuals.size());
        for (std::size_t k = 0; k < r.size(); ++k) {
            expect_relative(r[k].observed / c, residuals[k].observed, 1.0e-12, "record");
            EXPECT_NEAR(r[k].residual / c, residuals[k].residual, 1.0e-9);
        }
    }
}

} // namespace
