#include "sparse/orderings.h"

#include "sparse/genmmd.h"

#include <algorithm>
#include <climits>
#include <new>

namespace tarvex {

namespace {

// Both directions of every element of the row store, from index `low` on.
void symmetric_graph(const row_store& list, int n, int low, array<int>& xadj, array<int>& adjncy) {
    // counts of node i stand at i+1 and become starts by summing
    xadj.allocate(n + 1);
    for (int i = 1; i <= n; ++i)
        for (int k = list.ifirst(i); k > 0; k = list.inext(k)) {
            ++xadj(i + 1);
            ++xadj(list.ivcol(k) + 1);
        }
    xadj(1) = low;
    for (int i = 1; i <= n; ++i) {
        // 32-bit subscripts are not enough: told as memory that is not there
        if (xadj(i + 1) > INT_MAX - 1 - xadj(i)) throw std::bad_alloc();
        xadj(i + 1) += xadj(i);
    }
    adjncy.allocate(xadj(n + 1) - low);
    // next(i): first free place of node i
    array<int> next = xadj;
    const int shift = 1 - low;
    for (int i = 1; i <= n; ++i)
        for (int k = list.ifirst(i); k > 0; k = list.inext(k)) {
            const int j = list.ivcol(k);
            adjncy(next(i)++ + shift) = j - shift;
            adjncy(next(j)++ + shift) = i - shift;
        }
}

std::vector<int> from_zero(const array<int>& a) {
    std::vector<int> v(a.begin(), a.end());
    for (int& k : v) --k;
    return v;
}

} // namespace

order_graph pattern_graph(const row_store& list, int n) {
    array<int> xadj, adjncy;
    symmetric_graph(list, n, 0, xadj, adjncy);
    return {n, {xadj.begin(), xadj.end()}, {adjncy.begin(), adjncy.end()}};
}

counted_order minimum_degree(const row_store& list, int n) {
    array<int> xadj, adjncy, place, node;
    symmetric_graph(list, n, 1, xadj, adjncy);
    counted_order found;
    // delta 0: a stage eliminates nodes of the very least degree only
    ggenmmd(n, xadj, adjncy, place, node, 0, INT_MAX, found.nofsub);
    found.order = {from_zero(node), from_zero(place)};
    return found;
}

counted_order approximate_minimum_degree(const row_store& list, int n) {
    array<int> start, adjacent;
    start.allocate(n + 1);
    adjacent.allocate(list.nrczhz);
    int at = 0;
    for (int i = 1; i <= n; ++i) {
        // one triangle, ascending, is what the method wants
        for (int k = list.ifirst(i); k > 0; k = list.inext(k)) adjacent(++at) = list.ivcol(k) - 1;
        start(i + 1) = at;
    }
    counted_order found;
    found.order = amd_node_order(n, start.data(), adjacent.data());
    found.nofsub = static_cast<int>(std::min(found.order.fill, static_cast<double>(INT_MAX)));
    return found;
}

} // namespace tarvex
