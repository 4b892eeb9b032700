// State of the search that the maximisers share.
#pragma once
#include "likelihood/likelihood.h"
#include "support/array.h"

namespace tarvex {

struct search_state_module {
    array<double> parnew;                  // (nparm) point on trial
    invalid_point why = invalid_point::no; // the last evaluation has no log L
    bool saverr_ready = false;             // the average information belongs to the final point
};
inline search_state_module search_state;

} // namespace tarvex
