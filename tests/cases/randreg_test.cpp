// Whole runs of random regression analyses: bases, fixed curves, reduced rank, reports along the control variable, faults.
#include "case_run.h"
#include "population.h"

#include <functional>

using namespace tarvex;

namespace {

using basis = std::function<std::vector<double>(double)>;

class RandomRegression : public CaseRun {
protected:
    static constexpr double low = 20.0, high = 38.0;
    void SetUp() override {
        name_ = "model";
        p_ = make_population(60, 1, 5, 0.0, 71);
        for (std::size_t i = 0; i < p_.records.size(); ++i) p_.records[i].age = low + static_cast<double>(i % 19);
        write_file("ped.dat", p_.pedigree());
        write_file("data.dat", p_.all_traits_lines());
        a_ = tabular(p_.sire, p_.dam);
        obs_ = observations_of(p_);
    }
    static void parameters(const std::string& blocks, const std::string& analysis = "RR") {
        write_file("model.par", "PED ped.dat\nANA " + analysis +
                                    "\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y1\nEND\n" +
                                    blocks);
    }
    // Both effects on bases of their own.
    static void two_effects(const std::string& animal, const std::string& perm, const std::string& fixed = "") {
        parameters("MOD\n FIX herd\n" + fixed + " RAN animal(" + animal + ") NRM\n RAN perm(" + perm +
                   ") IDE\n RRC age\n TR y1 1 -999\nEND\nVAR animal 2\n 4.0 0.5 2.0\nVAR perm 3\n 1.5 0.2 0.1 1.0 0.1 0.8\n"
                   "VAR residual 1 HOM\n 5.0\n");
    }
    double start(const std::string& options = "--aireml1") const { return loglike_at_start(finish(options).output); }
    double truth(const basis& animal, const basis& perm, const dense& x) const {
        const dense g{{4.0, 0.5}, {0.5, 2.0}}, q{{1.5, 0.2, 0.1}, {0.2, 1.0, 0.1}, {0.1, 0.1, 0.8}};
        dense v(obs_.size(), std::vector<double>(obs_.size()));
        for (std::size_t i = 0; i < obs_.size(); ++i)
            for (std::size_t j = 0; j < obs_.size(); ++j) {
                const auto &r = p_.records[obs_[i].record], &s = p_.records[obs_[j].record];
                const auto phi = animal(r.age), psi = animal(s.age), pe = perm(r.age), qe = perm(s.age);
                double sum = i == j ? 5.0 : 0.0;
                for (std::size_t c = 0; c < 2; ++c)
                    for (std::size_t d = 0; d < 2; ++d)
                        sum += phi[c] * psi[d] * g[c][d] * a_[static_cast<std::size_t>(r.code - 1)][static_cast<std::size_t>(s.code - 1)];
                for (std::size_t c = 0; c < 3 && r.code == s.code; ++c)
                    for (std::size_t d = 0; d < 3; ++d) sum += pe[c] * qe[d] * q[c][d];
                v[i][j] = sum;
            }
        return dense_reml(obs_, x, v);
    }
    double truth(const basis& animal, const basis& perm) const { return truth(animal, perm, herds_and_age(p_, obs_)); }

    static double standard(double age) { return 2.0 * (age - low) / (high - low) - 1.0; }
    static basis legendre(int n) {
        return [n](double age) {
            const double t = standard(age);
            std::vector<double> f{std::sqrt(0.5), std::sqrt(1.5) * t, std::sqrt(2.5) * (1.5 * t * t - 0.5)};
            f.resize(static_cast<std::size_t>(n));
            return f;
        };
    }
    static basis powers(int n) {
        return [n](double age) {
            std::vector<double> f{1.0, age, age * age};
            f.resize(static_cast<std::size_t>(n));
            return f;
        };
    }
    // Truncated powers give the same splines as the recursion: n functions of a degree with equally spaced knots.
    static basis splines(int n, int degree) {
        return [n, degree](double age) {
            const double h = (high - low) / (n - degree);
            double factorial = 1.0;
            for (int k = 2; k <= degree; ++k) factorial *= k;
            std::vector<double> f;
            for (int i = 0; i < n; ++i) {
                const double t = (age - low) / h - (i - degree); // knots at 0, 1 .. degree + 1
                double sum = 0.0, binomial = 1.0;
                for (int k = 0; k <= degree + 1; ++k) {
                    const bool beyond = degree == 0 ? t >= k : t > k;
                    if (beyond) sum += (k % 2 == 0 ? 1.0 : -1.0) * binomial * std::pow(t - k, degree);
                    binomial = binomial * (degree + 1 - k) / (k + 1);
                }
                f.push_back(sum / factorial);
            }
            return f;
        };
    }

