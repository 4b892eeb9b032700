// The driver of the maximisation.
#pragma once
#include "estimation/bestpoint.h"
#include "parameters/parvec.h"

#include <functional>

namespace tarvex {

void get_estimates(); // maximises log L by the plan of maximise.search_type

// ---- rules of the plans

// What cycles of EM and AI-REML consist of. em and rescue: so many rounds at most, to the first worth less than `gain`
// in log L. They leave maximise.converged, ai its last change in aireml_terms.
struct cycle_methods {
    std::function<void(int rounds, double gain)> em;     // from the point in hand
    std::function<void(int rounds, double gain)> rescue; // not expanded, from the best point
    std::function<void()> ai;                            // AI-REML from the best point
    std::function<void()> next_cycle;                    // to the best point, for EM
};
// Runs maximise.ncycle cycles, until one of them has converged. A single one hands over where a round gains less
// than 2. In the last one rounds of the rescue follow where AI-REML has not converged, and AI-REML again, until its
// last change was below 0.01; not at reduced rank. An AI-REML that creeps ends all.
void run_cycles(const cycle_methods& m);

// True if the search goes on by itself from the end that verdict.last judges: it is short of a maximum, the plan knows
// AI-REML, the user allows it and has set no limit of iterates, and it has not gone on three times (ten in the search
// for hard cases).
bool search_goes_on();

} // namespace tarvex
