// Runs that solve the equations at given covariances: residuals, reports in random regressions, invalid matrices.
#include "case_run.h"
#include "population.h"

#include <map>

using namespace tarvex;

namespace {

class blup_test : public case_run {
protected:
    void put(const population& p, const std::string& analysis, const std::string& blocks) {
        name_ = "model";
        write_file("ped.dat", p.pedigree());
        write_file("data.dat", p.all_traits_lines());
        std::string columns;
        for (int t = 1; t <= p.ntraits; ++t) columns += " y" + std::to_string(t) + "\n";
        write_file("model.par", "PED ped.dat\nANA " + analysis +
                                    "\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n" +
                                    " parity 3\n age 40\n" + columns + "END\n" + blocks);
    }
    static std::map<std::pair<int, long>, double> solutions_of_effect(const std::string& effect) { // by trait and code
        std::map<std::pair<int, long>, double> u;
        for (const auto& line : read_random_solutions(effect)) u[{line.iq, line.code}] = line.solution;
        return u;
    }
};

TEST_F(blup_test, residuals_are_what_the_solutions_leave) {
    const auto p = make_population(60, 2, 2, 0.3, 91);
    put(p, "MUV 2",
        "MOD EQ\n FIX herd\n COV age(1,POL)\n RAN animal NRM\n RAN perm IDE\n TR y1 1 -999\n TR y2 2 -999\nEND\nVAR "
        "animal 2\n 4.0 2.0 4.0\n"
        "VAR perm 2\n 1.0 0.2 1.0\nVAR residual 2\n 5.0 0.5 6.0\n");
    const auto result = finish("--blup -d");
    const auto fixed = read_fixed_solutions();
    const auto u = solutions_of_effect("animal"), pe = solutions_of_effect("perm");
    double mean[3] = {}, count[3] = {}, ss[3] = {};
    std::map<std::pair<int, long>, double> herd;
    for (const auto& l : fixed.levels) herd[{l.trait, l.code}] = l.solution;
    const auto obs = observations_of(p);
    for (const auto& o : obs) {
        mean[o.trait] += p.records[o.record].age;
        ++count[o.trait];
    }
    const auto lines = read_residuals();
    ASSERT_EQ(lines.size(), obs.size());
    // the observations of an animal are sorted by trait
    std::vector<observation> sorted;
    for (std::size_t i = 0; i < obs.size();) {
        std::size_t end = i;
        while (end < obs.size() && p.records[obs[end].record].code == p.records[obs[i].record].code) ++end;
        for (int t = 1; t <= 2; ++t)
            for (std::size_t k = i; k < end; ++k)
                if (obs[k].trait == t) sorted.push_back(obs[k]);
        i = end;
    }
    for (std::size_t i = 0; i < sorted.size(); ++i) {
        const auto& r = p.records[sorted[i].record];
        const int t = sorted[i].trait;
        const double slope = fixed.covariables.at(static_cast<std::size_t>(t - 1)).solution;
        const double e = sorted[i].y - herd[{t, r.herd}] - slope * (r.age - mean[t] / count[t]) - u.at({t, r.code}) -
                         pe.at({t, r.code});
        EXPECT_EQ(lines[i].observed, sorted[i].y) << i;
        EXPECT_NEAR(lines[i].residual, e, 2e-4) << i;
        ss[t] += lines[i].residual * lines[i].residual;
    }
    const auto at = result.output.find("SS residuals\n");
    ASSERT_NE(at, std::string::npos);
    const auto words = words_of(result.output.substr(at + 13, 60));
    EXPECT_NEAR(number_of(words.at(0)), ss[1], 1e-6);
    EXPECT_NEAR(number_of(words.at(1)), ss[2], 1e-6);
}

TEST_F(blup_test, residuals_hold_a_permanent_effect_without_equations) {
    const auto p = make_population(40, 1, 3, 0.0, 92);
    const std::string model = "MOD\n FIX herd\n RAN animal NRM\n RAN perm IDE\n TR y1 1 -999\nEND\n"
                              "VAR animal 1\n 4.0\nVAR perm 1\n 1.5\nVAR residual 1\n 5.0\n";
    put(p, "UNI", model);
    finish("--blup");
    const auto apart = read_residuals();
    const auto pe = solutions_of_effect("perm");
    std::string tied = model;
    put(p, "UNI", tied.replace(tied.find("perm IDE"), 8, "perm PEQ"));
    std::filesystem::remove("RnSoln_perm.dat");
    finish("--blup");
    const auto together = read_residuals();
    ASSERT_EQ(apart.size(), together.size());
    for (std::size_t i = 0; i < apart.size(); ++i)
        EXPECT_NEAR(together[i].residual, apart[i].residual + pe.at({1, p.records[i].code}), 2e-4) << i;
    EXPECT_FALSE(std::filesystem::exists("RnSoln_perm.dat"));
}

TEST_F(blup_test, means_only) {
    write_file("data.dat", "1 4 7\n2 -999 9\n3 6 5\n4 8 -999\n");
    name_ = "model";
    write_file("ped.dat", "1 0 0\n2 0 0\n3 0 0\n4 0 0\n");
    write_file(
        "model.par",
        "PED ped.dat\nANA MUV 2\nDAT data.dat\n animal 9\n y1\n y2\nEND\nMOD EQ\n MEA\n RAN animal NRM\n TR y1 1 -999\n"
        " TR y2 2 -999\nEND\nVAR animal 2\n 0.0001 0 0.0001\nVAR residual 2\n 2.0 0 2.0\n");
    finish("--blup");
    const auto lines = read_residuals(); // means 6 and 7
    const std::vector<std::pair<double, double>> wanted{{4, -2}, {7, 0}, {9, 2}, {6, 0}, {5, -2}, {8, 2}};
    ASSERT_EQ(lines.size(), wanted.size());
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        EXPECT_EQ(lines[i].observed, wanted[i].first);
        EXPECT_NEAR(lines[i].residual, wanted[i].second, 5e-4);
    }
}

