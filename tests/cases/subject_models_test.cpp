// Models of several traits whose subjects are lines of the data, or records that agree in two columns: log L at the
// start and at the end of all searches, against dense matrices.
#include "case_run.h"
#include "support/small_models.h"

#include <algorithm>
#include <cmath>
#include <span>

using namespace tarvex;

namespace {

class subject_models : public case_run {
protected:
    void SetUp() override { name_ = "model"; }

    // Three lines an animal.
    static small_model two_traits() {
        small_model m;
        m.nq = 2;
        m.make_pedigree(40, 8, 171);
        m.make_rows(5, 3, 3, 0.2, 172);
        m.random = {{"animal", "NRM", 2, 0, {1.3, 0.5, 1.8}}, {"pe", "IDE", 2, 0, {0.9, 0.2, 0.8}}};
        m.residual = {2.1, 1.2, 1.9};
        return m;
    }
    // log L as the program counts it: sire models leave the relationships out.
    static double log_l(const small_model& m, const dense_model& d) {
        const double dense = oracle::evaluate(d.an, oracle::variance(d.an, d.at)).logl;
        return m.sires ? dense + 0.5 * m.random[0].order * oracle::log_det(d.an.a[0]) : dense;
    }
    // The same at covariances as BestPoint holds them, residual ones first.
    static double log_l(const small_model& m, const std::vector<double>& covariances) {
        dense_model d = as_given(m, true);
        std::span<const double> rest(covariances);
        const auto next = [&](int n, bool diagonal) {
            const std::size_t length = at(diagonal ? n : n * (n + 1) / 2);
            oracle::dense g = oracle::zeros(at(n), at(n));
            EXPECT_LE(length, rest.size());
            if (length > rest.size()) return g;
            if (diagonal)
                for (std::size_t i = 0; i < at(n); ++i) g[i][i] = rest[i];
            else
                g = square(rest.first(length), n);
            rest = rest.subspan(length);
            return g;
        };
        d.at.r = {next(m.nq, false)};
        for (std::size_t k = 0; k < m.random.size(); ++k) d.at.g[k] = next(m.random[k].order, m.random[k].diagonal);
        EXPECT_TRUE(rest.empty());
        return log_l(m, d);
    }
    void put(const small_model& m, const std::string& subject) {
        m.write_files("model");
        std::string text = m.parameters();
        write_file("model.par", text.insert(text.find(" TRAIT y1"), subject));
        std::filesystem::remove("BestPoint");
    }
    void expect_start(const small_model& m) {
        const double want = log_l(m, as_given(m, true));
        for (const std::string subject : {" SUBject LINE\n", " SUBject animal age\n"}) {
            for (const char* options : {"--aireml1", "--emalg1", "--pxem1"}) {
                put(m, subject);
                expect_relative(loglike_at_start(finish(options).output), want, 1e-8, subject + options);
            }
            put(m, subject);
            finish("--powell1");
            const auto best = read_best_point();
            EXPECT_GT(best.loglike, want) << subject;
            expect_relative(log_l(m, best.values), best.loglike, 1e-7, subject + "--powell1");
        }
    }
};

TEST_F(subject_models, repeated_records) { expect_start(two_traits()); }

TEST_F(subject_models, correlated_direct_and_maternal_effects) {
    small_model m = two_traits();
    m.random[0] = {"animal+dam", "NRM", 4, 0, {1.3, 0.5, 0.1, -0.1, 1.8, 0.0, 0.2, 0.6, 0.1, 0.7}};
    expect_start(m);
}

// Progeny of a sire in many lines, which the relationships of the sires do not join either.
TEST_F(subject_models, related_sires) {
    small_model m = two_traits();
    m.sires = true;
    m.sire[28] = m.dam[28] = 3;
    expect_start(m);
}

TEST_F(subject_models, diagonal_matrices) {
    small_model m = two_traits();
    m.random[0] = {"animal", "NRM", 2, 0, {1.3, 1.8}, true};
    expect_start(m);
}

TEST_F(subject_models, reduced_rank) {
    small_model m = two_traits();
    m.principal = true;
    m.random[0] = {"animal", "NRM", 2, 1, {1.44, 0.96, 0.64}};
    m.random[1].rank = 2;
    expect_start(m);
}

// All searches end at one point, where log L is that of dense matrices and falls to all sides.
TEST_F(subject_models, searches_end_at_the_maximum) {
    small_model m = two_traits();
    m.make_pedigree(60, 10, 173);
    m.rows.clear();
    m.make_rows(5, 3, 3, 0.15, 174);
    for (const char* subject : {" SUBject LINE\n", " SUBject animal age\n"}) {
        SCOPED_TRACE(subject);
        put(m, subject);
        finish("--aireml100,1e-10");
        const auto best = read_best_point();
        ASSERT_EQ(best.values.size(), 9u);
        EXPECT_NEAR(log_l(m, best.values), best.loglike, 1e-5);
        for (std::size_t k = 0; k < 3; ++k)
            for (const double by : {0.9, 1.1}) {
                auto beside = best.values;
                beside[k] *= by;
                EXPECT_LT(log_l(m, beside), best.loglike) << "residual covariance " << k + 1;
            }
        finish("--best");
        EXPECT_NEAR(labelled("BestSoFar.out", "Maximum log L so far"), best.loglike, 0.0006);
        EXPECT_NEAR(loglike_at_start(finish("-c --aireml1").output), best.loglike, 1e-5);
        for (const char* options : {"--pxem30 --aireml100,1e-10", "--emai30,100", ""}) {
            std::filesystem::remove("BestPoint");
            finish(options);
            expect_best(best, 2e-3, 0.05);
        }
    }
}

} // namespace
