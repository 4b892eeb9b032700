// Approximate sampling covariances of the estimates from the average information matrix, and errors of functions of
// covariances by the delta method.
#pragma once
#include "support/array.h"

#include <utility>
#include <vector>

namespace tarvex {

struct sampling_module {
    bool available = false; // the average information of this run's final point could be inverted
    int rank = 0;           // rank of the information matrix
    array<double> varpar;   // (nparm) sampling variances of the parameters
    // Numbers of covariances of which only residual + 2 PEQ can be estimated.
    std::vector<std::pair<int, int>> tied;
    array<double, 2> vcov; // (ncovall,ncovall) of the covariances in the order of ListofCovs and the user-defined sums
};
inline sampling_module sampling;

// Reads AvInfoParms (written by this run), fills module sampling, writes the sampling covariances to AvInfoCovs.
void approxai_covs();

// Stops on a covariance number out of range in the user-defined functions.
void check_usrdefcovs();

// A linear function of the covariances: coefficient of each number of ListofCovs (1-based number, factor).
struct cov_term {
    int number;
    double factor;
};
using cov_function = std::vector<cov_term>;
double function_value(const cov_function& f, const std::vector<double>& cov); // cov: all covariances, 0-based
double function_covariance(const cov_function& f, const cov_function& g);     // sampling covariance, NaN: withheld
bool estimable(const cov_function& f);                                        // false: errors are withheld

// Errors; -1.0 where the approximation fails: of f, a / b, and c / sqrt(a b) for variances a, b.
double error_of_sum(const cov_function& f);
double error_of_ratio(const cov_function& a, const cov_function& b, const std::vector<double>& cov);
double error_of_correlation(const cov_function& c, const cov_function& a, const cov_function& b,
                            const std::vector<double>& cov);
// The same of values with their sampling variances and covariances.
double error_of_ratio(double a, double b, double vaa, double vbb, double vab);
double error_of_correlation(double c, double a, double b, double vcc, double vaa, double vbb, double vca, double vcb,
                            double vab);

} // namespace tarvex
