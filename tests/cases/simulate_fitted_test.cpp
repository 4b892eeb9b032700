// Simulation of what can be fitted: reduced rank, deficient matrices, supplied inverses, repeat effects, subjects, and
// at estimates. Replicates are analysed, and the mean of their estimates is held against what was simulated.
#include "case_run.h"

using namespace tarvex;

namespace {

class simulate_fitted : public case_run {
protected:
    static constexpr int replicates = 20;

    void SetUp() override {
        name_ = "model";
        write_file("RandomSeeds", "424242 171717\n");
    }
    // Sires 1..n with progeny; data columns animal sire herd y1 y2.
    static std::string half_sibs(int sires, int progeny) {
        std::string pedigree;
        for (int i = 0; i < sires * progeny; ++i)
            pedigree += std::to_string(sires + i + 1) + " " + std::to_string(i / progeny + 1) + " 0\n";
        return pedigree;
    }
    static std::string lines(int from, int animals, int repeats, const std::string& values) {
        std::string text;
        for (int i = 0; i < animals; ++i)
            for (int r = 0; r < repeats; ++r)
                text += std::to_string(from + i) + " " + std::to_string((i + r) % 3 + 1) + " " + values + "\n";
        return text;
    }
    // Simulates, estimates from each file, and expects the mean of the estimates within 3.5 (bound) of its standard
    // errors. where: option in front of that of the simulation.
    void recover(const std::string& simulate, const std::string& estimate, const std::vector<double>& truth,
                 const std::string& options = "--aireml30", const std::string& where = "", double bound = 3.5) {
        finish(where + "--simul" + std::to_string(replicates));
        write_file("again.par", estimate);
        name_ = "again";
        std::vector<double> sum(truth.size(), 0.0), squares(truth.size(), 0.0);
        for (int r = 1; r <= replicates; ++r) {
            const std::string digits = std::to_string(r);
            std::filesystem::copy_file("SimData" + std::string(3 - digits.size(), '0') + digits + ".dat", "again.dat",
                                       std::filesystem::copy_options::overwrite_existing);
            std::filesystem::remove("BestPoint");
            finish(options);
            const auto best = read_best_point();
            ASSERT_EQ(best.values.size(), truth.size()) << simulate;
            for (std::size_t i = 0; i < truth.size(); ++i) {
                sum[i] += best.values[i];
                squares[i] += best.values[i] * best.values[i];
            }
        }
        for (std::size_t i = 0; i < truth.size(); ++i) {
            const double mean = sum[i] / replicates;
            const double variance = (squares[i] - replicates * mean * mean) / (replicates - 1);
            EXPECT_NEAR(mean, truth[i], bound * std::sqrt(variance / replicates))
                << simulate << " covariance " << i + 1;
            EXPECT_LT(std::sqrt(variance), 0.6 * (1.0 + std::fabs(truth[i]))) << "a design that tells nothing";
        }
    }
    static std::string replaced(std::string text, const std::string& what, const std::string& by) {
        for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size()))
            text.replace(at, what.size(), by);
        return text;
    }
};

// Two traits, a genetic matrix cut to one component: of the variance of the second trait most is cut away.
TEST_F(simulate_fitted, matrices_cut_to_the_fitted_rank) {
    write_file("ped.dat", half_sibs(60, 10));
    write_file("model.dat", lines(61, 600, 1, "1 1"));
    const std::string text =
        "PED ped.dat\nANA MUV PC 2\nDAT FILE\n animal 999\n herd 3\n o1\n o2\n y1\n y2\nEND\nMOD EQ\n "
        "FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\nVAR animal 2 1\n 4.0 2.4 3.9\n"
        "VAR residual 2\n 5.0 1.0 3.0\n";
    std::string simulate = replaced(replaced(text, "FILE", "model.dat"), " o1\n o2\n", "");
    write_file("model.par", simulate);
    const auto output = finish("--simul").output;
    const auto at = output.find("Loadings of the components of \"animal\", order of pivots : 1\n");
    ASSERT_NE(at, std::string::npos) << output;
    const auto rows = lines_of(output.substr(at));
    EXPECT_NEAR(number_of(words_of(rows.at(1)).at(1)), 2.0, 1e-4);
    EXPECT_NEAR(number_of(words_of(rows.at(2)).at(1)), 1.2, 1e-4);
    recover("reduced rank", replaced(text, "FILE", "again.dat"), {5.0, 1.0, 3.0, 4.0, 2.4, 1.44});
}

