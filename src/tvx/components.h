// What a run estimated, in the user's names and units: components, ratios and correlations, functions of the control
// variable of a random regression, eigenvalues.
#pragma once
#include "tvx/results.h"

#include <array>
#include <string>
#include <utility>
#include <vector>

namespace tvx {

// One line of estimates.tsv.
struct component {
    std::string effect, trait_i, trait_j;
    std::string kind;                   // "variance" or "covariance"
    double estimate = 0.0, se = 0.0;    // se NaN: none
    double ratio = 0.0, ratio_se = 0.0; // part of the phenotypic variance, or correlation; NaN: none
    std::string mark;                   // "boundary", "not identified", "failed" or blank
    std::string words;                  // the ratio and its denominator
};
std::vector<component> components_of(const run_results& r);

// A linear function of the covariances in the order of the estimates.
struct linear {
    std::vector<std::pair<int, double>> terms; // number from 1, factor
    void add(const linear& other, double factor = 1.0);
};

// Estimates with their sampling covariances.
class estimate_set {
public:
    explicit estimate_set(const json& results);
    double value(const linear& f) const;
    double covariance(const linear& f, const linear& g) const; // NaN without errors
    double se(const linear& f) const;                          // NaN where it fails
    double ratio_se(const linear& a, const linear& b) const;   // of a / b
    linear element(int block, int step, int i, int j) const;   // a covariance; no terms where it is not fitted

private:
    std::vector<double> value_;
    std::vector<std::vector<double>> cov_;  // lower triangle
    std::vector<std::array<int, 5>> place_; // block, step, row, column, number
};

// Variances along the control variable of a random regression.
struct curve_point {
    double x = 0.0, variance = 0.0, se = 0.0, ratio = 0.0, ratio_se = 0.0;
};
struct curve {
    std::string control, effect; // effect "phenotype": the sum
    std::vector<curve_point> points;
};
// None but for random regressions; of several control variables that of the first random effect is shown.
std::vector<curve> curves_of(const run_results& r);

// Eigenvalues of a block of two and more rows, traits in units of their phenotypic standard deviations (coefficients
// of a random regression as they are), and the loadings of the rows: eigenvectors times roots of the values. Values
// descend, as many as the rank. Diagonal blocks and residuals with classes are passed over.
struct eigen_part {
    std::string effect;
    int order = 0, rank = 0;
    std::vector<std::string> rows;
    std::vector<double> values;
    std::vector<std::vector<double>> loadings; // by row
};
std::vector<eigen_part> eigen_parts(const run_results& r);

} // namespace tvx
