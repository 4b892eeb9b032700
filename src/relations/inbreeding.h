// Inbreeding coefficients of a pedigree of any depth.
#pragma once
#include <functional>
#include <vector>

namespace tarvex {

class text_out;

// Inbreeding coefficients by animal of a pedigree in which parents have smaller numbers than their offspring.
//   sire, dam  parents of animal i at [i-1], numbers from 1, 0 unknown
//   done       called with s = 1, 2, .. once the coefficients of all offspring of sires up to s are known
//   returns    F of animal i at [i-1]; exactly 0 where sire and dam have no common ancestor
// By sweeps over the relatives of each sire, or by stretches of the list (inbreeding_cuts.h) where the pedigree is
// large and these count fewer steps; `threads` threads share a stretch, without a change of the result.
std::vector<double> inbreeding(const std::vector<int>& sire, const std::vector<int>& dam,
                               const std::function<void(int)>& done = {}, int threads = 1);
// The same by sweeps over the relatives of each sire.
std::vector<double> inbreeding_by_sires(const std::vector<int>& sire, const std::vector<int>& dam,
                                        const std::function<void(int)>& done = {});

// Mendelian sampling variance of an animal as part of the additive variance, from the coefficients of its parents:
// 1 - (1+Fs)/4 - (1+Fd)/4, without the terms of unknown parents.
inline double mendelian_variance(int s, int d, const std::vector<double>& f) {
    return 1.0 - 0.25 * ((s > 0 ? 1.0 + f[s - 1] : 0.0) + (d > 0 ? 1.0 + f[d - 1] : 0.0));
}

// Inbred animals of a pedigree, and the sum of all coefficients.
struct inbreeding_sums {
    int count = 0;
    double total = 0.0;
};

// Computes the coefficients of pedigree list jj; leaves nrminverse.nrmdiag (Mendelian sampling variances) and, where
// they are kept, nrminverse.inbreed and ifin. The summary goes to `out` and under verbose to the screen.
inbreeding_sums inbreed_coeffs(int jj, int nanim, text_out& out);
// Lines of the summary for pedigree list jj of nanim animals.
void write_inbreeding(text_out& out, int jj, int nanim, const inbreeding_sums& inbred);
// Fills the column of nrminverse.inbreed of list jj, unless this run has done it.
void compute_inbreeding(int jj);

} // namespace tarvex