TEST_F(blup_test, random_regression) {
    auto p = make_population(50, 1, 4, 0.0, 93);
    for (std::size_t i = 0; i < p.records.size(); ++i) p.records[i].age = 20.0 + static_cast<double>(i % 19);
    put(p, "RR",
        "MOD\n FIX herd\n RAN animal(2,LEG) NRM\n RRC age\n TR y1 1 -999\nEND\nVAR animal 2\n 8.0 1.0 2.0\nVAR "
        "residual 1 HOM\n 4.0\n");
    finish("--blup");
    std::map<std::pair<int, long>, double> herd;
    for (const auto& l : read_fixed_solutions().levels) herd[{1, l.code}] = l.solution;
    const auto u = solutions_of_effect("animal"); // the coefficients in place of traits
    const auto lines = read_residuals();
    ASSERT_EQ(lines.size(), p.records.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const auto& r = p.records[i];
        const double t = 2.0 * (r.age - 20.0) / 18.0 - 1.0;
        const double curve = std::sqrt(0.5) * u.at({1, r.code}) + std::sqrt(1.5) * t * u.at({2, r.code});
        EXPECT_NEAR(lines[i].residual, r.y[0] - herd.at({1, r.herd}) - curve, 2e-4);
    }
    for (const auto& line : read_random_solutions("animal")) // of coefficients with variances 8 and 2
        EXPECT_NEAR(line.accuracy, std::sqrt(1.0 - line.error * line.error / (line.iq == 1 ? 8.0 : 2.0)), 2e-3);
}

