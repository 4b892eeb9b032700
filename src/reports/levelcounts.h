// Records and raw means by level of fixed and extra effects and by value of covariables, from one pass over the data.
#pragma once
#include "data/levels.h"
#include "support/array.h"
#include "support/vector1.h"

namespace tarvex {

struct level_counts {
    vector1<int> nnvec;   // records
    vector1<double> fbar; // mean of the observations
};

struct solution_counts {
    array<level_counts, 2> fixed; // (maxfix,nq) by level
    array<level_counts, 2> extra; // (maxext,nq)
    array<level_counts, 2> curve; // (maxcov,nq) by (nesting level - 1) * values + value
};

void count_levels(solution_counts& counts);

// Codes of the effect within which covariable icov of trait iq is nested, null if it is not.
const code_list* nest_codes(int icov, int iq);

} // namespace tarvex
