// Blocks of the parameter file beside model and covariances: user-defined functions, equations taken out, levels
// treated as fixed, extra effects; and default plans of large models.
#include "case_run.h"
#include "population.h"

using namespace tarvex;

namespace {

class blocks_test : public case_run {
protected:
    void SetUp() override {
        name_ = "model";
        p_ = make_population(150, 2, 3, 0.1, 81);
        write_file("ped.dat", p_.pedigree());
        write_file("data.dat", p_.all_traits_lines());
    }
    static void parameters(const std::string& analysis, const std::string& blocks, int ntraits) {
        std::string columns;
        for (int t = 1; t <= ntraits; ++t) columns += " y" + std::to_string(t) + "\n";
        write_file("model.par", "PED ped.dat\nANA " + analysis +
                                    "\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n" +
                                    columns + "END\n" + blocks);
    }
    static constexpr const char* repeated =
        "MOD\n FIX herd\n FIX parity\n RAN animal NRM\n RAN perm IDE\n TR y1 1 -999\nEND\n"
        "VAR animal 1\n 4.0\nVAR perm 1\n 1.5\nVAR residual 1\n 5.0\n";
    static constexpr const char* two_traits = "MOD EQ\n FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n"
                                              "VAR animal 2\n 4.0 2.0 4.0\nVAR residual 2\n 6.0 0.5 6.0\n";
    population p_;
};

// Values and errors of functions from the covariances and their sampling covariances on file.
TEST_F(blocks_test, functions_of_covariances) {
    parameters(
        "UNI",
        std::string(repeated) + "SE+\n SUM phenvar 1 2 3\n SUM half 2(0.5)\n VRA herit 2 4\n VRA repeat 3 4\nEND\n", 2);
    finish("--aireml100,1e-9");
    const auto v = read_triangle("AvInfoCovs").rows; // 3 components, 2 sums
    const auto c = read_best_point().values;
    ASSERT_EQ(v.size(), 5u);
    const double total = c[0] + c[1] + c[2];
    double total_variance = 0.0, cov_with_total = 0.0;
    for (std::size_t i = 0; i < 3; ++i) {
        cov_with_total += v[1][i];
        for (std::size_t j = 0; j < 3; ++j) total_variance += v[i][j];
    }
    const double h = c[1] / total;
    const double h_error = std::sqrt(v[1][1] / (total * total) + h * h * total_variance / (total * total) -
                                     2.0 * h * cov_with_total / (total * total));
    const std::string report = read_file("SumEstimates.out");
    const auto line_of = [&](const std::string& name) {
        for (const auto& line : lines_of(report))
            if (line.find(" " + name + " ") != std::string::npos ||
                line.find(" " + name) == line.size() - name.size() - 1)
                return words_of(line);
        return std::vector<std::string>{};
    };
    const auto expect_line = [&](const std::string& name, double value, double error) {
        const auto w = line_of(name);
        ASSERT_GE(w.size(), 4u) << name;
        expect_relative(number_of(w[2]), value, 1e-5, name);
        expect_relative(number_of(w[3]), error, 1e-4, name + " error");
    };
    expect_line("phenvar", total, std::sqrt(total_variance));
    expect_line("half", 0.5 * c[1], 0.5 * std::sqrt(v[1][1]));
    expect_line("herit", h, h_error);
    // the same ratio in the block of the effect
    const auto lines = read_estimates();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[1].what, "vrat");
    EXPECT_NEAR(lines[1].ratio, h, 6e-4);
    EXPECT_NEAR(lines[1].ratio_error, h_error, 6e-4);
}

TEST_F(blocks_test, correlation_with_its_error) {
    parameters("MUV 2", std::string(two_traits) + "SE+\n COR rg 5 4 6\nEND\n", 2);
    finish("--aireml100,1e-9");
    const auto v = read_triangle("AvInfoCovs").rows;
    const auto x = read_best_point().values;
    const double root = std::sqrt(x[3] * x[5]), r = x[4] / root;
    const double d[] = {-0.5 * r / x[3], 1.0 / root, -0.5 * r / x[5]};
    double variance = 0.0;
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j) variance += d[i] * d[j] * v[3 + i][3 + j];
    bool seen = false;
    for (const auto& line : lines_of(read_file("SumEstimates.out"))) {
        const auto w = words_of(line);
        if (w.size() < 5 || w[1] != "rg") continue;
        seen = true;
        expect_relative(number_of(w[2]), r, 1e-5, "correlation");
        expect_relative(number_of(w[3]), std::sqrt(variance), 1e-4, "its error");
        EXPECT_EQ(w[4], "corr");
    }
    EXPECT_TRUE(seen);
    for (const auto& line : read_estimates())
        if (line.number == 5) {
            EXPECT_NEAR(line.ratio, r, 6e-4);
            EXPECT_NEAR(line.ratio_error, std::sqrt(variance), 6e-4);
        }
}

