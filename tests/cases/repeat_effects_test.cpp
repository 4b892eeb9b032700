// Whole runs with repeat effects that have no equations, and runs whose first evaluation fails.
#include "case_run.h"
#include "population.h"

#include <algorithm>
#include <cmath>

using namespace tarvex;

namespace {

class repeat_runs : public case_run {
protected:
    void SetUp() override {
        name_ = "model";
        p_ = make_population(60, 2, 3, 0.25, 4);
        write_file("ped.dat", p_.pedigree());
    }
    // One trait in a line, so that effects may be those of some traits only.
    void put(const std::string& blocks) const {
        write_file("data.dat", p_.one_trait_lines());
        std::string text = "PED ped.dat\nANA MUV 2\nDAT data.dat\n";
        for (int t = 1; t <= 2; ++t)
            text += " TR" + std::to_string(t) +
                    " qno\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y" + std::to_string(t) +
                    "\n";
        write_file("model.par", text + "END\n" + blocks);
    }
    void put_one_trait(const std::string& effects, const std::string& blocks) const {
        write_file("data.dat", p_.all_traits_lines());
        const std::string pedigree = effects.find("NRM") == std::string::npos ? "" : "PED ped.dat\n";
        write_file("model.par", pedigree +
                                    "ANA UNI\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n"
                                    " age 40\n y1\n y2\nEND\nMOD\n FIX herd\n" +
                                    effects + " TR y1 1 -999\nEND\n" + blocks);
    }
    // Restricted log likelihood with matrices e of the residual, b of the repeat effect, g of the animals.
    double truth(const double (&e)[2][2], const double (&b)[2][2], const double (&g)[2][2]) const {
        const auto a = tabular(p_.sire, p_.dam);
        const auto obs = observations_of(p_);
        dense v(obs.size(), std::vector<double>(obs.size()));
        for (std::size_t i = 0; i < obs.size(); ++i)
            for (std::size_t j = 0; j < obs.size(); ++j) {
                const auto k = static_cast<std::size_t>(p_.records[obs[i].record].code - 1);
                const auto l = static_cast<std::size_t>(p_.records[obs[j].record].code - 1);
                const int q = obs[i].trait - 1, r = obs[j].trait - 1;
                v[i][j] = g[q][r] * a[k][l];
                if (k != l) continue;
                if (i == j)
                    v[i][j] += e[q][q] + b[q][q];
                else
                    v[i][j] += q == r ? b[q][q] : e[q][r] + 2.0 * b[q][r]; // the sum, and the repeat matrix once more
            }
        return dense_reml(obs, herds_and_age(p_, obs), v);
    }
    double start() const { return loglike_at_start(finish("--aireml1").output); }

