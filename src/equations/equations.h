// Equation numbering, before and after ordering.
#pragma once
namespace tarvex {

// Gives every effect its block of equations and starts the list of those to be taken out: the first level of each fixed
// effect after the first of a trait, and the user's. Reads model, mudmap, levels and zerout; leaves mmequations.
// More than maxeqns equations, or a level to be taken out that does not exist, stop the run.
void equation_nos();

// rn_start_full, neqns_full: the numbering with every random effect at full rank. Means stand behind the random effects
// in both, so that their numbers differ by neqns_full - neqns.
void equation_nos_full();

// recoded2.bin -> recoded3.bin: the same lists in the numbers of the factorisation order (orders.ieqnew, 0 for
// equations taken out), in the order of the old numbers.
void new_eqnnos();

} // namespace tarvex
