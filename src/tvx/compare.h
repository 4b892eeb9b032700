// Likelihood ratio tests of nested models.
//
// A variance that is 0 under the smaller model lies at the border of the parameter space, so that the statistic follows
// a mixture of chi-squares (Self and Liang 1987, J. Am. Stat. Assoc. 82:605; Stram and Lee 1994, Biometrics 50:1171).
#pragma once
#include "tvx/results.h"

#include <string>
#include <vector>

namespace tvx {

struct lr_test {
    double statistic = 0.0;                      // 2 (log L large - log L small), not below 0
    int df = 0;                                  // difference in parameters
    std::vector<std::pair<int, double>> mixture; // degrees of freedom, weight
    double p = 1.0;
    bool bound = false; // p is an upper bound
    std::string words;  // what is tested, and the reference distribution
};

// Probability of a mixture of chi-squares (0 degrees of freedom: the point 0) beyond x.
double mixture_tail(const std::vector<std::pair<int, double>>& mixture, double x);

// Compares two runs. Faults, with the reason: not at a maximum, other records, other fixed effects, not nested.
lr_test compare_runs(const run_results& small, const run_results& large);

} // namespace tvx
