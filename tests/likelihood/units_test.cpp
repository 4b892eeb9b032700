// Results do not depend on the units of the traits: records times c and covariances times c squared give the same
// log L but for (records - rank) log c, and solutions times c.
#include "control/numbers.h"
#include "control/options.h"
#include "data/levels.h"
#include "data/units.h"
#include "equations/mmequations.h"
#include "estimation/bestpoint.h"
#include "estimation/estimates.h"
#include "likelihood/likelihood.h"
#include "likelihood/solutions.h"
#include "parameters/parunits.h"
#include "parfile/mudmap.h"
#include "support/fixture.h"
#include "support/small_models.h"

#include <algorithm>
#include <cmath>

namespace tarvex {
namespace {

using units_test = tarvex_test;

struct outcome {
    double logl = 0.0;
    std::vector<double> solutions, covariances;
};

// Factors by trait, taken over and over for any number of traits.
small_model scaled(small_model m, const std::vector<double>& c) {
    const auto of = [&](int q) { return c[at(q) % c.size()]; };
    for (auto& r : m.rows)
        for (int q = 0; q < m.nq; ++q)
            if (r.y[at(q)] != -999.0) r.y[at(q)] *= of(q);
    const auto matrix = [&](std::vector<double>& g, int n, bool diagonal) {
        std::size_t k = 0;
        for (int i = 0; i < n; ++i)
            for (int j = i; j < (diagonal ? i + 1 : n); ++j)
                g[k++] *= m.randreg ? c[0] * c[0] : of(i % m.nq) * of(j % m.nq);
    };
    for (auto& e : m.random) matrix(e.g, e.order, e.diagonal);
    if (m.class_bounds.empty())
        matrix(m.residual, m.nq, false);
    else
        for (double& v : m.residual) v *= c[0] * c[0];
    return m;
}

// At the given covariances, in the units of the data.
outcome at_start(const small_model& m, const std::vector<std::string>& arguments) {
    set_up(m, arguments);
    outcome o;
    o.logl = program_logl(estimates.parvec, 1);
    for (int e = 1; e <= mmequations.neqns; ++e) o.solutions.push_back(solutions.solsave(e));
    for (int irand = 0; irand <= numbers.krand; ++irand)
        for (double v : best_covariances(irand)) o.covariances.push_back(v);
    for (int iq = 1; iq <= m.nq; ++iq) { // fixed part by trait: herds, then the mean
        const double u = trait_unit(iq);
        if (m.herd)
            for (int l = 1; l <= levels.fx_nlev(1, iq); ++l) o.solutions[at(mmequations.fx_start(1, iq) + l - 1)] *= u;
        if (m.covariable) o.solutions[at(mmequations.cv_start(1, iq))] *= u;
        if (m.mean) o.solutions[at(mmequations.ieq_trait(iq) - 1)] *= u;
    }
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (mudmap.kovrnd(irand) == covariance_kind::peq || options.principal) continue;
        const int n = nfit(irand);
        for (int l = 1; l <= levels.rn_nlev(irand); ++l)
            for (int r = 1; r <= n; ++r)
                o.solutions[at(mmequations.rn_start(irand) + (l - 1) * n + r - 1)] *= row_unit(irand, r);
    }
    return o;
}

// marked: levels of random effects that are treated as fixed, each of which takes a record of each trait
void expect_same_in_any_unit(const small_model& m, const std::vector<std::string>& arguments = {"--aireml"},
                             int marked = 0) {
    new_analysis();
    const outcome plain = at_start(m, arguments);
    ASSERT_GT(plain.logl, invalid_logl);
    ASSERT_FALSE(any_unit());
    for (const std::vector<double>& c :
         {std::vector<double>{1.0e-6, 1.0e6}, {1.0e6, 1.0e-6}, {1.0e-3}, {3.0e3, 0.02}, {0.07, 0.3, 9.0}}) {
        new_analysis();
        const outcome o = at_start(scaled(m, c), arguments);
        double shift = 0.0, size = 1.0;
        std::vector<double> factor(plain.solutions.size(), 1.0);
        // One fixed equation of the first trait for each of its solutions that is not 0.
        for (int iq = 1; iq <= m.nq; ++iq) {
            const double s = c[at(iq - 1) % c.size()];
            int rank = marked;
            const auto fixed = [&](int e) {
                factor[at(e - 1)] = s;
                if (plain.solutions[at(e - 1)] != 0.0) ++rank;
            };
            if (m.herd)
                for (int l = 1; l <= levels.fx_nlev(1, iq); ++l) fixed(mmequations.fx_start(1, iq) + l);
            if (m.covariable) fixed(mmequations.cv_start(1, iq) + 1);
            if (m.mean) fixed(mmequations.ieq_trait(iq));
            shift -= (means.nrec(iq) - rank) * std::log(s);
        }
        for (int irand = 1; irand <= numbers.krand; ++irand) {
            if (mudmap.kovrnd(irand) == covariance_kind::peq || options.principal) continue;
            const int n = nfit(irand);
            for (int k = 0; k < levels.rn_nlev(irand) * n; ++k) {
                const int trait = m.randreg ? 0 : mudmap.rn_trait(k % n + 1, irand) - 1;
                factor[at(mmequations.rn_start(irand) + k)] = c[at(trait) % c.size()];
            }
        }
        EXPECT_NEAR(o.logl, plain.logl + shift, 1.0e-9 * std::fabs(plain.logl)) << c[0];
        for (double x : plain.solutions) size = std::max(size, std::fabs(x));
        const int compared = options.principal
                                 ? mmequations.neq_cov + mmequations.neq_fix // scores turn with the pivots
                                 : mmequations.neqns;
        for (std::size_t e = 0; e < at(compared); ++e)
            EXPECT_NEAR(o.solutions[e] / factor[e], plain.solutions[e], 1.0e-9 * size) << c[0] << " equation " << e + 1;
    }
}

small_model animals(int nq, std::vector<double> g, std::vector<double> r, int repeats = 1, double missing = 0.0) {
    small_model m;
    m.nq = nq;
    m.make_pedigree(24, 6, 51);
    m.make_rows(5, repeats, 3, missing, 52);
    m.random = {{"animal", "NRM", nq, 0, std::move(g)}};
    m.residual = std::move(r);
    return m;
}

TEST_F(units_test, one_trait_with_repeats_and_a_covariable) {
    small_model m = animals(1, {1.3}, {2.1}, 6);
    m.covariable = true;
    m.random.push_back({"pe", "IDE", 1, 0, {0.8}});
    expect_same_in_any_unit(m);
    m.random[1].kov = "PEQ";
    expect_same_in_any_unit(m);
}

TEST_F(units_test, traits_in_different_units_with_missing_records) {
    small_model m = animals(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9}, 2, 0.25);
    m.random.push_back({"dam", "IDE", 2, 0, {0.5, 0.1, 0.4}});
    expect_same_in_any_unit(m);
    expect_same_in_any_unit(m, {"--emalg"});
    m.herd = false;
    m.mean = true;
    expect_same_in_any_unit(m);
    m.random[1].kov = "PEQ";
    expect_same_in_any_unit(m);
    m.random[1].by_record = true;
    m.residual = {2.1, -0.8, 1.9}; // of the other sign than the repeat effect
    expect_same_in_any_unit(m);
}

