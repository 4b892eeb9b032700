// Stores of the numeric work. Want of memory stops the run.
#pragma once
namespace tarvex {

// Arrays of the likelihood evaluation: residualvars.detres by pattern of records, and the table of earlier evaluations,
// which an earlier call keeps. After data_recode and covs2parvec.
void setup4like();

// sparse.diag, xrhs, xspars at the sizes of the symbolic factorisation, store empty; in BLUP runs solutions.solerrs and
// nsolerrs for errors of solutions. After eqnorders.
void setup4mmm();

// The same stores for a new structure in mid-run, store empty. Does nothing before setup4mmm.
void resize_store();

} // namespace tarvex
