// Sums over pruned pedigrees, by which files of earlier runs are known.
#pragma once
#include "support/digest.h"

namespace tarvex {

// Codes of the animals of pedigree list irun, their parents, and whether these are sire and dam or sire and maternal
// grandsire.
digest pedigree_sum(int irun);
// The same over all lists, with the name of the pedigree file: inbreed.bin.
digest all_pedigrees_sum();

} // namespace tarvex
