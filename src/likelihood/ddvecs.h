// Design positions and weights of a subject's rows.
#pragma once
#include "support/array.h"

namespace tarvex {

struct ddvecs_module {
    array<int, 2> kkst;  // (maxrand+1,nq) first position of random effect j in a row of trait iq
    int maxeff = 0;      // positions of the longest row
    array<double, 2> dd; // (maxeff,nq) weights of a row of the trait: 1, elements of the factor when principal
};
inline ddvecs_module ddvecs;

void dpositions();     // fills kkst, allocates the weights
void dvec_combs_muv(); // weights at the covariances in hand (randomvars.zig)

} // namespace tarvex
