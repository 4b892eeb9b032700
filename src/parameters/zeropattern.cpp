#include "parameters/zeropattern.h"

#include "dense/numroutines.h"
#include "parameters/residualvars.h"
#include "parfile/model.h"

#include <utility>

namespace tarvex {

bool residual_held(int step, int i, int j) {
    const int n = model.kkfit(0), k = (step - 1) * triangle(n) + packed_place(i, j, n);
    return k <= residualvars.fixres.upper() && residualvars.fixres(k) != 0;
}

zero_pattern residual_zeros(int step) {
    zero_pattern z;
    z.n = model.kkfit(0);
    for (int i = 1; i <= z.n; ++i)
        for (int j = 1; j <= z.n; ++j) z.zero.push_back(i != j && residual_held(step, i, j));
    return z;
}

bool may_be_pivot(const zero_pattern& zeros, const array<int>& order, int c, int p) {
    const int row = order(p);
    for (int i = c; i <= zeros.n; ++i)
        // a held covariance of two rows that are both tied to the pivot would be filled in
        for (int j = i + 1; j <= zeros.n; ++j)
            if (i != p && j != p && zeros.held(order(i), order(j)) && !zeros.held(row, order(i)) &&
                !zeros.held(row, order(j)))
                return false;
    return true;
}

// Any row that may be the next pivot may be taken: what is left of a chordal graph is chordal.
bool order_exists(const zero_pattern& zeros) {
    array<int> order;
    order.allocate(zeros.n);
    for (int i = 1; i <= zeros.n; ++i) order(i) = i;
    for (int c = 1; c <= zeros.n; ++c) {
        int p = c;
        while (p <= zeros.n && !may_be_pivot(zeros, order, c, p)) ++p;
        if (p > zeros.n) return false;
        std::swap(order(c), order(p));
    }
    return true;
}

void complete_factor(const zero_pattern& zeros, const array<int>& order, array<double, 2>& factor) {
    for (int c = 1; c <= zeros.n; ++c)
        for (int r = c + 1; r <= zeros.n; ++r) {
            const int row = order(r), pivot = order(c);
            if (!zeros.held(row, pivot)) continue;
            double s = 0.0; // of the covariance, from the columns before
            for (int k = 1; k < c; ++k) s += factor(row, k) * factor(pivot, k);
            // L(r,c) so that sum over k <= c of L(r,k) L(c,k) is 0, the held covariance
            factor(row, c) = s == 0.0 ? 0.0 : -s / factor(pivot, c);
        }
}

void complete_change(const zero_pattern& zeros, const array<int>& order, const array<double, 2>& factor,
                     array<double, 2>& change) {
    for (int c = 1; c <= zeros.n; ++c)
        for (int r = c + 1; r <= zeros.n; ++r) {
            const int row = order(r), pivot = order(c);
            if (!zeros.held(row, pivot)) continue;
            // the same sum, differentiated
            double s = factor(row, c) * change(pivot, c);
            for (int k = 1; k < c; ++k) s += change(row, k) * factor(pivot, k) + factor(row, k) * change(pivot, k);
            change(row, c) = -s / factor(pivot, c);
        }
}

} // namespace tarvex
