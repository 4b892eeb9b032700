// The assembled matrix, element by element, against W'R^-1 W with the inverses of the covariance blocks added;
// positions and weights of design rows; inverses of the residual matrices of single subjects.
#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "data/datavecs.h"
#include "data/levels.h"
#include "data/rowlayout.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "estimation/covs2parvec.h"
#include "estimation/estimates.h"
#include "likelihood/buildmmm.h"
#include "likelihood/ddvecs.h"
#include "likelihood/likelihood.h"
#include "likelihood/solutions.h"
#include "parameters/randomvars.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/fixture.h"
#include "support/small_models.h"

#include <algorithm>
#include <cmath>

namespace tarvex {
namespace {

using assembly_test = tarvex_test;

int level_number(int irand, int code) {
    const auto& codes = levels.rn_codes(irand);
    const auto found = std::find(codes.begin(), codes.end(), code);
    return found == codes.end() ? 0 : static_cast<int>(found - codes.begin()) + 1;
}

std::size_t code_place(int irand, int level) { // in the relationship matrix by code
    return static_cast<std::size_t>(levels.rn_codes(irand)(level) - 1);
}

double stored(int old1, int old2) {
    const int i = orders.ieqnew(old1), j = orders.ieqnew(old2);
    if (i == j) return sparse.diag(i);
    const int p = locate(i, j);
    return p > 0 ? sparse.xspars(p) : 0.0;
}

// W'R^-1 W, W'R^-1 y and y'R^-1 y of the dense model in the numbering before ordering.
struct dense_equations {
    oracle::dense c; // coefficient matrix without the blocks of the random effects
    oracle::vec rhs;
    double yy = 0.0;
};

dense_equations data_part(const small_model& m, const oracle::analysis& a, const oracle::point& p) {
    // columns: herds of traits, covariables (less their mean), effects
    dense_equations d;
    const int nq = m.nq;
    std::vector<double> mean(at(nq), 0.0), count(at(nq), 0.0);
    std::size_t o = 0;
    std::vector<std::pair<const small_row*, int>> rows;
    for (const auto& r : m.rows)
        for (int q = 1; q <= nq; ++q)
            if (r.y[at(q - 1)] != -999.0) {
                rows.emplace_back(&r, q);
                mean[at(q - 1)] += r.x;
                count[at(q - 1)] += 1.0;
            }
    EXPECT_EQ(rows.size(), a.obs.size());
    std::vector<std::vector<std::pair<int, double>>> w; // entries: old equation, weight
    for (const auto& [r, q] : rows) {
        w.emplace_back();
        auto& e = w.back();
        if (m.covariable) e.emplace_back(q, r->x - mean[at(q - 1)] / count[at(q - 1)]); // covariables come first
        e.emplace_back(mmequations.fx_start(1, q) + r->herd, 1.0);
        for (std::size_t k = 0; k < m.random.size(); ++k) {
            const int irand = static_cast<int>(k) + 1;
            for (const oracle::term& t : a.obs[o].terms[k])
                for (int c = 0; c < model.kkfit(irand); ++c)
                    if (t.z[at(c)] != 0.0)
                        e.emplace_back(mmequations.rn_start(irand) +
                                           (level_number(irand, t.level) - 1) * model.kkfit(irand) + c + 1,
                                       t.z[at(c)]);
        }
        ++o;
    }
    oracle::point only_r = p;
    for (auto& g : only_r.g) g.clear();
    const oracle::dense rinv = oracle::inverse(oracle::variance(a, only_r));
    d.c = oracle::zeros(at(mmequations.neqns + 1), at(mmequations.neqns + 1));
    d.rhs.assign(at(mmequations.neqns + 1), 0.0);
    for (std::size_t i = 0; i < w.size(); ++i)
        for (std::size_t j = 0; j < w.size(); ++j) {
            if (rinv[i][j] == 0.0) continue;
            d.yy += a.obs[i].y * rinv[i][j] * a.obs[j].y;
            for (const auto& [e, x] : w[i]) {
                d.rhs[at(e)] += x * rinv[i][j] * a.obs[j].y;
                for (const auto& [f, z] : w[j]) d.c[at(e)][at(f)] += x * rinv[i][j] * z;
            }
        }
    return d;
}

void expect_assembled(const small_model& m) {
    const oracle::analysis a = m.dense();
    const oracle::point p = point_at(m, estimates.parvec);
    dense_equations d = data_part(m, a, p);
    for (std::size_t k = 0; k < m.random.size(); ++k) {
        const int irand = static_cast<int>(k) + 1, n = model.kkfit(irand), nlev = levels.rn_nlev(irand);
        const oracle::dense ginv = oracle::inverse(p.g[k]);
        oracle::dense s = oracle::zeros(at(nlev), at(nlev)); // of the levels that have equations
        for (int i = 1; i <= nlev; ++i)
            for (int j = 1; j <= nlev; ++j)
                s[at(i - 1)][at(j - 1)] = a.a[k][code_place(irand, i)][code_place(irand, j)];
        s = oracle::inverse(s);
        for (int i = 0; i < nlev; ++i)
            for (int j = 0; j < nlev; ++j)
                for (int r = 0; r < n; ++r)
                    for (int c = 0; c < n; ++c)
                        d.c[at(mmequations.rn_start(irand) + i * n + r + 1)]
                           [at(mmequations.rn_start(irand) + j * n + c + 1)] += s[at(i)][at(j)] * ginv[at(r)][at(c)];
    }
    program_logl(estimates.parvec);
    int iflag = 0;
    build_mmm(iflag);
    ASSERT_EQ(iflag, 0);
    for (int e = 1; e <= mmequations.neqns; ++e) {
        if (orders.ieqnew(e) <= 0) continue;
        EXPECT_NEAR(sparse.xspars(locate(orders.ieqnew(e), numbers.nsrow)), d.rhs[at(e)], 1.0e-9)
            << "right-hand side " << e;
        for (int f = 1; f <= e; ++f)
            if (orders.ieqnew(f) > 0) {
                EXPECT_NEAR(stored(e, f), d.c[at(e)][at(f)], 1.0e-9) << e << " " << f;
            }
    }
    EXPECT_NEAR(sparse.diag(numbers.nsrow), d.yy, 1.0e-8);
}

TEST_F(assembly_test, two_traits_with_covariable_and_missing_records) {
    small_model m;
    m.nq = 2;
    m.make_pedigree(20, 6, 5);
    m.make_rows(4, 2, 2, 0.2, 6);
    m.covariable = true;
    m.random = {{"animal", "NRM", 2, 0, {1.3, 0.5, 1.8}}, {"dam", "IDE", 2, 0, {0.9, 0.1, 0.8}}};
    m.residual = {2.1, 0.2, 1.9};
    set_up(m);
    expect_assembled(m);
}

TEST_F(assembly_test, many_effects_of_one_record) { // more equations than records of a subject
    small_model m;
    m.make_pedigree(20, 6, 5);
    m.make_rows(4, 1, 2, 0.0, 6);
    m.covariable = true;
    m.random = {{"animal", "NRM", 1, 0, {1.3}}, {"dam", "IDE", 1, 0, {0.9}}, {"pe", "IDE", 1, 0, {0.6}}};
    m.residual = {2.1};
    set_up(m);
    expect_assembled(m);
}

TEST_F(assembly_test, random_regressions_carry_their_functions) {
    small_model m;
    m.randreg = true;
    m.make_pedigree(14, 5, 7);
    m.make_rows(3, 4, 2, 0.0, 8);
    m.random = {{"animal", "NRM", 3, 0, {2.0, 0.3, 0.1, 1.0, 0.1, 0.5}}, {"pe", "IDE", 2, 0, {1.0, 0.1, 0.6}}};
    m.residual = {1.2, 0.7, 2.0};
    m.class_bounds = {3, 7, 11};
    set_up(m);
    expect_assembled(m);
}

TEST_F(assembly_test, zero_covariances_leave_no_element) {
    small_model m;
    m.nq = 2;
    m.make_pedigree(20, 6, 5);
    m.make_rows(4, 1, 2, 0.2, 6);
    m.random = {{"animal", "NRM", 2, 0, {1.3, 0.5, 1.8}}};
    m.residual = {2.1, 0.0, 1.9};
    set_up(m);
    expect_assembled(m);
    const int e = orders.ieqnew(mmequations.fx_start(1, 1) + 1), f = orders.ieqnew(mmequations.fx_start(1, 2) + 1);
    const int place = locate(e, f); // by fill-in at the most
    EXPECT_TRUE(place == 0 || sparse.xspars(place) == 0.0);
}

// ---- positions and weights

TEST_F(assembly_test, positions_of_a_plain_model) {
    small_model m;
    m.nq = 2;
    m.make_pedigree(20, 6, 5);
    m.make_rows(4, 1, 2, 0.2, 6);
    m.random = {{"animal", "NRM", 2, 0, {1.3, 0.5, 1.8}},
                {"pe", "PEQ", 2, 0, {0.4, 0.1, 0.5}},
                {"dam", "IDE", 2, 0, {0.9, 0.1, 0.8}}};
    m.residual = {2.1, 0.2, 1.9};
    set_up(m);
    dpositions();
    dpositions(); // may be called again
    for (int iq = 1; iq <= 2; ++iq) {
        EXPECT_EQ(ddvecs.kkst(1, iq), 2); // behind the herd
        EXPECT_EQ(ddvecs.kkst(2, iq), 3);
        EXPECT_EQ(ddvecs.kkst(3, iq), 3); // the repeat effect has none
        EXPECT_EQ(ddvecs.kkst(4, iq), 4);
    }
    EXPECT_EQ(ddvecs.maxeff, 3);
    dvec_combs_muv();
    for (double w : ddvecs.dd) EXPECT_EQ(w, 1.0);
}

TEST_F(assembly_test, positions_of_random_regressions) {
    small_model m;
    m.randreg = true;
    m.make_pedigree(14, 5, 7);
    m.make_rows(3, 4, 2, 0.0, 8);
    m.random = {{"pe", "IDE", 2, 0, {1.0, 0.1, 0.6}}, {"animal", "NRM", 3, 0, {2.0, 0.3, 0.1, 1.0, 0.1, 0.5}}};
    m.residual = {1.2};
    set_up(m);
    dpositions();
    EXPECT_EQ(ddvecs.kkst(1, 1), 2);
    EXPECT_EQ(ddvecs.kkst(2, 1), 4);
    EXPECT_EQ(ddvecs.maxeff, 6); // the last position of the longest row
}

TEST_F(assembly_test, weights_of_reduced_rank_are_rows_of_the_factor) {
    small_model m;
    m.nq = 3;
    m.principal = true;
    m.make_pedigree(20, 6, 5);
    m.make_rows(4, 1, 2, 0.2, 6);
    m.random = {{"animal", "NRM", 3, 2, {1.3, 0.5, 0.2, 1.8, 0.3, 1.1}},
                {"dam", "IDE", 3, 1, {0.5, 0.1, 0.1, 0.4, 0.1, 0.6}}};
    m.residual = {2.1, 0.4, 0.1, 1.9, 0.2, 1.5};
    set_up(m);
    program_logl(estimates.parvec);
    EXPECT_EQ(ddvecs.kkst(1, 1), 2);
    EXPECT_EQ(ddvecs.kkst(2, 1), 4);
    EXPECT_EQ(ddvecs.maxeff, 4);
    EXPECT_EQ(randomvars.detg(1), 0.0);
    const auto product = [&](int i, int j) {
        double s = 0.0;
        for (int p = 2; p <= 3; ++p) s += ddvecs.dd(p, i) * ddvecs.dd(p, j);
        return s;
    };
    const oracle::dense g = point_at(m, estimates.parvec).g[0];
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(ddvecs.dd(1, i), 1.0);
        for (int j = 1; j <= 3; ++j) EXPECT_NEAR(product(i, j), g[at(i - 1)][at(j - 1)], 1.0e-10);
    }
    int zeros = 0;
    for (int i = 1; i <= 3; ++i)
        for (int p = 2; p <= 3; ++p) zeros += ddvecs.dd(p, i) == 0.0 ? 1 : 0;
    EXPECT_EQ(zeros, 1); // above the diagonal of the factor
    array<double> p = estimates.parvec;
    p(7) *= 1.5; // first element of the factor of the animals
    program_logl(p);
    const oracle::dense h = point_at(m, p).g[0];
    EXPECT_NEAR(product(1, 1), h[0][0], 1.0e-10); // refilled with every build
    model.krfit(2) = 0;
    dpositions();
    EXPECT_EQ(ddvecs.kkst(3, 1), ddvecs.kkst(2, 1)); // rank 0 adds none
    EXPECT_EQ(ddvecs.maxeff, 3);
}

// ---- residual matrix of a subject of a random regression analysis, by hand

struct by_hand {
    explicit by_hand(int nq, int classes) {
        numbers.nq = nq;
        model.rr_resteps = classes;
        residualvars.sigres.allocate(nq * (nq + 1) / 2, classes);
        residualvars.fixres.allocate(classes * nq * (nq + 1) / 2);
        data.imeta.allocate(1, 4);
        data.ynq.allocate(4);
        model.me_run.allocate(9);
    }
    subject_record data;
    void record(int iq, int age) {
        data.ynq(++data.nobs) = iq;
        data.imeta(1, data.nobs) = age;
    }
};

TEST_F(assembly_test, two_traits_at_one_control_value_are_correlated) {
    by_hand s(2, 2);
    const double sig[] = {4.0, 1.0, 2.0, 3.0, 0.5, 1.0}; // (11) (12) (22) by class
    std::copy(std::begin(sig), std::end(sig), residualvars.sigres.begin());
    for (int a = 1; a <= 9; ++a) model.me_run(a) = a <= 5 ? 1 : 2;
    s.record(1, 3);
    s.record(1, 7);
    s.record(2, 3);
    s.record(2, 8);
    pattern_matrix r;
    double ldet = 0.0;
    get_rinv_rreg(s.data, 1, r, ldet);
    EXPECT_FALSE(r.diagonal);
    ASSERT_EQ(r.v.size(), 16u);
    const auto e = [&](int i, int j) { return r.v[at(i - 1) + 4 * at(j - 1)]; };
    // records 1 and 3: class 1, matrix (4 1; 1 2) with determinant 7; the others stand alone in class 2
    EXPECT_NEAR(e(1, 1), 2.0 / 7.0, 1e-12);
    EXPECT_NEAR(e(3, 3), 4.0 / 7.0, 1e-12);
    EXPECT_NEAR(e(1, 3), -1.0 / 7.0, 1e-12);
    EXPECT_NEAR(e(3, 1), -1.0 / 7.0, 1e-12);
    EXPECT_NEAR(e(2, 2), 1.0 / 3.0, 1e-12);
    EXPECT_NEAR(e(4, 4), 1.0, 1e-12);
    for (const auto& [i, j] : {std::pair{1, 2}, {1, 4}, {2, 3}, {2, 4}, {3, 4}}) EXPECT_EQ(e(i, j), 0.0) << i << j;
    EXPECT_NEAR(ldet, std::log(7.0 * 3.0), 1e-12);
}

TEST_F(assembly_test, one_record_of_a_subject) {
    by_hand s(1, 1);
    residualvars.sigres(1, 1) = 2.5;
    s.record(1, 3);
    pattern_matrix r;
    double ldet = 0.0;
    get_rinv_rreg(s.data, 1, r, ldet);
    ASSERT_EQ(r.v.size(), 1u);
    EXPECT_DOUBLE_EQ(r.v[0], 0.4);
    EXPECT_DOUBLE_EQ(ldet, std::log(2.5));
    residualvars.sigres(1, 1) = 1.0e-9; // below the limit: no rank, and no word on equal control values
    EXPECT_STOP(get_rinv_rreg(s.data, 7, r, ldet), "   Individual no.      = 7\n   No. of observations = 1\n"
                                                   "   Rank found          = 0\nexit \"Tarvex\"");
}

// A class of two traits whose covariance is too large: the matrix has full rank, and is none of a covariance. Records
// of the other class alone are as good as ever.
TEST_F(assembly_test, indefinite_matrix_of_a_class_stops) {
    by_hand s(2, 2);
    const double sig[] = {4.0, 1.0, 2.0, 1.0, 3.0, 2.0};
    std::copy(std::begin(sig), std::end(sig), residualvars.sigres.begin());
    for (int a = 1; a <= 9; ++a) model.me_run(a) = a <= 5 ? 1 : 2;
    s.record(1, 3);
    s.record(2, 3);
    pattern_matrix r;
    double ldet = 0.0;
    get_rinv_rreg(s.data, 1, r, ldet);
    EXPECT_NEAR(ldet, std::log(7.0), 1e-12);
    s.data.imeta(1, 1) = s.data.imeta(1, 2) = 7; // 1 * 2 < 3 * 3
    EXPECT_STOP(get_rinv_rreg(s.data, 4, r, ldet), "Residual covariance matrix not of full rank !\n"
                                                   "   Individual no.      = 4\n   No. of observations = 2\n");
}

// ---- evaluations

// A residual covariance that is fixed at zero compares as zero, whatever the vector holds.
TEST_F(assembly_test, fixed_components_compare_as_they_are_used) {
    small_model m;
    m.nq = 2;
    m.make_pedigree(20, 6, 5);
    m.make_rows(4, 1, 2, 0.2, 6);
    m.random = {{"animal", "NRM", 2, 0, {1.3, 0.5, 1.8}}};
    m.residual = {2.1, 0.0, 1.9};
    set_up(m, {"--emalg"});
    options.emalgorithm = true;
    covs2parvec();
    forget_likelihoods();
    ASSERT_EQ(residualvars.fixres(2), 1);
    const double x = program_logl(estimates.parvec);
    array<double> p = estimates.parvec;
    p(2) = 0.3;
    EXPECT_EQ(program_logl(p), x);
    EXPECT_EQ(likelihoods.nfact, 1);
    EXPECT_EQ(residualvars.rpars(2), 0.0);
    EXPECT_NEAR(x, dense_logl(m, p), 1.0e-7);
}

TEST_F(assembly_test, equal_values_in_a_row_are_tabled_once) {
    small_model m;
    m.make_pedigree(20, 6, 5);
    m.make_rows(4, 1, 2, 0.0, 6);
    m.random = {{"animal", "NRM", 1, 0, {1.3}}};
    m.residual = {2.1};
    set_up(m);
    const double x = program_logl(estimates.parvec);
    EXPECT_EQ(likelihoods.nlike, 1);
    EXPECT_EQ(program_logl(estimates.parvec, 1), x);
    EXPECT_EQ(likelihoods.nlike, 1);
    EXPECT_EQ(likelihoods.nfact, 1);
    array<double> p = estimates.parvec;
    p(2) += 0.1;
    program_logl(p);
    EXPECT_EQ(likelihoods.nlike, 2);
    program_logl(estimates.parvec, 1); // another value in between: tabled again
    EXPECT_EQ(likelihoods.nlike, 3);
    EXPECT_EQ(likelihoods.likesav(1, 3), x);
}

TEST_F(assembly_test, best_point_is_kept_with_its_solutions) {
    small_model m;
    m.make_pedigree(20, 6, 5);
    m.make_rows(4, 1, 2, 0.0, 6);
    m.random = {{"animal", "NRM", 1, 0, {1.3}}};
    m.residual = {2.1};
    set_up(m);
    likelihoods.first = true;
    const double x = program_logl(estimates.parvec);
    EXPECT_FALSE(likelihoods.first);
    EXPECT_EQ(bestpoint.xbest, x);
    const double solution = solutions.solsave(mmequations.rn_start(1) + 1);
    array<double> p = estimates.parvec;
    p(2) = 20.0;
    ASSERT_LT(program_logl(p), x);
    EXPECT_EQ(bestpoint.xbest, x);
    EXPECT_EQ(solutions.solsave(mmequations.rn_start(1) + 1), solution);
    EXPECT_NE(solutions.solns(orders.ieqnew(mmequations.rn_start(1) + 1)), solution);
    for (int i = 1; i <= estimates.nparm; ++i) EXPECT_EQ(bestpoint.parbest(i), estimates.parvec(i));
}

} // namespace
} // namespace tarvex
