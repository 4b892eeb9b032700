// The search for hard cases (--sure) against maxima that are known otherwise: closed forms, dense algebra, and
// reference analyses from starting values far off.
#include "cases/poor_starts.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <sstream>

namespace tarvex {
namespace {

class sure_runs : public poor_starts {};

// ---- one way, balanced: the maximum in closed form

class one_way : public poor_starts {
protected:
    static constexpr int groups = 12, size = 6;
    void make(double between, unsigned seed) {
        std::mt19937 rng(seed);
        std::normal_distribution<double> normal;
        std::string data;
        std::vector<double> mean(groups, 0.0);
        double total = 0.0, within = 0.0;
        std::vector<std::vector<double>> y(groups, std::vector<double>(size));
        for (int g = 0; g < groups; ++g) {
            const double u = between * normal(rng);
            for (int k = 0; k < size; ++k) {
                const double value = std::round(1.0e4 * (30.0 + u + 2.0 * normal(rng))) * 1.0e-4;
                y[static_cast<std::size_t>(g)][static_cast<std::size_t>(k)] = value;
                mean[static_cast<std::size_t>(g)] += value / size;
                total += value / (groups * size);
                data += std::to_string(g + 1) + " 1 " + list_item(value) + "\n";
            }
        }
        double msa = 0.0;
        for (std::size_t g = 0; g < groups; ++g) {
            msa += size * std::pow(mean[g] - total, 2.0) / (groups - 1);
            for (double v : y[g]) within += std::pow(v - mean[g], 2.0);
        }
        const double mse = within / (groups * (size - 1));
        if (msa > mse) {
            residual_ = mse;
            group_ = (msa - mse) / size;
        } else {
            residual_ = (within + msa * (groups - 1)) / (groups * size - 1);
            group_ = 0.0;
        }
        write_file("one.dat", data);
        name_ = "one";
    }
    void start_at(double group, double residual) {
        write_file("one.par", "ANA UNI\nDAT one.dat\n group 12\n all 1\n y\nEND\nMOD\n FIX all\n RAN group IDE\n TR y\n"
                              "END\nVAR group 1\n " +
                                  list_item(group) + "\nVAR residual 1\n " + list_item(residual) + "\n");
        std::filesystem::remove("BestPoint");
    }
    double group_ = 1.0, residual_ = 1.0;
};

TEST_F(one_way, search_finds_the_closed_form_from_any_start) {
    make(1.5, 3);
    ASSERT_GT(group_, 0.0);
    for (double a : {1.0e-4, 0.01, 1.0, 100.0, 1.0e5})
        for (double e : {1.0e-3, 1.0, 1.0e4}) {
            start_at(a, e);
            const auto r = finish("--sure");
            EXPECT_EQ(last_verdict(r.output).rfind("Verdict: at a maximum", 0), 0u) << a << " " << e << r.output;
            EXPECT_NE(r.output.find("*** SURE has converged\n"), std::string::npos);
            const auto found = read_best_point();
            EXPECT_NEAR(found.values[0], residual_, 2.0e-3 * residual_) << a << " " << e;
            EXPECT_NEAR(found.values[1], group_, 1.0e-2 * group_) << a << " " << e;
        }
}

TEST_F(one_way, variance_that_vanishes_is_fixed_at_the_border) {
    for (unsigned seed = 5; group_ > 0.0; ++seed) make(0.0, seed);
    for (double a : {1.0e-3, 1.0, 1.0e4}) {
        start_at(a, 4.0);
        const auto r = finish("--sure");
        EXPECT_EQ(last_verdict(r.output).rfind("Verdict: at the border", 0), 0u) << a << r.output;
        const auto found = read_best_point();
        EXPECT_NEAR(found.values[0], residual_, 2.0e-3 * residual_) << a;
        EXPECT_LT(found.values[1], 1.0e-3 * residual_) << a;
    }
}

// ---- two maxima, by dense algebra

// Levels of one effect with variances 1 and 1000 in units of its component, as a supplied inverse: the few of the
// former want it large, the many of the latter want it small.
class two_maxima : public poor_starts {
protected:
    static constexpr int wide = 8, narrow = 9, plain = 10, repeats = 300;
    std::vector<std::vector<double>> y_; // by level