    population p_;
    const std::string animals_ = "MOD\n FIX herd\n RAN animal NRM\n";
    const std::string traits_ = " TR y1 1 -999\n TR y2 2 -999\nEND\nVAR animal 2\n 4.5 1.5\n 3.5\n";
};

TEST_F(repeat_runs, two_traits) {
    put(animals_ + " RAN perm PEQ\n" + traits_ + "VAR perm 2\n 1.5 0.2\n 1.25\nVAR residual 2\n 6.0 0.4\n 5.5\n");
    expect_relative(start(), truth({{6.0, 0.4}, {0.4, 5.5}}, {{1.5, 0.2}, {0.2, 1.25}}, {{4.5, 1.5}, {1.5, 3.5}}), 1e-8,
                    "log L");
    // the order of the blocks does not matter
    std::filesystem::remove("BestPoint");
    put(animals_ + " RAN perm PEQ\n TR y1 1 -999\n TR y2 2 -999\nEND\nVAR residual 2\n 6.0 0.4\n 5.5\n"
                   "VAR perm 2\n 1.5 0.2\n 1.25\nVAR animal 2\n 4.5 1.5\n 3.5\n");
    expect_relative(start(), truth({{6.0, 0.4}, {0.4, 5.5}}, {{1.5, 0.2}, {0.2, 1.25}}, {{4.5, 1.5}, {1.5, 3.5}}), 1e-8,
                    "log L with the blocks in another order");
}

// The levels in its column do not matter: where they are not the subjects a line tells.
TEST_F(repeat_runs, levels_that_are_not_the_subjects) {
    const std::string text =
        "***** WARNING : levels of \"parity\" are not the subjects : PEQ fits an effect of each subject\n";
    for (const std::string effect : {"perm", "parity"}) {
        put_one_trait(" RAN animal NRM\n RAN " + effect + " PEQ\n",
                      "VAR animal 1\n 4.5\nVAR " + effect + " 1\n 1.5\nVAR residual 1\n 6.0\n");
        EXPECT_EQ(finish("--aireml1").output.find(text) != std::string::npos, effect == "parity");
    }
}

TEST_F(repeat_runs, effect_of_the_second_trait_only) {
    put(animals_ + " RAN perm PEQ 2\n" + traits_ + "VAR perm 1\n 1.25\nVAR residual 2\n 6.0 0.4\n 5.5\n");
    expect_relative(start(), truth({{6.0, 0.4}, {0.4, 5.5}}, {{0.0, 0.0}, {0.0, 1.25}}, {{4.5, 1.5}, {1.5, 3.5}}), 1e-8,
                    "log L");
    std::filesystem::remove("BestPoint");
    finish("--aireml200,1e-9");
    const auto best = read_best_point();
    ASSERT_EQ(best.values.size(), 7u); // residual, animal, perm
    const auto value = [&](const std::vector<double>& x) {
        return truth({{x[0], x[1]}, {x[1], x[2]}}, {{0.0, 0.0}, {0.0, x[6]}}, {{x[3], x[4]}, {x[4], x[5]}});
    };
    const double top = value(best.values);
    EXPECT_NEAR(top, best.loglike, 1e-4);
    for (std::size_t k = 0; k < best.values.size(); ++k)
        for (double step : {-0.02, 0.02}) { // a maximum, whatever way it was found
            auto x = best.values;
            x[k] += step;
            if (k == 6 && x[k] < 0.0) continue;
            EXPECT_LT(value(x), top + 1e-5) << k << " " << step;
        }
}

// Estimates are told without the repeat matrix, and a run that begins with them has the same log likelihood.
TEST_F(repeat_runs, maximum_holds_the_matrices_apart) {
    put(animals_ + " RAN perm PEQ\n" + traits_ + "VAR perm 2\n 1.5 0.2\n 1.25\nVAR residual 2\n 6.0 0.4\n 5.5\n");
    const double before = start();
    std::filesystem::remove("BestPoint");
    finish("--aireml200,1e-9");
    const auto best = read_best_point();
    EXPECT_GT(best.loglike, before);
    ASSERT_EQ(best.values.size(), 9u);
    const auto& x = best.values; // residual, animal, perm
    const double e[2][2] = {{x[0], x[1]}, {x[1], x[2]}}, g[2][2] = {{x[3], x[4]}, {x[4], x[5]}};
    const double b[2][2] = {{x[6], x[7]}, {x[7], x[8]}};
    EXPECT_NEAR(truth(e, b, g), best.loglike, 1e-4);
}

// By records two searches end at one point, with errors. Without the word they end at one log likelihood, which has the
// residual covariance plus twice the other: this sum and the variances agree, and neither covariance does.
TEST_F(repeat_runs, two_starts_end_at_one_point_only_by_records) {
    p_ = make_population(150, 2, 4, 0.0, 31);
    write_file("ped.dat", p_.pedigree());
    write_file("data.dat", p_.all_traits_lines());
    const auto search = [&](const std::string& words, const std::string& perm, const std::string& residual) {
        write_file("model.par",
                   "ANA MUV 2\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y1\n "
                   "y2\nEND\nMOD EQ\n FIX herd\n RAN perm PEQ\n TR y1 1 -999\n TR y2 2 -999\nEND\nVAR perm 2" +
                       words + "\n " + perm + "\nVAR residual 2\n " + residual + "\n");
        std::filesystem::remove("BestPoint");
        finish("--aireml200,1e-11");
        return read_best_point();
    };
    const auto errors_of = [] {
        int n = 0;
        for (const auto& line : read_estimates()) n += line.error > 0.0 ? 1 : 0;
        return n;
    };
    for (const std::string words : {" REC", ""}) {
        SCOPED_TRACE(words);
        const auto one = search(words, "3 0.8 3", "6 1.5 6");
        const int told = errors_of();
        const auto other = search(words, "1.5 -0.6 1", "4 2.5 9");
        ASSERT_EQ(one.values.size(), 6u); // residual, perm
        ASSERT_EQ(other.values.size(), 6u);
        EXPECT_NEAR(one.loglike, other.loglike, 1e-6);
        const auto &x = one.values, &y = other.values;
        for (const std::size_t k : {0u, 2u, 3u, 5u}) EXPECT_NEAR(x[k], y[k], 2e-3) << k;
        if (!words.empty()) {
            for (const std::size_t k : {1u, 4u}) EXPECT_NEAR(x[k], y[k], 2e-3) << k;
            EXPECT_GE(told, 6);
            EXPECT_EQ(told, errors_of());
        } else {
            EXPECT_NEAR(x[1] + 2.0 * x[4], y[1] + 2.0 * y[4], 2e-3);
            EXPECT_GT(std::fabs(x[4] - y[4]), 0.2);
            EXPECT_GT(std::fabs(x[1] - y[1]), 0.4);
        }
    }
}

// A repeat matrix of rank one.
TEST_F(repeat_runs, reduced_rank) {
    const auto model = [&](const std::string& analysis, const std::string& animal, const std::string& perm) {
        std::string traits = traits_;
        traits.replace(traits.find("VAR animal 2"), 12, "VAR animal " + animal);
        put(animals_ + " RAN perm PEQ\n" + traits + "VAR perm " + perm + "VAR residual 2\n 6.0 0.4\n 5.5\n");
        std::string text = read_file("model.par");
        write_file("model.par", text.replace(text.find("ANA MUV 2"), 9, "ANA " + analysis));
    };
    model("MUV PC 2", "2 2", "2 1\n 1.6 0.8\n 0.4\n");
    for (const char* options : {"--aireml5", "--emalg5", "--powell", "--sure", ""}) // no search has derivatives for it
        EXPECT_EQ(run(options).status, 1) << options;
    // residuals as with a matrix that is hardly of full rank
    std::filesystem::remove("BestPoint");
    finish("--blup");
    const auto reduced = read_residuals();
    model("MUV 2", "2", "2\n 1.6 0.8\n 0.400001\n");
    for (const char* file : {"adjacency.bin", "eqnsorder.bin", "symbfact.bin"}) std::filesystem::remove(file);
    finish("--blup");
    const auto full = read_residuals();
    ASSERT_EQ(reduced.size(), full.size());
    for (std::size_t i = 0; i < full.size(); ++i) EXPECT_NEAR(reduced[i].residual, full[i].residual, 1e-3) << i;
}

TEST_F(repeat_runs, one_repeat_effect_and_not_in_random_regressions) {
    const std::string notyet = "*** Tarvex is work in progress !\n";
    put_one_trait(" RAN animal NRM\n RAN perm PEQ\n RAN dam PEQ\n",
                  "VAR animal 1\n 4.5\nVAR perm 1\n 1.5\nVAR dam 1\n 1.0\nVAR residual 1\n 5.0\n");
    auto result = run("--aireml1");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find(notyet), std::string::npos) << result.output;
    write_file("model.par",
               "PED ped.dat\nANA RR\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n"
               " age 40\n y1\n y2\nEND\nMOD\n FIX herd\n RAN animal(1,LEG) NRM\n RAN perm(1,LEG) PEQ\n RRC age\n"
               " TR y1 1 -999\nEND\nVAR animal 1\n 4.5\nVAR perm 1\n 1.5\nVAR residual 1 HOM\n 5.0\n");
    result = run("--aireml1");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find(notyet), std::string::npos) << result.output;
    EXPECT_FALSE(std::filesystem::exists("recoded1.bin"));
}

