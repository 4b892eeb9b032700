#include "dense/general_inverse.h"

#include <cmath>
#include <utility>

namespace tarvex {

bool invert_general(array<double, 2>& a, int n) {
    array<double, 2> inverse;
    inverse.allocate(n, n);
    for (int i = 1; i <= n; ++i) inverse(i, i) = 1.0;
    for (int c = 1; c <= n; ++c) { // columns of `a` in front of c are those of the identity
        int p = c;
        for (int i = c; i <= n; ++i)
            if (std::fabs(a(i, c)) > std::fabs(a(p, c))) p = i;
        // what is done to the rows of `a` is done to those of the identity
        for (int j = 1; j <= n; ++j) {
            std::swap(a(c, j), a(p, j));
            std::swap(inverse(c, j), inverse(p, j));
        }
        const double d = a(c, c);
        if (d == 0.0 || !std::isfinite(d)) return false;
        for (int j = 1; j <= n; ++j) {
            a(c, j) /= d;
            inverse(c, j) /= d;
        }
        for (int i = 1; i <= n; ++i) {
            const double f = a(i, c);
            if (i == c || f == 0.0) continue;
            for (int j = 1; j <= n; ++j) {
                a(i, j) -= f * a(c, j);
                inverse(i, j) -= f * inverse(c, j);
            }
        }
    }
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) a(i, j) = inverse(i, j);
    return true;
}

} // namespace tarvex
