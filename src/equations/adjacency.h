// Pattern of the mixed model equations: lower triangle of the coefficient matrix in the row store, without values.
//
// adjacency.bin: nq, rows, nrankx, lim1, neqns, neq_fix, neq_rnd, neq_cov, levels of each random effect (krand) |
// llxrhs | ifirst(rows) | nrczhz, kk, kfactor | inext in kk records of kfactor elements, the rest in one more if there
// is any | ivcol likewise. rows: numbers.nsrow if llxrhs is 1, else nbase. The seal has links_sum.
#pragma once

namespace tarvex {

struct adjacency_module {
    bool llxrhs = false; // the row store holds the right-hand side as its last row
    bool found = false;  // the pattern was read from the file
};
inline adjacency_module adjacency;

// Pattern of the numbers.nbase equations that stay (orders.jeq), without the right-hand side, into linked_list.
//   lnew  true: at the start of a run. adjacency.bin is tried. Otherwise, and in mid-run, the residual inverses in hand
//         show which records of a subject are linked.
void adjacency1(bool lnew);

// The right-hand side as one more row, linked to all others. False: the pattern was complete before.
bool adjacency2();

// Reads adjacency.bin if it fits this run.
bool find_adjacency();
void write_adjacency();

} // namespace tarvex
