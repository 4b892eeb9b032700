// The mixed model equations in compressed form (sparse/sparse.h), and what their kernels work with. Laid out by
// eqnorders, filled by build_mmm, worked on by the routines of likelihood/factormmm.h.
#pragma once
#include "sparse/factorise.h"
#include "sparse/sparse.h"
#include "sparse/workspace.h"

namespace tarvex {

struct sparse_module : sparse_store {
    array<double> xrhs; // (n) right-hand sides while they are assembled
};
inline sparse_module sparse;

struct kernels_module {
    kernel_kind choice = kernel_kind::automatic; // automatic decides by the work for each stored element
    int rows = 0, elements = 0;                  // size of the factor for which it was last decided
    bool supernodes = false;                     // what was decided
    sparse_work work;
};
inline kernels_module kernels;

} // namespace tarvex
