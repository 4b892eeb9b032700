// Simulated data on the structure of given ones, and estimates from them.
#include "case_run.h"
#include "population.h"
#include "simulation/ranf.h"
#include "simulation/setall.h"

#include <map>

using namespace tarvex;

namespace {

class simulate_test : public case_run {
protected:
    void SetUp() override {
        name_ = "model";
        p_ = make_population(500, 2, 1, 0.2, 61);
        write_file("ped.dat", p_.pedigree());
        write_file("data.dat", p_.all_traits_lines());
        parameters("model.par", "data.dat", "", "y");
        write_file("RandomSeeds", "12345 67890\n");
    }
    static void parameters(const std::string& file, const std::string& data, const std::string& columns,
                           const std::string& trait) {
        write_file(file, "PED ped.dat\nANA MUV 2\nDAT " + data +
                             "\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y1\n y2\n" + columns +
                             "END\nMOD EQ\n FIX herd\n RAN animal NRM\n TR " + trait + "1 1 -999\n TR " + trait +
                             "2 2 -999\nEND\nVAR animal 2\n 4.0 2.0 5.0\nVAR residual 2\n 6.0 1.0 5.0\n");
    }
    population p_;
};

TEST_F(simulate_test, lines_of_the_data_get_new_values) {
    finish("--simul2");
    const auto given = lines_of(read_file("data.dat"));
    const auto simulated = lines_of(read_file("SimData001.dat"));
    ASSERT_EQ(simulated.size(), given.size());
    EXPECT_NE(read_file("SimData001.dat"), read_file("SimData002.dat"));
    EXPECT_FALSE(std::filesystem::exists("SimData003.dat"));
    for (std::size_t i = 0; i < given.size(); ++i) {
        const auto old = words_of(given[i]), now = words_of(simulated[i]);
        ASSERT_EQ(old.size() + 2, now.size()) << simulated[i];
        for (std::size_t k = 0; k < old.size(); ++k)
            EXPECT_NEAR(number_of(now[k]), number_of(old[k]), 1e-6) << simulated[i];
        for (std::size_t t = 0; t < 2; ++t)
            EXPECT_EQ(number_of(old[6 + t]) == -999.0, number_of(now[8 + t]) == -999.0) << simulated[i];
    }
}

TEST_F(simulate_test, same_seeds_give_the_same_files) {
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

TEST_F(simulate_test, without_readable_seeds_the_clock_sets_them) {
    for (const char* text :
         {"abc def\n", "12345\n", "0 5\n", "5 -1\n", "2147483563 5\n", "5 2147483399\n", "99999999999 5\n", ""}) {
        write_file("RandomSeeds", text);
        std::filesystem::remove("nrminvers1.bin");
        const auto result = finish("--simul");
        EXPECT_NE(result.output.find("Error reading random seeds from \"RandomSeeds\""), std::string::npos)
            << result.output;
        EXPECT_NE(result.output.find(" ... switching to initialisation from clock"), std::string::npos);
        EXPECT_EQ(words_of(read_file("RandomSeeds")).size(), 2u);
    }
}

// Effects by level first, then the residuals of the records: exact values from the stream of the printed seeds.
TEST_F(simulate_test, values_follow_the_stream_to_the_bit) {
    write_file("data.dat", "1 5\n2 6\n2 7\n");
    write_file(
        "model.par",
        "ANA UNI\nDAT data.dat\n animal 9\n y\nEND\nMOD\n MEA\n RAN animal IDE\n TR y 1 -999\nEND\nVAR animal 1\n 4.0\n"
        "VAR residual 1\n 9.0\n");
    finish("--simul2");
    setall(12345, 67890);
    for (const char* file : {"SimData001.dat", "SimData002.dat"}) {
        double z[5];
        for (double& x : z) x = static_cast<double>(snorm());
        const auto lines = lines_of(read_file(file));
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_EQ(number_of(words_of(lines[0]).at(2)), 2.0 * z[0] + 3.0 * z[2]);
        EXPECT_EQ(number_of(words_of(lines[1]).at(2)), 2.0 * z[1] + 3.0 * z[3]);
        EXPECT_EQ(number_of(words_of(lines[2]).at(2)), 2.0 * z[1] + 3.0 * z[4]);
    }
}

TEST_F(simulate_test, largest_seeds) {
    write_file("RandomSeeds", "2147483562 2147483398\n");
    EXPECT_NE(finish("--simul").output.find("Initial random no.s = 2147483562 2147483398\n"), std::string::npos);
}

TEST_F(simulate_test, effects_that_cannot_be_simulated_are_refused) {
    std::string inverse = "0.0\n", codes; // of rank 1 less than levels
    for (int i = 1; i <= p_.animals(); ++i) {
        inverse += std::to_string(i) + " " + std::to_string(i) + (i == 7 ? " 0.0\n" : " 1.0\n");
        codes += std::to_string(i) + " " + std::to_string(i) + "\n";
    }
    write_file("animal.gin", inverse);
    write_file("animal.codes", codes);
    std::string text = read_file("model.par");
    text.erase(0, text.find("ANA"));
    write_file("model.par", text.replace(text.find("NRM"), 3, "GIN"));
    const auto result = run("--simul");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("is not positive definite - level 7\n"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find(
                  "Cannot simulate data for this random effect :  animal 1  with covariance structure   GIN\n"),
              std::string::npos)
        << result.output;
}

TEST_F(simulate_test, names_are_filled_with_zeros) {
    write_file("ped.dat", "3 1 2\n");
    write_file("data.dat", "1 1 0 1 1 20 5 6\n2 2 0 1 1 21 6 7\n3 3 2 1 1 22 8 6\n");
    std::filesystem::remove("RandomSeeds");
    const auto one = finish("--simul"); // without a number, and without seeds
    EXPECT_NE(one.output.find("Initial random no.s = "), std::string::npos);
    EXPECT_EQ(words_of(read_file("RandomSeeds")).size(), 2u);
    EXPECT_TRUE(std::filesystem::exists("SimData001.dat"));
    EXPECT_FALSE(std::filesystem::exists("SimData002.dat"));
    std::filesystem::remove("nrminvers1.bin");
    finish("--simul100");
    for (const char* file : {"SimData009.dat", "SimData010.dat", "SimData099.dat", "SimData100.dat"})
        EXPECT_EQ(lines_of(read_file(file)).size(), 3u) << file;
    EXPECT_FALSE(std::filesystem::exists("SimData101.dat"));
    std::filesystem::remove("nrminvers1.bin");
    const auto many = run("--simul1000");
    EXPECT_EQ(many.status, 1);
    EXPECT_NE(many.output.find("Max. no. of replicates (999) exceeded !\n"), std::string::npos) << many.output;
}

TEST_F(simulate_test, report_of_sampled_covariances) {
    const auto result = finish("-v --simul20");
    const auto at = result.output.find("\nRandom effect no. 1 ");
    ASSERT_NE(at, std::string::npos) << result.output;
    const auto lines = lines_of(result.output.substr(at + 1));
    EXPECT_GT(number_of(words_of(lines[0]).at(4)), 400);
    const double given[] = {4.0, 2.0, 5.0}, variance[] = {32.0, 24.0, 50.0};
    const char* head[] = {"   1   1", "   1   2", "   2   2"};
    for (std::size_t k = 0; k < 3; ++k) {
        const auto w = words_of(lines.at(k + 1));
        EXPECT_TRUE(lines[k + 1].starts_with(head[k])) << lines[k + 1];
        EXPECT_EQ(number_of(w.at(2)), given[k]);
        EXPECT_NEAR(number_of(w.at(3)), given[k], 4.0 * std::sqrt(variance[k] / (20.0 * 400)));
    }
    EXPECT_TRUE(result.output.ends_with("\"Tarvex\" has finished !\n"));
}

// Lines of the file by animal and trait, the last column.
using values_of = std::map<std::pair<int, int>, double>;
static values_of one_trait_values(const std::string& file) {
    values_of y;
    for (const auto& line : lines_of(read_file(file))) {
        const auto w = words_of(line);
        y[{static_cast<int>(number_of(w.at(1))), static_cast<int>(number_of(w.at(0)))}] = number_of(w.back());
    }
    return y;
}

TEST_F(simulate_test, lines_of_one_trait_share_their_residuals) {
    const auto p = make_population(1500, 2, 1, 0.1, 62);
    write_file("ped.dat", p.pedigree());
    const std::string lines = p.one_trait_lines();
    write_file("data.dat", "# head\n# of the file\n" + lines + "1 5 5 0 1 1 20 -999\n"); // the last one has no record
    std::string columns;
    for (const char* t : {"1", "2"})
        columns +=
            std::string(" TR") + t + " tno\n animal 9999\n perm 9999\n dam 9999\n herd 4\n parity 3\n age 40\n y\n";
    std::string text =
        "PED ped.dat\nANA MUV 2\nDAT data.dat\n" + columns +
        "END\nMOD\n FIX herd\n RAN animal NRM\n TR y 1 -999\n TR y 2 -999\nEND\nVAR animal 2\n 0.0001 0 0.0001\n"
        "VAR residual 2\n 4.0 4.8 9.0\n";
    write_file("model.par", text);
    finish("--simul");
    const auto given = lines_of(lines), found = lines_of(read_file("SimData001.dat"));
    ASSERT_EQ(found.size(), given.size());
    for (std::size_t i = 0; i < given.size(); ++i) {
        const auto old = words_of(given[i]), now = words_of(found[i]);
        ASSERT_EQ(now.size(), old.size() + 1);
        for (std::size_t k = 0; k < old.size(); ++k) EXPECT_EQ(number_of(now[k]), number_of(old[k])) << found[i];
    }
    double v1 = 0, v2 = 0, c = 0;
    int n = 0;
    const auto y = one_trait_values("SimData001.dat");
    for (const auto& [key, value] : y) {
        const auto other = y.find({key.first, 2});
        if (key.second != 1 || other == y.end()) continue;
        v1 += value * value, c += value * other->second, v2 += other->second * other->second, ++n;
    }
    ASSERT_GT(n, 900);
    EXPECT_NEAR(v1 / n, 4.0, 4.0 * std::sqrt(32.0 / n));
    EXPECT_NEAR(v2 / n, 9.0, 4.0 * std::sqrt(162.0 / n));
    EXPECT_NEAR(c / n, 4.8, 4.0 * std::sqrt((36.0 + 23.0) / n)); // correlation 0.8
}

// Traits that are renumbered may name their columns once.
TEST_F(simulate_test, lines_of_traits_with_one_list_of_columns) {
    const auto p = make_population(60, 2, 1, 0.1, 63);
    write_file("ped.dat", p.pedigree());
    std::string lines;
    for (const auto& line : lines_of(p.one_trait_lines()))
        lines += (line[0] == '1' ? "3" : "7") + line.substr(1) + "\n";
    write_file("data.dat", lines);
    const std::string columns = " tno\n animal 9999\n perm 9999\n dam 9999\n herd 4\n parity 3\n age 40\n y\n";
    const auto simulated = [&](const std::string& block, const std::string& equal) {
        write_file("model.par", "PED ped.dat\nANA MUV 2\nDAT data.dat\n" + block + "END\nMOD" + equal +
                                    "\n FIX herd\n RAN animal NRM\n TR y \"3\"->1 -999\n TR y \"7\"->2 -999\nEND\n"
                                    "VAR animal 2\n 4 2 5\nVAR residual 2\n 6 1 5\n");
        write_file("RandomSeeds", "12345 67890\n");
        std::filesystem::remove("nrminvers1.bin");
        finish("--simul");
        return read_file("SimData001.dat");
    };
    const std::string once = simulated(columns, " EQ");
    const auto given = lines_of(lines), found = lines_of(once);
    ASSERT_EQ(found.size(), given.size());
    for (std::size_t i = 0; i < given.size(); ++i) {
        const auto old = words_of(given[i]), now = words_of(found[i]);
        ASSERT_EQ(now.size(), old.size() + 1);
        for (std::size_t k = 0; k < old.size(); ++k) EXPECT_EQ(number_of(now[k]), number_of(old[k])) << found[i];
    }
    EXPECT_EQ(simulated(" TR1" + columns + " TR2" + columns, ""), once);
}

TEST_F(simulate_test, correlated_direct_and_maternal_effects) {
    std::string pedigree, data;
    constexpr int dams = 1500; // two half-sibs from each
    for (int d = 1; d <= dams; ++d)
        for (int k = 1; k <= 2; ++k) {
            const std::string i = std::to_string(dams + 2 * (d - 1) + k);
            pedigree += i + " 0 " + std::to_string(d) + "\n";
            data += i + " " + std::to_string(d) + " 7\n";
        }
    write_file("ped.dat", pedigree);
    write_file("data.dat", data);
    write_file("model.par", "PED ped.dat\nANA UNI\nDAT data.dat\n animal 9999\n dam 9999\n y\nEND\nMOD\n MEA\n RAN "
                            "animal NRM\n RAN dam NRM\n"
                            " TR y 1 -999\nEND\nVAR animal+dam 2\n 4.0 -1.5\n 2.0\nVAR residual 1\n 1.0\n");
    finish("--simul4");
    double v = 0, c = 0;
    int n = 0;
    for (int r = 1; r <= 4; ++r) {
        const auto lines = lines_of(read_file("SimData00" + std::to_string(r) + ".dat"));
        ASSERT_EQ(lines.size(), 2u * dams);
        for (std::size_t d = 0; d < dams; ++d) {
            const double x = number_of(words_of(lines[2 * d]).back()), y = number_of(words_of(lines[2 * d + 1]).back());
            v += 0.5 * (x * x + y * y), c += x * y, ++n;
        }
    }
    // direct and maternal effects of dam and offspring: 4 + 2 - 1.5 + 1, and 4/4 - 1.5 + 2 between half-sibs
    EXPECT_NEAR(v / n, 5.5, 4.0 * std::sqrt((30.25 + 2.25) / n));
    EXPECT_NEAR(c / n, 1.5, 4.0 * std::sqrt((30.25 + 2.25) / n));
}

TEST_F(simulate_test, random_regression) {
    std::string data;
    constexpr int n = 3000;
    for (int i = 1; i <= n; ++i)
        for (int age : {2, 4, 10}) data += std::to_string(i) + " " + std::to_string(age) + " 5\n";
    write_file("data.dat", data);
    write_file("model.par", "ANA RR\nDAT data.dat\n animal 9999\n age 20\n y\nEND\nMOD\n MEA\n RAN animal(2,LEG) IDE\n "
                            "RRC age\n TR y 1 -999\nEND\n"
                            "VAR animal 2\n 4.0 1.0 2.0\nVAR residual 1 HET 2 age\n 1 4 0.5\n 5 10 3.0\n");
    finish("--simul");
    const auto lines = lines_of(read_file("SimData001.dat"));
    ASSERT_EQ(lines.size(), 3u * n);
    double s[3][3] = {}, truth[3][3];
    const double t[] = {-1.0, -0.5, 1.0}, e[] = {0.5, 0.5, 3.0};
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j) {
            for (std::size_t k = 0; k < n; ++k)
                s[i][j] +=
                    number_of(words_of(lines[3 * k + i]).back()) * number_of(words_of(lines[3 * k + j]).back()) / n;
            truth[i][j] = 4.0 * 0.5 + std::sqrt(0.75) * (t[i] + t[j]) + 2.0 * 1.5 * t[i] * t[j] + (i == j ? e[i] : 0.0);
        }
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j)
            EXPECT_NEAR(s[i][j], truth[i][j],
                        4.0 * std::sqrt((truth[i][i] * truth[j][j] + truth[i][j] * truth[i][j]) / n))
                << i << j;
}