TEST_F(units_test, supplied_inverse) {
    small_model m = animals(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9});
    m.rows.clear();
    m.make_rows(1, 1, 3, 0.0, 55); // a record of every animal: codes are levels
    const oracle::dense a = oracle::tabular(m.sire, m.dam), inverse = oracle::inverse(a);
    std::string text = std::to_string(oracle::log_det(a)) + "\n";
    for (std::size_t i = 0; i < inverse.size(); ++i)
        for (std::size_t j = 0; j <= i; ++j)
            if (std::fabs(inverse[i][j]) > 1.0e-12)
                text += std::to_string(j + 1) + " " + std::to_string(i + 1) + " " + list_item(inverse[i][j]) + "\n";
    write_file("animal.gin", text);
    m.random[0].kov = "GIN";
    m.sire.clear();
    m.dam.clear();
    expect_same_in_any_unit(m);
}

TEST_F(units_test, marked_levels) {
    small_model m = animals(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9});
    m.extra = "PSE 0.0\n animal 6\n animal 9\nEND\n";
    expect_same_in_any_unit(m, {"--aireml"}, 2);
}

TEST_F(units_test, correlated_effects_and_diagonal_matrices) {
    small_model m = animals(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9});
    m.random[0] = {"animal+dam", "NRM", 4, 0, {1.3, 0.5, -0.1, 0.05, 1.8, 0.02, -0.2, 0.5, 0.1, 0.6}};
    expect_same_in_any_unit(m);
    m.random[0] = {"animal", "NRM", 2, 0, {1.3, 1.8}, true};
    expect_same_in_any_unit(m);
    expect_same_in_any_unit(m, {"--nologd"});
}

