// Solutions of the mixed model equations.
#pragma once
#include "support/array.h"
namespace tarvex {
struct solutions_module {
    array<double> solns;   // (nsrow) of the factor in hand, new numbering
    array<double> solsave; // (neqns) at the best point, old numbering; 0 for equations taken out
    array<double> solerrs; // (nsrow) diagonal of the inverse coefficient matrix, new numbering; BLUP runs only
    int nsolerrs = 0;      // not 0: solerrs is wanted
    bool accinb = false;   // accuracies allow for inbreeding
};
inline solutions_module solutions;

// solsave from the solutions in hand, which an evaluation that is `solved` leaves in solns.
void save_solutions();

} // namespace tarvex
