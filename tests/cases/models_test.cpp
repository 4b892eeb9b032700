// Whole runs of many models on a small generated population, with log likelihoods from dense covariance matrices.
#include "case_run.h"
#include "population.h"

#include <algorithm>
#include <functional>

using namespace tarvex;

namespace {

class models_test : public case_run {
protected:
    void SetUp() override { name_ = "model"; }

    // Files of a population; with one_trait each line holds the trait number and the record of one trait.
    void put(const population& p, bool one_trait = false) const {
        write_file("ped.dat", p.pedigree());
        write_file("data.dat", one_trait ? p.one_trait_lines() : p.all_traits_lines());
    }
    // Parameter file: columns of the data, then the blocks given.
    static void parameters(const population& p, const std::string& analysis, const std::string& blocks,
                           bool pedigree = true, const std::string& columns = "") {
        std::string text = "COM Generated population\n";
        if (pedigree) text += "PED ped.dat\n";
        text += "ANA " + analysis + "\nDAT data.dat\n";
        text += columns.empty() ? column_names(p.ntraits) : columns;
        write_file("model.par", text + "END\n" + blocks);
    }
    static std::string column_names(int ntraits) {
        std::string text = " animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n";
        for (int t = 1; t <= ntraits; ++t) text += " y" + std::to_string(t) + "\n";
        return text;
    }
    double start(const std::string& options = "--aireml1") const { return loglike_at_start(finish(options).output); }

    using covariance = std::function<double(const observation&, const observation&)>;
    static dense matrix(const std::vector<observation>& obs, const covariance& f) {
        dense v(obs.size(), std::vector<double>(obs.size()));
        for (std::size_t i = 0; i < obs.size(); ++i)
            for (std::size_t j = 0; j <= i; ++j) v[i][j] = v[j][i] = f(obs[i], obs[j]);
        return v;
    }
    static std::size_t animal(const population& p, const observation& o) {
        return static_cast<std::size_t>(p.records[o.record].code - 1);
    }
    static double sym(const std::vector<std::vector<double>>& m, int i, int j) {
        return m[static_cast<std::size_t>(i - 1)][static_cast<std::size_t>(j - 1)];
    }

