// The pattern in a row store as a graph, and orders of it. Too many links for the counts, or too little memory: these
// throw std::bad_alloc.
#pragma once
#include "sparse/order_methods.h"
#include "sparse/rowstore.h"

namespace tarvex {

// Both directions of every element of the first n rows.
order_graph pattern_graph(const row_store& list, int n);

// An order with what its method tells of the structure: an upper limit to the subscripts (minimum degree), or the fill
// (approximate minimum degree), cut at 2147483647.
struct counted_order {
    node_order order;
    int nofsub = 0;
};
counted_order minimum_degree(const row_store& list, int n);
counted_order approximate_minimum_degree(const row_store& list, int n);

} // namespace tarvex
