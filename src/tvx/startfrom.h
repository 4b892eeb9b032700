// Starting values from estimates of earlier runs, and matrices bent to positive definite.
#pragma once
#include "tvx/results.h"

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tvx {

// Row of a covariance block in the user's names. A value of the analysis is the user's / unit.
struct start_row {
    std::string effect, trait; // "residual" for the residual block
    int coefficient = 0;       // of a random regression, from 1
    double unit = 1.0;
};

// Variances and correlations that runs have estimated, in the user's names and units; means where several have one.
class known_covariances {
public:
    void add(const run_results& r);
    // step: class of residual variances, from 1
    std::optional<double> variance(const start_row& a, int step = 1) const;
    std::optional<double> correlation(const start_row& a, const start_row& b, int step = 1) const;

private:
    struct mean {
        double sum = 0.0;
        int n = 0;
        double value() const { return sum / n; }
    };
    using key = std::pair<std::string, std::string>;
    std::map<key, mean> known_;
    void note(const key& k, double x);
    std::optional<double> find(const key& k) const;
};

// Puts what is known into `values`, the packed upper triangle of a block with these rows (own starting values, positive
// definite), and leaves the matrix positive definite: a variance near 0 is raised to a hundredth of the block's own
// value. Returns the number of elements taken.
int take_known(const known_covariances& known, const std::vector<start_row>& rows, std::vector<double>& values,
               int step = 1);

// The matrix with the same variances whose correlations have no eigenvalue near 0: where one lies below `least`, it is
// raised to that, and the correlations are scaled anew. Packed upper triangle; others are not changed.
std::vector<double> bent(const std::vector<double>& values, int order, double least = 0.01);

} // namespace tvx
