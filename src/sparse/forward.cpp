#include "sparse/forward.h"

#include "control/numbers.h"
#include "sparse/dense_kernels.h"
#include "sparse/factorise.h"
#include "sparse/sparse.h"
#include "sparse/supernodes.h"

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

// Number of columns from j on whose patterns are nested without a gap, at most four.
int nested_from(int j, int n) {
    int w = 1;
    while (w < 4 && j + w < n && rows_below(j + w - 1) == rows_below(j + w) + 1 && *row_list(j + w - 1) == j + w) ++w;
    return w;
}

const double* column_of(int j) { return sparse.xspars.data() + sparse.ixvec1(j) - 1; }

// As the blocks above, with vector kernels, four columns at a time where their rows are the same.
void forward_fast(double* x, int n) {
    const dense_kernels_table& kernel = dense_kernels();
    for (int j = 1, w; j < n; j += w) {
        w = nested_from(j, n);
        double* s = x + static_cast<std::ptrdiff_t>(j - 1) * width;
        const double* l[4];
        for (int k = 0; k < w; ++k) {
            l[k] = column_of(j + k);
            const double r = 1.0 / sparse.diag(j + k);
            for (int c = 0; c < width; ++c) s[k * width + c] *= r;
            for (int i = k + 1; i < w; ++i)
                for (int c = 0; c < width; ++c) s[i * width + c] -= l[k][i - k - 1] * s[k * width + c];
            l[k] += w - 1 - k;
        }
        int m = rows_below(j + w - 1);
        if (m == 0) continue;
        const int* list = row_list(j + w - 1);
        if (list[m - 1] == n) --m;
        if (w == 4)
            kernel.spread_four(m, list, l, s, x);
        else
            for (int k = 0; k < w; ++k) kernel.spread_rows(m, list, l[k], s + k * width, x);
    }
}

void backward_fast(double* x, int n) {
    const dense_kernels_table& kernel = dense_kernels();
    std::vector<int> first; // columns are taken together as they are going forward
    for (int j = 1; j < n; j += nested_from(j, n)) first.push_back(j);
    for (std::size_t f = first.size(); f-- > 0;) {
        const int j = first[f], w = nested_from(j, n);
        double* s = x + static_cast<std::ptrdiff_t>(j - 1) * width;
        const double* l[4];
        for (int k = 0; k < w; ++k) l[k] = column_of(j + k) + w - 1 - k;
        int m = rows_below(j + w - 1);
        const int* list = m > 0 ? row_list(j + w - 1) : nullptr;
        if (m > 0 && list[m - 1] == n) --m;
        if (w == 4)
            kernel.collect_four(m, list, l, s, x);
        else
            for (int k = 0; k < w; ++k) kernel.collect_rows(m, list, l[k], s + k * width, x);
        for (int k = w - 1; k >= 0; --k) {
            for (int i = k + 1; i < w; ++i)
                for (int c = 0; c < width; ++c) s[k * width + c] -= column_of(j + k)[i - k - 1] * s[i * width + c];
            const double r = 1.0 / sparse.diag(j + k);
            for (int c = 0; c < width; ++c) s[k * width + c] *= r;
        }
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
    by_blocks(b, kernels.choice == kernel_kind::columns ? forward_block : forward_fast);
}

void backward_columns(array<double, 2>& b) {
    by_blocks(b, kernels.choice == kernel_kind::columns ? backward_block : backward_fast);
}

} // namespace tarvex
