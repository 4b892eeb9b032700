// Whole runs of random regression analyses: bases, fixed curves, reduced rank, reports along the control variable,
// faults.
#include "case_run.h"
#include "population.h"

#include <functional>

using namespace tarvex;

namespace {

using basis = std::function<std::vector<double>(double)>;

class random_regression_test : public case_run {
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
        write_file("model.par",
                   "PED ped.dat\nANA " + analysis +
                       "\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y1\nEND\n" +
                       blocks);
    }
    // Both effects on bases of their own.
    static void two_effects(const std::string& animal, const std::string& perm, const std::string& fixed = "") {
        parameters(
            "MOD\n FIX herd\n" + fixed + " RAN animal(" + animal + ") NRM\n RAN perm(" + perm +
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
                        sum += phi[c] * psi[d] * g[c][d] *
                               a_[static_cast<std::size_t>(r.code - 1)][static_cast<std::size_t>(s.code - 1)];
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

TEST_F(random_regression_test, bases) {
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

TEST_F(random_regression_test, negative_control_values) {
    for (auto& r : p_.records) r.age -= 30.0; // -10 to 8
    write_file("data.dat", p_.all_traits_lines());
    const auto moved = [](const basis& f) { return [f](double age) { return f(age + 30.0); }; };
    two_effects("2,LEG", "3,BSPQ");
    expect_relative(start(), truth(moved(legendre(2)), moved(splines(3, 2))), 1e-8, "Legendre, quadratic splines");
    two_effects("2,POL", "3,LEG");
    expect_relative(start(), truth(powers(2), moved(legendre(3))), 1e-8, "powers of values of either sign");
    const auto k = read_best_point().values; // residual, animal, perm
    ASSERT_EQ(k.size(), 10u);
    const auto lines = lines_of(read_file("RanRegVariances.dat"));
    ASSERT_EQ(lines.size(), 21u);
    for (int a = 1; a <= 19; ++a) {
        const auto w = words_of(lines[static_cast<std::size_t>(a + 1)]);
        ASSERT_GE(w.size(), 3u);
        const double t = a - 11.0;
        EXPECT_EQ(number_of(w[1]), t);
        expect_relative(number_of(w[2]), k[1] + 2 * t * k[2] + t * t * k[3], 1e-5, "animal");
    }
    const std::string text = read_file("age_POL2.baf");
    EXPECT_EQ(text.substr(0, text.find('\n')), "     -10        1.000000      -10.000000");
    const std::string effects = "MOD\n FIX herd\n RAN animal(2,POL) NRM\n RAN perm(3,LEG) IDE\n RRC age\n TR y1 1 "
                                "-999\nEND\nVAR animal 2\n 4.0 0.5 2.0\nVAR perm 3\n 1.5 0.2 0.1 1.0 0.1 0.8\n";
    parameters(effects + "VAR residual 1 HET 2 age\n -10 -1 5.0\n 0 8 5.0\n");
    expect_relative(start(), truth(powers(2), moved(legendre(3))), 1e-8, "classes of residual variances");
    parameters(effects + "VAR residual 1 HET 2 age\n -9 -1 5.0\n 0 8 5.0\n");
    const auto result = run("--aireml1");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("  ... no interval found for value  -10\n"), std::string::npos) << result.output;
}

TEST_F(random_regression_test, functions_of_the_user) {
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

// Records of the older half without residuals: searches run against that border and go on.
TEST_F(random_regression_test, class_without_residuals) {
    for (auto& r : p_.records)
        if (r.age >= 29.0) r.y[0] = 10.0 + 2.0 * r.herd + 0.25 * (r.code % 7) * (1.0 + standard(r.age));
    write_file("data.dat", p_.all_traits_lines());
    parameters("MOD\n FIX herd\n RAN animal(2,LEG) NRM\n RRC age\n TR y1 1 -999\nEND\nVAR animal 2\n 4.0 0.5 "
               "2.0\n"
               "VAR residual 1 HET 2 age\n 20 28 5.0\n 29 38 5.0\n");
    for (const char* options : {"--powell50", "--aireml20 --nologd"}) {
        std::filesystem::remove("BestPoint");
        const auto result = finish(options);
        EXPECT_EQ(result.output.find("not of full rank"), std::string::npos) << options;
        const auto best = read_best_point();
        ASSERT_EQ(best.values.size(), 5u);
        EXPECT_LT(best.values[1], 0.1) << options;
        EXPECT_GT(best.values[0], 1.0) << options;
    }
}

TEST_F(random_regression_test, fixed_curve) {
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

TEST_F(random_regression_test, nested_curves) {
    two_effects("2,LEG", "3,LEG", " COV age*herd(2,LEG)\n");
    dense x = herds_and_age(p_, obs_);
    for (std::size_t i = 0; i < obs_.size(); ++i) {
        const auto& r = p_.records[obs_[i].record];
        const auto f = legendre(3)(r.age);
        for (int h = 1; h <= 4; ++h)
            for (std::size_t c = 1; c <= 2; ++c) x[i].push_back(r.herd == h ? f[c] : 0.0);
    }
    expect_relative(start(), truth(legendre(2), legendre(3), x), 1e-8, "curves of herds");
    const auto coefficients = read_fixed_solutions().covariables; // level by level
    ASSERT_EQ(coefficients.size(), 8u);
    std::size_t herd = 0;
    double records = 0.0;
    for (const auto& line : lines_of(read_file("Curve_age_herd.dat"))) {
        const auto w = words_of(line);
        if (w[0] == "Nested") {
            ++herd;
            EXPECT_EQ(line, "Nested curve no. =    " + std::to_string(herd) + "  Code         " + std::to_string(herd));
            continue;
        }
        const auto f = legendre(3)(number_of(w.at(0)));
        const double fit = f[1] * coefficients[2 * herd - 2].solution + f[2] * coefficients[2 * herd - 1].solution;
        EXPECT_NEAR(number_of(w.at(1)), fit, 1e-4);
        records += number_of(w.at(2));
    }
    EXPECT_EQ(herd, 4u);
    EXPECT_EQ(records, static_cast<double>(p_.records.size()));
}

TEST_F(random_regression_test, fixed_spline) {
    for (const int degree : {1, 2, 3}) {
        const std::string letter(1, " LQC"[degree]);
        parameters("MOD\n COV age(5,BSP" + letter +
                   ")\n RAN animal(2,LEG) NRM\n RAN perm(3,LEG) IDE\n RRC age\n TR y1 1 -999\nEND\n"
                   "VAR animal 2\n 4.0 0.5 2.0\nVAR perm 3\n 1.5 0.2 0.1 1.0 0.1 0.8\nVAR residual 1 HOM\n 5.0\n");
        dense x;
        for (const auto& o : obs_) x.push_back(splines(5, degree)(p_.records[o.record].age));
        expect_relative(start(), truth(legendre(2), legendre(3), x), 1e-8, "fixed spline");
        const auto coefficients = read_fixed_solutions().covariables;
        ASSERT_EQ(coefficients.size(), 5u);
        for (const auto& line : lines_of(read_file("Curve_age.dat"))) {
            const auto w = words_of(line);
            const auto f = splines(5, degree)(number_of(w.at(0)));
            double fit = 0.0;
            for (std::size_t c = 0; c < 5; ++c) fit += f[c] * coefficients[c].solution;
            EXPECT_NEAR(number_of(w.at(1)), fit, 1e-3) << degree << ": " << line;
        }
    }
}

TEST_F(random_regression_test, all_searches_reach_one_maximum) {
    parameters("MOD\n FIX herd\n RAN animal(2,LEG) NRM\n RRC age\n TR y1 1 -999\nEND\nVAR animal 2\n 8.0 1.0 2.0\n"
               "VAR residual 1 HET 2 age\n 20 28 4.0\n 29 38 6.0\n");
    finish("--aireml200,1e-9");
    const auto best = read_best_point();
    for (const std::string& options :
         std::vector<std::string>{"", "--pxai3,100,1e-8", "--emai3,100,1e-8", "--emalg200,1e-6", "--pxem200,1e-6"}) {
        SCOPED_TRACE(options);
        std::filesystem::remove("BestPoint");
        const auto list = iterates_of(finish(options).output);
        for (std::size_t i = 1; i < list.size(); ++i)
            if (list[i].kind != "AI") {
                EXPECT_GE(list[i].loglike, list[i - 1].loglike - 1e-6) << i;
            }
        EXPECT_NEAR(read_best_point().loglike, best.loglike,
                    options.starts_with("--emalg")  ? 0.2
                    : options.starts_with("--pxem") ? 0.05
                                                    : 2e-3);
    }
}

TEST_F(random_regression_test, reduced_rank) {
    parameters("MOD\n FIX herd\n RAN animal(3,LEG) NRM\n RRC age\n TR y1 1 -999\nEND\nVAR animal 3 1\n 9.0 3.0 1.5 1.0 "
               "0.5 0.25\n"
               "VAR residual 1 HOM\n 5.0\n",
               "RR PC");
    dense v(obs_.size(), std::vector<double>(obs_.size()));
    for (std::size_t i = 0; i < obs_.size(); ++i)
        for (std::size_t j = 0; j < obs_.size(); ++j) {
            const auto &r = p_.records[obs_[i].record], &s = p_.records[obs_[j].record];
            const auto f = legendre(3)(r.age), g = legendre(3)(s.age);
            v[i][j] = (i == j ? 5.0 : 0.0) +
                      (3.0 * f[0] + f[1] + 0.5 * f[2]) * (3.0 * g[0] + g[1] + 0.5 * g[2]) *
                          a_[static_cast<std::size_t>(r.code - 1)][static_cast<std::size_t>(s.code - 1)];
        }
    expect_relative(start(), dense_reml(obs_, herds_and_age(p_, obs_), v), 1e-8, "log L");
    std::filesystem::remove("BestPoint");
    finish("--aireml100,1e-7");
    EXPECT_EQ(read_best_point().nparm, 4);
    EXPECT_EQ(read_best_point().values.size(), 7u);
}

// Variances along the control variable from the coefficients in the report of a bundled example.
TEST_F(random_regression_test, variances_along_the_control_variable) {
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
            return std::any_of(numbers.begin(), numbers.end(),
                               [&](double n) { return std::fabs(n - x) <= 2e-5 * std::fabs(x); });
        };
        EXPECT_TRUE(has(variance)) << line << " : " << variance;
        EXPECT_TRUE(has(residual)) << line << " : " << residual;
        EXPECT_TRUE(has(variance + residual)) << line;
    }
    EXPECT_EQ(seen, 12u);
}

// Effects along control variables of their own, with residual classes by the second one.
class two_controls_test : public random_regression_test {
protected:
    void SetUp() override {
        random_regression_test::SetUp();
        p_ = make_population(60, 1, 3, 0.0, 72);
        for (std::size_t i = 0; i < p_.records.size(); ++i) p_.records[i].age = low + static_cast<double>(i % 19);
        write_file("ped.dat", p_.pedigree());
        write_file("data.dat", p_.all_traits_lines());
        a_ = tabular(p_.sire, p_.dam);
        obs_ = observations_of(p_);
    }
    static void two_controls(const std::string& perm,
                             const std::string& residual = "VAR residual 1 HET 2 parity\n 1 1 4.0\n 2 3 6.0\n") {
        parameters(
            "MOD\n FIX herd\n RAN animal(2,LEG,age) NRM\n RAN perm(" + perm +
            ") IDE\n RRC age\n RRC parity\n TR y1 1 -999\nEND\nVAR animal 2\n 4.0 0.5 2.0\nVAR perm 2\n 1.5 0.2 0.8\n" +
            residual);
    }
    double by_two(const basis& perm, double first, double later) const {
        const dense g{{4.0, 0.5}, {0.5, 2.0}}, q{{1.5, 0.2}, {0.2, 0.8}};
        dense v(obs_.size(), std::vector<double>(obs_.size()));
        for (std::size_t i = 0; i < obs_.size(); ++i)
            for (std::size_t j = 0; j < obs_.size(); ++j) {
                const auto &r = p_.records[obs_[i].record], &s = p_.records[obs_[j].record];
                const auto phi = legendre(2)(r.age), psi = legendre(2)(s.age), pe = perm(r.parity), qe = perm(s.parity);
                double sum = i != j ? 0.0 : r.parity == 1 ? first : later;
                for (std::size_t c = 0; c < 2; ++c)
                    for (std::size_t d = 0; d < 2; ++d) {
                        sum += phi[c] * psi[d] * g[c][d] *
                               a_[static_cast<std::size_t>(r.code - 1)][static_cast<std::size_t>(s.code - 1)];
                        if (r.code == s.code) sum += pe[c] * qe[d] * q[c][d];
                    }
                v[i][j] = sum;
            }
        return dense_reml(obs_, herds_and_age(p_, obs_), v);
    }
};

TEST_F(two_controls_test, likelihood) {
    two_controls("2,POL,parity");
    expect_relative(start(), by_two(powers(2), 4.0, 6.0), 1e-8, "powers of the second variable");
    two_controls("2,parity"); // a variable alone stands for powers
    expect_relative(start(), by_two(powers(2), 4.0, 6.0), 1e-8, "the variable alone");
    const basis scaled = [](double parity) {
        return std::vector<double>{std::sqrt(0.5), std::sqrt(1.5) * (parity - 2.0)};
    };
    two_controls("2,LEG,parity");
    expect_relative(start(), by_two(scaled, 4.0, 6.0), 1e-8, "Legendre polynomials of the second variable");
    two_controls("2,LEG,parity", "VAR residual 1 HOM\n 5.0\n");
    expect_relative(start(), by_two(scaled, 5.0, 5.0), 1e-8, "one residual variance");
    EXPECT_EQ(read_file("parity_LEG2.baf"),
              "       1  0.707107 -1.224745\n       2  0.707107  0.000000\n       3  0.707107  1.224745\n");
    for (const char* wrong : {"2,LEG", "2,LEG,herd"}) {
        two_controls(wrong);
        const auto result = run("--aireml1");
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.output.find(" No match for RR control variable found"), std::string::npos) << result.output;
    }
}

TEST_F(two_controls_test, reports_along_each) {
    two_controls("2,POL,parity");
    finish("--aireml100,1e-8");
    EXPECT_FALSE(std::filesystem::exists("RanRegVarRatios.dat")); // no phenotypic variance along one of them
    const auto k = read_best_point().values;                      // 2 residual classes, animal, perm
    ASSERT_EQ(k.size(), 8u);
    const auto lines = lines_of(read_file("RanRegVariances.dat"));
    ASSERT_EQ(lines.size(), 1u + 2u + 19u + 2u + 3u);
    EXPECT_EQ(lines[0], "Variance components for trait no.  1");
    EXPECT_EQ(lines[1], "Control variable age");
    EXPECT_EQ(words_of(lines[2]),
              (std::vector<std::string>{"Level", "Value", "animal"})); // residual classes go by parity
    EXPECT_EQ(lines[22], "Control variable parity");
    EXPECT_EQ(words_of(lines[23]), (std::vector<std::string>{"Level", "Value", "perm", "Residual"}));
    for (int a = 1; a <= 19; ++a) {
        const auto w = words_of(lines[static_cast<std::size_t>(a + 2)]);
        const auto f = legendre(2)(19.0 + a);
        ASSERT_EQ(w.size(), 4u);
        EXPECT_EQ(number_of(w[0]), a);
        EXPECT_EQ(number_of(w[1]), 19 + a);
        expect_relative(number_of(w[2]), f[0] * f[0] * k[2] + 2 * f[0] * f[1] * k[3] + f[1] * f[1] * k[4], 1e-5,
                        "animal");
    }
    for (int a = 1; a <= 3; ++a) {
        const auto w = words_of(lines[static_cast<std::size_t>(a + 23)]);
        ASSERT_EQ(w.size(), 6u);
        expect_relative(number_of(w[2]), k[5] + 2 * a * k[6] + a * a * k[7], 1e-5, "perm");
        expect_relative(number_of(w[4]), a == 1 ? k[0] : k[1], 1e-5, "residual");
    }
    const auto blocks = lines_of(read_file("RanRegCorrels.dat"));
    ASSERT_EQ(blocks.size(), 1u + 19u * (3u + 19u) + 3u * (3u + 3u));
    EXPECT_EQ(blocks[1], "Correlations & approximate sampling errors for age");
    EXPECT_EQ(blocks[2], "           1");
    EXPECT_EQ(blocks[3], "                  animal      ");
    EXPECT_EQ(blocks[4].substr(0, 23), "    1     1.000   0.000");
    const auto last = words_of(blocks.back()); // parity 3 with itself
    EXPECT_EQ(last[0], "3");
    EXPECT_EQ(last[1], "1.000");
    const auto first = words_of(blocks[blocks.size() - 3]); // parity 3 with parity 1
    const double c13 = k[5] + 4 * k[6] + 3 * k[7], v1 = k[5] + 2 * k[6] + k[7], v3 = k[5] + 6 * k[6] + 9 * k[7];
    EXPECT_NEAR(number_of(first[1]), c13 / std::sqrt(v1 * v3), 6e-4);
}

TEST_F(random_regression_test, faults_are_told) {
    const auto fault = [&](const std::string& words) {
        const auto result = run("--aireml2");
        EXPECT_EQ(result.status, 1) << words;
        EXPECT_NE(result.output.find(words), std::string::npos) << "\"" << words << "\" is not told:\n"
                                                                << result.output;
        EXPECT_GT(lines_of(result.output).size(), 1u);
    };
    const std::string model =
        "MOD\n FIX herd\n RAN animal(2,LEG) NRM\n RRC age\n TR y1 1 -999\nEND\nVAR animal 2\n 8.0 1.0 2.0\n";
    parameters(model + "VAR residual 1 HET 2 age\n 20 28 4.0\n 29 35 6.0\n"); // 36 to 38 have no class
    fault("  ... no interval found for value  36\n");
    parameters(model + "VAR residual 1 FUN\n 4.0\n");
    fault("run time options) for this run of Tarvex has not yet been fully\n");
    parameters("MOD\n FIX herd\n RAN animal(2,SPL) NRM\n RRC age\n TR y1 1 -999\nEND\nVAR animal 2\n 8.0 1.0 2.0\nVAR "
               "residual 1 HOM\n 4.0\n");
    fault("tpf splines not yet");
    parameters("MOD\n FIX herd\n RAN animal(3,LEG) NRM\n RRC age\n TR y1 1 -999\nEND\nVAR animal 2\n 8.0 1.0 2.0\nVAR "
               "residual 1 HOM\n 4.0\n");
    fault("Miss-match RR order of fit");
    parameters("MOD\n FIX herd\n RAN animal(2,LEG) NRM\n TR y1 1 -999\nEND\nVAR animal 2\n 8.0 1.0 2.0\nVAR residual 1 "
               "HOM\n 4.0\n");
    fault("No match for RR control variable found");
    parameters(model + "VAR residual 1 HOM\n 4.0\n");
    const std::string lines = p_.all_traits_lines();
    auto q = p_;
    for (auto& r : q.records) r.age = 25.0; // one value only, and several records of an animal at it
    write_file("data.dat", q.all_traits_lines());
    fault("Control variable has a single value only : \"age\"\n");
    q = p_;
    for (std::size_t i = 1; i < q.records.size(); ++i)
        if (q.records[i].code == q.records[i - 1].code) q.records[i].age = q.records[i - 1].age;
    write_file("data.dat", q.all_traits_lines());
    fault("Residual covariance matrix not of full rank !");
    write_file("data.dat", lines);
    EXPECT_EQ(run("--aireml2").status, 0);
}

} // namespace
