// Legendre polynomials and B-splines against independent recursions.
#include "basis/legendre.h"
#include "basis/splines.h"
#include "support/fixture.h"

#include <array>
#include <cmath>
#include <numbers>

namespace tarvex {
namespace {

class bases_test : public tarvex_test {};

// Nodes and weights of Gauss-Legendre quadrature of order n, by Newton's method on the three-term recursion.
void gauss(int n, std::vector<double>& x, std::vector<double>& w) {
    for (int i = 1; i <= n; ++i) {
        double t = std::cos(std::numbers::pi * (i - 0.25) / (n + 0.5)), dp = 0.0;
        for (int it = 0; it < 100; ++it) {
            double p0 = 1.0, p1 = t;
            for (int k = 2; k <= n; ++k) {
                const double p2 = ((2 * k - 1) * t * p1 - (k - 1) * p0) / k;
                p0 = p1;
                p1 = p2;
            }
            dp = n * (t * p1 - p0) / (t * t - 1);
            t -= p1 / dp;
        }
        x.push_back(t);
        w.push_back(2.0 / ((1 - t * t) * dp * dp));
    }
}

TEST_F(bases_test, legendre_is_orthonormal_to_order_12) {
    setup_legendre(12);
    std::vector<double> x, w, row(12);
    gauss(20, x, w);
    double gram[12][12] = {};
    for (std::size_t q = 0; q < x.size(); ++q) {
        legendre_row(x[q], row);
        for (std::size_t i = 0; i < 12; ++i)
            for (std::size_t j = 0; j < 12; ++j) gram[i][j] += w[q] * row[i] * row[j];
    }
    for (int i = 0; i < 12; ++i)
        for (int j = 0; j < 12; ++j) EXPECT_NEAR(gram[i][j], i == j ? 1.0 : 0.0, 1e-10) << i << " " << j;
}

TEST_F(bases_test, legendre_coefficients) {
    setup_legendre(4);
    const auto& leg = legpolynomials.leg;
    EXPECT_NEAR(leg(1, 3), -0.790569, 1e-6);
    EXPECT_EQ(leg(2, 3), 0.0);
    EXPECT_NEAR(leg(3, 3), 2.371708, 1e-6);
    EXPECT_NEAR(leg(2, 4), -2.806243, 1e-6);
    EXPECT_NEAR(leg(4, 4), 4.677072, 1e-6);
    EXPECT_EQ(legpolynomials.legmask(2, 3), 0);
    EXPECT_EQ(legpolynomials.legmask(3, 3), 1);
}

TEST_F(bases_test, legendre_matches_three_term_recursion) {
    setup_legendre(10);
    std::vector<double> row(10);
    for (double x : {-1.0, -0.3, 0.0, 0.7, 1.0}) {
        legendre_row(x, row);
        double p0 = 1.0, p1 = x;
        for (int n = 0; n < 10; ++n) {
            EXPECT_NEAR(row[static_cast<std::size_t>(n)], std::sqrt(n + 0.5) * p0, 1e-12 * (1 << n));
            const double p2 = ((2 * n + 3) * x * p1 - (n + 1) * p0) / (n + 2);
            p0 = p1;
            p1 = p2;
        }
    }
}

TEST_F(bases_test, order_one_is_a_constant) {
    setup_legendre(1);
    std::array<double, 1> one{};
    legendre_row(0.3, one);
    EXPECT_EQ(one[0], std::sqrt(0.5));
}

TEST_F(bases_test, order_above_the_table_stops) {
    setup_legendre(5);
    setup_legendre(2);
    std::array<double, 3> row{};
    EXPECT_STOP(legendre_row(0.0, row), "legendre");
}

// Value of function i (from 0) of degree k at x by the definition, recursion from the top.
double cox(const std::vector<double>& t, std::size_t i, int k, double x) {
    if (k == 0) return x >= t[i] && x < t[i + 1] ? 1.0 : 0.0;
    const auto d = static_cast<std::size_t>(k);
    return (x - t[i]) / (t[i + d] - t[i]) * cox(t, i, k - 1, x) +
           (t[i + d + 1] - x) / (t[i + d + 1] - t[i + 1]) * cox(t, i + 1, k - 1, x);
}

TEST_F(bases_test, splines_sum_to_one_and_match_the_recursion) {
    for (int degree = 1; degree <= 3; ++degree)
        for (int nint : {1, 3, 7}) {
            array<double> tvec;
            knot_vector(3.0, 31.0, nint, degree, tvec);
            ASSERT_EQ(tvec.upper(), nint + 1 + 2 * degree);
            const std::vector<double> t(tvec.begin(), tvec.end());
            std::vector<double> row(static_cast<std::size_t>(nint + degree));
            for (int a = 0; a <= 28; ++a) {
                const double x = 3.0 + a;
                bspline_row(x, tvec, degree, row);
                double sum = 0.0;
                for (std::size_t i = 0; i < row.size(); ++i) {
                    sum += row[i];
                    EXPECT_NEAR(row[i], cox(t, i, degree, x), 1e-12);
                    EXPECT_GE(row[i], -1e-14);
                }
                EXPECT_NEAR(sum, 1.0, 1e-12) << degree << " " << nint << " " << x;
            }
        }
}

TEST_F(bases_test, splines_at_their_knots) {
    const std::vector<std::vector<double>> at_knot{{1.0}, {0.5, 0.5}, {1.0 / 6.0, 4.0 / 6.0, 1.0 / 6.0}};
    for (int degree = 1; degree <= 3; ++degree) {
        array<double> tvec;
        knot_vector(-4.0, 5.0, 3, degree, tvec);
        for (int i = 1; i <= tvec.upper(); ++i) EXPECT_NEAR(tvec(i), -4.0 + 3.0 * (i - 1 - degree), 1e-14);
        for (int knot = 0; knot <= 3; ++knot) {
            std::vector<double> row(static_cast<std::size_t>(3 + degree)), wanted(row.size(), 0.0);
            bspline_row(-4.0 + 3.0 * knot, tvec, degree, row);
            for (std::size_t k = 0; k < at_knot[static_cast<std::size_t>(degree - 1)].size(); ++k)
                wanted[static_cast<std::size_t>(knot) + k] = at_knot[static_cast<std::size_t>(degree - 1)][k];
            for (std::size_t k = 0; k < row.size(); ++k)
                EXPECT_NEAR(row[k], wanted[k], 1e-14) << degree << " " << knot << " " << k;
        }
    }
}

// The sum over i of the means of the knots inside function i times the function is x itself.
TEST_F(bases_test, splines_reproduce_a_straight_line) {
    for (int degree = 1; degree <= 3; ++degree) {
        array<double> tvec;
        knot_vector(1.0, 14.0, 5, degree, tvec);
        std::vector<double> row(static_cast<std::size_t>(5 + degree));
        for (double x = 1.0; x <= 14.0; x += 0.65) {
            bspline_row(x, tvec, degree, row);
            double sum = 0.0;
            for (int i = 1; i <= 5 + degree; ++i) {
                double mean = 0.0;
                for (int k = 1; k <= degree; ++k) mean += tvec(i + k) / degree;
                sum += mean * row[static_cast<std::size_t>(i - 1)];
            }
            EXPECT_NEAR(sum, x, 1e-12) << degree;
        }
    }
}

} // namespace
} // namespace tarvex
