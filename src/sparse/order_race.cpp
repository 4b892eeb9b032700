#include "sparse/order_race.h"

#include <array>

namespace tarvex {

namespace {

constexpr double iterate = 3.7; // factorisations in the time of an AI iterate

// Kinds that differ, the most promising first; each is best somewhere. Costs: some 7, 15 or 25 microseconds a node,
// times 13 000 multiply-adds.
constexpr std::array<entrant, 5> all_entrants{{
    {order_code::metis_heavy_last, {3, 1, 2, 1, 20, 1, 0, 3}, 200e3},
    {order_code::metis, {0, 0, 0, 0, 0, 0, 0, 0}, 90e3},
    {order_code::metis_heavy_last, {3, 1, 2, 1, 10, 1, 0, 3}, 200e3},
    {order_code::scotch, {}, 200e3},
    {order_code::metis, {3, 1, 2, 2, 0, 1, 200, 5}, 330e3},
}};

} // namespace

std::span<const entrant> entrants() { return all_entrants; }

bool affordable(const entrant& e, double best, double spent, int nodes) {
    return spent + e.cost * nodes <= (spent > 0.0 ? 1.0 : 2.0) * iterate * best;
}

node_order order_by(const order_graph& g, order_code code, const metis_settings& settings) {
    switch (code) {
    case order_code::scotch:
        return scotch_order(g);
    case order_code::metis_heavy_last:
        return heavy_last_order(g, settings, settings[4]);
    default:
        return metis_order(g, settings);
    }
}

} // namespace tarvex
