// Normal samples and sampled random effects, draw by draw.
#include "simulation/sampling.h"

#include "app/choices.h"
#include "app/runoptions.h"
#include "control/numbers.h"
#include "data/data.h"
#include "data/levels.h"
#include "data/pedigrees.h"
#include "data/recodedata.h"
#include "data/reducepeds.h"
#include "parfile/mudmap_build.h"
#include "parfile/readparfile.h"
#include "relations/nrminverse.h"
#include "simulation/ranf.h"
#include "simulation/setall.h"
#include "support/fixture.h"

#include <cmath>
#include <filesystem>

namespace tarvex {
namespace {

class sampling_test : public tarvex_test {
protected:
    // The phases before a simulation, on a pedigree with one record for each animal.
    static void prepare(const std::string& model, const std::string& pedigree, int animals) {
        std::string data;
        for (int i = 1; i <= animals; ++i) data += std::to_string(i) + " " + std::to_string(i) + " 1 2\n";
        write_file("ped.dat", pedigree);
        write_file("data.dat", data);
        write_file("model.par", model);
        const char* arguments[] = {"tarvex", "--simul", "model.par"};
        runoptions(3, arguments);
        read_parfile();
        choose_algorithm();
        model2mudmap();
        if (!pedigree.empty()) {
            reducepeds();
            pedigree_list();
            secateurs();
        }
        data_scan1st();
        gen_inverses();
    }
    static std::string two_traits(const std::string& kov, const std::string& ped = "PED ped.dat\n") {
        return ped +
               "ANA MUV 2\nDAT data.dat\n animal 99\n perm 99\n y1\n y2\nEND\nMOD EQ\n MEA\n RAN animal NRM\n RAN "
               "perm " +
               kov +
               "\n TR y1 1 -999\n TR y2 2 -999\nEND\nVAR animal 2\n 4.0 2.0 5.0\nVAR perm 2\n 1.0 0.5 4.25\nVAR "
               "residual 2\n 6.0 1.0 5.0\n";
    }
    static std::vector<double> normals(int n) {
        std::vector<double> z;
        for (int i = 0; i < n; ++i) z.push_back(static_cast<double>(snorm()));
        return z;
    }
};

TEST_F(sampling_test, factor_and_draw) {
    const double sig[] = {4.0, 2.0, -2.0, 5.0, 1.0, 11.0};
    array<double, 2> chol;
    mvnormal_initial(3, sig, chol);
    const double wanted[3][3] = {{2, 0, 0}, {1, 2, 0}, {-1, 1, 3}};
    for (int i = 1; i <= 3; ++i)
        for (int j = 1; j <= i; ++j) EXPECT_EQ(chol(i, j), wanted[i - 1][j - 1]);
    setall(12345, 67890);
    const auto z = normals(3);
    setall(12345, 67890);
    std::vector<double> x(3);
    mvnormal_draw(3, chol, x);
    EXPECT_EQ(x[0], 2 * z[0]);
    EXPECT_DOUBLE_EQ(x[1], z[0] + 2 * z[1]);
    EXPECT_DOUBLE_EQ(x[2], -z[0] + z[1] + 3 * z[2]);
}

TEST_F(sampling_test, negative_pivots_stop) {
    array<double, 2> chol;
    const double indefinite[] = {4.0, 2.0, 0.5}, negative[] = {-1.0}, unequal[] = {0.0, 1.0, 2.0};
    EXPECT_STOP(mvnormal_initial(2, indefinite, chol),
                "***** Routine \"MVNORMAL_INITIAL\": negative/small pivot encountered\n"
                "      No. of effects    = 2\n"
                "      Pivot no.         = 2 -0.5\n4.0 2.0\n2.0 0.5\n");
    EXPECT_STOP(mvnormal_initial(1, negative, chol), "      Pivot no.         = 1 ");
    EXPECT_STOP(mvnormal_initial(2, unequal, chol), "      Pivot no.         = 1 ");
}

// Products of the factor with itself give back matrices of any rank and size.
TEST_F(sampling_test, deficient_matrices_have_zero_columns) {
    array<double, 2> chol;
    const double zero_row[] = {0.0, 0.0, 0.0, 2.0, 1.0, 3.0}, rank_two[] = {1.44, 0.6, 0.36, 1.46, 0.59, 0.25},
                 small[] = {4.0e-12, 2.0e-12, 0.0, 1.0e-12, 0.0, 9.0e-12};
    for (const double* sig : {zero_row, rank_two, small}) {
        mvnormal_initial(3, std::span<const double>(sig, 6), chol);
        int zeros = 0;
        for (int i = 1, k = 0; i <= 3; ++i) {
            zeros += chol(i, i) == 0.0 ? 1 : 0;
            for (int j = i; j <= 3; ++j, ++k) {
                double s = 0.0;
                for (int c = 1; c <= 3; ++c) s += chol(i, c) * chol(j, c);
                EXPECT_NEAR(s, sig[k], 1.0e-9 * (sig[0] + sig[5])) << i << " " << j;
            }
        }
        EXPECT_EQ(zeros, 1);
    }
}

// Full sibs 3 and 4 have the inbred offspring 5 and 8, of which each is the only known parent of one animal.
TEST_F(sampling_test, animals_take_parent_means_and_shares) {
    prepare(two_traits("IDE"), "3 1 2\n4 1 2\n5 3 4\n6 5 0\n7 5 2\n8 3 4\n9 0 8\n", 9);
    setall(777, 888);
    std::vector<std::vector<double>> z;
    for (int i = 0; i < 18; ++i) z.push_back(normals(2)); // animals, then the second effect
    random_samples u;
    std::vector<std::vector<double>> total;
    setall(777, 888);
    sample_randeffs(u, total);
    ASSERT_EQ(u.size(), 2u);
    ASSERT_EQ(u[0].size(), 18u);
    const auto draw = [&](std::size_t i, double a, double b, double c) { // lower factor a, b c
        return std::pair<double, double>(a * z[i][0], b * z[i][0] + c * z[i][1]);
    };
    double share[] = {1, 1, 0.5, 0.5, 0.5, 0.75 - 0.25 * 0.25, 0.5 - 0.25 * 0.25, 0.5, 0.75 - 0.25 * 0.25};
    const int sire[] = {0, 0, 1, 1, 3, 5, 5, 3, 0}, dam[] = {0, 0, 2, 2, 4, 0, 2, 4, 8};
    std::vector<double> a(18);
    double sum[3] = {};
    for (std::size_t i = 0; i < 9; ++i) {
        const auto [x, y] = draw(i, 2.0, 1.0, 2.0);
        sum[0] += x * x, sum[1] += x * y, sum[2] += y * y;
        for (std::size_t t = 0; t < 2; ++t) {
            a[2 * i + t] = std::sqrt(share[i]) * (t == 0 ? x : y);
            if (sire[i] > 0) a[2 * i + t] += 0.5 * a[static_cast<std::size_t>(2 * (sire[i] - 1)) + t];
            if (dam[i] > 0) a[2 * i + t] += 0.5 * a[static_cast<std::size_t>(2 * (dam[i] - 1)) + t];
            EXPECT_NEAR(u[0][2 * i + t], a[2 * i + t], 1e-13) << i + 1;
        }
        const auto [p, q] = draw(i + 9, 1.0, 0.5, 2.0);
        EXPECT_NEAR(u[1][2 * i], p, 1e-13);
        EXPECT_NEAR(u[1][2 * i + 1], q, 1e-13);
    }
    for (std::size_t k = 0; k < 3; ++k)
        EXPECT_NEAR(total[0][k], sum[k], 1e-12); // of the draws, before share and parents
}

// One bull as sire and grandsire passes on what a sire does: simulated is the matrix that the analysis has.
TEST_F(sampling_test, sires_take_a_quarter_of_the_maternal_grandsire) {
    const std::string model =
        "PED ped.dat SIR\nANA UNI\nDAT data.dat\n sire 99\n perm 99\n y1\n y2\nEND\nMOD\n MEA\n RAN sire NRM\n"
        " TR y1 1 -999\nEND\nVAR sire 1\n 4.0\nVAR residual 1\n 6.0\n";
    prepare(model, "3 1 2\n4 3 0\n5 0 3\n6 4 3\n7 4 4\n", 7);
    setall(31, 41);
    const auto z = normals(7);
    random_samples u;
    std::vector<std::vector<double>> total;
    setall(31, 41);
    sample_randeffs(u, total);
    const double share[] = {1, 1, 0.6875, 0.75, 0.9375, 0.6875, 0.4375};
    const std::size_t sire[] = {0, 0, 1, 3, 0, 4, 4}, mgs[] = {0, 0, 2, 0, 3, 3, 4};
    std::vector<double> s(8, 0.0);
    for (std::size_t i = 1; i <= 7; ++i) {
        s[i] = std::sqrt(share[i - 1]) * 2.0 * z[i - 1];
        if (sire[i - 1] > 0) s[i] += 0.5 * s[sire[i - 1]];
        if (mgs[i - 1] > 0 && mgs[i - 1] != sire[i - 1]) s[i] += 0.25 * s[mgs[i - 1]];
        EXPECT_NEAR(u[0][i - 1], s[i], 1e-13) << i;
    }
}

// Over many samples the covariances of the draws come to the given ones, those of the animals to relationships times
// them.
TEST_F(sampling_test, covariances_of_many_samples) {
    prepare(two_traits("IDE"), "3 1 2\n4 1 2\n5 3 4\n6 5 0\n7 5 2\n", 7);
    setall(12345, 67890);
    random_samples u;
    std::vector<std::vector<double>> total;
    constexpr int n = 6000;
    double v5 = 0, c35 = 0, v6 = 0, c12 = 0;
    for (int k = 0; k < n; ++k) {
        sample_randeffs(u, total);
        const auto& a = u[0];
        v5 += a[8] * a[8] / n;   // 4 (1 + 1/4)
        c35 += a[4] * a[8] / n;  // 4 (1/2 + 1/4)
        v6 += a[11] * a[11] / n; // 5
        c12 += a[8] * a[9] / n;  // 2 (1 + 1/4)
    }
    const double draws = 7.0 * n;
    const auto near = [](double x, double truth, double variance, double count) {
        EXPECT_NEAR(x, truth, 4.0 * std::sqrt(variance / count)) << truth;
    };
    near(v5, 5.0, 50.0, n);
    near(c35, 3.0, 4.0 * 5.0 + 9.0, n);
    near(v6, 5.0, 50.0, n);
    near(c12, 2.5, 5.0 * 6.25 + 6.25, n);
    near(total[0][0] / draws, 4.0, 32.0, draws);
    near(total[0][1] / draws, 2.0, 24.0, draws);
    near(total[0][2] / draws, 5.0, 50.0, draws);
    near(total[1][2] / draws, 4.25, 2 * 4.25 * 4.25, draws);
}

TEST_F(sampling_test, diagonal_blocks_take_roots) {
    std::string model = two_traits("IDE");
    model.replace(model.find("VAR perm 2\n 1.0 0.5 4.25"), 24, "VAR perm 2 DIA\n 9.0 4.0");
    prepare(model, "3 1 2\n", 3);
    setall(5, 6);
    std::vector<std::vector<double>> z;
    for (int i = 0; i < 6; ++i) z.push_back(normals(2));
    random_samples u;
    std::vector<std::vector<double>> total;
    setall(5, 6);
    sample_randeffs(u, total);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(u[1][2 * i], 3.0 * z[i + 3][0]);
        EXPECT_EQ(u[1][2 * i + 1], 2.0 * z[i + 3][1]);
    }
}

// Covariance matrices of linear functions of normal numbers, one number at a time.
TEST_F(sampling_test, levels_of_a_supplied_inverse_have_the_inverse_of_it) {
    write_file("animal.gin", "0.0\n1 1 2.0\n1 2 -0.5\n2 2 1.5\n2 3 -0.75\n1 4 0.5\n3 3 1.0\n4 4 3.0\n");
    std::string model = two_traits("IDE", "");
    model.replace(model.find("animal NRM"), 10, "animal GIN");
    prepare(model, "", 4);
    const double inverse[4][4] = {
        {2.0, -0.5, 0.0, 0.5}, {-0.5, 1.5, -0.75, 0.0}, {0.0, -0.75, 1.0, 0.0}, {0.5, 0.0, 0.0, 3.0}};
    double a[4][4] = {};
    setall(71, 72);
    random_samples u;
    std::vector<std::vector<double>> total;
    constexpr int n = 20000;
    for (int k = 0; k < n; ++k) {
        sample_randeffs(u, total);
        for (std::size_t i = 0; i < 4; ++i)
            for (std::size_t j = 0; j < 4; ++j) a[i][j] += u[0][2 * i] * u[0][2 * j] / (4.0 * n);
    }
    for (std::size_t i = 0; i < 4; ++i)
        for (std::size_t j = 0; j < 4; ++j) {
            double unit = 0.0;
            for (std::size_t k = 0; k < 4; ++k) unit += inverse[i][k] * a[k][j];
            EXPECT_NEAR(unit, i == j ? 1.0 : 0.0, 0.08) << i << j;
        }
}

TEST_F(sampling_test, inverses_that_are_not_definite_stop) {
    write_file("animal.gin", "0.0\n1 1 1.0\n1 2 -1.0\n2 2 1.0\n3 3 1.0\n");
    std::string model = two_traits("IDE", "");
    model.replace(model.find("animal NRM"), 10, "animal GIN");
    prepare(model, "", 3);
    random_samples u;
    std::vector<std::vector<double>> total;
    EXPECT_STOP(sample_randeffs(u, total),
                "Cannot simulate data for this random effect :  animal 1  with covariance structure   GIN\n");
}

TEST_F(sampling_test, inbreeding_of_an_inverse_taken_over_is_computed) {
    prepare(two_traits("IDE"), "3 1 2\n4 1 2\n5 3 4\n6 5 2\n", 6);
    std::vector<std::vector<double>> total;
    random_samples u, again;
    setall(5, 6);
    sample_randeffs(u, total);
    setall(5, 6);
    nrminverse.inbreed.fill(0.7); // not this run's
    nrminverse.ifin.fill(0);
    std::filesystem::remove("inbreed.bin");
    sample_randeffs(again, total);
    EXPECT_EQ(again, u);
}

} // namespace
} // namespace tarvex
