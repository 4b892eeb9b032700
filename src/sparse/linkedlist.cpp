// Merging into sorted chains. The walk starts behind the element at which the last merge into the row ended where that
// serves, so that rows filled from the left cost no walk at all.
#include "sparse/linkedlist.h"

#include "control/tvxroutines.h"
#include "support/stop.h"

namespace tarvex {

namespace {

constexpr int every = 200000; // new elements between two lines of progress

constexpr const char* store_full = "\"lnkzhz\" : dimensions exceeded !!";

// Links a new element of column icol behind element prev (0: at the head of the row). False: no room.
bool add_element(int irow, int prev, int icol) {
    auto& ll = linked_list;
    const int cap = static_cast<int>(ll.ivcol.upper());
    if (ll.nrczhz >= cap) return false;
    const int k = ++ll.nrczhz;
    if (k % every == 0) print_list(screen(), "lnkzhz", k, cap);
    int& place = prev > 0 ? ll.inext(prev) : ll.ifirst(irow);
    ll.ivcol(k) = icol;
    ll.inext(k) = place;
    place = k;
    return true;
}

// Element behind which the walk for icol can start, 0: the head of the row.
int first_prev(int irow, int icol) {
    auto& ll = linked_list;
    if (!ll.ilast.allocated()) return 0;
    const int k = ll.ilast(irow);
    return k > 0 && ll.ivcol(k) <= icol ? k : 0;
}

bool merge(int irow, std::span<const int> icols, std::span<const double> xvals, bool addval) {
    auto& ll = linked_list;
    if (icols.empty()) return true;
    int prev = first_prev(irow, icols[0]);
    for (std::size_t i = 0; i < icols.size(); ++i) {
        const int icol = icols[i];
        int next = prev > 0 ? ll.inext(prev) : ll.ifirst(irow);
        while (next > 0 && ll.ivcol(next) <= icol) {
            prev = next;
            next = ll.inext(next);
        }
        if (prev == 0 || ll.ivcol(prev) != icol) {
            if (!add_element(irow, prev, icol)) return false;
            prev = ll.nrczhz;
            if (addval) ll.zhz(prev) = xvals[i];
        } else if (addval) {
            ll.zhz(prev) += xvals[i];
        }
    }
    if (ll.ilast.allocated()) ll.ilast(irow) = prev;
    return true;
}

} // namespace

void lnkzhz(int irow, std::span<const int> icols, std::span<const double> xvals, bool addval, int& ierr) {
    ierr = 0;
    if (merge(irow, icols, xvals, addval)) return;
    if (addval) stop_with(store_full);
    ierr = 1;
}

void llnkzhz(int irow, std::span<const int> icols, std::span<const double> xvals, int& ierr) {
    ierr = 0;
    if (!merge(irow, icols, xvals, true)) stop(store_full);
}

} // namespace tarvex
