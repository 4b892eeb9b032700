// Equation numbering, before and after ordering.
#pragma once
#include "data/recodedata.h"

namespace tarvex {

// Gives every effect its block of equations and starts the list of those to be taken out: the first level of each fixed
// effect after the first of a trait, and the user's. Reads model, mudmap, levels and zerout; leaves mmequations.
// More than maxeqns equations, or a level to be taken out that does not exist, stop the run.
void equation_nos();

// For the recoding of the data.
equation_starts starts_of_equations();

// recoded2.bin -> recoded3.bin: the same lists in the numbers of the factorisation order (orders.ieqnew, 0 for
// equations taken out), in the order of the old numbers. Sets orders.nlisted: until then passes over the records
// translate the old lists as they go.
void new_eqnnos();

} // namespace tarvex