// Residual classes go by the control variable that is named, here the second one.
TEST_F(simulate_test, residual_classes_by_the_second_control_variable) {
    std::string data;
    constexpr int n = 2000, places = 4;
    const int age[places] = {2, 4, 10, 10}, parity[places] = {1, 2, 1, 2};
    for (int i = 1; i <= n; ++i)
        for (int k = 0; k < places; ++k)
            data += std::to_string(i) + " " + std::to_string(age[k]) + " " + std::to_string(parity[k]) + " 5\n";
    write_file("data.dat", data);
    write_file("model.par",
               "ANA RR\nDAT data.dat\n animal 9999\n age 20\n parity 3\n y\nEND\nMOD\n MEA\n RAN animal(2,LEG,age) "
               "IDE\n RRC age\n RRC parity\n TR y 1 -999\nEND\nVAR animal 2\n 0.4 0.1 0.2\nVAR residual 1 HET 2 "
               "parity\n 1 1 0.5\n 2 2 8.0\n");
    finish("--simul");
    const auto lines = lines_of(read_file("SimData001.dat"));
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(places * n));
    for (std::size_t k = 0; k < places; ++k) {
        double square = 0.0;
        for (std::size_t i = 0; i < n; ++i) {
            const double y = number_of(words_of(lines[i * places + k]).back());
            square += y * y / n;
        }
        const double t = -1.0 + (age[k] - 2) / 4.0;
        const double truth =
            0.4 * 0.5 + 2.0 * 0.1 * std::sqrt(0.75) * t + 0.2 * 1.5 * t * t + (parity[k] == 1 ? 0.5 : 8.0);
        EXPECT_NEAR(square, truth, 4.0 * truth * std::sqrt(2.0 / n)) << age[k] << " " << parity[k];
    }
}

