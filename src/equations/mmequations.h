// Numbering of the mixed model equations.
#pragma once
#include "support/array.h"

#include <vector>

namespace tarvex {

// Equations run from 1 in the order: covariables by trait; fixed effects by trait; IDE random effects; NRM and GIN
// random effects; means by trait. Starts are offsets: level l of a fixed effect has equation fx_start + l; component r
// of level l of a random effect rn_start + (l-1)*nfit + r; coefficient c of (nesting) level l of a covariable cv_start
// + (l-1)*order + c.
struct mmequations_module {
    int neqns = 0;
    int neq_cov = 0;
    int neq_fix = 0;
    int neq_rnd = 0;
    array<int, 2> cv_start;   // (maxcov,nq)
    array<int, 2> fx_start;   // (maxfix,nq)
    array<int> rn_start;      // (krand) -1 for PEQ
    array<int> ieq_trait;     // (nq) equation of the trait's mean, 0 none
    std::vector<int> ieqzero; // equations taken out, in order of finding; always numbers before ordering
    // int nzero is ieqzero.size()
};
inline mmequations_module mmequations;

} // namespace tarvex