    static double variance_of(int level) { return level <= wide ? 1000.0 : level == narrow ? 1.0 : 1.0e-6; }
    void make() {
        std::string data, gin;
        double logdet = 0.0;
        for (int l = 1; l <= plain; ++l) {
            std::vector<double> y;
            if (l <= wide) y = {l % 2 ? 2.5 : -2.5};
            if (l == narrow) y = {8.0};
            for (int k = 0; k < repeats && l == plain; ++k) y.push_back(std::round(1.4e4 * std::sin(1.7 * k)) * 1.0e-4);
            for (double v : y) data += std::to_string(l) + " 1 " + list_item(v) + "\n";
            logdet += std::log(variance_of(l));
            gin += std::to_string(l) + " " + std::to_string(l) + " " + list_item(1.0 / variance_of(l)) + "\n";
            y_.push_back(y);
        }
        write_file("plot.gin", list_item(logdet) + "\n" + gin);
        write_file("two.dat", data);
        name_ = "two";
    }
    void start_at(double plot, double residual) {
        write_file("two.par",
                   "ANA UNI\nDAT two.dat\n plot 10\n all 1\n y\nEND\nMOD\n FIX all\n RAN plot GIN\n TR y\nEND\n"
                   "VAR plot 1\n " +
                       list_item(plot) + "\nVAR residual 1\n " + list_item(residual) + "\n");
        std::filesystem::remove("BestPoint");
    }
    // Restricted log likelihood with one mean: V of a level is residual I + plot v J.
    double logl(double plot, double residual) const {
        double logdet = 0.0, sw = 0.0, swy = 0.0, swyy = 0.0;
        for (int l = 1; l <= plain; ++l) {
            const auto& y = y_[static_cast<std::size_t>(l - 1)];
            const double n = static_cast<double>(y.size()), a = plot * variance_of(l), c = a / (residual + n * a);
            double sum = 0.0, squares = 0.0;
            for (double v : y) {
                sum += v;
                squares += v * v;
            }
            logdet += (n - 1.0) * std::log(residual) + std::log(residual + n * a);
            sw += (n - c * n * n) / residual;
            swy += (sum - c * n * sum) / residual;
            swyy += (squares - c * sum * sum) / residual;
        }
        return -0.5 * (logdet + std::log(sw) + swyy - swy * swy / sw);
    }
    // The maximum over the residual variance.
    double profile(double plot) const {
        double low = std::log(0.05), high = std::log(50.0);
        for (int k = 0; k < 100; ++k) {
            const double a = low + (high - low) / 3.0, b = high - (high - low) / 3.0;
            if (logl(plot, std::exp(a)) < logl(plot, std::exp(b)))
                low = a;
            else
                high = b;
        }
        return logl(plot, std::exp(0.5 * (low + high)));
    }
    // Values of the component at which the profile has a maximum, from a fine grid.
    std::vector<double> maxima() const {
        std::vector<double> at;
        for (double t = -10.0; t < 7.0; t += 0.02)
            if (profile(std::exp(t)) > profile(std::exp(t - 0.02)) &&
                profile(std::exp(t)) > profile(std::exp(t + 0.02)))
                at.push_back(std::exp(t));
        return at;
    }
};

TEST_F(two_maxima, each_start_ends_at_a_maximum_and_both_can_be_reached) {
    make();
    const std::vector<double> truth = maxima();
    ASSERT_EQ(truth.size(), 2u);
    ASSERT_GT(truth[1] / truth[0], 100.0);
    std::vector<int> reached(2, 0);
    for (const char* option : {"--sure", ""})
        for (double plot : {0.0005, 0.5 * truth[0], 2.0 * truth[0], 0.5 * truth[1], 2.0 * truth[1], 200.0}) {
            start_at(plot, 1.0);
            const auto r = finish(option);
            EXPECT_EQ(last_verdict(r.output).rfind("Verdict: at a maximum", 0), 0u) << option << plot << r.output;
            const auto found = read_best_point();
            const auto distance = [&](double x, std::size_t k) { return std::fabs(std::log(x / truth[k])); };
            const std::size_t which = distance(found.values[1], 0) < distance(found.values[1], 1) ? 0 : 1;
            reached[which] = 1;
            const bool beside = std::min(distance(plot, 0), distance(plot, 1)) < 1.0; // a maximum: at that one
            EXPECT_EQ(which, !beside ? which : distance(plot, 0) < 1.0 ? 0u : 1u) << option << plot;
            EXPECT_LT(distance(found.values[1], which), 0.06) << option << plot;
            EXPECT_NEAR(logl(found.values[1], found.values[0]), profile(truth[which]), 0.001) << option << plot;
        }
    EXPECT_EQ(reached, (std::vector<int>{1, 1}));
}

// ---- a plateau: two effects that the data cannot tell apart

TEST_F(one_way, plateau_is_told_and_log_l_is_that_of_the_closed_form) {
    make(1.5, 3);
    start_at(group_, residual_);
    const auto one = finish("--sure");
    const double most = read_best_point().loglike;
    EXPECT_EQ(last_verdict(one.output).rfind("Verdict: at a maximum", 0), 0u) << one.output;
    std::string data;
    std::istringstream in(read_file("one.dat"));
    for (std::string g, all, y; in >> g >> all >> y;) data += g + " " + g + " " + all + " " + y + "\n";
    write_file("one.dat", data);
    for (double a : {0.01, 1.0, 1000.0}) {
        write_file("one.par",
                   "ANA UNI\nDAT one.dat\n group 12\n pen 12\n all 1\n y\nEND\nMOD\n FIX all\n RAN group IDE\n"
                   " RAN pen IDE\n TR y\nEND\nVAR group 1\n " +
                       list_item(a) + "\nVAR pen 1\n 0.5\nVAR residual 1\n 4.0\n");
        std::filesystem::remove("BestPoint");
        const auto r = finish("--sure");
        const auto found = read_best_point();
        EXPECT_NEAR(found.loglike, most, 0.001) << a;
        EXPECT_NEAR(found.values[1] + found.values[2], group_, 0.03 * group_) << a;
        const std::string verdict = last_verdict(r.output);
        EXPECT_TRUE(verdict.rfind("Verdict: log L is flat", 0) == 0 || verdict.rfind("Verdict: at the border", 0) == 0)
            << a << r.output;
        EXPECT_NE(read_file("SumEstimates.out").find("group"), std::string::npos);
    }
}

// ---- reference analyses

TEST_F(sure_runs, starts_far_off_end_at_the_reference_maximum) {
    for (double factor : {1.0e-4, 0.01, 100.0, 1.0e4}) {
        ASSERT_TRUE(bring("rr_chick"));
        scale_block("chick", factor);
        std::filesystem::remove("BestPoint");
        const auto r = finish("--sure");
        EXPECT_EQ(last_verdict(r.output).rfind("Verdict: at ", 0), 0u) << factor << r.output; // a correlation near 1
        EXPECT_NEAR(read_best_point().loglike, -216.3352, 0.001) << factor; // an independent program's
    }
}

TEST_F(sure_runs, start_far_from_the_data_is_pulled_towards_it) {
    ASSERT_TRUE(bring("mt3"));
    finish("");
    const best_point truth = read_best_point();
    std::filesystem::remove("BestPoint");
    const auto near = finish("--sure");
    EXPECT_EQ(near.output.find("Starting values pulled"), std::string::npos);
    EXPECT_NEAR(read_best_point().loglike, truth.loglike, 0.001);
    std::filesystem::remove("BestPoint");
    scale_block("", 1000.0);
    const auto far = finish("--sure");
    EXPECT_NE(far.output.find("Starting values pulled to the variances of the data : log L ="), std::string::npos);
    EXPECT_NEAR(read_best_point().loglike, truth.loglike, 0.001);
    EXPECT_EQ(last_verdict(far.output).rfind("Verdict: at a maximum", 0), 0u) << far.output;
}

TEST_F(sure_runs, limit_of_iterates_is_kept_and_told_and_the_run_goes_on) {
    ASSERT_TRUE(bring("rr_chick"));
    scale_block("chick", 10.0);
    const auto r = finish("--sure1 --json");
    EXPECT_EQ(last_verdict(r.output).rfind("Verdict: NOT at a maximum", 0), 0u) << r.output;
    EXPECT_NE(r.output.find("*** SURE : No convergence\n"), std::string::npos);
    EXPECT_NE(read_file("SumEstimates.out").find("Treat results with caution"), std::string::npos);
    const json results = read_json(read_file("Results.json"));
    EXPECT_EQ(results["end"]["converged"].number, 0.0);
    EXPECT_EQ(results["end"]["search"].text, "AI-REML in a trust region");
    const auto on = finish("-c --sure --json");
    EXPECT_EQ(last_verdict(on.output).rfind("Verdict: at ", 0), 0u) << on.output;
    EXPECT_EQ(read_json(read_file("Results.json"))["end"]["converged"].number, 1.0);
    EXPECT_NEAR(read_best_point().loglike, -216.3352, 0.001);
}

} // namespace
} // namespace tarvex
