#include "parameters/pivotedfactor.h"

#include "control/numbers.h"
#include "dense/numroutines.h"
#include "parameters/zeropattern.h"

#include <cmath>
#include <utility>

namespace tarvex {

namespace {

constexpr double below_pivots = -1.0e10; // no diagonal falls as low

// Place of pivot c among those left, c..n: by size the largest, else the first. With `zeros` only of those that keep
// them.
int next_pivot(const array<double, 2>& a, const array<int>& order, int c, bool by_size, const zero_pattern* zeros) {
    // the order as it stands
    if (!by_size && !zeros) return c;
    int at = c;
    double most = below_pivots;
    for (int p = c; p <= order.upper(); ++p) {
        if (!(a(order(p), order(p)) > most) || (zeros && !may_be_pivot(*zeros, order, c, p))) continue;
        most = a(order(p), order(p));
        at = p;
        if (!by_size) break;
    }
    return at;
}

} // namespace

int pivoted_factor(const double* cc, int n, int rank, bool by_size, double floor, double& bad, array<double, 2>& factor,
                   array<int>& order, const zero_pattern* zeros) {
    array<double, 2> a = unpack(std::span(cc, triangle(n)), n);
    factor.allocate(n, rank);
    for (int c = 1; c <= rank; ++c) {
        std::swap(order(c), order(next_pivot(a, order, c, by_size, zeros)));
        const int row = order(c);
        double pivot = a(row, row);
        // not a number fails too
        if (!(pivot >= numbers.zero)) {
            bad = pivot;
            if (floor <= 0.0) return c;
            pivot = floor;
        }
        const double root = std::sqrt(pivot);
        factor(row, c) = root;
        for (int p = c + 1; p <= n; ++p) factor(order(p), c) = a(order(p), row) / root;
        // what is left of the matrix, all of it: pivots are chosen among its diagonals
        for (int p = c + 1; p <= n; ++p)
            for (int q = c + 1; q <= n; ++q) a(order(p), order(q)) -= factor(order(p), c) * factor(order(q), c);
    }
    return 0;
}

} // namespace tarvex
