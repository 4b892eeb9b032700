// Starting values from the data: variances and correlations of the traits within the cells of the fixed effects, shared
// between the random effects.
#include "tvx/draft.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <numeric>

namespace tvx {

namespace {

// Records of a trait less their fixed effects: classes and covariables are taken out one after the other, several
// times.
struct within_cells {
    std::vector<double> e; // (rows in order) NaN: no record
    double variance = 0.0;
};

void take_out_class(const draft& d, const draft_class& c, std::vector<double>& e) {
    std::vector<double> sum(c.levels + 1, 0.0);
    std::vector<int> n(sum.size(), 0);
    for (std::size_t i = 0; i < e.size(); ++i)
        if (!std::isnan(e[i])) {
            sum[c.code[d.order[i]]] += e[i];
            ++n[c.code[d.order[i]]];
        }
    for (std::size_t i = 0; i < e.size(); ++i) {
        const int k = c.code[d.order[i]];
        if (!std::isnan(e[i])) e[i] -= sum[k] / n[k];
    }
}

void take_out_mean(std::vector<double>& e) {
    double sum = 0.0;
    int n = 0;
    for (const double x : e)
        if (!std::isnan(x)) sum += x, ++n;
    for (double& x : e) x -= sum / n;
}

// Powers of a covariable, scaled to its range, up to its order but not beyond the third.
void take_out_covariable(const draft& d, const draft_number& z, int order, std::vector<double>& e) {
    double low = INFINITY, high = -INFINITY;
    for (std::size_t i = 0; i < e.size(); ++i)
        if (!std::isnan(e[i])) {
            low = std::min(low, z.value[d.order[i]]);
            high = std::max(high, z.value[d.order[i]]);
        }
    if (!(high > low)) return;
    const int n = std::min(order, 3);
    Eigen::MatrixXd a = Eigen::MatrixXd::Zero(n + 1, n + 1);
    Eigen::VectorXd b = Eigen::VectorXd::Zero(n + 1), row(n + 1);
    const auto powers = [&](std::size_t i) {
        row(0) = 1.0;
        // powers of the covariable scaled to (-1,1)
        for (int k = 1; k <= n; ++k) row(k) = row(k - 1) * (2.0 * (z.value[d.order[i]] - low) / (high - low) - 1.0);
    };
    for (std::size_t i = 0; i < e.size(); ++i) {
        if (std::isnan(e[i])) continue;
        powers(i);
        a += row * row.transpose();
        b += row * e[i];
    }
    // covariables of few values have dependent powers
    const Eigen::VectorXd beta = a.completeOrthogonalDecomposition().solve(b);
    for (std::size_t i = 0; i < e.size(); ++i)
        if (!std::isnan(e[i])) {
            powers(i);
            e[i] -= row.dot(beta);
        }
}

within_cells take_out_fixed(const draft& d, std::size_t iq) {
    within_cells w;
    for (const std::size_t row : d.order) w.e.push_back(d.y[iq][row]);
    const int number = d.s.traits[iq].number;
    double df = 1.0;
    // one after the other: near the least squares fit after some rounds
    for (int round = 1; round <= 5; ++round) {
        take_out_mean(w.e);
        for (const auto& f : d.effects) {
            if (std::count(f.e.traits.begin(), f.e.traits.end(), number) == 0) continue;
            if (f.e.kind == term_kind::fixed) take_out_class(d, d.classes[f.cls], w.e);
            if (f.e.kind == term_kind::covariable) take_out_covariable(d, d.numbers[f.number], f.e.order, w.e);
            if (round > 1) continue;
            // degrees of freedom, as if nothing were confounded
            if (f.e.kind == term_kind::fixed) df += d.classes[f.cls].levels - 1;
            if (f.e.kind == term_kind::covariable) df += f.e.order;
        }
    }
    double squares = 0.0, n = 0.0;
    for (const double x : w.e)
        if (!std::isnan(x)) squares += x * x, ++n;
    // not below a fifth of the records: nearly saturated models
    w.variance = squares / std::max(n - df, n / 5.0);
    const auto& t = d.s.traits[iq];
    const double raw = t.sd * t.sd * std::pow(10.0, -2 * t.power);
    if (!(w.variance > 1e-3 * raw)) w.variance = 0.1 * raw; // cells that hold single records
    return w;
}

// Correlations between traits within cells, shrunk, none of them 0, positive definite.
Eigen::MatrixXd correlations(const std::vector<within_cells>& w) {
    const auto nq = static_cast<Eigen::Index>(w.size());
    Eigen::MatrixXd r = Eigen::MatrixXd::Identity(nq, nq);
    for (Eigen::Index i = 0; i < nq; ++i)
        for (Eigen::Index j = 0; j < i; ++j) {
            double ij = 0.0, ii = 0.0, jj = 0.0;
            int n = 0;
            for (std::size_t k = 0; k < w[0].e.size(); ++k) {
                const double x = w[i].e[k], y = w[j].e[k];
                if (std::isnan(x) || std::isnan(y)) continue;
                ij += x * y, ii += x * x, jj += y * y, ++n;
            }
            // shrunk: a start near 1 lies near the border
            double c = n > 3 && ii > 0 && jj > 0 ? 0.7 * ij / std::sqrt(ii * jj) : 0.1;
            // a covariance that starts at 0 would stay there
            if (std::fabs(c) < 0.05) c = c < 0 ? -0.05 : 0.05;
            r(i, j) = r(j, i) = c;
        }
    while (Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd>(r).eigenvalues()(0) < 0.05)
        r = 0.9 * r + 0.1 * Eigen::MatrixXd::Identity(nq, nq);
    return r;
}

double usual_share(const draft& d, const draft_effect& f) {
    // a quarter of the genetic variance
    if (f.e.kind == term_kind::sire || f.e.kind == term_kind::mgs) return 0.06;
    if (f.e.kind == term_kind::gin) return 0.3;
    // of the animal itself; of another animal, such as the dam, less
    if (f.e.kind == term_kind::nrm) return d.subject < 0 || f.cls == d.subject ? 0.3 : 0.1;
    return f.e.kind == term_kind::pe ? 0.15 : 0.1;
}

// Share of each random effect of a trait; what is left, at least three tenths, is the residual's.
double share(const draft& d, const draft_effect& f, int number) {
    double sum = 0.0;
    for (const auto& g : d.effects)
        if (!g.e.block.empty() && std::count(g.e.traits.begin(), g.e.traits.end(), number) > 0)
            sum += usual_share(d, g);
    return usual_share(d, f) * std::min(1.0, 0.7 / sum);
}

double residual_share(const draft& d, int number) {
    double left = 1.0;
    for (const auto& g : d.effects)
        if (!g.e.block.empty() && std::count(g.e.traits.begin(), g.e.traits.end(), number) > 0)
            left -= share(d, g, number);
    return left;
}

// A row of a covariance block: variance, its trait, and the effect it belongs to (correlated effects share a block).
struct block_row {
    double variance;
    int trait, effect;
};

std::vector<double> packed(const std::vector<block_row>& rows, const Eigen::MatrixXd& r) {
    std::vector<double> values;
    for (std::size_t i = 0; i < rows.size(); ++i)
        for (std::size_t j = i; j < rows.size(); ++j) {
            // correlated effects: direct and maternal ones start slightly negative
            const double between = rows[i].effect == rows[j].effect ? 1.0 : -0.1;
            values.push_back(std::sqrt(rows[i].variance * rows[j].variance) * between *
                             r(rows[i].trait - 1, rows[j].trait - 1));
        }
    return values;
}

// Covariances of regression coefficients: most of the variance in the level, the rest shared by the other functions.
std::vector<double> regression_values(const draft& d, const draft_effect& f, double variance) {
    const auto& z = d.numbers[f.number];
    double square = 0.0;
    for (const std::size_t row : d.order) square = std::max(square, z.value[row] * z.value[row]);
    const bool spline = f.e.basis.starts_with("BSP"), power = f.e.basis == "POL";
    // normalised Legendre functions have mean square 1/2 over (-1,1)
    const auto sdev = [&](int k) {
        if (spline) return std::sqrt(variance);
        double v = (power ? 1.0 : 2.0) * variance * (k == 0 ? 0.8 : 0.2 / std::max(1, f.e.order - 1));
        // powers of the variable grow with it
        if (power) v /= std::pow(std::max(square, 1.0), k);
        return std::sqrt(v);
    };
    std::vector<double> values;
    for (int i = 0; i < f.e.order; ++i)
        for (int j = i; j < f.e.order; ++j) values.push_back(sdev(i) * sdev(j) * (i == j ? 1.0 : spline ? 0.6 : 0.1));
    return values;
}

// The block of the subject comes first: by it the program tells which records belong together.
std::vector<std::string> block_names(const draft& d) {
    std::vector<std::string> names;
    const auto add = [&](const draft_effect& f) {
        if (!f.e.block.empty() && std::find(names.begin(), names.end(), f.e.block) == names.end())
            names.push_back(f.e.block);
    };
    for (const auto& f : d.effects)
        if (f.cls == d.subject && by_pedigree(f.e.kind)) add(f);
    for (const auto& f : d.effects) add(f);
    return names;
}

start_block make_block(const draft& d, const std::string& name, const std::vector<within_cells>& w,
                       const Eigen::MatrixXd& r) {
    start_block b{name, 0, {}};
    std::vector<block_row> rows;
    for (const auto& f : d.effects) {
        if (f.e.block != name) continue;
        if (d.randreg) {
            b.order = f.e.order;
            b.values = regression_values(d, f, share(d, f, 1) * w[0].variance);
            // the only effect of its block
            return b;
        }
        for (const int q : f.e.traits) rows.push_back({share(d, f, q) * w[q - 1].variance, q, f.e.place});
    }
    b.order = static_cast<int>(rows.size());
    b.values = packed(rows, r);
    return b;
}

} // namespace

std::vector<start_block> starting_values(const draft& d) {
    std::vector<within_cells> w;
    for (std::size_t iq = 0; iq < d.y.size(); ++iq) w.push_back(take_out_fixed(d, iq));
    const Eigen::MatrixXd r = correlations(w);
    std::vector<start_block> blocks;
    for (const auto& name : block_names(d)) blocks.push_back(make_block(d, name, w, r));
    std::vector<block_row> rows;
    for (const auto& t : d.s.traits)
        rows.push_back({residual_share(d, t.number) * w[t.number - 1].variance, t.number, 0});
    blocks.push_back({"residual", static_cast<int>(rows.size()), packed(rows, r)});
    return blocks;
}

} // namespace tvx
