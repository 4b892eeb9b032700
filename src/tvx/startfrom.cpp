#include "tvx/startfrom.h"

#include <Eigen/Eigenvalues>

#include <algorithm>
#include <cmath>

namespace tvx {

namespace {

// what a row is, in the user's names: comparable between runs
std::string label(const start_row& a, int step) {
    return a.effect + '\t' + a.trait + '\t' + std::to_string(a.coefficient) + '\t' + std::to_string(step);
}

start_row row_of(const run_results& r, int block, int row) {
    const json& x =
        r.estimates["blocks"].at(static_cast<std::size_t>(block))["rows"].at(static_cast<std::size_t>(row - 1));
    const int trait = x["trait"];
    const std::string effect = block == 0 ? "residual" : effect_name(r, x["effect"], trait);
    return {effect, trait_name(r, trait), x["coefficient"], trait_unit(r, trait)};
}

Eigen::MatrixXd matrix_of(const std::vector<double>& values, Eigen::Index n) {
    Eigen::MatrixXd a(n, n);
    std::size_t at = 0;
    for (Eigen::Index i = 0; i < n; ++i)
        for (Eigen::Index j = i; j < n; ++j) a(i, j) = a(j, i) = values[at++];
    return a;
}

std::vector<double> packed(const Eigen::MatrixXd& a) {
    std::vector<double> values;
    for (Eigen::Index i = 0; i < a.rows(); ++i)
        for (Eigen::Index j = i; j < a.cols(); ++j) values.push_back(a(i, j));
    return values;
}

} // namespace

void known_covariances::note(const key& k, double x) {
    mean& m = known_[k];
    m.sum += x;
    ++m.n;
}

std::optional<double> known_covariances::find(const key& k) const {
    const auto at = known_.find(k);
    return at == known_.end() ? std::nullopt : std::optional(at->second.value());
}

void known_covariances::add(const run_results& r) {
    std::map<std::array<int, 3>, double> variance; // block, step, row
    // variances first: correlations are made with them
    for (const auto& e : r.estimates["estimates"])
        if (e["row"] == e["column"]) variance[{e["block"], e["step"], e["row"]}] = number(e["estimate"]);
    for (const auto& e : r.estimates["estimates"]) {
        const int block = e["block"], step = e["step"], i = e["row"], j = e["column"];
        const start_row a = row_of(r, block, i), b = row_of(r, block, j);
        const double x = number(e["estimate"]), vv = variance[{block, step, i}] * variance[{block, step, j}];
        if (!std::isfinite(x)) continue;
        if (i == j)
            // variances in the user's units
            note({label(a, step), label(a, step)}, x * a.unit * a.unit);
        else if (vv > 0.0)
            // estimates of several runs are averaged; rounding may pass 1
            note(std::minmax(label(a, step), label(b, step)), std::clamp(x / std::sqrt(vv), -1.0, 1.0));
    }
}

std::optional<double> known_covariances::variance(const start_row& a, int step) const {
    return find({label(a, step), label(a, step)});
}

std::optional<double> known_covariances::correlation(const start_row& a, const start_row& b, int step) const {
    return find(std::minmax(label(a, step), label(b, step)));
}

int take_known(const known_covariances& known, const std::vector<start_row>& rows, std::vector<double>& values,
               int step) {
    const auto n = static_cast<Eigen::Index>(rows.size());
    Eigen::MatrixXd a = matrix_of(values, n);
    Eigen::VectorXd sd = a.diagonal().cwiseSqrt();
    a = sd.cwiseInverse().asDiagonal() * a * sd.cwiseInverse().asDiagonal(); // correlations
    int taken = 0;
    for (Eigen::Index i = 0; i < n; ++i) {
        const start_row& row = rows[i];
        if (const auto v = known.variance(row, step)) {
            // a variance estimated as 0 would hold the search at the border: at least a hundredth of the start
            sd(i) = std::sqrt(std::max(*v / (row.unit * row.unit), 0.01 * sd(i) * sd(i)));
            ++taken;
        }
        for (Eigen::Index j = 0; j < i; ++j)
            if (const auto r = known.correlation(row, rows[j], step); r && *r != 0.0) {
                a(i, j) = a(j, i) = *r;
                ++taken;
            }
    }
    a.diagonal().setOnes();
    // correlations from several runs need not go together
    if (taken > 0) values = bent(packed(sd.asDiagonal() * a * sd.asDiagonal()), static_cast<int>(n));
    return taken;
}

std::vector<double> bent(const std::vector<double>& values, int order, double least) {
    const Eigen::MatrixXd a = matrix_of(values, order);
    const Eigen::VectorXd sd = a.diagonal().cwiseSqrt();
    const Eigen::MatrixXd r = sd.cwiseInverse().asDiagonal() * a * sd.cwiseInverse().asDiagonal();
    const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(r);
    // nothing to mend
    if (solver.eigenvalues()(0) >= least) return values;
    const Eigen::MatrixXd up =
        solver.eigenvectors() * solver.eigenvalues().cwiseMax(least).asDiagonal() * solver.eigenvectors().transpose();
    const Eigen::VectorXd scale = sd.cwiseQuotient(up.diagonal().cwiseSqrt());
    // back to the given variances: correlations alone are bent
    Eigen::MatrixXd b = scale.asDiagonal() * up * scale.asDiagonal();
    b.diagonal() = a.diagonal();
    return packed(b);
}

} // namespace tvx
