// What the driver decides between reading the model and estimating.
#pragma once

namespace tarvex {

// Settles the algorithm for reduced-rank fits and for correlated random effects, for which there is no PX-EM.
void choose_algorithm();
// Fits of reduced rank work through the factor of the relationship matrix (superai); all others rebuild the parameters
// after a step only if the user asked for it (reconstruct).
void choose_reconstruct();
// True if any random effect has the relationship matrix of the pedigree.
bool any_nrm_effect();
// Analyses of fewer parameters than this skip the rounds of PX-EM unless an option has chosen the algorithm.
inline constexpr int nparm_for_pxem = 18;
// Plain AI-REML for an analysis of nparm parameters that nothing speaks against; true if the choice was made.
bool choose_small_problem(int nparm);

} // namespace tarvex