// A matrix of rank 1 is given and simulated as it is; it is fitted at that rank.
TEST_F(simulate_fitted, deficient_matrices) {
    write_file("ped.dat", half_sibs(60, 10));
    write_file("model.dat", lines(61, 600, 1, "1 1"));
    const std::string text =
        "PED ped.dat\nANA MUVMORE 2\nDAT FILE\n animal 999\n herd 3\n o1\n o2\n y1\n y2\nEND\nMOD EQ\n "
        "FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\nVAR animal 2RANK\n 4.0 2.4 "
        "1.44\nVAR residual 2\n 5.0 1.0 3.0\n";
    write_file(
        "model.par",
        replaced(replaced(replaced(replaced(text, "FILE", "model.dat"), " o1\n o2\n", ""), "MORE", ""), "RANK", ""));
    recover("deficient", replaced(replaced(replaced(text, "FILE", "again.dat"), "MORE", " PC"), "RANK", " 1"),
            {5.0, 1.0, 3.0, 4.0, 2.4, 1.44});
}

// Levels in pairs with correlation 0.6, given by the inverse.
TEST_F(simulate_fitted, supplied_inverses) {
    constexpr int levels = 200;
    std::string inverse = "0.0\n";
    for (int l = 1; l <= levels; l += 2) {
        const double d = 1.0 - 0.36;
        inverse += std::to_string(l) + " " + std::to_string(l) + " " + std::to_string(1.0 / d) + "\n" +
                   std::to_string(l) + " " + std::to_string(l + 1) + " " + std::to_string(-0.6 / d) + "\n" +
                   std::to_string(l + 1) + " " + std::to_string(l + 1) + " " + std::to_string(1.0 / d) + "\n";
    }
    write_file("strain.gin", inverse);
    write_file("model.dat", lines(1, levels, 5, "1"));
    const std::string text =
        "ANA UNI\nDAT FILE\n strain 999\n herd 3\n o1\n y1\nEND\nMOD\n FIX herd\n RAN strain GIN\n TR "
        "y1 1 -999\nEND\nVAR strain 1\n 4.0\nVAR residual 1\n 5.0\n";
    write_file("model.par", replaced(replaced(text, "FILE", "model.dat"), " o1\n", ""));
    recover("supplied inverse", replaced(text, "FILE", "again.dat"), {5.0, 4.0});
}

// Records of one trait, fitted by covariances of the records of a subject.
TEST_F(simulate_fitted, repeat_effects) {
    write_file("ped.dat", half_sibs(50, 8));
    write_file("model.dat", lines(51, 400, 3, "1"));
    const std::string text =
        "PED ped.dat\nANA UNI\nDAT FILE\n animal 999\n herd 3\n o1\n y1\nEND\nMOD\n FIX herd\n RAN "
        "animal NRM\n RAN perm PEQ\n TR y1 1 -999\nEND\nVAR animal 1\n 3.0\nVAR perm 1\n 2.0\nVAR "
        "residual 1\n 4.0\n";
    const auto columns = [](std::string s) { return replaced(s, " animal 999\n", " animal 999\n perm 999\n"); };
    std::string data;
    for (const auto& line : lines_of(read_file("model.dat")))
        if (const auto w = words_of(line); !w.empty()) data += w[0] + " " + line + "\n";
    write_file("model.dat", data);
    write_file("model.par", columns(replaced(replaced(text, "FILE", "model.dat"), " o1\n", "")));
    recover("repeat effect", columns(replaced(text, "FILE", "again.dat")), {4.0, 3.0, 2.0});
}

// Moments of simulated records of two traits in two lines a subject.
class simulated_moments : public simulate_fitted {
protected:
    static constexpr int subjects = 3000;
    // y[line][trait] of all subjects
    void expect_covariances(const double (&truth)[4][4]) {
        double s[4][4] = {};
        const auto text = lines_of(read_file("SimData001.dat"));
        ASSERT_GE(text.size(), 2u * subjects);
        for (std::size_t k = 0; k < subjects; ++k) {
            double y[4];
            for (std::size_t r = 0; r < 2; ++r) {
                const auto w = words_of(text[2 * k + r]);
                y[2 * r] = number_of(w[w.size() - 2]);
                y[2 * r + 1] = number_of(w.back());
            }
            for (int i = 0; i < 4; ++i)
                for (int j = 0; j < 4; ++j) s[i][j] += y[i] * y[j] / subjects;
        }
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j)
                EXPECT_NEAR(s[i][j], truth[i][j],
                            4.0 * std::sqrt((truth[i][i] * truth[j][j] + truth[i][j] * truth[i][j]) / subjects))
                    << i << " " << j;
    }
    void simulate_lines(const std::string& effects, const std::string& matrices) {
        std::string data, pedigree;
        for (int i = 1; i <= subjects; ++i) pedigree += std::to_string(i) + " 0 0\n";
        write_file("ped.dat", pedigree);
        for (int i = 1; i <= subjects; ++i)
            for (int r = 0; r < 2; ++r) data += std::to_string(i) + " " + std::to_string(i) + " 1 1\n";
        write_file("model.dat", data);
        write_file("model.par",
                   "PED ped.dat\nANA MUV 2\nDAT model.dat\n animal 9999\n perm 9999\n y1\n y2\nEND\nMOD EQ\n MEA\n" +
                       effects + " TR y1 1 -999\n TR y2 2 -999\nEND\n" + matrices + "VAR residual 2\n 4.0 1.0 3.0\n");
        finish("--simul");
    }
};

