// State of the search that the maximisers share.
#pragma once
#include "support/array.h"

namespace tarvex {

struct search_state_module {
    array<double> parnew; // (nparm) point on trial
};
inline search_state_module search_state;

} // namespace tarvex
