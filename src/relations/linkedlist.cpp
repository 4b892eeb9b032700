#include "relations/linkedlist.h"

#include "control/tvxroutines.h"

namespace tarvex {

namespace {

void tell_element(long long element, long long capacity) { print_list(screen(), "lnkzhz", element, capacity); }

} // namespace

void lnkzhz(int irow, std::span<const int> icols, std::span<const double> xvals, bool addval, int& ierr) {
    const bool room = merge_row(linked_list, irow, icols, addval ? xvals : std::span<const double>{}, tell_element);
    if (!room && addval) stop_with("\"lnkzhz\" : dimensions exceeded !!");
    ierr = room ? 0 : 1;
}

void tell_growth(long long before, long long now, long long capacity) {
    for (long long k = (before / growth_stride + 1) * growth_stride; k <= now; k += growth_stride)
        tell_element(k, capacity);
}

} // namespace tarvex
