// Multivariate normal samples and the sampling of random effects.
#pragma once
#include "support/array.h"

#include <span>
#include <vector>

namespace tarvex {

// Lower Cholesky factor of the packed triangle sig of order n, for sampling. Columns of rows that depend on those
// before them are zero; a matrix with a negative pivot stops.
void mvnormal_initial(int n, std::span<const double> sig, array<double, 2>& chol);
// n independent standard normal numbers times the factor.
void mvnormal_draw(int n, const array<double, 2>& chol, std::span<double> x);

// Sampled effects: [irand-1][(level-1)*kkfit + place-1].
using random_samples = std::vector<std::vector<double>>;
// One sample of every random effect at the covariances of the model; adds the products of the draws to simtot (packed,
// by block). Effects that cannot be simulated stop the run.
void sample_randeffs(random_samples& u, std::vector<std::vector<double>>& simtot);

} // namespace tarvex