    static constexpr const char* uni_model = "MOD\n FIX herd\n COV age(1,POL)\n RAN animal NRM\n TR y1 1 -999\nEND\n"
                                             "VAR animal 1\n 4.5\nVAR residual 1\n 6.0\n";
    static constexpr const char* rep_model =
        "MOD\n FIX herd\n COV age(1,POL)\n RAN animal NRM\n RAN perm IDE\n TR y1 1 -999\nEND\n"
        "VAR animal 1\n 4.5\nVAR perm 1\n 1.5\nVAR residual 1\n 5.0\n";
    static constexpr const char* biv_blocks = "VAR animal 2\n 4.5 1.5\n 3.5\nVAR residual 2\n 6.0 2.0\n 5.5\n";
    static constexpr const char* biv_model =
        "MOD EQ\n FIX herd\n COV age(1,POL)\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n";
    const std::vector<std::vector<double>> g2{{4.5, 1.5}, {1.5, 3.5}}, r2{{6.0, 2.0}, {2.0, 5.5}};
};

TEST_F(models_test, animal_model_with_covariable) {
    const auto p = make_population(90, 1, 1, 0.0, 1);
    put(p);
    parameters(p, "UNI", uni_model);
    const auto a = tabular(p.sire, p.dam);
    const auto obs = observations_of(p);
    const auto v = matrix(obs, [&](const auto& i, const auto& j) {
        return 4.5 * a[animal(p, i)][animal(p, j)] + (i.record == j.record ? 6.0 : 0.0);
    });
    expect_relative(start(), dense_reml(obs, herds_and_age(p, obs, true), v), 1e-8, "log L");
}

TEST_F(models_test, repeated_records) {
    const auto p = make_population(60, 1, 4, 0.0, 2);
    put(p);
    parameters(p, "UNI", rep_model);
    const auto a = tabular(p.sire, p.dam);
    const auto obs = observations_of(p);
    const auto v = matrix(obs, [&](const auto& i, const auto& j) {
        const auto k = animal(p, i), l = animal(p, j);
        return 4.5 * a[k][l] + (k == l ? 1.5 : 0.0) + (i.record == j.record ? 5.0 : 0.0);
    });
    expect_relative(start(), dense_reml(obs, herds_and_age(p, obs, true), v), 1e-8, "log L");
}

TEST_F(models_test, permanent_effect_through_the_residual_equals_an_independent_effect) {
    const auto p = make_population(60, 1, 4, 0.0, 2);
    put(p);
    std::string model = rep_model;
    parameters(p, "UNI", model);
    finish("--aireml200,1e-9");
    const auto independent = read_best_point();
    const double at_start = start();
    std::filesystem::remove("BestPoint");
    model.replace(model.find("perm IDE"), 8, "perm PEQ");
    parameters(p, "UNI", model);
    expect_relative(start(), at_start, 1e-8, "log L");
    std::filesystem::remove("BestPoint");
    finish("--aireml200,1e-9");
    expect_best(independent, 1e-5, 5e-3);
}

TEST_F(models_test, two_traits_with_missing_records) {
    const auto p = make_population(70, 2, 1, 0.3, 3);
    put(p);
    parameters(p, "MUV 2", std::string(biv_model) + biv_blocks);
    const auto a = tabular(p.sire, p.dam);
    const auto obs = observations_of(p);
    const auto v = matrix(obs, [&](const auto& i, const auto& j) {
        return sym(g2, i.trait, j.trait) * a[animal(p, i)][animal(p, j)] +
               (i.record == j.record ? sym(r2, i.trait, j.trait) : 0.0);
    });
    const double truth = dense_reml(obs, herds_and_age(p, obs, true), v);
    expect_relative(start(), truth, 1e-8, "all traits in one line");

    put(p, true);
    const std::string columns = [] {
        std::string text;
        for (int t = 1; t <= 2; ++t)
            text += " TR" + std::to_string(t) +
                    " qno\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y" + std::to_string(t) +
                    "\n";
        return text;
    }();
    parameters(p, "MUV 2",
               std::string("MOD\n FIX herd\n COV age(1,POL)\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n") +
                   biv_blocks,
               true, columns);
    expect_relative(start(), truth, 1e-8, "one trait a line");
}

TEST_F(models_test, traits_with_effects_of_their_own) {
    const auto p = make_population(70, 2, 3, 0.3, 4);
    put(p, true);
    std::string columns;
    for (int t = 1; t <= 2; ++t)
        columns += " TR" + std::to_string(t) +
                   " qno\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y" + std::to_string(t) + "\n";
    parameters(
        p, "MUV 2",
        "MOD\n FIX herd\n COV age(1,POL) 1\n RAN animal NRM\n RAN perm IDE 2\n TR y1 1 -999\n TR y2 2 -999\nEND\n" +
            std::string("VAR animal 2\n 4.5 1.5\n 3.5\nVAR residual 2\n 6.0 0.5\n 5.5\nVAR perm 1\n 1.25\n"),
        true, columns);
    const auto a = tabular(p.sire, p.dam);
    const auto obs = observations_of(p);
    // the residual covariance holds between any two records of an animal in different traits
    dense x = herds_and_age(p, obs, true);
    for (auto& row : x) row.pop_back(); // no age for the second trait
    dense v(obs.size(), std::vector<double>(obs.size()));
    for (std::size_t i = 0; i < obs.size(); ++i)
        for (std::size_t j = 0; j < obs.size(); ++j) {
            const auto k = animal(p, obs[i]), l = animal(p, obs[j]);
            v[i][j] = sym(g2, obs[i].trait, obs[j].trait) * a[k][l];
            if (k != l) continue;
            if (obs[i].trait == 2 && obs[j].trait == 2) v[i][j] += 1.25;
            if (i == j)
                v[i][j] += sym(r2, obs[i].trait, obs[i].trait);
            else if (obs[i].trait != obs[j].trait)
                v[i][j] += 0.5;
        }
    expect_relative(start(), dense_reml(obs, x, v), 1e-8, "log L");
}

TEST_F(models_test, mean_equals_a_fixed_effect_of_one_level) {
    const auto p = make_population(60, 1, 1, 0.0, 5);
    write_file("ped.dat", p.pedigree());
    std::string lines;
    for (auto r : p.records) {
        r.herd = 1;
        lines += population::head_of(r) + " " + population::text_of(r.y[0]) + "\n";
    }
    write_file("data.dat", lines);
    const std::string tail = " RAN animal NRM\n TR y1 1 -999\nEND\nVAR animal 1\n 4.5\nVAR residual 1\n 6.0\n";
    parameters(p, "UNI", "MOD\n FIX herd\n" + tail);
    const double one_level = start();
    const auto obs = observations_of(p);
    const auto a = tabular(p.sire, p.dam);
    const auto v = matrix(obs, [&](const auto& i, const auto& j) {
        return 4.5 * a[animal(p, i)][animal(p, j)] + (i.record == j.record ? 6.0 : 0.0);
    });
    expect_relative(one_level, dense_reml(obs, dense(obs.size(), {1.0}), v), 1e-8, "log L");
    for (const char* word : {"MEA", "MU"}) {
        parameters(p, "UNI", std::string("MOD\n ") + word + "\n" + tail);
        expect_relative(start(), one_level, 1e-9, word);
    }
    // solutions of the random effect do not depend on the way in which the mean is fitted
    finish("--blup");
    const auto mean = read_random_solutions("animal");
    parameters(p, "UNI", "MOD\n FIX herd\n" + tail);
    finish("--blup");
    const auto fixed = read_random_solutions("animal");
    ASSERT_EQ(mean.size(), fixed.size());
    for (std::size_t i = 0; i < mean.size(); ++i) {
        EXPECT_NEAR(mean[i].solution, fixed[i].solution, 1e-5);
        EXPECT_NEAR(mean[i].error, fixed[i].error, 1e-5);
    }
}

// Lower triangle of the inverse relationship matrix, row by row, as a file of a supplied inverse.
void write_supplied_inverse(const std::string& effect, const dense& a) {
    const auto inverse = oracle::inverse(a);
    char line[80];
    std::snprintf(line, sizeof line, "%.15g\n", oracle::log_det(a));
    std::string text = line, codes;
    for (std::size_t i = 0; i < a.size(); ++i) {
        for (std::size_t j = 0; j <= i; ++j) {
            if (std::fabs(inverse[i][j]) < 1e-12) continue;
            std::snprintf(line, sizeof line, "%zu %zu %.15g\n", j + 1, i + 1, inverse[i][j]);
            text += line;
        }
        codes += std::to_string(i + 1) + " " + std::to_string(i + 1) + "\n";
    }
    write_file(effect + ".gin", text);
    write_file(effect + ".codes", codes);
}

TEST_F(models_test, supplied_inverse_equals_the_relationship_matrix) {
    const auto p = make_population(60, 1, 1, 0.0, 6);
    put(p);
    parameters(p, "UNI", uni_model);
    finish("--nopru --aireml200,1e-9");
    const auto pedigree = read_best_point();
    const double at_start = start("--nopru --aireml1");
    const auto breeding = read_random_solutions("animal");
    std::string model = uni_model;
    model.replace(model.find("NRM"), 3, "GIN");
    write_supplied_inverse("animal", tabular(p.sire, p.dam));
    std::filesystem::remove("BestPoint");
    std::filesystem::remove("ped.dat");
    parameters(p, "UNI", model, false);
    expect_relative(start(), at_start, 1e-8, "log L");
    finish("--aireml200,1e-9");
    expect_best(pedigree, 1e-6, 1e-3);
    finish("--blup");
    EXPECT_EQ(read_random_solutions("animal").size(), static_cast<std::size_t>(p.animals()));
}

// Levels of a supplied inverse stand for animals as the list of codes says, or else as their numbers do; founders have
// no records, so that the inverse has more levels than the data.
TEST_F(models_test, levels_of_a_supplied_inverse) {
    const auto p = make_population(60, 1, 1, 0.0, 6);
    put(p);
    parameters(p, "UNI", uni_model);
    const double truth = start("--nopru --aireml1");
    finish("--nopru --blup");
    const auto breeding = read_random_solutions("animal");
    std::string model = uni_model;
    model.replace(model.find("NRM"), 3, "GIN");
    parameters(p, "UNI", model, false);
    const auto a = tabular(p.sire, p.dam);
    write_supplied_inverse("animal", a);
    std::filesystem::remove("animal.codes");
    expect_relative(start(), truth, 1e-8, "codes that are running numbers");

    const std::size_t n = a.size();
    dense backwards(n, std::vector<double>(n));
    std::string codes;
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t j = 0; j < n; ++j) backwards[i][j] = a[n - 1 - i][n - 1 - j];
        codes += std::to_string(i + 1) + " " + std::to_string(n - i) + "\n";
    }
    write_supplied_inverse("animal", backwards);
    write_file("animal.codes", codes);
    for (const char* file : {"adjacency.bin", "eqnsorder.bin", "symbfact.bin"}) std::filesystem::remove(file);
    expect_relative(start(), truth, 1e-8, "levels in descending order of codes");
    finish("--blup");
    const auto found = read_random_solutions("animal");
    ASSERT_EQ(found.size(), breeding.size());
    for (const auto& b : breeding) {
        const auto at = std::find_if(found.begin(), found.end(), [&](const auto& line) { return line.code == b.code; });
        ASSERT_NE(at, found.end()) << b.code;
        EXPECT_NEAR(at->solution, b.solution, 1e-5) << b.code;
    }

    codes.replace(0, codes.find('\n'), "1 777"); // in place of the youngest animal
    write_file("animal.codes", codes);
    const auto lost = run("--aireml1");
    EXPECT_EQ(lost.status, 1);
    EXPECT_NE(lost.output.find("      Could not find code for random effect \"animal\"\n"
                               "      Code in data file = 60\n"),
              std::string::npos)
        << lost.output;
}

