#include "equations/find_order.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "equations/orders.h"
#include "relations/linkedlist.h"
#include "sparse/order_race.h"
#include "sparse/orderings.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <cstdlib>
#include <new>
#include <span>

namespace tarvex {

namespace {

// A refusal by a library ends the run.
void check_status(const node_order& order, const char* method) {
    if (order.status == 0) return;
    print_list(screen(), "Ordering by", method, "failed : status =", order.status);
    stoptarvex();
}

// What `make` gives; want of memory for `n` elements of the array ends the run.
template <class Make> auto with_room(const char* name, long long n, Make make) {
    try {
        return make();
    } catch (const std::bad_alloc&) {
        tvx_noalloc(name, n);
    }
}

long long both_directions() { return 2LL * linked_list.nrczhz; }

void order_mmd(int n, int& nofsub) {
    const counted_order found = with_room("ADJNCY", both_directions(), [&] { return minimum_degree(linked_list, n); });
    take_order(found.order);
    nofsub = found.nofsub;
    if (options.verbose) write(screen(), "(1x,a,i9,a,i14)", "End of \"GENMMD\"", n, "  nofsub =", nofsub);
}

void order_amd(int n, int& nofsub) {
    const counted_order found =
        with_room("IWORK", linked_list.nrczhz, [&] { return approximate_minimum_degree(linked_list, n); });
    if (found.order.status == out_of_memory) stop("all iwork");
    check_status(found.order, "AMD");
    take_order(found.order);
    nofsub = found.nofsub;
    if (options.verbose) write(screen(), "(a,i9,a,i14)", " End of \"AMD\"", n, "  nofsub =", nofsub);
}

void order_metis(int n) {
    if (options.verbose) write(screen(), "(1x,a,i7,a,8i4)", "Start of \"METIS\"", n);
    const order_graph g = equations_graph();
    node_order order = order_by(g, static_cast<order_code>(std::abs(orders.order_type)), orders.metis_opts);
    if (order.node.empty() && orders.order_type == 5) order = metis_order(g, orders.metis_opts); // no heavy row now
    check_status(order, "METIS");
    take_order(order);
    if (options.verbose || orders.order_type == -3)
        write(screen(), "(1x,a,i9,a,8i4)", "End of \"METIS\"", n,
              "     Options used = ", std::span<const int>(orders.metis_opts).subspan(1));
}

void order_scotch() {
    const node_order order = scotch_order(equations_graph());
    check_status(order, "SCOTCH");
    take_order(order);
}

} // namespace

order_graph equations_graph() {
    return with_room("ADJNCY", both_directions(), [] { return pattern_graph(linked_list, numbers.nbase); });
}

void take_order(const node_order& order) {
    const int n = static_cast<int>(order.node.size());
    orders.ivperm.allocate(n);
    orders.invprm.allocate(n);
    // libraries count from 0
    for (int k = 1; k <= n; ++k) {
        orders.ivperm(k) = order.node[k - 1] + 1;
        orders.invprm(k) = order.place[k - 1] + 1;
    }
}

void find_order(int& nofsub) {
    const int n = numbers.nbase;
    nofsub = 0;
    // negative: its settings are tried (-3); METIS is what has no case of its own
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
