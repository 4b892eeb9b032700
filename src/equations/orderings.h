// Choice of the order of the equations.
#pragma once
namespace tarvex {
void eqnorders();       // order, symbolic factorisation, maps
void redo_eqnorders();  // anew in mid-run, with the covariances in hand (residualvars, randomvars)
} // namespace tarvex