TEST_F(models_test, correlated_direct_and_maternal_effects) {
    const auto p = make_population(70, 1, 1, 0.0, 7);
    put(p);
    const std::string model = "MOD\n FIX herd\n RAN animal NRM\n RAN dam NRM\n TR y1 1 -999\nEND\n"
                              "VAR animal+dam 2\n 4.5 -0.5\n 1.5\nVAR residual 1\n 5.0\n";
    parameters(p, "UNI", model);
    // records of animals with an unknown dam are left out of this model
    std::string lines;
    population known = p;
    known.records.clear();
    for (const auto& r : p.records)
        if (r.dam > 0) known.records.push_back(r);
    write_file("data.dat", known.all_traits_lines());
    const auto a = tabular(p.sire, p.dam);
    const auto obs = observations_of(known);
    const auto v = matrix(obs, [&](const auto& i, const auto& j) {
        const auto k = animal(known, i), l = animal(known, j);
        const auto dk = static_cast<std::size_t>(known.records[i.record].dam - 1);
        const auto dl = static_cast<std::size_t>(known.records[j.record].dam - 1);
        return 4.5 * a[k][l] - 0.5 * (a[k][dl] + a[dk][l]) + 1.5 * a[dk][dl] + (i.record == j.record ? 5.0 : 0.0);
    });
    expect_relative(start(), dense_reml(obs, herds_and_age(known, obs), v), 1e-8, "log L");
    std::filesystem::remove("BestPoint");
    finish("--aireml200,1e-9");
    const double newton = read_best_point().loglike;
    std::filesystem::remove("BestPoint");
    finish("--emai4,200,1e-9"); // EM first
    EXPECT_NEAR(read_best_point().loglike, newton, 1e-3);
    std::filesystem::remove("BestPoint");
    const auto em = finish("--pxem4"); // EM alone, which gains in each round
    EXPECT_NE(em.output.find("PX-EM algorithm not implemented for correlated random effects"), std::string::npos);
    const auto rounds = iterates_of(em.output);
    ASSERT_GE(rounds.size(), 4u);
    for (std::size_t i = 1; i < rounds.size(); ++i) EXPECT_GT(rounds[i].loglike, rounds[i - 1].loglike) << i;
    EXPECT_LT(rounds.back().loglike, newton);
}

