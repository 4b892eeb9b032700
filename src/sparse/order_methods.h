// Orders of a graph by the libraries: METIS, AMD and SCOTCH are called here and nowhere else.
//
// METIS: Karypis, G. & Kumar, V. (1998), SIAM J. Sci. Comput. 20, 359-392. SCOTCH: Pellegrini, F., Roman, J. & Amestoy,
// P. (2000), Concurrency: Pract. Exper. 12, 69-84. AMD: Amestoy, P.R., Davis, T.A. & Duff, I.S. (1996), SIAM J. Matrix
// Anal. Appl. 17, 886-905.
#pragma once
#include "sparse/column_counts.h"

#include <array>
#include <vector>

namespace tarvex {

// An order: node[k] stands at place k, place[] is the inverse; both from 0. Empty where the method refused.
struct node_order {
    std::vector<int> node, place;
    int status = 0;    // of a library that refused; out_of_memory where it told that
    double fill = 0.0; // AMD: off-diagonals of the factor, an upper estimate
};

constexpr int out_of_memory = -99;

// METIS settings: 0 first, the library's own; otherwise -, matching (1 random, 3 sorted heavy edge), separator at the
// coarsest level (1 edges, 2 nodes), refinement (1 two-sided, 2 one-sided), -, 1 compress + 2 by components, pruning
// (in tenths of the mean degree), separators a level.
using metis_settings = std::array<int, 8>;

node_order metis_order(const order_graph& g, const metis_settings& settings);
// Approximate minimum degree. start (n+1), adjacent: compressed rows of either triangle or both, from 0, ascending.
node_order amd_node_order(int n, const int* start, const int* adjacent);
// The strategy for quality, on one thread, with the seed set back: one graph has one order.
node_order scotch_order(const order_graph& g);

// The nodes of more than `times` the median number of neighbours are set aside and put last, in ascending degree; the
// rest is ordered by METIS. Empty where there are none.
node_order heavy_last_order(const order_graph& g, const metis_settings& settings, int times);

} // namespace tarvex
