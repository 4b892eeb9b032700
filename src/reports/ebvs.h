// Breeding values from the scores of blocks that are fitted on the factor scale: u = Q u*, Q the (pivoted, at reduced
// rank cut) factor of the covariance matrix.
#pragma once
#include "support/vector1.h"

namespace tarvex {

// A level of a block in the units of the data: values by row of the covariance matrix and, in runs with errors, their
// prediction error variances.
struct level_values {
    vector1<double> u, pev;
};
level_values breeding_values(int irand, int level);
// Variance of row r of the covariance matrix as fitted: of QQ'.
double fitted_variance(int irand, int r);

// Reduced rank: file EBV_<effect>.dat, and the loadings with the order of their pivots on the screen.
bool reduced_rank(int irand);
void write_ebvs(int irand);
// The loadings of all blocks of reduced rank at the matrices in model.cov, for runs without solutions.
void write_given_loadings();

// Accuracy as reports have it: root of 1 - pev / var, or the negative difference itself.
double accuracy(double pev, double variance);
// 1 + F of the levels of a block with relationships among animals where accuracies are to allow for it, else 1.
vector1<double> variance_factors(int irand);

} // namespace tarvex