TEST_F(models_test, sire_model) {
    const auto p = make_population(80, 1, 1, 0.0, 8);
    // records of the progeny of sires; pedigree of the sires with sire and grandsire
    std::string lines, ped;
    population q = p;
    q.records.clear();
    for (const auto& r : p.records)
        if (r.sire > 0) q.records.push_back(r);
    std::stable_sort(q.records.begin(), q.records.end(), [](const auto& a, const auto& b) { return a.sire < b.sire; });
    for (auto r : q.records) {
        r.code = r.sire;
        lines += population::head_of(r) + " " + population::text_of(r.y[0]) + "\n";
    }
    std::vector<int> sire(p.sire.size()), grandsire(p.sire.size());
    for (std::size_t i = 0; i < p.sire.size(); ++i) {
        sire[i] = p.sire[i];
        grandsire[i] = p.dam[i] > 0 ? p.sire[static_cast<std::size_t>(p.dam[i] - 1)] : 0;
        ped += std::to_string(i + 1) + " " + std::to_string(sire[i]) + " " + std::to_string(grandsire[i]) + "\n";
    }
    write_file("data.dat", lines);
    write_file("ped.dat", ped);
    const std::string model = "MOD\n FIX herd\n RAN animal NRM\n TR y1 1 -999\nEND\n"
                              "VAR animal 1\n 1.1\nVAR residual 1\n 9.0\n";
    parameters(p, "UNI", model, false);
    std::string text = read_file("model.par");
    write_file("model.par", "PED ped.dat SIR\n" + text);
    const auto result = finish("--aireml100,1e-8");
    EXPECT_FALSE(std::isnan(loglike_at_start(result.output)));
    EXPECT_NE(read_file("SumEstimates.out").find("Sire model fitted"), std::string::npos);
    EXPECT_EQ(read_best_point().values.size(), 2u);
}

