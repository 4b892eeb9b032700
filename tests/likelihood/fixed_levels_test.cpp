// Levels of a random effect that are treated as fixed, against dense algebra: their effects are columns of X, and the
// others follow from their parents, fixed or not, by the recurrence of the pedigree.
#include "control/numbers.h"
#include "control/options.h"
#include "data/levels.h"
#include "dense/numroutines.h"
#include "estimation/covs2parvec.h"
#include "estimation/emsteps.h"
#include "estimation/estimates.h"
#include "likelihood/derivatives.h"
#include "likelihood/likelihood.h"
#include "parameters/randomvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "parfile/randasfix.h"
#include "relations/nrminverse.h"
#include "support/fixture.h"
#include "support/small_models.h"

#include <algorithm>
#include <cmath>

namespace tarvex {
namespace {

using fixed_levels_test = tarvex_test;

small_model animals(int nq, const std::vector<int>& fixed, const std::string& factor) {
    small_model m;
    m.nq = nq;
    m.make_pedigree(24, 6, 5);
    m.make_rows(4, nq == 1 ? 2 : 1, 2, nq > 1 ? 0.2 : 0.0, 6);
    m.random = {{"animal", "NRM", nq, 0, nq == 1 ? std::vector<double>{1.3} : std::vector<double>{1.3, 0.5, 1.8}}};
    m.residual = nq == 1 ? std::vector<double>{2.1} : std::vector<double>{2.1, 0.4, 1.9};
    m.extra = "PSE " + factor + "\n";
    for (int code : fixed) m.extra += " animal " + std::to_string(code) + "\n";
    m.extra += "END\n";
    return m;
}

// The analysis with the levels in X, and the relationships of the others given them.
oracle::analysis with_fixed(const small_model& m, const std::vector<int>& fixed) {
    const int n = static_cast<int>(m.sire.size());
    const oracle::dense a = oracle::tabular(m.sire, m.dam);
    const auto is_fixed = [&](int i) { return std::find(fixed.begin(), fixed.end(), i) != fixed.end(); };
    // u = share * (Mendelian sampling of the others, effects of the fixed)
    oracle::dense share = oracle::zeros(at(n), at(n));
    oracle::vec d(at(n), 0.0);
    for (int i = 1; i <= n; ++i) {
        share[at(i - 1)][at(i - 1)] = 1.0;
        if (is_fixed(i)) continue;
        double parents = 0.0; // variance of the mean of the parents
        const int s = m.sire[at(i - 1)], q = m.dam[at(i - 1)];
        for (int p : {s, q}) {
            if (p == 0) continue;
            parents += 0.25 * a[at(p - 1)][at(p - 1)];
            for (int k = 1; k < i; ++k) share[at(i - 1)][at(k - 1)] += 0.5 * share[at(p - 1)][at(k - 1)];
        }
        if (s > 0 && q > 0) parents += 0.5 * a[at(s - 1)][at(q - 1)];
        d[at(i - 1)] = a[at(i - 1)][at(i - 1)] - parents;
    }
    oracle::analysis full = m.dense();
    full.a[0] = oracle::zeros(at(n), at(n));
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            for (int k = 0; k < n; ++k) full.a[0][at(i)][at(j)] += share[at(i)][at(k)] * d[at(k)] * share[at(j)][at(k)];
    for (auto& o : full.obs)
        for (int f : fixed)
            for (std::size_t r = 0; r < o.terms[0][0].z.size(); ++r) {
                double x = 0.0; // of component r of the level
                for (const oracle::term& t : o.terms[0]) x += t.z[r] * share[at(t.level - 1)][at(f - 1)];
                o.x.push_back(x);
            }
    return full;
}

oracle::reml dense_at(const small_model& m, const std::vector<int>& fixed, const array<double>& parvec) {
    const oracle::analysis a = with_fixed(m, fixed);
    return oracle::evaluate(a, oracle::variance(a, point_at(m, parvec)));
}

void expect_dense(const small_model& m, const std::vector<int>& fixed) {
    const double want = dense_at(m, fixed, estimates.parvec).logl;
    EXPECT_NEAR(program_logl(estimates.parvec, 1), want, 1.0e-8 * std::fabs(want));
}

// Analytical gradient against differences of the dense log likelihood.
void expect_dense_gradient(const small_model& m, const std::vector<int>& fixed) {
    program_logl(estimates.parvec, 1);
    average_info();
    derivatives_mmm();
    jacob_var2chol(0);
    const oracle::analysis a = with_fixed(m, fixed);
    const auto logl = [&](int i, double step) {
        array<double> p = estimates.parvec;
        p(i) += step;
        return oracle::evaluate(a, oracle::variance(a, point_at(m, p))).logl;
    };
    for (int i = 1; i <= estimates.nparm; ++i) {
        const double h = 1.0e-3;
        const double slope = (8.0 * (logl(i, h) - logl(i, -h)) - (logl(i, 2.0 * h) - logl(i, -2.0 * h))) / (12.0 * h);
        EXPECT_NEAR(derivs.der1(i), slope, 1.0e-6) << "parameter " << i;
    }
}

// Average information against 1/2 y'P dV P dV P y: the part of the solutions that the fixed levels hand on lies in X.
void expect_dense_information(const small_model& m, const std::vector<int>& fixed) {
    program_logl(estimates.parvec, 1);
    average_info();
    derivatives_mmm();
    jacob_var2chol(0);
    const oracle::analysis a = with_fixed(m, fixed);
    const oracle::reml e = oracle::evaluate(a, oracle::variance(a, point_at(m, estimates.parvec)));
    std::vector<oracle::dense> dv;
    for (int i = 1; i <= estimates.nparm; ++i) {
        array<double> up = estimates.parvec, down = estimates.parvec;
        const double h = 1.0e-4; // V is quadratic in the parameters: the difference is exact
        up(i) += h;
        down(i) -= h;
        oracle::dense d = oracle::variance(a, point_at(m, up));
        const oracle::dense low = oracle::variance(a, point_at(m, down));
        for (std::size_t r = 0; r < d.size(); ++r)
            for (std::size_t c = 0; c < d.size(); ++c) d[r][c] = (d[r][c] - low[r][c]) / (2.0 * h);
        dv.push_back(d);
    }
    for (int i = 1; i <= estimates.nparm; ++i)
        for (int j = i; j <= estimates.nparm; ++j) {
            const double want = oracle::information(e, dv[at(i - 1)], dv[at(j - 1)]);
            EXPECT_NEAR(derivs.der2(ihmssf(i, j, estimates.nparm)), want, 1.0e-6 * (1.0 + std::fabs(want)))
                << i << " " << j;
        }
}

void on_original_scale() {
    options.emalgorithm = true;
    covs2parvec();
    forget_likelihoods();
}

// A founder with many progeny, a parent with a record of its own, and one that is an end of the pedigree.
TEST_F(fixed_levels_test, one_trait) {
    const std::vector<int> fixed{3, 9, 24};
    const small_model m = animals(1, fixed, "0.0");
    set_up(m);
    ASSERT_EQ(randasfix.nasfix(1), 3);
    expect_dense(m, fixed);
    expect_dense_gradient(m, fixed);
    expect_dense_information(m, fixed);
    on_original_scale();
    expect_dense(m, fixed);
    expect_dense_gradient(m, fixed);
}

TEST_F(fixed_levels_test, two_traits_with_missing_records) {
    const std::vector<int> fixed{6, 9};
    const small_model m = animals(2, fixed, "0.0");
    set_up(m);
    expect_dense(m, fixed);
    expect_dense_gradient(m, fixed);
    expect_dense_information(m, fixed);
}

// A round moves a variance by 2 g g / n times its slope, n the levels that are random.
TEST_F(fixed_levels_test, round_of_em) {
    const std::vector<int> fixed{3, 9};
    const small_model m = animals(1, fixed, "0.0");
    set_up(m, {"--emalg"});
    on_original_scale();
    const oracle::analysis a = with_fixed(m, fixed);
    const oracle::point p = point_at(m, estimates.parvec);
    const double r = p.r[0][0][0], g = p.g[0][0][0], h = 1.0e-3;
    const auto logl = [&](double dr, double dg) {
        oracle::point q = p;
        q.r[0][0][0] += dr;
        q.g[0][0][0] += dg;
        return oracle::evaluate(a, oracle::variance(a, q)).logl;
    };
    const double sr = (8.0 * (logl(h, 0) - logl(-h, 0)) - (logl(2 * h, 0) - logl(-2 * h, 0))) / (12.0 * h);
    const double sg = (8.0 * (logl(0, h) - logl(0, -h)) - (logl(0, 2 * h) - logl(0, -2 * h))) / (12.0 * h);
    double xlike = program_logl(estimates.parvec, 1);
    int iround = 0;
    em_algorithm(1, iround, xlike, 0.0);
    const oracle::point after = point_at(m, estimates.parvec);
    EXPECT_NEAR(after.r[0][0][0], r + 2.0 * r * r * sr / static_cast<double>(a.obs.size()), 1.0e-6);
    EXPECT_NEAR(after.g[0][0][0], g + 2.0 * g * g * sg / effective_levels(1), 1.0e-6);
}

// With a factor f on the diagonal the levels are draws with the matrix G/f from which no logarithm is counted.
TEST_F(fixed_levels_test, ridge_on_the_diagonal) {
    const std::vector<int> fixed{6, 9};
    const double factor = 0.25;
    const small_model m = animals(2, fixed, "0.25");
    set_up(m);
    const oracle::analysis free = with_fixed(m, fixed);
    oracle::analysis a = m.dense();
    const std::size_t from = a.obs[0].x.size();
    a.a[0] = free.a[0];
    std::vector<oracle::vec> share(free.a[0].size(), oracle::vec(fixed.size(), 0.0)); // of each level in the fixed ones
    for (const auto& o : free.obs)
        for (std::size_t f = 0; f < fixed.size(); ++f) {
            const oracle::term& t = o.terms[0][0];
            for (std::size_t r = 0; r < t.z.size(); ++r)
                if (t.z[r] != 0.0) share[at(t.level - 1)][f] = o.x[from + f * t.z.size() + r];
        }
    for (std::size_t i = 0; i < share.size(); ++i)
        for (std::size_t j = 0; j < share.size(); ++j)
            for (std::size_t f = 0; f < fixed.size(); ++f) a.a[0][i][j] += share[i][f] * share[j][f] / factor;
    const oracle::point p = point_at(m, estimates.parvec);
    const double nf = static_cast<double>(fixed.size());
    const double want = oracle::evaluate(a, oracle::variance(a, p)).logl +
                        0.5 * nf * (oracle::log_det(p.g[0]) - 2.0 * std::log(factor));
    EXPECT_NEAR(program_logl(estimates.parvec), want, 1.0e-8 * std::fabs(want));
    program_logl(estimates.parvec, 1);
    average_info();
    derivatives_mmm();
    jacob_var2chol(0);
    const array<double> der1 = derivs.der1;
    const std::vector<double> slopes = difference_gradient(estimates.parvec);
    for (int i = 1; i <= estimates.nparm; ++i) EXPECT_NEAR(der1(i), slopes[at(i - 1)], 1.0e-5) << "parameter " << i;
}

TEST_F(fixed_levels_test, level_named_twice_counts_once) {
    const std::vector<int> fixed{9};
    const small_model m = animals(1, {9, 9}, "0.0");
    set_up(m);
    EXPECT_EQ(effective_levels(1), levels.rn_nlev(1) - 1.0);
    expect_dense(m, fixed);
}

TEST_F(fixed_levels_test, codes_that_the_pedigree_lacks_are_passed_over) {
    const small_model m = animals(1, {9, 4711}, "0.0");
    set_up(m);
    EXPECT_EQ(effective_levels(1), levels.rn_nlev(1) - 1.0);
    expect_dense(m, {9});
}

TEST_F(fixed_levels_test, sire_model) {
    const std::vector<int> fixed{3, 9};
    small_model m = animals(1, fixed, "0.0");
    std::fill(m.dam.begin(), m.dam.end(), 0);
    m.sires = true;
    set_up(m);
    ASSERT_EQ(randasfix.nasfix(1), 2);
    const double x = program_logl(estimates.parvec, 1);
    EXPECT_LT(randomvars.detl(1), -0.5);
    EXPECT_NEAR(x, dense_at(m, fixed, estimates.parvec).logl + 0.5 * randomvars.detl(1), 1.0e-8 * std::fabs(x));
    expect_dense_gradient(m, fixed);
}

TEST_F(fixed_levels_test, correlated_effects) {
    const std::vector<int> fixed{6};
    small_model m = animals(1, {}, "0.0");
    m.random = {{"animal+dam", "NRM", 2, 0, {1.3, 0.2, 0.6}}};
    m.extra = "PSE 0.0\n animal+dam 6\nEND\n";
    set_up(m);
    ASSERT_EQ(randasfix.nasfix(1), 1);
    expect_dense(m, fixed);
    expect_dense_gradient(m, fixed);
}

TEST_F(fixed_levels_test, random_regressions) {
    const std::vector<int> fixed{5, 9};
    small_model m;
    m.randreg = true;
    m.make_pedigree(14, 5, 7);
    m.make_rows(3, 4, 2, 0.0, 8);
    m.random = {{"animal", "NRM", 2, 0, {2.0, 0.3, 1.0}}, {"pe", "IDE", 2, 0, {1.0, 0.1, 0.6}}};
    m.residual = {1.2};
    m.extra = "PSE 0.0\n animal 5\n animal 9\nEND\n";
    set_up(m);
    expect_dense(m, fixed);
    expect_dense_gradient(m, fixed);
}

TEST_F(fixed_levels_test, diagonal_matrix) {
    const std::vector<int> fixed{6, 9};
    small_model m = animals(2, fixed, "0.0");
    m.random[0] = {"animal", "NRM", 2, 0, {1.3, 1.8}, true};
    for (const char* option : {"--aireml", "--emalg", "--powell"}) {
        new_analysis();
        set_up(m, {option});
        expect_dense(m, fixed);
    }
    new_analysis();
    set_up(m);
    expect_dense_gradient(m, fixed);
    expect_dense_information(m, fixed);
    new_analysis();
    set_up(m, {"--aireml", "--nologd"});
    expect_dense(m, fixed);
    expect_dense_gradient(m, fixed);
    expect_dense_information(m, fixed);
}

TEST_F(fixed_levels_test, components_of_full_rank) {
    const std::vector<int> fixed{6, 9};
    small_model m = animals(2, fixed, "0.0");
    m.principal = true;
    m.random[0].rank = 2;
    set_up(m);
    expect_dense(m, fixed);
    expect_dense_gradient(m, fixed);
    expect_dense_information(m, fixed);
}

TEST_F(fixed_levels_test, reduced_rank_is_refused) {
    small_model m = animals(2, {6, 9}, "0.0");
    m.principal = true;
    m.random[0].rank = 1;
    EXPECT_STOP(set_up(m), "Levels treated as fixed (PSE) need covariance matrices of full rank");
}

// The levels are fixed in one of two effects only: the other keeps all of its levels in log|G|.
TEST_F(fixed_levels_test, other_effects_are_not_touched) {
    const std::vector<int> fixed{6};
    small_model m = animals(1, fixed, "0.0");
    m.random.push_back({"pe", "IDE", 1, 0, {0.7}});
    set_up(m);
    EXPECT_EQ(effective_levels(2), 21.0); // animals 4 to 24 have records
    expect_dense(m, fixed);
    expect_dense_gradient(m, fixed);
}

} // namespace
} // namespace tarvex
