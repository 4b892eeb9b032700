// The three ordering methods on the pattern in the row store.
//
// METIS: Karypis, G. & Kumar, V. (1998), SIAM J. Sci. Comput. 20, 359-392.
#include "sparse/orderings.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "equations/orders.h"
#include "sparse/genmmd.h"
#include "sparse/linkedlist.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <algorithm>
#include <amd.h>
#include <climits>
#include <cstdlib>
#include <metis.h>
#include <span>

namespace tarvex {

namespace {

static_assert(sizeof(idx_t) == sizeof(int), "METIS with 32-bit indices is needed");

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

// The eight integers are those of METIS 4; METIS 5 has an array of its own.
void metis_settings(idx_t* o) {
    const auto& m = orders.metis_opts;
    METIS_SetDefaultOptions(o);
    o[METIS_OPTION_NUMBERING] = 0;
    if (m[0] == 0) return;
    o[METIS_OPTION_CTYPE] = m[1] == 1 ? METIS_CTYPE_RM : METIS_CTYPE_SHEM;
    o[METIS_OPTION_IPTYPE] = m[2] == 1 ? METIS_IPTYPE_EDGE : METIS_IPTYPE_NODE;
    o[METIS_OPTION_RTYPE] = m[3] == 1 ? METIS_RTYPE_SEP2SIDED : METIS_RTYPE_SEP1SIDED;
    o[METIS_OPTION_DBGLVL] = 0;
    o[METIS_OPTION_COMPRESS] = m[5] & 1;
    o[METIS_OPTION_CCORDER] = (m[5] >> 1) & 1;
    o[METIS_OPTION_PFACTOR] = std::max(m[6], 0);
    o[METIS_OPTION_NSEPS] = std::max(m[7], 1);
}

void order_metis(int n) {
    if (options.verbose) write(screen(), "(1x,a,i7,a,8i4)", "Start of \"METIS\"", n);
    array<int> xadj, adjncy;
    symmetric_graph(n, 0, xadj, adjncy);
    orders.ivperm.allocate(n);
    orders.invprm.allocate(n);
    idx_t o[METIS_NOPTIONS], nn = n;
    metis_settings(o);
    const int status =
        n == 0 ? METIS_OK
               : METIS_NodeND(&nn, xadj.data(), adjncy.data(), nullptr, o, orders.ivperm.data(), orders.invprm.data());
    if (status != METIS_OK) {
        print_list(screen(), "Ordering by METIS failed : status =", status);
        stoptarvex();
    }
    for (int k = 1; k <= n; ++k) {
        ++orders.ivperm(k);
        ++orders.invprm(k);
    }
    if (options.verbose || orders.order_type == -3)
        write(screen(), "(1x,a,i9,a,8i4)", "End of \"METIS\"", n,
              "     Options used = ", std::span<const int>(orders.metis_opts).subspan(1));
}

} // namespace

double amd_permutation(int n, const int* start, const int* adjacent, array<int>& ivperm, array<int>& invprm) {
    ivperm.allocate(n);
    invprm.allocate(n);
    double info[AMD_INFO];
    constexpr int none = 0; // the library takes no null pointer for an empty graph
    const int* rows = adjacent ? adjacent : &none;
    const int status = n == 0 ? AMD_OK : amd_order(n, start, rows, ivperm.data(), nullptr, info);
    if (status == AMD_OUT_OF_MEMORY) stop("all iwork");
    if (status != AMD_OK && status != AMD_OK_BUT_JUMBLED) {
        print_list(screen(), "Ordering by AMD failed : status =", status);
        stoptarvex();
    }
    for (int k = 1; k <= n; ++k) invprm(++ivperm(k)) = k;
    return n == 0 ? 0.0 : info[AMD_LNZ];
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
    default:
        order_metis(n);
        break;
    }
}

} // namespace tarvex
