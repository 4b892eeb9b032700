// Levels of random effects that are treated as fixed (PSE block): what the parameter file names (npsfix to psfixcode),
// and the levels that the making of the inverses finds for them.
#pragma once
#include "support/array.h"

#include <string>
#include <vector>

namespace tarvex {

struct randasfix_module {
    int npsfix = 0;                     // entries of the PSE block
    double psfixfact = 0.0;             // diagonal of the inverse for each of them
    std::vector<std::string> psfixname; // effect
    std::vector<int> psfixcode;         // code of the level
    array<int> asfix;                   // (nan) 1: level of the matrix in hand is pseudo-fixed
    array<int> nasfix;                  // (krand) levels found
    array<int> iasfix;                  // (krand) 1: named in some entry
};
inline randasfix_module randasfix;

} // namespace tarvex
