// Where the links between equations come from: the records of the data and the inverses of the relationship matrices.
#pragma once
#include "sparse/linkmerge.h"

namespace tarvex {

// One pass over the recoded data: equations of records that a residual inverse links stand in one set, in running
// numbers of the equations that stay (orders.jeq). lnew: residual inverses are formed at estimates.parvec first;
// otherwise those in hand tell the pattern. A starting point without inverses stops with "RE-inv adj".
void data2adjac(clique_lists& data, bool lnew);

// Links between and within the levels of random effect irand, which has equations of its own.
level_links covar2adjac(int irand);

} // namespace tarvex
