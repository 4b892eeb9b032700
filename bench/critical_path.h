// How far threads can carry a factorisation: operations on the longest chain of work that must be done in turn.
#pragma once
#include "sparse/sparse.h"
#include "sparse/supernodes.h"

namespace tarvex {

// Multiplications of a factorisation, zeros of merged columns included.
struct chain_of_work {
    double all = 0.0;
    double whole_fronts = 0.0;   // longest chain from a leaf of the tree to the root, each front in one piece
    double largest_piece = 0.0;  // of those that one thread works through alone
    double top = 0.0;            // of the fronts at the top, which are shared out
    double divided_fronts = 0.0; // the largest piece, and of the top the triangles of blocks of pivots alone
};
chain_of_work chain_of(const sparse_store& s, const supernode_tree& tree);

// No more than this many times faster with `threads`, whatever the machine: work / chain and the threads are both
// bounds.
double most_speed_up(double all, double chain, int threads);

// Prints it all: "path NAME VALUE".
void print_chain(const chain_of_work& c);

} // namespace tarvex
