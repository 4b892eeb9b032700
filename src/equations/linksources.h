// Where the links between equations come from: the records of the data and the inverses of the relationship matrices.
#pragma once
#include "sparse/linkmerge.h"
#include "support/digest.h"

namespace tarvex {

// One pass over the recoded data: equations of records that a residual inverse links stand in one set, in running
// numbers of the equations that stay (orders.jeq). The residual inverses in hand tell the pattern.
void data2adjac(clique_lists& data);

// Links between and within the levels of random effect irand, which has equations of its own.
level_links covar2adjac(int irand);

// Sum over all that the pattern follows from: numbers and starts of the effects, equations taken out, rank and form of
// the blocks, the elements of their inverses, and the equations of the records with the groups that residual inverses
// tie them into. Files of the equations are known by it. lnew: residual inverses are formed at estimates.parvec first;
// a starting point without inverses stops with "RE-inv adj".
digest links_sum(bool lnew);

} // namespace tarvex
