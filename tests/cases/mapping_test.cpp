// Effects tied to their columns, subjects and blocks: log likelihoods of whole runs against dense matrices.
#include "case_run.h"
#include "population.h"

#include <algorithm>
#include <array>
#include <functional>

using namespace tarvex;

namespace {

class mapping_test : public case_run {
protected:
    void SetUp() override { name_ = "model"; }
    static std::string columns(int ntraits) {
        std::string text = " animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n";
        for (int t = 1; t <= ntraits; ++t) text += " y" + std::to_string(t) + "\n";
        return text;
    }
    // Columns of lines that belong to one trait.
    static std::string columns_by_trait(int ntraits) {
        std::string text;
        for (int t = 1; t <= ntraits; ++t)
            text += " TR" + std::to_string(t) +
                    " qno\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y" + std::to_string(t) +
                    "\n";
        return text;
    }
    double start() const { return loglike_at_start(finish("--aireml1").output); }
    static const animal_record& record(const population& p, const observation& o) { return p.records[o.record]; }
    using covariance = std::function<double(const observation&, const observation&)>;
    static dense matrix(const std::vector<observation>& obs, const covariance& f) {
        dense v(obs.size(), std::vector<double>(obs.size()));
        for (std::size_t i = 0; i < obs.size(); ++i)
            for (std::size_t j = 0; j < obs.size(); ++j) v[i][j] = f(obs[i], obs[j]);
        return v;
    }
};

// log|C| and y'Py of mixed model equations with k traits: columns of each record, then the right-hand side; absorbed by
// elimination. `prior` is added to the equations.
double dense_mme(const std::vector<std::vector<std::array<double, 2>>>& rows, dense c, const dense& rinv,
                 double& log_c) {
    // rows[record][equation] holds the elements for two traits; the last equation is the observation
    const std::size_t n = c.size();
    for (const auto& row : rows)
        for (std::size_t i = 0; i < n; ++i)
            for (std::size_t j = 0; j < n; ++j)
                for (std::size_t s = 0; s < 2; ++s)
                    for (std::size_t t = 0; t < 2; ++t) c[i][j] += row[i][s] * rinv[s][t] * row[j][t];
    log_c = 0.0;
    for (std::size_t k = 0; k + 1 < n; ++k) {
        log_c += std::log(c[k][k]);
        for (std::size_t i = k + 1; i < n; ++i)
            for (std::size_t j = k + 1; j < n; ++j) c[i][j] -= c[k][i] * c[k][j] / c[k][k];
    }
    return c[n - 1][n - 1];
}

TEST_F(mapping_test, sires_with_hundreds_of_progeny) {
    constexpr std::size_t nsires = 3, nherds = 4;
    auto p = make_population(800, 2, 1, 0.0, 51);
    ASSERT_GT(p.records.size(), 650u);
    for (std::size_t r = 0; r < p.records.size(); ++r) p.records[r].code = r < 600 ? 1 : r < 640 ? 2 : 3;
    write_file("ped.dat", "1 0 0\n2 0 0\n3 0 0\n");
    write_file("data.dat", p.all_traits_lines());
    const std::string head = "PED ped.dat SIR\nDAT data.dat\n" + columns(2) + "END\n";
    // two traits: v1, v12, v2 of sires and residuals
    const std::array<double, 3> g{1.1, 0.4, 0.9}, r{9.0, 3.0, 8.0};
    const double det_g = g[0] * g[2] - g[1] * g[1], det_r = r[0] * r[2] - r[1] * r[1];
    const dense ginv{{g[2] / det_g, -g[1] / det_g}, {-g[1] / det_g, g[0] / det_g}};
    const dense rinv{{r[2] / det_r, -r[1] / det_r}, {-r[1] / det_r, r[0] / det_r}};
    const std::size_t n = 2 * (nherds + nsires) + 1;
    dense c(n, std::vector<double>(n, 0.0));
    for (std::size_t s = 0; s < nsires; ++s)
        for (std::size_t t = 0; t < 2; ++t)
            for (std::size_t u = 0; u < 2; ++u) c[2 * (nherds + s) + t][2 * (nherds + s) + u] = ginv[t][u];
    std::vector<std::vector<std::array<double, 2>>> rows;
    for (const auto& rec : p.records) {
        std::vector<std::array<double, 2>> row(n, {0.0, 0.0});
        for (std::size_t t = 0; t < 2; ++t) {
            row[2 * static_cast<std::size_t>(rec.herd - 1) + t][t] = 1.0;
            row[2 * (nherds + static_cast<std::size_t>(rec.code - 1)) + t][t] = 1.0;
            row[n - 1][t] = rec.y[t];
        }
        rows.push_back(row);
    }
    double log_c = 0.0;
    const double ypy = dense_mme(rows, c, rinv, log_c);
    const double truth = -0.5 * (static_cast<double>(p.records.size()) * std::log(det_r) +
                                 static_cast<double>(nsires) * std::log(det_g) + log_c + ypy);
    write_file("model.par", head + "ANA MUV 2\nMOD EQ\n FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n"
                                   "VAR animal 2\n 1.1 0.4 0.9\nVAR residual 2\n 9 3 8\n");
    expect_relative(start(), truth, 1e-8, "two traits");

    // one trait: the other equations stand apart
    for (auto& row : rows)
        for (auto& element : row) element[1] = 0.0;
    for (auto& line : c) std::fill(line.begin(), line.end(), 0.0);
    for (std::size_t i = 0; i < n - 1; ++i) c[i][i] = i % 2 == 1 ? 1.0 : i >= 2 * nherds ? 1.0 / 1.1 : 0.0;
    const double ypy1 = dense_mme(rows, c, {{1.0 / 9.0, 0.0}, {0.0, 0.0}}, log_c);
    const double truth1 = -0.5 * (static_cast<double>(p.records.size()) * std::log(9.0) +
                                  static_cast<double>(nsires) * std::log(1.1) + log_c + ypy1);
    write_file("model.par", head + "ANA UNI\nMOD\n FIX herd\n RAN animal NRM\n TR y1 1 -999\nEND\n"
                                   "VAR animal 1\n 1.1\nVAR residual 1\n 9\n");
    expect_relative(start(), truth1, 1e-8, "one trait");
}

TEST_F(mapping_test, effects_without_relationships) {
    auto p = make_population(80, 1, 1, 0.0, 52);
    write_file("data.dat", p.all_traits_lines());
    const auto obs = observations_of(p);
    const auto both = matrix(obs, [&](const auto& i, const auto& j) {
        const auto &r = record(p, i), &s = record(p, j);
        return 1.5 * (r.parity == s.parity) + 2.0 * (r.dam == s.dam) + 6.0 * (i.record == j.record);
    });
    const double truth = dense_reml(obs, herds_and_age(p, obs), both);
    const std::string head = "ANA UNI\nDAT data.dat\n" + columns(1) + "END\nMOD\n FIX herd\n";
    const std::string residual = "VAR residual 1\n 6.0\n", trait = " TR y1 1 -999\nEND\n";
    for (auto& r : p.records)
        if (r.dam == 0) r.dam = 998; // a code as any other
    write_file("data.dat", p.all_traits_lines());
    write_file("model.par",
               head + " RAN parity\n RAN dam IDE\n" + trait + "VAR parity 1\n 1.5\nVAR dam 1\n 2.0\n" + residual);
    expect_relative(start(), truth, 1e-8, "two effects");
    write_file("model.par",
               head + " RAN dam\n RAN parity\n" + trait + residual + "VAR dam 1\n 2.0\nVAR parity 1\n 1.5\n");
    expect_relative(start(), truth, 1e-8, "in another order");
    std::reverse(p.records.begin(), p.records.end());
    write_file("data.dat", p.all_traits_lines());
    expect_relative(start(), truth, 1e-8, "lines in another order");

    const auto joint = matrix(observations_of(p), [&](const auto& i, const auto& j) {
        const auto &r = record(p, i), &s = record(p, j);
        return 1.5 * (r.dam == s.dam && r.herd == s.herd) + 6.0 * (i.record == j.record);
    });
    write_file("model.par", head + " RAN dam*herd\n" + trait + "VAR dam*herd 1\n 1.5\n" + residual);
    expect_relative(start(), dense_reml(observations_of(p), herds_and_age(p, observations_of(p)), joint), 1e-8,
                    "interaction");
}

TEST_F(mapping_test, one_of_the_traits_in_the_data) {
    auto p = make_population(70, 2, 2, 0.3, 53);
    write_file("ped.dat", p.pedigree());
    write_file("data.dat", p.one_trait_lines());
    write_file("model.par", "PED ped.dat\nANA UNI\nDAT data.dat\n qno\n" + columns(0) +
                                " y\nEND\nMOD\n FIX herd\n RAN animal NRM\n TR y \"2\"->1 -999\nEND\n"
                                "VAR animal 1\n 4.5\nVAR residual 1\n 6.0\n");
    std::erase_if(p.records, [](const auto& r) { return r.y[1] == population::missing; });
    for (auto& r : p.records) r.y.erase(r.y.begin());
    p.ntraits = 1;
    const auto a = tabular(p.sire, p.dam);
    const auto obs = observations_of(p);
    const auto v = matrix(obs, [&](const auto& i, const auto& j) {
        return 4.5 *
                   a[static_cast<std::size_t>(record(p, i).code - 1)][static_cast<std::size_t>(record(p, j).code - 1)] +
               6.0 * (i.record == j.record);
    });
    expect_relative(start(), dense_reml(obs, herds_and_age(p, obs), v), 1e-8, "log L");
    EXPECT_EQ(labelled("SumEstimates.out", "No. of records"), static_cast<double>(p.records.size()));
}

TEST_F(mapping_test, covariable_within_an_effect_that_is_only_counted) {
    const auto p = make_population(80, 1, 1, 0.0, 55);
    write_file("ped.dat", p.pedigree());
    write_file("data.dat", p.all_traits_lines());
    const auto a = tabular(p.sire, p.dam);
    const auto obs = observations_of(p);
    const auto v = matrix(obs, [&](const auto& i, const auto& j) {
        return 4.5 *
                   a[static_cast<std::size_t>(record(p, i).code - 1)][static_cast<std::size_t>(record(p, j).code - 1)] +
               6.0 * (i.record == j.record);
    });
    double mean = 0.0;
    for (const auto& r : p.records) mean += r.age / static_cast<double>(p.records.size());
    dense x(obs.size(), std::vector<double>(5, 0.0)); // a mean, and age in herds
    for (std::size_t i = 0; i < obs.size(); ++i) {
        x[i][0] = 1.0;
        x[i][static_cast<std::size_t>(record(p, obs[i]).herd)] = record(p, obs[i]).age - mean;
    }
    const std::string head = "PED ped.dat\nANA UNI\nDAT data.dat\n" + columns(1) + "END\nMOD\n MEA\n";
    const std::string tail =
        " COV age*herd(1,POL)\n RAN animal NRM\n TR y1 1 -999\nEND\nVAR animal 1\n 4.5\nVAR residual 1\n 6.0\n";
    write_file("model.par", head + " EXT herd\n" + tail);
    expect_relative(start(), dense_reml(obs, x, v), 1e-8, "log L");
    write_file("model.par", head + tail);
    EXPECT_NE(run("").output.find("Error : Cannot find FE for nested covariable "), std::string::npos);
}

// The summary of the model without its lines of dates, times and sizes of files.
std::string model_summary() {
    std::string text;
    for (const auto& line : lines_of(read_file("SumModel.out")))
        if (line.find("==") == std::string::npos && line.find("ime") == std::string::npos) text += line + "\n";
    return text;
}

TEST_F(mapping_test, forms_of_the_data_block_give_one_summary) {
    const auto p = make_population(60, 2, 1, 0.3, 56);
    write_file("ped.dat", p.pedigree());
    const std::string head = "PED ped.dat\nANA MUV 2\nDAT data.dat";
    const std::string blocks = " FIX herd\n COV age(1,POL)\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n"
                               "VAR animal 2\n 4.5 1.5 3.5\nVAR residual 2\n 6.0 2.0 5.5\n";
    const auto summary = [&](const std::string& data, const std::string& model) {
        write_file("model.par", head + data + "END\n" + model + blocks);
        finish("--setup");
        return model_summary();
    };
    write_file("data.dat", p.all_traits_lines());
    const auto all_traits = summary("\n" + columns(2), "MOD EQ\n");
    EXPECT_NE(all_traits.find("y2"), std::string::npos);
    EXPECT_EQ(summary(" GRP\n TRN\n" + columns(0) + " NAM y1 y2\n", "MOD EQ\n"), all_traits);
    EXPECT_EQ(summary("\n TR1 " + columns(2).substr(1), "MOD EQ\n"), all_traits);
    write_file("data.dat", p.one_trait_lines());
    const auto one_trait = summary("\n" + columns_by_trait(2), "MOD\n");
    EXPECT_EQ(summary(" GRP\n TRN 1 2\n qno\n" + columns(0) + " NAM y1 y2\n", "MOD\n"), one_trait);
    EXPECT_EQ(summary(" GRP\n TRN 2\n qno\n" + columns(0) + " y2\n TRN 1\n qno\n" + columns(0) + " y1\n", "MOD\n"),
              one_trait);
    // counts and means agree between the two kinds of lines
    std::size_t n = 0;
    for (const auto& line : lines_of(all_traits))
        if (line.find("\"y") != std::string::npos || line.find("animal") != std::string::npos) {
            EXPECT_NE(one_trait.find(line), std::string::npos) << line;
            ++n;
        }
    EXPECT_GT(n, 0u);
}

// Direct effect in both traits, maternal effect in one or both.
class maternal_test : public mapping_test {
protected:
    void SetUp() override {
        mapping_test::SetUp();
        p_ = make_population(70, 2, 1, 0.25, 54);
        std::erase_if(p_.records, [](const auto& r) { return r.dam == 0; });
        write_file("ped.dat", p_.pedigree());
        a_ = tabular(p_.sire, p_.dam);
    }
    // Log L with covariances `g` of direct and maternal effects; place(which, trait) is 0 where not fitted.
    double truth(const dense& g, const std::function<int(int, int)>& place) const {
        const auto obs = observations_of(p_);
        const auto v = matrix(obs, [&](const auto& i, const auto& j) {
            const auto &r = record(p_, i), &s = record(p_, j);
            const std::array<int, 3> k{0, r.code, r.dam}, l{0, s.code, s.dam};
            double sum = i.record != j.record ? 0.0 : i.trait != j.trait ? 2.0 : i.trait == 1 ? 6.0 : 5.5;
            for (int d = 1; d <= 2; ++d)
                for (int e = 1; e <= 2; ++e) {
                    const int x = place(d, i.trait), y = place(e, j.trait);
                    if (x == 0 || y == 0) continue;
                    sum += g[static_cast<std::size_t>(x - 1)][static_cast<std::size_t>(y - 1)] *
                           a_[static_cast<std::size_t>(k[static_cast<std::size_t>(d)] - 1)]
                             [static_cast<std::size_t>(l[static_cast<std::size_t>(e)] - 1)];
                }
            return sum;
        });
        return dense_reml(obs, herds_and_age(p_, obs), v);
    }
    population p_;
    dense a_;
    const std::string residual_ = "VAR residual 2\n 6.0 2.0 5.5\n";
};

TEST_F(maternal_test, two_traits) {
    write_file("data.dat", p_.all_traits_lines());
    const dense g{{4.5, 1.5, -0.5, 0.1}, {1.5, 3.5, 0.2, -0.3}, {-0.5, 0.2, 1.5, 0.4}, {0.1, -0.3, 0.4, 1.2}};
    write_file("model.par",
               "PED ped.dat\nANA MUV 2\nDAT data.dat\n" + columns(2) +
                   "END\nMOD EQ\n FIX herd\n RAN animal NRM\n RAN dam NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n"
                   "VAR animal+dam 4\n 4.5 1.5 -0.5 0.1 3.5 0.2 -0.3 1.5 0.4 1.2\n" +
                   residual_);
    expect_relative(start(), truth(g, [](int which, int trait) { return 2 * (which - 1) + trait; }), 1e-8, "log L");
}

TEST_F(maternal_test, one_of_two_traits) {
    write_file("data.dat", p_.one_trait_lines());
    const dense g{{4.5, 1.5, -0.5}, {1.5, 3.5, 0.2}, {-0.5, 0.2, 1.5}};
    write_file("model.par",
               "PED ped.dat\nANA MUV 2\nDAT data.dat\n" + columns_by_trait(2) +
                   "END\nMOD\n FIX herd\n RAN animal NRM\n RAN dam NRM 1\n TR y1 1 -999\n TR y2 2 -999\nEND\n"
                   "VAR animal+dam 3\n 4.5 1.5 -0.5 3.5 0.2 1.5\n" +
                   residual_);
    const double at_start = truth(g, [](int which, int trait) { return which == 1 ? trait : trait == 1 ? 3 : 0; });
    expect_relative(start(), at_start, 1e-8, "log L");
    finish("--aireml50,1e-7");
    EXPECT_GT(read_best_point().loglike, at_start);
}

TEST_F(maternal_test, reduced_rank) {
    write_file("data.dat", p_.all_traits_lines());
    // two factors: columns of the loadings
    const dense l{{2.0, 0.0}, {0.8, 1.5}, {-0.3, 0.4}, {0.2, -0.5}};
    dense g(4, std::vector<double>(4));
    std::string values;
    char text[40];
    for (std::size_t i = 0; i < 4; ++i)
        for (std::size_t j = 0; j < 4; ++j) {
            g[i][j] = l[i][0] * l[j][0] + l[i][1] * l[j][1];
            std::snprintf(text, sizeof text, " %.10f", g[i][j]);
            if (j >= i) values += text;
            if (j == 3) values += "\n";
        }
    write_file("model.par",
               "PED ped.dat\nANA MUV PC 2\nDAT data.dat\n" + columns(2) +
                   "END\nMOD EQ\n FIX herd\n RAN animal NRM\n RAN dam NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n"
                   "VAR animal+dam 4 2\n" +
                   values + residual_);
    expect_relative(start(), truth(g, [](int which, int trait) { return 2 * (which - 1) + trait; }), 1e-7, "log L");
}

} // namespace
