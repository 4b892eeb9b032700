// Stores of the numeric work.
#pragma once
namespace tarvex {
void setup4like(); // arrays of the likelihood evaluation
void setup4mmm();  // diag, xspars, xrhs, solutions at the sizes of the symbolic factorisation
} // namespace tarvex
