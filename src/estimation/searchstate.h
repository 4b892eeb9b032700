// State of the search that the maximisers share. What the user has chosen stays in options and maximise; the method in
// hand, which changes as a plan goes on, is here.
#pragma once
#include "likelihood/likelihood.h"
#include "support/array.h"

namespace tarvex {

// Method in hand: the plan begins with what options say, and goes on from there.
struct search_method {
    bool aireml = false;  // steps of AI-REML
    bool em_scale = true; // parameters are those of EM, not elements of factors
    bool pxem = true;     // rounds of EM are expanded
    bool by_gain = false; // rounds of EM end by their gain alone and tell no end of their own
};

struct search_state_module {
    search_method method;
    array<double> parnew;                  // (nparm) point on trial
    invalid_point why = invalid_point::no; // the last evaluation has no log L
    bool saverr_ready = false;             // the average information belongs to the final point
};
inline search_state_module search_state;

} // namespace tarvex
