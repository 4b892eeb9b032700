// Dependencies among covariables of ordinary scale and fixed effects: what a run finds and tells, against an orthogonal
// decomposition of the design that the test writes out from its own records.
#include "equations/lsqfixed.h"

#include "app/phases.h"
#include "control/numbers.h"
#include "data/levels.h"
#include "equations/mmequations.h"
#include "support/dense_rank.h"
#include "support/fixture.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace tarvex {
namespace {

constexpr int records = 80, herds = 4, columns = 6;

struct covariable {
    int column, powers;
    bool nested; // in herds
};

struct drawn_design {
    std::vector<int> herd;
    std::vector<std::vector<double>> x; // columns of the data by record
    std::vector<covariable> fitted;
    bool mean = false;
};

// Ages in days or classes, weights, and what depends on them or on the herd, in units of their own.
drawn_design draw(unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> normal;
    std::uniform_real_distribution<double> uniform;
    const double unit = std::pow(10.0, static_cast<double>(rng() % 6) - 1.0);
    const int classes = 2 + static_cast<int>(rng() % 3);
    double of_herd[herds];
    for (double& h : of_herd) h = 30.0 + 5.0 * normal(rng);
    drawn_design d;
    for (int i = 0; i < records; ++i) {
        d.herd.push_back(1 + i % herds);
        const double age = 365.0 + 20.0 * normal(rng), weight = unit * (50.0 + 4.0 * normal(rng));
        const double stage = 100.0 * (1 + static_cast<int>(rng() % static_cast<unsigned>(classes)));
        d.x.push_back({std::round(age), weight, 0.3 * unit * age - 1.7 * weight, 2.5 * weight + 7.0, stage,
                       of_herd[d.herd.back() - 1]});
        if (seed % 3 == 0)
            d.x.back()[2] = 0.3 * unit * std::round(age) - 1.7 * weight; // exact, but for its last digits
    }
    std::vector<int> order{0, 1, 2, 3, 4, 5};
    std::shuffle(order.begin(), order.end(), rng);
    const std::size_t n = 2 + rng() % 4;
    for (std::size_t k = 0; k < n; ++k) {
        const int c = order[k];
        d.fitted.push_back({c, c == 4 ? 2 + static_cast<int>(rng() % 3) : 1, c < 2 && uniform(rng) < 0.3});
    }
    d.mean = uniform(rng) < 0.3;
    return d;
}

std::string name_of(const covariable& c) { return "x" + std::to_string(c.column + 1); }

void write_files(const drawn_design& d) {
    std::ostringstream data, par;
    data.precision(17);
    for (int i = 0; i < records; ++i) {
        data << i + 1 << " " << d.herd[static_cast<std::size_t>(i)];
        for (double v : d.x[static_cast<std::size_t>(i)]) data << " " << v;
        data << " " << 10.0 + i % 7 << "\n";
    }
    par << "ANA UNI\nDAT model.dat\n animal 999\n herd 99\n";
    for (int c = 1; c <= columns; ++c) par << " x" << c << "\n";
    par << " y\nEND\nMOD\n FIX herd\n";
    for (const covariable& c : d.fitted)
        par << " COV " << name_of(c) << (c.nested ? "*herd" : "") << "(" << c.powers << ",POL)\n";
    par << (d.mean ? " MEA\n" : "") << " RAN animal IDE\n TR y 1 -999\nEND\nVAR animal 1\n 1.0\nVAR residual 1\n 2.0\n";
    write_file("model.dat", data.str());
    write_file("model.par", par.str());
}

// Columns in the order of the equations: covariables, less their mean, as they are listed; levels; the mean.
oracle::dense design_matrix(const drawn_design& d) {
    oracle::dense x(records);
    for (const covariable& c : d.fitted) {
        double mean = 0.0;
        for (const auto& row : d.x) mean += row[static_cast<std::size_t>(c.column)] / records;
        for (int h = 1; h <= (c.nested ? herds : 1); ++h)
            for (int p = 1; p <= c.powers; ++p)
                for (std::size_t i = 0; i < records; ++i) {
                    const double v = std::pow(d.x[i][static_cast<std::size_t>(c.column)] - mean, p);
                    x[i].push_back(c.nested && d.herd[i] != h ? 0.0 : v);
                }
    }
    for (std::size_t i = 0; i < records; ++i) {
        for (int h = 1; h <= herds; ++h) x[i].push_back(d.herd[i] == h ? 1.0 : 0.0);
        if (d.mean) x[i].push_back(1.0);
    }
    return x;
}

class dependencies_test : public tarvex_test, public testing::WithParamInterface<unsigned> {};

TEST_P(dependencies_test, are_those_of_the_design) {
    const drawn_design d = draw(GetParam());
    write_files(d);
    const char* arguments[] = {"tarvex", "-v", "--aireml", "model.par"};
    ASSERT_FALSE(run_to(run_stage::stores, 4, arguments));
    const oracle::dense x = design_matrix(d);
    std::vector<int> want = oracle::dependent_columns(x, 1.0e-7);
    for (int& e : want)
        if (d.mean && e == static_cast<int>(x[0].size())) e = mmequations.ieq_trait(1); // behind the random effects
    std::vector<int> found = mmequations.ieqzero;
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, want);
    EXPECT_EQ(numbers.nrankx, static_cast<int>(x[0].size() - want.size()));
    for (int e : want)
        EXPECT_NE(screen_text().find("LSQ : additional dependency " + std::to_string(e) + "\n"), std::string::npos)
            << e;
}

INSTANTIATE_TEST_SUITE_P(designs, dependencies_test, testing::Range(1u, 31u));

// Some designs have full rank and most have not, and none is in doubt.
TEST(dependencies, come_and_go) {
    int full = 0, deficient = 0;
    for (unsigned seed = 1; seed <= 30; ++seed) {
        const oracle::dense x = design_matrix(draw(seed));
        const std::vector<int> found = oracle::dependent_columns(x, 1.0e-5);
        EXPECT_EQ(found, oracle::dependent_columns(x, 1.0e-8)) << seed;
        ++(found.empty() ? full : deficient);
    }
    EXPECT_GT(full, 2);
    EXPECT_GT(deficient, 15);
}

} // namespace
} // namespace tarvex