// Codes of missing values are those of the traits.
TEST_F(simulate_test, other_codes_of_missing_values) {
    std::string data;
    for (int i = 1; i <= 60; ++i)
        data += std::to_string(i) + " " + (i % 3 == 0 ? "-9" : "5") + " " + (i % 4 == 0 ? "77" : "6") + "\n";
    write_file("data.dat", data);
    write_file("model.par",
               "ANA MUV 2\nDAT data.dat\n animal 99\n y1\n y2\nEND\nMOD EQ\n MEA\n RAN animal IDE\n TR y1 1 "
               "-9\n TR y2 2 77\nEND\nVAR animal 2\n 4 1\n 4\nVAR residual 2\n 6 1\n 6\n");
    finish("--simul");
    const auto lines = lines_of(read_file("SimData001.dat"));
    EXPECT_EQ(lines.size(), 55u); // lines without a record are left out
    int missing = 0;
    for (const auto& line : lines) {
        const auto w = words_of(line);
        ASSERT_EQ(w.size(), 5u);
        EXPECT_EQ(w[1] == "-9", w[3] == "-9") << line;
        EXPECT_EQ(w[2] == "77", w[4] == "77") << line;
        EXPECT_NE(w[3], "-999");
        EXPECT_NE(w[4], "-999");
        missing += (w[3] == "-9") + (w[4] == "77");
    }
    EXPECT_EQ(missing, 25);
}

// The mean of the estimates of some replicates lies within three standard errors of the truth.
TEST_F(simulate_test, estimates_come_back_to_the_truth) {
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
    for (std::size_t i = 0; i < truth.size(); ++i)
        EXPECT_NEAR(mean[i], truth[i], 3.0 * error[i] / std::sqrt(replicates)) << i + 1;
}

} // namespace
