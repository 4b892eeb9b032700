// The ordering methods on the pattern in the row store.
#include "sparse/orderings.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "equations/orders.h"
#include "sparse/genmmd.h"
#include "sparse/linkedlist.h"
#include "sparse/order_race.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <span>

namespace tarvex {

namespace {

// Both directions of every element of the row store, from index `low` on.
void symmetric_graph(int n, int low, array<int>& xadj, array<int>& adjncy) {
    const auto& list = linked_list;
    xadj.allocate(n + 1);
    for (int i = 1; i <= n; ++i)
        for (int k = list.ifirst(i); k > 0; k = list.inext(k)) {
            ++xadj(i + 1);
            ++xadj(list.ivcol(k) + 1);
        }
    xadj(1) = low;
    for (int i = 1; i <= n; ++i) {
        if (xadj(i + 1) > INT_MAX - 1 - xadj(i)) tvx_noalloc("ADJNCY", 2LL * list.nrczhz);
        xadj(i + 1) += xadj(i);
    }
    allocate_large("ADJNCY", adjncy, xadj(n + 1) - low);
    array<int> next = xadj;
    const int shift = 1 - low;
    for (int i = 1; i <= n; ++i)
        for (int k = list.ifirst(i); k > 0; k = list.inext(k)) {
            const int j = list.ivcol(k);
            adjncy(next(i)++ + shift) = j - shift;
            adjncy(next(j)++ + shift) = i - shift;
        }
}

void order_mmd(int n, int& nofsub) {
    array<int> xadj, adjncy;
    symmetric_graph(n, 1, xadj, adjncy);
    ggenmmd(n, xadj, adjncy, orders.invprm, orders.ivperm, 0, INT_MAX, nofsub);
    if (options.verbose) write(screen(), "(1x,a,i9,a,i14)", "End of \"GENMMD\"", n, "  nofsub =", nofsub);
}

void order_amd(int n, int& nofsub) {
    const auto& list = linked_list;
    array<int> start, adjacent;
    start.allocate(n + 1);
    allocate_large("IWORK", adjacent, list.nrczhz);
    int at = 0;
    for (int i = 1; i <= n; ++i) {
        for (int k = list.ifirst(i); k > 0; k = list.inext(k)) adjacent(++at) = list.ivcol(k) - 1;
        start(i + 1) = at;
    }
    const double fill = amd_permutation(n, start.data(), adjacent.data(), orders.ivperm, orders.invprm);
    nofsub = static_cast<int>(std::min(fill, static_cast<double>(INT_MAX)));
    if (options.verbose) write(screen(), "(a,i9,a,i14)", " End of \"AMD\"", n, "  nofsub =", nofsub);
}

void order_metis(int n) {
    if (options.verbose) write(screen(), "(1x,a,i7,a,8i4)", "Start of \"METIS\"", n);
    const order_graph g = pattern_graph();
    node_order order = order_by(g, static_cast<order_code>(std::abs(orders.order_type)), orders.metis_opts);
    if (order.node.empty() && orders.order_type == 5) order = metis_order(g, orders.metis_opts); // no heavy row now
    if (order.status != 0) {
        print_list(screen(), "Ordering by METIS failed : status =", order.status);
        stoptarvex();
    }
    take_order(order);
    if (options.verbose || orders.order_type == -3)
        write(screen(), "(1x,a,i9,a,8i4)", "End of \"METIS\"", n,
              "     Options used = ", std::span<const int>(orders.metis_opts).subspan(1));
}

void order_scotch() {
    const node_order order = scotch_order(pattern_graph());
    if (order.status != 0) {
        print_list(screen(), "Ordering by SCOTCH failed : status =", order.status);
        stoptarvex();
    }
    take_order(order);
}

} // namespace

order_graph pattern_graph() {
    array<int> xadj, adjncy;
    symmetric_graph(numbers.nsrow, 0, xadj, adjncy);
    return {numbers.nsrow, {xadj.begin(), xadj.end()}, {adjncy.begin(), adjncy.end()}};
}

void take_order(const node_order& order) {
    const int n = static_cast<int>(order.node.size());
    orders.ivperm.allocate(n);
    orders.invprm.allocate(n);
    for (int k = 1; k <= n; ++k) {
        orders.ivperm(k) = order.node[k - 1] + 1;
        orders.invprm(k) = order.place[k - 1] + 1;
    }
}

double amd_permutation(int n, const int* start, const int* adjacent, array<int>& ivperm, array<int>& invprm) {
    const node_order order = amd_node_order(n, start, adjacent);
    if (order.status == out_of_memory) stop("all iwork");
    if (order.status != 0) {
        print_list(screen(), "Ordering by AMD failed : status =", order.status);
        stoptarvex();
    }
    ivperm.allocate(n);
    invprm.allocate(n);
    for (int k = 1; k <= n; ++k) {
        ivperm(k) = order.node[k - 1] + 1;
        invprm(k) = order.place[k - 1] + 1;
    }
    return order.fill;
}

void find_order(int& nofsub) {
    const int n = numbers.nsrow;
    nofsub = 0;
    switch (std::abs(orders.order_type)) {
    case 1:
        order_mmd(n, nofsub);
        break;
    case 2:
        order_amd(n, nofsub);
        break;
    case 4:
        order_scotch();
        break;
    default:
        order_metis(n);
        break;
    }
}

} // namespace tarvex