    population p_;
    dense a_;
    std::vector<observation> obs_;
};

TEST_F(RandomRegression, Bases) {
    two_effects("2,LEG", "3,LEG");
    expect_relative(start(), truth(legendre(2), legendre(3)), 1e-8, "Legendre polynomials");
    two_effects("2,BSPL", "3,BSPL");
    expect_relative(start(), truth(splines(2, 1), splines(3, 1)), 1e-8, "linear splines of two orders");
    two_effects("2,LEG", "3,BSPL");
    expect_relative(start(), truth(legendre(2), splines(3, 1)), 1e-8, "linear splines");
    two_effects("2,LEG", "3,BSPQ");
    expect_relative(start(), truth(legendre(2), splines(3, 2)), 1e-8, "quadratic splines");
    two_effects("2,POL", "3,LEG");
    expect_relative(start(), truth(powers(2), legendre(3)), 1e-8, "powers");
}

TEST_F(RandomRegression, FunctionsOfTheUser) {
    std::string table;
    for (int age = 20; age <= 38; ++age) {
        char line[80];
        std::snprintf(line, sizeof line, "%.12f %.12f %.12f\n", 1.0, std::exp(-0.1 * (age - 20)), std::log(age - 19.0));
        table += line;
    }
    write_file("age_USR3.baf", table);
    const basis mine = [](double age) {
        return std::vector<double>{1.0, std::exp(-0.1 * (age - 20.0)), std::log(age - 19.0)};
    };
    two_effects("2,LEG", "3,USR");
    expect_relative(start(), truth(legendre(2), mine), 1e-8, "own functions");
    write_file("age_USR3.baf", table.substr(0, table.rfind('\n', table.size() - 2) + 1)); // one line short
    EXPECT_EQ(run("--aireml1").status, 1);
    std::filesystem::remove("age_USR3.baf");
    EXPECT_EQ(run("--aireml1").status, 1);
}

TEST_F(RandomRegression, FixedCurve) {
    two_effects("2,LEG", "3,LEG", " COV age(2,LEG)\n");
    dense x = herds_and_age(p_, obs_);
    for (std::size_t i = 0; i < obs_.size(); ++i) {
        const auto f = legendre(3)(p_.records[obs_[i].record].age);
        x[i].push_back(f[1]);
        x[i].push_back(f[2]);
    }
    expect_relative(start(), truth(legendre(2), legendre(3), x), 1e-8, "fixed curve");
    const auto coefficients = read_fixed_solutions().covariables;
    ASSERT_EQ(coefficients.size(), 2u);
    const auto curve = lines_of(read_file("Curve_age.dat"));
    ASSERT_EQ(curve.size(), 19u);
    for (const auto& line : curve) {
        const auto words = words_of(line);
        const auto f = legendre(3)(number_of(words.at(0)));
        EXPECT_NEAR(number_of(words.at(1)), f[1] * coefficients[0].solution + f[2] * coefficients[1].solution, 1e-4);
    }
}

TEST_F(RandomRegression, AllSearchesReachOneMaximum) {
    parameters("MOD\n FIX herd\n RAN animal(2,LEG) NRM\n RRC age\n TR y1 1 -999\nEND\nVAR animal 2\n 8.0 1.0 2.0\n"
               "VAR residual 1 HET 2 age\n 20 28 4.0\n 29 38 6.0\n");
    finish("--aireml200,1e-9");
    const auto best = read_best_point();
    for (const std::string& options : std::vector<std::string>{"", "--pxai3,100,1e-8", "--emai3,100,1e-8", "--emalg200,1e-6", "--pxem200,1e-6"}) {
        SCOPED_TRACE(options);
        std::filesystem::remove("BestPoint");
        const auto list = iterates_of(finish(options).output);
        for (std::size_t i = 1; i < list.size(); ++i)
            if (list[i].kind != "AI") {
                EXPECT_GE(list[i].loglike, list[i - 1].loglike - 1e-6) << i;
            }
        EXPECT_NEAR(read_best_point().loglike, best.loglike, options.starts_with("--emalg") ? 0.2 : options.starts_with("--pxem") ? 0.05 : 2e-3);
    }
}

TEST_F(RandomRegression, ReducedRank) {
    parameters("MOD\n FIX herd\n RAN animal(3,LEG) NRM\n RRC age\n TR y1 1 -999\nEND\nVAR animal 3 1\n 9.0 3.0 1.5 1.0 0.5 0.25\n"
               "VAR residual 1 HOM\n 5.0\n",
               "RR PC");
    dense v(obs_.size(), std::vector<double>(obs_.size()));
    for (std::size_t i = 0; i < obs_.size(); ++i)
        for (std::size_t j = 0; j < obs_.size(); ++j) {
            const auto &r = p_.records[obs_[i].record], &s = p_.records[obs_[j].record];
            const auto f = legendre(3)(r.age), g = legendre(3)(s.age);
            v[i][j] = (i == j ? 5.0 : 0.0) + (3.0 * f[0] + f[1] + 0.5 * f[2]) * (3.0 * g[0] + g[1] + 0.5 * g[2]) *
                                                 a_[static_cast<std::size_t>(r.code - 1)][static_cast<std::size_t>(s.code - 1)];
        }
    expect_relative(start(), dense_reml(obs_, herds_and_age(p_, obs_), v), 1e-8, "log L");
    std::filesystem::remove("BestPoint");
    finish("--aireml100,1e-7");
    EXPECT_EQ(read_best_point().nparm, 4);
    EXPECT_EQ(read_best_point().values.size(), 7u);
}

// Variances along the control variable from the coefficients in the report of a bundled example.
TEST_F(RandomRegression, VariancesAlongTheControlVariable) {
    ASSERT_TRUE(bring("rr_chick"));
    finish("--aireml100,1e-8");
    const auto best = read_best_point().values;
    ASSERT_EQ(best.size(), 9u);
    std::size_t seen = 0;
    for (const auto& line : lines_of(read_file("RanRegVariances.dat"))) {
        const auto w = words_of(line);
        if (w.size() < 5 || std::isnan(number_of(w[0]))) continue;
        ++seen;
        const double day = number_of(w[1]), t = 2.0 * day / 21.0 - 1.0;
        const double f[] = {std::sqrt(0.5), std::sqrt(1.5) * t, std::sqrt(2.5) * (1.5 * t * t - 0.5)};
        double variance = 0.0;
        for (std::size_t i = 0; i < 3; ++i)
            for (std::size_t j = 0; j < 3; ++j) {
                const std::size_t lo = std::min(i, j), hi = std::max(i, j);
                variance += f[i] * f[j] * best[3 + lo * 3 - lo * (lo + 1) / 2 + hi];
            }
        const double residual = best[day < 6.5 ? 0 : day < 14.5 ? 1 : 2];
        std::vector<double> numbers;
        for (std::size_t k = 2; k < w.size(); ++k) numbers.push_back(number_of(w[k]));
        const auto has = [&](double x) {
            return std::any_of(numbers.begin(), numbers.end(), [&](double n) { return std::fabs(n - x) <= 2e-5 * std::fabs(x); });
        };
        EXPECT_TRUE(has(variance)) << line << " : " << variance;
        EXPECT_TRUE(has(residual)) << line << " : " << residual;
        EXPECT_TRUE(has(variance + residual)) << line;
    }
    EXPECT_EQ(seen, 12u);
}

TEST_F(RandomRegression, FaultsAreTold) {
    const auto fault = [&](const std::string& words) {
        const auto result = run("--aireml2");
        EXPECT_EQ(result.status, 1) << words;
        EXPECT_NE(result.output.find(words), std::string::npos) << "\"" << words << "\" is not told:\n" << result.output;
        EXPECT_GT(lines_of(result.output).size(), 1u);
    };
    const std::string model = "MOD\n FIX herd\n RAN animal(2,LEG) NRM\n RRC age\n TR y1 1 -999\nEND\nVAR animal 2\n 8.0 1.0 2.0\n";
    parameters(model + "VAR residual 1 HET 2 age\n 20 28 4.0\n 29 35 6.0\n"); // 36 to 38 have no class
    fault("");
    parameters(model + "VAR residual 1 FUN\n 4.0\n");
    fault("");
    parameters("MOD\n FIX herd\n RAN animal(2,SPL) NRM\n RRC age\n TR y1 1 -999\nEND\nVAR animal 2\n 8.0 1.0 2.0\nVAR residual 1 HOM\n 4.0\n");
    fault("");
    parameters("MOD\n FIX herd\n RAN animal(3,LEG) NRM\n RRC age\n TR y1 1 -999\nEND\nVAR animal 2\n 8.0 1.0 2.0\nVAR residual 1 HOM\n 4.0\n");
    fault("Miss-match RR order of fit");
    parameters("MOD\n FIX herd\n RAN animal(2,LEG) NRM\n TR y1 1 -999\nEND\nVAR animal 2\n 8.0 1.0 2.0\nVAR residual 1 HOM\n 4.0\n");
    fault("No match for RR control variable found");
    parameters(model + "VAR residual 1 HOM\n 4.0\n");
    const std::string lines = p_.all_traits_lines();
    auto q = p_;
    for (auto& r : q.records) r.age = 25.0; // one value only, and several records of an animal at it
    write_file("data.dat", q.all_traits_lines());
    fault("");
    q = p_;
    for (std::size_t i = 1; i < q.records.size(); ++i)
        if (q.records[i].code == q.records[i - 1].code) q.records[i].age = q.records[i - 1].age;
    write_file("data.dat", q.all_traits_lines());
    fault("Residual covariance matrix not of full rank !");
    write_file("data.dat", lines);
    EXPECT_EQ(run("--aireml2").status, 0);
}

} // namespace