TEST_F(simulated_moments, repeat_effects_of_two_traits_as_the_likelihood_has_them) {
    simulate_lines(" RAN animal NRM\n RAN perm PEQ\n", "VAR animal 2\n 0.5 0.2 0.6\nVAR perm 2\n 2.0 1.2 1.5\n");
    // one trait: residual + repeat on the diagonal, repeat elsewhere; two traits: residual + twice the repeat
    const double own1 = 0.5 + 6.0, again1 = 0.5 + 2.0, own2 = 0.6 + 4.5, again2 = 0.6 + 1.5, both = 0.2 + 1.0 + 2.4;
    expect_covariances({{own1, both, again1, both},
                        {both, own2, both, again2},
                        {again1, both, own1, both},
                        {both, again2, both, own2}});
}

TEST_F(simulated_moments, repeat_effects_by_record) {
    simulate_lines(" RAN animal NRM\n RAN perm PEQ\n", "VAR animal 2\n 0.5 0.2 0.6\nVAR perm 2 REC\n 2.0 1.2 1.5\n");
    // a line: residual + repeat; two lines: repeat
    const double own1 = 0.5 + 6.0, again1 = 0.5 + 2.0, own2 = 0.6 + 4.5, again2 = 0.6 + 1.5;
    const double line = 0.2 + 1.0 + 1.2, other = 0.2 + 1.2;
    expect_covariances({{own1, line, again1, other},
                        {line, own2, other, again2},
                        {again1, other, own1, line},
                        {other, again2, line, own2}});
}

TEST_F(simulated_moments, subjects_of_two_lines_share_residuals_of_different_traits) {
    simulate_lines(" RAN animal NRM\n SUBject animal\n", "VAR animal 2\n 0.5 0.2 0.6\n");
    expect_covariances({{4.5, 1.2, 0.5, 1.2}, {1.2, 3.6, 1.2, 0.6}, {0.5, 1.2, 4.5, 1.2}, {1.2, 0.6, 1.2, 3.6}});
}

TEST_F(simulated_moments, subjects_of_lines_do_not) {
    simulate_lines(" RAN animal NRM\n SUBject LINE\n", "VAR animal 2\n 0.5 0.2 0.6\n");
    expect_covariances({{4.5, 1.2, 0.5, 0.2}, {1.2, 3.6, 0.2, 0.6}, {0.5, 0.2, 4.5, 1.2}, {0.2, 0.6, 1.2, 3.6}});
}

TEST_F(simulate_fitted, at_the_estimates) {
    write_file("ped.dat", half_sibs(20, 5));
    std::string data = lines(21, 100, 1, "1");
    write_file("model.dat", data);
    const std::string text =
        "PED ped.dat\nANA UNI\nDAT model.dat\n animal 999\n herd 3\n y1\nEND\nMOD\n FIX herd\n RAN "
        "animal NRM\n TR y1 1 -999\nEND\nVAR animal 1\n A\nVAR residual 1\n E\n";
    const std::string start = replaced(replaced(text, " A\n", " 3.0\n"), " E\n", " 5.0\n");
    write_file("model.par", start);
    auto refused = run("-c --simul");
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("no estimates to simulate from"), std::string::npos) << refused.output;
    finish("--simul");
    const std::string at_start = read_file("SimData001.dat");
    std::string values;
    for (const auto& line : lines_of(at_start))
        if (const auto w = words_of(line); w.size() == 4) values += w[0] + " " + w[1] + " " + w[3] + "\n";
    write_file("model.dat", values);
    finish("--aireml20");
    const auto best = read_best_point();
    ASSERT_EQ(best.values.size(), 2u);
    EXPECT_GT(std::fabs(best.values[0] - 5.0), 1e-3);
    write_file("RandomSeeds", "424242 171717\n");
    finish("-c --simul");
    const std::string fitted = read_file("SimData001.dat");
    char number[40];
    std::string given = text;
    for (const auto& [what, value] : {std::pair{" E\n", best.values[0]}, std::pair{" A\n", best.values[1]}}) {
        std::snprintf(number, sizeof number, " %.17g\n", value);
        given = replaced(given, what, number);
    }
    write_file("model.par", given);
    write_file("RandomSeeds", "424242 171717\n");
    finish("--simul");
    EXPECT_EQ(read_file("SimData001.dat"), fitted);
}