TEST_F(blup_test, invalid_matrices) {
    const auto p = make_population(30, 2, 1, 0.0, 94);
    const std::string model = "MOD EQ\n FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n";
    const auto fails = [&](const std::string& values, const std::string& words) {
        put(p, "MUV 2", model + values);
        const auto result = run("--blup");
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.output.find(words + "\n"), std::string::npos) << result.output;
        for (const char* file : {"FixSolutions.out", "RnSoln_animal.dat", "Residuals.dat", "SumEstimates.out"})
            EXPECT_FALSE(std::filesystem::exists(file)) << file;
        EXPECT_TRUE(std::filesystem::exists("SumModel.out"));
    };
    fails("VAR animal 2\n 4.0 2.0 4.0\nVAR residual 2\n 5.0 6.0 5.0\n", "Invalid residual covariance matrix for BLUP");
    fails("VAR animal 2\n 4.0 2.0 4.0\nVAR residual 2\n 0.0 0.0 5.0\n", "Invalid residual covariance matrix for BLUP");
    fails("VAR animal 2\n 4.0 4.0 4.0\nVAR residual 2\n 5.0 0.0 5.0\n", "Invalid random covariance matrix for BLUP");
    fails("VAR animal 2\n 4.0 5.0 4.0\nVAR residual 2\n 5.0 0.0 5.0\n", "Invalid random covariance matrix for BLUP");
}

TEST_F(blup_test, invalid_residual_variance_of_a_class) {
    auto p = make_population(30, 1, 3, 0.0, 94);
    for (std::size_t i = 0; i < p.records.size(); ++i) p.records[i].age = 20.0 + static_cast<double>(i % 19);
    const std::string good[] = {"5.0", "6.0", "7.0"};
    for (std::size_t wrong = 0; wrong < 4; ++wrong)
        for (const char* value : {"-4.0", "0.0"}) {
            std::string classes[] = {good[0], good[1], good[2]};
            if (wrong < 3) classes[wrong] = value;
            put(p, "RR",
                "MOD\n FIX herd\n RAN animal(2,LEG) NRM\n RRC age\n TR y1 1 -999\nEND\nVAR animal 2\n 8.0 1.0 2.0\n"
                "VAR residual 1 HET 3 age\n 20 25 " +
                    classes[0] + "\n 26 31 " + classes[1] + "\n 32 38 " + classes[2] + "\n");
            const auto result = run("--blup");
            EXPECT_EQ(result.status, wrong < 3 ? 1 : 0) << result.output;
            EXPECT_EQ(result.output.find("Invalid residual covariance matrix for BLUP\n") != std::string::npos,
                      wrong < 3)
                << result.output;
        }
}

// At reduced rank the given matrix may be of that rank; its residuals are those of a matrix close to it.
TEST_F(blup_test, matrix_of_reduced_rank) {
    const auto p = make_population(40, 2, 1, 0.0, 96);
    const std::string model = "MOD EQ\n FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n";
    put(p, "MUV PC 2", model + "VAR animal 2 1\n 4.0 2.0 1.0\nVAR residual 2 2\n 5.0 0.5 5.0\n");
    finish("--blup");
    const auto found = read_residuals();
    put(p, "MUV 2", model + "VAR animal 2\n 4.0 2.0 1.0001\nVAR residual 2\n 5.0 0.5 5.0\n");
    finish("--blup");
    const auto wanted = read_residuals();
    ASSERT_EQ(found.size(), wanted.size());
    for (std::size_t i = 0; i < found.size(); ++i) EXPECT_NEAR(found[i].residual, wanted[i].residual, 2e-3) << i;
}

// Variances far below the units of the estimation are used as they stand.
TEST_F(blup_test, small_variances_are_not_raised) {
    auto p = make_population(40, 1, 1, 0.0, 95);
    for (auto& r : p.records) r.y[0] = 0.0001 * std::round(r.y[0] * 100.0);
    const std::string model = "MOD\n FIX herd\n RAN animal NRM\n TR y1 1 -999\nEND\n";
    put(p, "UNI", model + "VAR animal 1\n 4e-4\nVAR residual 1\n 6e-4\n");
    finish("--blup");
    const auto wanted = read_random_solutions("animal");
    put(p, "UNI", model + "VAR animal 1\n 4e-6\nVAR residual 1\n 6e-6\n"); // the ratio alone matters
    finish("--blup");
    const auto found = read_random_solutions("animal");
    ASSERT_EQ(found.size(), wanted.size());
    for (std::size_t i = 0; i < found.size(); ++i) {
        EXPECT_NEAR(found[i].solution, wanted[i].solution, 1e-5 * std::fabs(wanted[i].solution) + 1e-9);
        EXPECT_NEAR(found[i].error, 0.1 * wanted[i].error, 1e-5);
    }
}

} // namespace