TEST_F(blocks_test, a_function_of_a_covariance_that_is_not_there) {
    parameters("UNI", std::string(repeated) + "SE+\n SUM wrong 1 9\nEND\n", 2);
    const auto result = run("--aireml2");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find(" invalid no. in definition of add. cov"), std::string::npos) << result.output;
}

// Which level is taken out of the equations moves log L only by the choice of the constraint, and no breeding value.
TEST_F(blocks_test, equations_taken_out) {
    parameters("UNI", repeated, 2);
    finish("--blup");
    const auto before = read_random_solutions("animal");
    parameters("UNI", std::string(repeated) + "ZER\n parity 3\n herd 2\nEND\n", 2);
    finish("--blup");
    const auto after = read_random_solutions("animal");
    ASSERT_EQ(before.size(), after.size());
    bool same = true;
    for (std::size_t i = 0; i < after.size(); ++i)
        same = same && std::fabs(before[i].solution - after[i].solution) < 1e-4;
    EXPECT_FALSE(same) << "one level too many is out, which is a smaller model";
    parameters("UNI", std::string(repeated) + "ZER\n parity 3\nEND\n", 2);
    finish("--blup");
    for (const auto& level : read_fixed_solutions().levels)
        if (level.effect == "parity" && level.level == 3) {
            EXPECT_EQ(level.solution, 0.0);
        }
}

TEST_F(blocks_test, levels_of_a_random_effect_treated_as_fixed) {
    parameters("UNI", repeated, 2);
    finish("--blup");
    const auto before = read_random_solutions("animal");
    parameters("UNI", std::string(repeated) + "PSE 0.0\n animal 40\nEND\n", 2);
    finish("--blup");
    const auto after = read_random_solutions("animal");
    ASSERT_EQ(before.size(), after.size());
    const auto of_40 = [](const auto& line) { return line.code == 40; };
    const auto old = std::find_if(before.begin(), before.end(), of_40),
               now = std::find_if(after.begin(), after.end(), of_40);
    ASSERT_TRUE(old != before.end() && now != after.end());
    EXPECT_GT(std::fabs(old->solution - now->solution), 1e-3);
    EXPECT_GT(now->error, old->error); // no longer shrunk
    parameters("UNI", repeated, 2);    // the inverse with the marks does not serve a run without
    finish("--blup");
    const auto again = read_random_solutions("animal");
    ASSERT_EQ(before.size(), again.size());
    for (std::size_t i = 0; i < before.size(); ++i) EXPECT_EQ(again[i].solution, before[i].solution) << i;
}

TEST_F(blocks_test, extra_effects_are_only_counted) {
    parameters("UNI", repeated, 2);
    finish("--aireml2");
    const auto best = read_best_point();
    std::string model = repeated;
    model.replace(model.find(" FIX parity"), 11, " FIX parity\n EXT dam");
    std::filesystem::remove("BestPoint");
    parameters("UNI", model, 2);
    finish("--aireml2");
    expect_best(best, 1e-9, 1e-9);
    EXPECT_NE(read_file("FixSolutions.out").find("Extra effects for trait no."), std::string::npos);
}

// With eighteen parameters and more, rounds of PX-EM go first; both ways lead to one maximum.
TEST_F(blocks_test, large_models_begin_with_px_em) {
    const auto p = make_population(400, 4, 1, 0.1, 82);
    write_file("ped.dat", p.pedigree());
    write_file("data.dat", p.all_traits_lines());
    parameters("MUV 4",
               "MOD EQ\n FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\n TR y3 3 -999\n TR y4 4 -999\nEND\n"
               "VAR animal 4\n 4.0 2.0 2.0 2.0 4.0 2.0 2.0 4.0 2.0 4.0\n"
               "VAR residual 4\n 5.0 0.5 0.5 0.5 5.0 0.5 0.5 5.0 0.5 5.0\n",
               4);
    const auto list = iterates_of(finish("").output);
    ASSERT_GE(list.size(), 4u);
    EXPECT_EQ(list[1].kind, "PX");
    EXPECT_EQ(list.back().kind, "AI");
    const auto best = read_best_point();
    EXPECT_EQ(best.nparm, 20);
    std::filesystem::remove("BestPoint");
    finish("--aireml200,1e-9");
    expect_best(best, 1e-3, 1e-3);
    for (const auto& line : read_estimates()) EXPECT_GT(line.error, 0.0) << line.name;
}

} // namespace
