// Stores of the numeric work.
#pragma once
namespace tarvex {

// Arrays of the likelihood evaluation: residual log determinants, table of earlier evaluations.
void setup4like();

// diag, xrhs, xspars at the sizes of the symbolic factorisation; solerrs where errors of solutions are wanted (BLUP
// runs).
void setup4mmm();

// New sizes after a reordering in mid-run: diag, xrhs, xspars, solerrs. Nothing before setup4mmm.
void resize_store();

} // namespace tarvex
