// Orders raced against each other: which further methods are tried on a graph follows from counts alone.
#pragma once
#include "sparse/order_methods.h"

#include <span>

namespace tarvex {

// Methods by their code in stored files. Codes of METIS have settings; the fifth of these is 0, or how many times the
// median number of neighbours a row must have to be put last.
enum class order_code { mmd = 1, amd = 2, metis = 3, scotch = 4, metis_heavy_last = 5 };
constexpr int last_order_code = static_cast<int>(order_code::metis_heavy_last);
constexpr bool has_settings(order_code code) {
    return code == order_code::metis || code == order_code::metis_heavy_last;
}

struct entrant {
    order_code code;
    metis_settings settings;
    double cost; // multiply-adds that the kernels do while the method orders a graph, for each node
};

// Those tried after the order that is chosen by size, in this order.
std::span<const entrant> entrants();

// Whether one more is worth its price. An AI iterate takes as long as 3.7 factorisations. The first further order may
// take as long as two iterates with the best order so far, since it wins most often by far; more of them must fit into
// one iterate together.
//   best    operations of the best order so far; spent: cost of the entrants tried so far, times nodes
bool affordable(const entrant& e, double best, double spent, int nodes);

// The order by a method other than minimum degree; empty if it refused, or if no row is put last.
node_order order_by(const order_graph& g, order_code code, const metis_settings& settings);

} // namespace tarvex
