// Covariance blocks of the estimates report.
#pragma once
#include "reports/apprxaicovs.h"
#include "support/screen.h"

#include <string>
#include <vector>

namespace tarvex {

// A symmetric matrix of functions of the covariance components, as the report shows it.
struct report_matrix {
    int n = 0;
    int rank = 0;                      // eigenvalues and vectors shown
    bool ratios = false;               // diagonal of the correlation matrix holds variance ratios
    bool diagonal = false;             // only variances
    std::vector<cov_function> element; // (packed) each covariance as a linear function of the components
    std::vector<cov_function> total;   // (n) phenotypic variance of each row's trait, empty functions: no ratios
    std::vector<int> ipar;             // (packed) running numbers, and names
    std::vector<std::string> name;
};

// All covariances at the best point in the order of ListofCovs, sums behind them.
std::vector<double> all_covariances();
// Matrix of step `step` of block irand.
report_matrix block_matrix(int irand, int step);
// Sum of the two effects that a block of correlated effects ties, by trait. Its running numbers follow those of the
// phenotypic covariances.
report_matrix tied_sum_matrix(int irand);
// Phenotypic covariances of the traits.
report_matrix phenotypic_matrix();
// Phenotypic covariance of traits iq and jq as a function of the components.
cov_function phenotypic_covariance(int iq, int jq);

// Prints the matrix with all that derives from it.
void write_covmat(text_out& out, const report_matrix& m, const std::vector<double>& cov);

} // namespace tarvex