// With a repeat effect alone its codes are those of the subjects.
TEST_F(repeat_runs, no_other_random_effect) {
    put_one_trait(" RAN perm PEQ\n", "VAR perm 1\n 1.5\nVAR residual 1\n 5.0\n");
    population q = p_;
    std::erase_if(q.records, [](const auto& r) { return r.y[0] == population::missing; });
    for (auto& r : q.records) r.y.pop_back();
    q.ntraits = 1;
    const auto obs = observations_of(q);
    dense v(obs.size(), std::vector<double>(obs.size()));
    for (std::size_t i = 0; i < obs.size(); ++i)
        for (std::size_t j = 0; j < obs.size(); ++j)
            v[i][j] =
                (i == j ? 5.0 : 0.0) + (q.records[obs[i].record].code == q.records[obs[j].record].code ? 1.5 : 0.0);
    expect_relative(start(), dense_reml(obs, herds_and_age(q, obs), v), 1e-8, "log L");
}

// A covariance that the traits allow, but not their repeated records: 5*5*2 is above 6*5.5.
TEST_F(repeat_runs, records_of_a_subject_without_a_positive_definite_matrix) {
    put(animals_ + traits_ + "VAR residual 2\n 6.0 5.0\n 5.5\n");
    const auto result = run("--aireml1");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("***** ERROR : Residual covariance matrix of the records of a subject is not positive "
                                 "definite\n      Combination = "),
              std::string::npos)
        << result.output;
    EXPECT_TRUE(result.output.ends_with("RE-inv adj\n")) << result.output;
}

TEST_F(repeat_runs, first_evaluation_that_fails) {
    put_one_trait(" RAN animal NRM\n", "VAR animal 1\n 4.5\nVAR residual 1\n 1000000000000.0\n");
    for (const char* options : {"--aireml1", "--aireml1 --mmmpdst", "--emalg1"}) {
        const auto result = run(options);
        EXPECT_EQ(result.status, 1) << options;
        EXPECT_NE(result.output.find("\n***** ERROR in sparse matrix factorisation \n"
                                     "      mixed model matrix is not positive definite !!!\n"
                                     "This occurred in first likelihood evaluation attempted.\n"
                                     "Starting variances far from those of the data make pivots vanish.\n"),
                  std::string::npos)
            << options << "\n"
            << result.output;
        EXPECT_TRUE(result.output.ends_with("exit \"Tarvex\"\n")) << options << "\n" << result.output;
        EXPECT_FALSE(std::filesystem::exists("BestPoint")) << options;
    }
}

} // namespace
