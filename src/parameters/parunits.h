// Units of covariances and parameters (data/units.h).
#pragma once
#include <vector>

namespace tarvex {

// Units from the variances of all blocks, for runs that do not read the data.
void set_units_from_covariances();

// Unit of row i of block irand (0 residual), and of its covariance (i,j).
double row_unit(int irand, int i);
double cov_unit(int irand, int i, int j);
// The same for all elements of a block in the layout of model.cov, and for all covariances in the order of ListofCovs.
std::vector<double> block_units(int irand);
std::vector<double> all_cov_units();

// Units of the covariances in the order of the parameter vector, for blocks of full rank.
std::vector<double> covariance_units();

// From a parameter to its value in the units of the data: value * factor + shift (the latter for logarithms).
struct parameter_unit {
    double factor = 1.0, shift = 0.0;
};
std::vector<parameter_unit> parameter_units();

} // namespace tarvex
