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

// Fills kkst and maxeff from the model as mapped (mudmap), allocates the weights.
void dpositions();
// Weights at the covariances in hand: 1, or with equations of the factor and no random regression the rows of
// randomvars.zig. Calls dpositions the first time.
void dvec_combs_muv();

} // namespace tarvex
