#include "likelihood/forward.h"

#include "control/numbers.h"
#include "equations/sparse.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace tarvex {

namespace {

constexpr int width = 16; // right-hand sides of a block: two cache lines for each equation

// Copies columns first.. of b into x, equations running slowest, or back; missing columns of the block are 0.
void pack(const array<double, 2>& b, int first, int count, int n, std::vector<double>& x) {
    x.assign(static_cast<std::size_t>(n) * width, 0.0);
    for (int c = 0; c < count; ++c)
        for (int i = 1; i <= n; ++i) x[static_cast<std::size_t>(i - 1) * width + c] = b(i, first + c);
}
void unpack(const std::vector<double>& x, int first, int count, int n, array<double, 2>& b) {
    for (int c = 0; c < count; ++c)
        for (int i = 1; i <= n; ++i) b(i, first + c) = x[static_cast<std::size_t>(i - 1) * width + c];
}

void forward_block(double* x, int n) {
    for (int j = 1; j < n; ++j) {
        double s[width];
        double* xj = x + static_cast<std::ptrdiff_t>(j - 1) * width;
        const double r = 1.0 / sparse.diag(j);
        for (int c = 0; c < width; ++c) xj[c] = s[c] = xj[c] * r;
        const int shift = sparse.ixvec2(j) - sparse.ixvec1(j);
        for (int q = sparse.ixvec1(j); q < sparse.ixvec1(j + 1); ++q) {
            const int i = sparse.ixsub(q + shift);
            if (i == n) break;
            double* xi = x + static_cast<std::ptrdiff_t>(i - 1) * width;
            const double l = sparse.xspars(q);
            for (int c = 0; c < width; ++c) xi[c] -= l * s[c];
        }
    }
}

void backward_block(double* x, int n) {
    for (int j = n - 1; j >= 1; --j) {
        double s[width];
        double* xj = x + static_cast<std::ptrdiff_t>(j - 1) * width;
        std::copy_n(xj, width, s);
        const int shift = sparse.ixvec2(j) - sparse.ixvec1(j);
        for (int q = sparse.ixvec1(j); q < sparse.ixvec1(j + 1); ++q) {
            const int i = sparse.ixsub(q + shift);
            if (i == n) break;
            const double* xi = x + static_cast<std::ptrdiff_t>(i - 1) * width;
            const double l = sparse.xspars(q);
            for (int c = 0; c < width; ++c) s[c] -= l * xi[c];
        }
        const double r = 1.0 / sparse.diag(j);
        for (int c = 0; c < width; ++c) xj[c] = s[c] * r;
    }
}

template <class Solve> void by_blocks(array<double, 2>& b, Solve solve) {
    const int n = numbers.nsrow, columns = static_cast<int>(b.upper(2));
    std::vector<double> x;
    for (int first = 1; first <= columns; first += width) {
        const int count = std::min(width, columns - first + 1);
        pack(b, first, count, n - 1, x);
        solve(x.data(), n);
        unpack(x, first, count, n - 1, b);
    }
}

} // namespace

void forward_columns(array<double, 2>& b) {
    by_blocks(b, forward_block);
}

void backward_columns(array<double, 2>& b) {
    by_blocks(b, backward_block);
}

} // namespace tarvex