// Data simulated at the estimates bring these back, which are not what the parameter file starts at.
TEST_F(simulate_fitted, estimates_come_back_from_simulation_at_them) {
    write_file("ped.dat", half_sibs(50, 8));
    const std::string text =
        "PED ped.dat\nANA MUV 2\nDAT FILE\n animal 999\n herd 3\n o1\n o2\n y1\n y2\nEND\nMOD EQ\n FIX herd\n RAN "
        "animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\nVAR animal 2\n 4.0 1.5 3.0\nVAR residual 2\n 5.0 1.0 4.0\n";
    write_file("model.dat", lines(51, 400, 1, "1 1"));
    write_file("model.par", replaced(replaced(text, "FILE", "model.dat"), " o1\n o2\n", ""));
    finish("--simul");
    std::string values;
    for (const auto& line : lines_of(read_file("SimData001.dat")))
        if (const auto w = words_of(line); w.size() == 6) values += w[0] + " " + w[1] + " " + w[4] + " " + w[5] + "\n";
    write_file("model.dat", values);
    const std::string far = replaced(replaced(text, "4.0 1.5 3.0", "9.0 0.5 1.0"), "5.0 1.0 4.0", "2.0 -0.5 9.0");
    write_file("model.par", replaced(replaced(far, "FILE", "model.dat"), " o1\n o2\n", ""));
    finish("--aireml100,1e-9");
    const auto best = read_best_point();
    ASSERT_EQ(best.values.size(), 6u);
    for (const std::size_t i : {0u, 2u, 3u, 5u}) ASSERT_GT(best.values[i], 1.0) << "inside the parameter space";
    recover("at the estimates", replaced(text, "FILE", "again.dat"), best.values, "--aireml30", "-c ", 4.0);
}

TEST_F(simulate_fitted, no_replicates_are_refused) {
    write_file("model.dat", lines(1, 5, 1, "1"));
    write_file("model.par",
               "ANA UNI\nDAT model.dat\n animal 9\n herd 3\n y1\nEND\nMOD\n FIX herd\n RAN animal IDE\n TR y1 1 "
               "-999\nEND\nVAR animal 1\n 3.0\nVAR residual 1\n 5.0\n");
    for (const char* options : {"--simul0", "-v --simul0", "--simul-2"}) {
        const auto result = run(options);
        EXPECT_EQ(result.status, 1) << options;
        EXPECT_NE(result.output.find("No. of replicates must be at least 1 !\n"), std::string::npos) << result.output;
    }
}

// The loadings are shown by every kind of run.
TEST_F(simulate_fitted, loadings_in_every_run) {
    write_file("ped.dat", half_sibs(20, 5));
    write_file("model.dat", lines(21, 100, 1, "1 2"));
    write_file("model.par",
               "PED ped.dat\nANA MUV PC 2\nDAT model.dat\n animal 999\n herd 3\n y1\n y2\nEND\nMOD EQ\n FIX "
               "herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\nVAR animal 2 1\n 1.44 2.4 4.0\nVAR "
               "residual 2\n 5.0 1.0 3.0\n");
    finish("--simul");
    std::string data;
    for (const auto& line : lines_of(read_file("SimData001.dat")))
        if (const auto w = words_of(line); w.size() == 6) data += w[0] + " " + w[1] + " " + w[4] + " " + w[5] + "\n";
    write_file("model.dat", data);
    // Products of the loadings are the matrix of the run.
    const auto expect_loadings = [&](const std::string& options, const std::vector<double>& g) {
        const std::string output = finish(options).output;
        const auto at = output.find("Loadings of the components of \"animal\", order of pivots : 2\n");
        ASSERT_NE(at, std::string::npos) << options << "\n" << output;
        const auto rows = lines_of(output.substr(at));
        const double q1 = number_of(words_of(rows.at(1)).at(1)), q2 = number_of(words_of(rows.at(2)).at(1));
        EXPECT_NEAR(q1 * q1, g[0], 1e-3) << options;
        EXPECT_NEAR(q1 * q2, g[1], 1e-3) << options;
        EXPECT_NEAR(q2 * q2, g[2], 1e-3) << options;
    };
    expect_loadings("--setup", {1.44, 2.4, 4.0});
    expect_loadings("--blup", {1.44, 2.4, 4.0});
    std::filesystem::remove("BestPoint");
    finish("--aireml20");
    const auto best = read_best_point();
    const std::vector<double> g(best.values.begin() + 3, best.values.end());
    expect_loadings("--best", g);
    expect_loadings("-c --aireml20", g);
    expect_loadings("-c --simul", g);
}

} // namespace
