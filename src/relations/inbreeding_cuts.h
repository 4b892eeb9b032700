// Inbreeding coefficients of deep pedigrees with many sires, by stretches of the list.
#pragma once
#include <cstdint>
#include <functional>
#include <vector>

namespace tarvex {

// Where the list is cut, and what that costs.
struct pedigree_cuts {
    std::vector<int> last;  // last animal of each stretch, ascending; the last one is the number of animals
    std::int64_t steps = 0; // ancestors to be visited, an upper limit
};

// Cuts with the fewest steps, found from counts alone. Arguments as of inbreeding().
pedigree_cuts cut_pedigree(const std::vector<int>& sire, const std::vector<int>& dam);

// Steps of the sweeps by sires, an upper limit in the same measure.
std::int64_t sweep_steps(const std::vector<int>& sire, const std::vector<int>& dam);

// Inbreeding coefficients by stretches that end at last[0], last[1], ..; F of animal i at [i-1].
//   done(m)  called after each stretch: the coefficients of animals up to m are known
std::vector<double> inbreeding_by_cuts(const std::vector<int>& sire, const std::vector<int>& dam,
                                       const std::vector<int>& last, const std::function<void(int)>& done = {},
                                       int threads = 1);

} // namespace tarvex