TEST_F(units_test, sire_model) {
    small_model m = animals(2, {0.4, 0.1, 0.5}, {2.1, 0.4, 1.9});
    m.sires = true;
    expect_same_in_any_unit(m);
}

TEST_F(units_test, random_regression_with_and_without_classes) {
    small_model m;
    m.randreg = true;
    m.make_pedigree(20, 6, 53);
    m.make_rows(5, 6, 3, 0.0, 54);
    m.random = {{"animal", "NRM", 2, 0, {1.3, 0.2, 0.9}}, {"pe", "IDE", 2, 0, {0.8, 0.1, 0.6}}};
    m.residual = {2.0};
    expect_same_in_any_unit(m); // one residual variance for all
    m.class_bounds = {5, 11};
    m.residual = {2.0, 1.2};
    expect_same_in_any_unit(m);
}

// A matrix of rank 2: what is cut off a matrix of higher rank would depend on the order of its pivots.
TEST_F(units_test, reduced_rank) {
    const double f[3][2] = {{1.2, 0.0}, {0.5, 1.1}, {0.3, 0.4}};
    std::vector<double> g;
    for (int i = 0; i < 3; ++i)
        for (int j = i; j < 3; ++j) g.push_back(f[i][0] * f[j][0] + f[i][1] * f[j][1]);
    small_model m = animals(3, g, {2.1, 0.4, 0.1, 1.9, 0.2, 1.5}, 1, 0.2);
    m.principal = true;
    m.random[0].rank = 2;
    expect_same_in_any_unit(m);
}

// The least part of a matrix that counts is relative to the trait, too: a trait in tiny units keeps all of it.
TEST_F(units_test, covariances_come_back_in_the_units_of_the_data) {
    small_model m = scaled(animals(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9}), {1.0e-6, 1.0e6});
    const outcome o = at_start(m, {"--aireml"});
    const std::vector<double> want{2.1e-12, 0.4, 1.9e12, 1.3e-12, 0.5, 1.8e12};
    ASSERT_EQ(o.covariances.size(), want.size());
    for (std::size_t k = 0; k < want.size(); ++k) EXPECT_NEAR(o.covariances[k] / want[k], 1.0, 1.0e-12) << k;
    EXPECT_NE(screen_text().find("worked out in units of"), std::string::npos);
}

TEST_F(units_test, ordinary_traits_keep_their_units) {
    for (double sd : {0.25, 1.0, 512.0}) EXPECT_EQ(unit_for(sd), 1.0);
    EXPECT_EQ(unit_for(0.0), 1.0);
    EXPECT_EQ(unit_for(1024.0), 1024.0);
    EXPECT_EQ(unit_for(0.06), 0.0625);
}

} // namespace
} // namespace tarvex
