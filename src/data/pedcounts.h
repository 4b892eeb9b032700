// Report on the structure of a pedigree: records, parents, sibs and grandparents.
#pragma once
#include "support/screen.h"

#include <vector>

namespace tarvex {

// Writes the block of statistics for random effect irand with relationship matrix jj. nrec: records of each animal of
// the pruned list ([j-1], numbers of the pruned list). Stops if an animal is its own grandparent.
void ped_counts(text_out& out, int irand, int jj, const std::vector<int>& nrec);

} // namespace tarvex