TEST_F(models_test, random_regression_on_the_constant_equals_repeated_records) {
    auto p = make_population(60, 1, 4, 0.0, 9);
    for (std::size_t i = 0; i < p.records.size(); ++i) p.records[i].age = 20.0 + static_cast<double>(i % 19);
    put(p);
    parameters(p, "UNI", rep_model);
    const double repeatability = start();
    parameters(
        p, "RR",
        "MOD\n FIX herd\n COV age(1,POL)\n RAN animal(1,LEG) NRM\n RAN perm(1,LEG) IDE\n RRC age\n TR y1 1 -999\nEND\n"
        "VAR animal 1\n 9.0\nVAR perm 1\n 3.0\nVAR residual 1 HOM\n 5.0\n");
    expect_relative(start(), repeatability, 1e-8, "log L");
}

TEST_F(models_test, random_regression_with_residual_classes) {
    auto p = make_population(60, 1, 5, 0.0, 10);
    for (std::size_t i = 0; i < p.records.size(); ++i) // no age twice within an animal
        p.records[i].age = 20.0 + static_cast<double>(i % 19);
    put(p);
    const std::string model =
        "MOD\n FIX herd\n RAN animal(2,LEG) NRM\n RAN perm(2,LEG) IDE\n RRC age\n TR y1 1 -999\nEND\n"
        "VAR animal 2\n 8.0 1.0\n 2.0\nVAR perm 2\n 3.0 0.5\n 1.0\n";
    const auto a = tabular(p.sire, p.dam);
    const auto obs = observations_of(p);
    const std::vector<std::vector<double>> g{{8.0, 1.0}, {1.0, 2.0}}, q{{3.0, 0.5}, {0.5, 1.0}};
    const auto value = [&](const std::function<double(double)>& residual) {
        return dense_reml(obs, herds_and_age(p, obs), matrix(obs, [&](const auto& i, const auto& j) {
                              const auto k = animal(p, i), l = animal(p, j);
                              const auto phi = [&](const observation& o, int c) {
                                  const double t = 2.0 * (p.records[o.record].age - 20.0) / 18.0 - 1.0;
                                  return c == 1 ? std::sqrt(0.5) : std::sqrt(1.5) * t;
                              };
                              double sum = i.record == j.record ? residual(p.records[i.record].age) : 0.0;
                              for (int c = 1; c <= 2; ++c)
                                  for (int d = 1; d <= 2; ++d)
                                      sum += phi(i, c) * phi(j, d) *
                                             (sym(g, c, d) * a[k][l] + (k == l ? sym(q, c, d) : 0.0));
                              return sum;
                          }));
    };
    parameters(p, "RR", model + "VAR residual 1 HOM\n 5.0\n");
    expect_relative(start(), value([](double) { return 5.0; }), 1e-8, "one class");
    parameters(p, "RR", model + "VAR residual 1 HET 3 age\n 20 25 4.0\n 26 30 5.0\n 31 39 6.5\n");
    expect_relative(start(), value([](double t) { return t < 25.5   ? 4.0
                                                         : t < 30.5 ? 5.0
                                                                    : 6.5; }), 1e-8,
                    "step function");
    finish("--aireml100,1e-7");
    EXPECT_EQ(read_best_point().values.size(), 9u);
    parameters(p, "RR", model + "VAR residual 1 IND 2\n 4.0\n 6.5\n");
    std::string classes;
    for (int t = 20; t <= 38; ++t) classes += std::to_string(t) + " " + std::to_string(1 + t % 2) + "\n";
    write_file("MEVariances", classes);
    expect_relative(start(), value([](double t) { return static_cast<int>(t) % 2 == 0 ? 4.0 : 6.5; }), 1e-8,
                    "numbered classes");
}

