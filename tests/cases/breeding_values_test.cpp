// Solutions of random effects as files hold them: breeding values where matrices have full rank, scores and breeding
// values at reduced rank, with errors and accuracies, against dense algebra.
#include "case_run.h"
#include "support/small_models.h"

#include <map>
#include <span>

using namespace tarvex;

namespace {

class breeding_values_test : public case_run {
protected:
    void SetUp() override { name_ = "model"; }

    static small_model three_traits() {
        const double f[3][2] = {{1.2, 0.0}, {0.5, 1.1}, {0.3, 0.4}}; // a matrix of rank 2
        small_model m;
        m.nq = 3;
        m.make_pedigree(30, 6, 61);
        m.sire[26] = m.sire[27] = 1;
        m.dam[26] = m.dam[27] = 2;
        m.sire[29] = 27; // of full sibs
        m.dam[29] = 28;
        m.make_rows(5, 1, 2, 0.2, 62);
        m.random = {{"animal", "NRM", 3, 2, {}}};
        for (int i = 0; i < 3; ++i)
            for (int j = i; j < 3; ++j) m.random[0].g.push_back(f[i][0] * f[j][0] + f[i][1] * f[j][1]);
        m.residual = {2.1, 0.4, 0.1, 1.9, 0.2, 1.5};
        m.principal = true;
        return m;
    }
    struct truth {
        oracle::dense u, pev, a, g;
    };
    static truth dense_solutions(const small_model& m) { return dense_solutions(as_given(m), 0); }
    // Predictions of effect k and their error variances, A(l,l) g(r,r) - c'Pc, c the covariances of the effect with the
    // records.
    static truth dense_solutions(const dense_model& d, std::size_t effect) {
        const oracle::analysis& an = d.an;
        const oracle::reml e = oracle::evaluate(an, oracle::variance(an, d.at));
        truth t{oracle::blup(an, d.at, e, effect), {}, an.a[effect], d.at.g[effect]};
        t.pev = t.u;
        for (std::size_t l = 0; l < t.u.size(); ++l)
            for (std::size_t r = 0; r < t.g.size(); ++r) {
                oracle::vec c(an.obs.size(), 0.0);
                for (std::size_t i = 0; i < c.size(); ++i)
                    for (const oracle::term& term : an.obs[i].terms[effect])
                        c[i] += t.a[l][at(term.level - 1)] * oracle::dot(t.g[r], term.z);
                t.pev[l][r] = t.a[l][l] * t.g[r][r] - oracle::dot(c, oracle::times(e.p, c));
            }
        return t;
    }
    static double accuracy(double v) { return v > 0.0 ? std::sqrt(v) : v; }
    // EBV_animal.dat with the accuracies of that option. True if some animal is inbred.
    static bool expect_breeding_values(const small_model& m, bool inbreeding) {
        return expect_breeding_values(dense_solutions(m), inbreeding);
    }
    static bool expect_breeding_values(const truth& t, bool inbreeding) {
        const auto lines = lines_of(read_file("EBV_animal.dat"));
        EXPECT_GE(lines.size(), 1 + 3 * 25u);
        EXPECT_NE(lines.at(0).find("Accur."), std::string::npos);
        bool inbred = false;
        for (std::size_t k = 1; k < lines.size(); ++k) {
            const auto w = words_of(lines[k]);
            if (w.size() != 6) continue;
            const std::size_t l = at(std::stoi(w[1]) - 1), r = at(std::stoi(w[2]) - 1);
            EXPECT_NEAR(number_of(w[3]), t.u[l][r], 1e-5) << lines[k];
            EXPECT_NEAR(number_of(w[4]), std::sqrt(t.pev[l][r]), 1e-5) << lines[k];
            const double share = inbreeding ? t.a[l][l] : 1.0;
            inbred = inbred || t.a[l][l] > 1.01;
            EXPECT_NEAR(number_of(w[5]), accuracy(1.0 - t.pev[l][r] / (share * t.g[r][r])), 6e-4) << lines[k];
        }
        return inbred;
    }
    // RnSoln_<effect>.dat with the accuracies of that option.
    static void expect_solutions(const truth& t, const std::string& effect, bool inbreeding = false) {
        const auto lines = read_random_solutions(effect);
        EXPECT_GE(lines.size(), 10 * t.g.size());
        for (const auto& line : lines) {
            const std::size_t l = at(static_cast<int>(line.code) - 1), r = at(line.iq - 1);
            const std::string where = effect + " " + std::to_string(line.code) + " " + std::to_string(line.iq);
            EXPECT_NEAR(line.solution, t.u[l][r], 1e-5) << where;
            EXPECT_NEAR(line.error, std::sqrt(t.pev[l][r]), 1e-5) << where;
            const double variance = (inbreeding ? t.a[l][l] : 1.0) * t.g[r][r];
            EXPECT_NEAR(line.accuracy, accuracy(1.0 - t.pev[l][r] / variance), 6e-4) << where;
        }
    }
};

TEST_F(breeding_values_test, reduced_rank_has_a_file_of_each_trait) {
    const small_model m = three_traits();
    m.write_files("model");
    finish("--aireml1"); // leaves a pattern in which the components of a level are not linked
    std::filesystem::remove("BestPoint");
    for (const bool inbreeding : {false, true}) {
        const auto output = finish(inbreeding ? "--blup --accinb" : "--blup").output;
        EXPECT_NE(output.find("Loadings of the components of \"animal\", order of pivots : "), std::string::npos);
        EXPECT_TRUE(expect_breeding_values(m, inbreeding));
    }
}

// Scores beside them: effects of unit variance whose weights in a record are the loadings of its trait.
TEST_F(breeding_values_test, scores_go_with_the_loadings_that_are_shown) {
    const small_model m = three_traits();
    m.write_files("model");
    for (const bool inbreeding : {false, true}) {
        const auto output = finish(std::string("--blup --json") + (inbreeding ? " --accinb" : "")).output;
        const auto from = output.find("Loadings of the components of \"animal\"");
        ASSERT_NE(from, std::string::npos);
        const auto rows = lines_of(output.substr(from));
        const json factor = read_json(read_file("Results.json"))["blocks"][1]["factor"]; // to all digits
        oracle::dense q(3);
        for (std::size_t i = 0; i < 3; ++i)
            for (std::size_t c = 0; c < 2; ++c) {
                q[i].push_back(factor[i][c].number);
                EXPECT_NEAR(number_of(words_of(rows.at(i + 1)).at(c + 1)), q[i][c], 5.1e-5)
                    << i << " " << c; // five figures
            }
        dense_model d = as_given(m);
        d.at.g[0] = {{1.0, 0.0}, {0.0, 1.0}};
        for (auto& o : d.an.obs)
            for (auto& term : o.terms[0]) term.z = oracle::times(oracle::transpose(q), term.z);
        expect_solutions(dense_solutions(d, 0), "animal", inbreeding);
    }
}

// Sires at reduced rank: breeding values at the given matrices, and one maximum for all searches, with the factor of
// their relationship matrix or without it.
TEST_F(breeding_values_test, sires_at_reduced_rank) {
    small_model m = three_traits();
    m.sires = true;
    m.sire[28] = m.dam[28] = 3;
    m.write_files("model");
    // sires are not inbred by their rules: the option changes nothing
    for (const char* options : {"--blup", "--blup --accinb", "--blup --super"}) {
        finish(options);
        expect_breeding_values(m, false);
        for (const char* file : {"EBV_animal.dat", "nrminvers1.bin"}) std::filesystem::remove(file);
    }
    EXPECT_TRUE(std::filesystem::exists("cholnrm1.bin"));
    finish("--aireml100,1e-9");
    const auto best = read_best_point();
    for (const char* options : {"--super --aireml100,1e-9", "--pxem30 --aireml100,1e-9"}) {
        std::filesystem::remove("BestPoint");
        finish(options);
        EXPECT_NEAR(read_best_point().loglike, best.loglike, 1e-4) << options;
    }
    // at the estimates the likelihood is that of dense algebra but for log|A|, which sire models leave out
    ASSERT_EQ(best.values.size(), 12u); // R, G
    const oracle::analysis an = m.dense();
    oracle::point p;
    p.r = {square(std::span(best.values).first(6), 3)};
    p.g = {square(std::span(best.values).subspan(6), 3)};
    const double loglike = oracle::evaluate(an, oracle::variance(an, p)).logl + 0.5 * 2 * oracle::log_det(an.a[0]);
    EXPECT_NEAR(best.loglike, loglike, 1e-4);
}

TEST_F(breeding_values_test, diagonal_matrices_have_them_in_their_order) {
    small_model m;
    m.nq = 2;
    m.make_pedigree(30, 6, 63);
    m.make_rows(5, 1, 2, 0.2, 64);
    m.random = {{"animal", "NRM", 2, 0, {0.7, 1.8}, true}}; // pivots would go by size
    m.residual = {2.1, 0.4, 1.9};
    m.write_files("model");
    small_model full = m;
    full.random[0] = {"animal", "NRM", 2, 0, {0.7, 0.0, 1.8}};
    const truth t = dense_solutions(full);
    for (const char* options : {"--blup", "--blup --nologd"}) {
        finish(options);
        for (const auto& line : read_random_solutions("animal")) {
            const std::size_t l = at(static_cast<int>(line.code) - 1), r = at(line.iq - 1);
            EXPECT_NEAR(line.solution, t.u[l][r], 1e-5) << options;
            EXPECT_NEAR(line.error, std::sqrt(t.pev[l][r]), 1e-5) << options;
            EXPECT_NEAR(line.accuracy, accuracy(1.0 - t.pev[l][r] / t.g[r][r]), 6e-4) << options;
        }
    }
    // after an estimation they are those of a run at its estimates
    finish("--aireml30,1e-9");
    const auto estimated = read_random_solutions("animal");
    finish("-c --blup");
    const auto given = read_random_solutions("animal");
    std::map<std::pair<long, int>, double> of; // estimation leaves out animals that tell nothing
    for (const auto& line : given) of[{line.code, line.iq}] = line.solution;
    ASSERT_GE(estimated.size(), 2 * 25u);
    for (const auto& line : estimated) EXPECT_NEAR(line.solution, of.at({line.code, line.iq}), 1e-4);
}

TEST_F(breeding_values_test, mixed_ranks_give_scores_only_where_the_rank_is_reduced) {
    small_model m = three_traits();
    m.random.push_back({"pe", "IDE", 3, 3, {0.5, 0.1, 0.0, 0.4, 0.1, 0.6}});
    m.write_files("model");
    finish("--blup");
    EXPECT_FALSE(std::filesystem::exists("EBV_pe.dat"));
    expect_solutions(dense_solutions(as_given(m), 1), "pe");
}

// Coefficients times functions are the curve of an animal: of diagonal matrices, of full-rank ones beside others, and,
// in a file of their own, at reduced rank.
TEST_F(breeding_values_test, coefficients_of_random_regressions) {
    small_model m;
    m.randreg = true;
    m.make_pedigree(30, 6, 66);
    m.sire[26] = m.sire[27] = 1; // inbred offspring of full sibs
    m.dam[26] = m.dam[27] = 2;
    m.sire[29] = 27;
    m.dam[29] = 28;
    m.make_rows(4, 4, 3, 0.0, 67);
    m.residual = {1.2};
    const small_effect pe{"pe", "IDE", 2, 0, {0.9, 0.2, 0.6}};
    m.random = {{"animal", "NRM", 2, 0, {0.7, 1.8}, true}, pe};
    for (const char* options : {"--blup", "--blup --nologd", "--blup --accinb"}) {
        SCOPED_TRACE(options);
        m.write_files("model");
        finish(options);
        const auto d = as_given(m);
        expect_solutions(dense_solutions(d, 0), "animal", std::string(options).ends_with("accinb"));
        expect_solutions(dense_solutions(d, 1), "pe");
    }
    m.principal = true;
    m.random = {{"animal", "NRM", 3, 2, {}}, pe};
    const double f[3][2] = {{1.3, 0.0}, {0.4, 0.9}, {-0.2, 0.3}};
    for (int i = 0; i < 3; ++i)
        for (int j = i; j < 3; ++j) m.random[0].g.push_back(f[i][0] * f[j][0] + f[i][1] * f[j][1]);
    m.random[1].rank = 2;
    m.write_files("model");
    finish("--blup");
    const auto d = as_given(m);
    expect_breeding_values(dense_solutions(d, 0), false);
    expect_solutions(dense_solutions(d, 1), "pe");
}

// Lines as subjects: residuals of two traits go together within a line.
TEST_F(breeding_values_test, lines_that_are_subjects) {
    small_model m;
    m.nq = 2;
    m.make_pedigree(30, 6, 68);
    m.make_rows(5, 3, 2, 0.2, 69);
    m.random = {{"animal", "NRM", 2, 0, {1.3, 0.5, 1.8}}, {"pe", "IDE", 2, 0, {0.9, 0.2, 0.8}}};
    m.residual = {2.1, 1.4, 1.9};
    m.write_files("model");
    std::string text = m.parameters();
    for (const char* subject : {" SUBject LINE\n", " SUBject animal age\n"}) {
        write_file("model.par", std::string(text).insert(text.find(" TRAIT y1"), subject));
        for (const char* options : {"--blup", "--blup --accinb"}) {
            SCOPED_TRACE(std::string(subject) + options);
            finish(options);
            expect_solutions(dense_solutions(as_given(m, true), 0), "animal", options[6] != '\0');
            expect_solutions(dense_solutions(as_given(m, true), 1), "pe");
        }
    }
}

// Accuracies of inbred animals without information are negative: a line tells, and the option mends it.
TEST_F(breeding_values_test, negative_accuracies_are_told) {
    small_model m;
    m.make_pedigree(12, 4, 65);
    m.sire = {0, 0, 1, 1, 3, 5};
    m.dam = {0, 0, 2, 2, 4, 4};
    m.random = {{"animal", "NRM", 1, 0, {0.02}}};
    m.residual = {2.0};
    for (int i : {3, 4, 5, 6}) m.rows.push_back({i, i, 1, 1, 1, 0.0, {1.0 * i}});
    m.write_files("model");
    EXPECT_NE(finish("--blup").output.find("accuracies are negative"), std::string::npos);
    EXPECT_EQ(finish("--blup --accinb").output.find("accuracies are negative"), std::string::npos);
    for (const auto& line : read_random_solutions("animal")) EXPECT_GE(line.accuracy, 0.0);
}

// Levels treated as fixed have no log L at reduced rank.
TEST_F(breeding_values_test, marked_levels_are_refused_at_reduced_rank) {
    small_model m = three_traits();
    m.extra = "PSE 0.0\n animal 9\nEND\n";
    m.write_files("model");
    for (const char* options : {"--aireml", "--emalg", "--powell", "--blup", "--setup"}) {
        const auto result = run(options);
        EXPECT_EQ(result.status, 1) << options;
        EXPECT_NE(result.output.find("Levels treated as fixed (PSE) need covariance matrices of full rank"),
                  std::string::npos)
            << options << result.output;
        EXPECT_FALSE(std::filesystem::exists("eqnsorder.bin"));
    }
}

} // namespace
