// Merging into sorted chains. The walk starts behind the element at which the last merge into the row ended where that
// serves, so that rows filled from the left cost no walk at all.
#include "sparse/rowstore.h"

namespace tarvex {

namespace {

// Links a new element of column icol behind element prev (0: at the head of the row). False: no room.
bool add_element(row_store& ll, int irow, int prev, int icol, growth_teller tell) {
    const int cap = static_cast<int>(ll.ivcol.upper());
    if (ll.nrczhz >= cap) return false;
    const int k = ++ll.nrczhz;
    if (k % growth_stride == 0) tell(k, cap);
    int& place = prev > 0 ? ll.inext(prev) : ll.ifirst(irow);
    ll.ivcol(k) = icol;
    ll.inext(k) = place;
    place = k;
    return true;
}

// Element behind which the walk for icol can start, 0: the head of the row.
int first_prev(const row_store& ll, int irow, int icol) {
    if (!ll.ilast.allocated()) return 0;
    const int k = ll.ilast(irow);
    return k > 0 && ll.ivcol(k) <= icol ? k : 0;
}

} // namespace

bool merge_row(row_store& store, int irow, std::span<const int> icols, std::span<const double> xvals,
               growth_teller tell) {
    auto& ll = store;
    if (icols.empty()) return true;
    const bool values = !xvals.empty();
    int prev = first_prev(ll, irow, icols[0]);
    // columns ascend: prev, the last element not behind icol, only moves on
    for (std::size_t i = 0; i < icols.size(); ++i) {
        const int icol = icols[i];
        int next = prev > 0 ? ll.inext(prev) : ll.ifirst(irow);
        while (next > 0 && ll.ivcol(next) <= icol) {
            prev = next;
            next = ll.inext(next);
        }
        if (prev == 0 || ll.ivcol(prev) != icol) {
            if (!add_element(ll, irow, prev, icol, tell)) return false;
            prev = ll.nrczhz;
            if (values) ll.zhz(prev) = xvals[i];
        } else if (values) {
            ll.zhz(prev) += xvals[i];
        }
    }
    // where the next merge into the row may begin
    if (ll.ilast.allocated()) ll.ilast(irow) = prev;
    return true;
}

} // namespace tarvex