TEST_F(models_test, reduced_rank_equals_the_covariance_matrix_of_its_factor) {
    const auto p = make_population(60, 2, 1, 0.2, 11);
    put(p);
    // rank 1: (4, 2)' (4, 2) / 4
    const std::string head = std::string(biv_model);
    parameters(p, "MUV PC 2", head + "VAR animal 2 1\n 4.0 2.0\n 1.0\nVAR residual 2\n 6.0 2.0\n 5.5\n");
    const std::vector<std::vector<double>> g{{4.0, 2.0}, {2.0, 1.0}};
    const auto a = tabular(p.sire, p.dam);
    const auto obs = observations_of(p);
    const auto v = matrix(obs, [&](const auto& i, const auto& j) {
        return sym(g, i.trait, j.trait) * a[animal(p, i)][animal(p, j)] +
               (i.record == j.record ? sym(r2, i.trait, j.trait) : 0.0);
    });
    expect_relative(start(), dense_reml(obs, herds_and_age(p, obs, true), v), 1e-8, "log L");
    std::filesystem::remove("BestPoint");
    finish("--aireml100,1e-7");
    EXPECT_EQ(read_best_point().nparm, 5);
    EXPECT_NE(read_file("SumEstimates.out").find("Order & rank of fit  ="), std::string::npos);
}

TEST_F(models_test, full_rank_components_reach_the_ordinary_maximum) {
    const auto p = make_population(150, 2, 1, 0.2, 12);
    put(p);
    parameters(p, "MUV 2", std::string(biv_model) + biv_blocks);
    finish("--aireml200,1e-9");
    const auto ordinary = read_best_point();
    std::filesystem::remove("BestPoint");
    parameters(p, "MUV PC 2",
               std::string(biv_model) + "VAR animal 2 2\n 4.5 1.5\n 3.5\nVAR residual 2\n 6.0 2.0\n 5.5\n");
    finish("--aireml200,1e-9");
    expect_best(ordinary, 1e-4, 0.01);
}

TEST_F(models_test, diagonal_block) {
    const auto p = make_population(60, 2, 3, 0.0, 13);
    put(p);
    parameters(p, "MUV 2",
               "MOD EQ\n FIX herd\n RAN animal NRM\n RAN perm IDE\n TR y1 1 -999\n TR y2 2 -999\nEND\n"
               "VAR animal 2\n 4.5 1.5\n 3.5\nVAR perm 2 DIA\n 1.5 1.0\nVAR residual 2\n 6.0 0.5\n 5.5\n");
    const auto a = tabular(p.sire, p.dam);
    const auto obs = observations_of(p);
    const auto v = matrix(obs, [&](const auto& i, const auto& j) {
        const auto k = animal(p, i), l = animal(p, j);
        return sym(g2, i.trait, j.trait) * a[k][l] + (k == l && i.trait == j.trait ? (i.trait == 1 ? 1.5 : 1.0) : 0.0) +
               (i.record == j.record && i.trait == j.trait ? sym(r2, i.trait, i.trait) : 0.0) +
               (k == l && i.trait != j.trait ? 0.5 : 0.0);
    });
    expect_relative(start(), dense_reml(obs, herds_and_age(p, obs), v), 1e-8, "log L");
}

TEST_F(models_test, traits_never_recorded_together_have_no_residual_covariance) {
    auto p = make_population(60, 2, 1, 0.0, 14);
    for (std::size_t i = 0; i < p.records.size(); ++i) p.records[i].y[i % 2] = population::missing;
    put(p);
    parameters(p, "MUV 2", std::string(biv_model) + biv_blocks);
    const auto a = tabular(p.sire, p.dam);
    const auto obs = observations_of(p);
    const auto v = matrix(obs, [&](const auto& i, const auto& j) {
        return sym(g2, i.trait, j.trait) * a[animal(p, i)][animal(p, j)] +
               (i.record == j.record ? sym(r2, i.trait, j.trait) : 0.0);
    });
    expect_relative(start(), dense_reml(obs, herds_and_age(p, obs, true), v), 1e-8, "log L");
    finish("--aireml100,1e-8");
    EXPECT_EQ(read_best_point().values.at(1), 0.0);
}

// A regression nested in herds, a quadratic regression and Legendre polynomials.
TEST_F(models_test, regressions_on_covariables) {
    const auto p = make_population(80, 1, 1, 0.0, 15);
    put(p);
    const auto a = tabular(p.sire, p.dam);
    const auto obs = observations_of(p);
    const auto v = matrix(obs, [&](const auto& i, const auto& j) {
        return 4.5 * a[animal(p, i)][animal(p, j)] + (i.record == j.record ? 6.0 : 0.0);
    });
    double mean = 0.0, low = 99.0, high = 0.0;
    for (const auto& r : p.records) {
        mean += r.age / static_cast<double>(p.records.size());
        low = std::min(low, r.age);
        high = std::max(high, r.age);
    }
    const auto with = [&](const std::string& regression) {
        parameters(p, "UNI",
                   "MOD\n FIX herd\n COV " + regression +
                       "\n RAN animal NRM\n TR y1 1 -999\nEND\n"
                       "VAR animal 1\n 4.5\nVAR residual 1\n 6.0\n");
        return start();
    };
    const auto truth = [&](const std::function<void(std::vector<double>&, const animal_record&)>& add) {
        dense x = herds_and_age(p, obs);
        for (std::size_t i = 0; i < obs.size(); ++i) add(x[i], p.records[obs[i].record]);
        return dense_reml(obs, x, v);
    };
    expect_relative(with("age(2,POL)"), truth([&](auto& row, const auto& r) {
                        row.push_back(r.age - mean);
                        row.push_back((r.age - mean) * (r.age - mean));
                    }),
                    1e-8, "quadratic");
    expect_relative(with("age(2,LEG)"), truth([&](auto& row, const auto& r) {
                        const double t = 2.0 * (r.age - low) / (high - low) - 1.0;
                        row.push_back(std::sqrt(1.5) * t);
                        row.push_back(std::sqrt(2.5) * (1.5 * t * t - 0.5));
                    }),
                    1e-8, "Legendre");
    expect_relative(with("age*herd(1,POL)"), truth([&](auto& row, const auto& r) {
                        for (int h = 1; h <= 4; ++h) row.push_back(r.herd == h ? r.age - mean : 0.0);
                    }),
                    1e-8, "nested");
}

} // namespace
