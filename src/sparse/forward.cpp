#include "sparse/forward.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace tarvex {

namespace {

// Work space x of a block of right-hand sides: row i has its values at x[(i-1)*width..].
static_assert(solve_columns % lane == 0 && few_columns % lane == 0, "a row of a block is made of whole vectors");

// Copies columns first.. of b into x, equations running slowest, or back; missing columns of the block are 0.
void pack(const array<double, 2>& b, int first, int count, int width, int n, std::vector<double>& x) {
    x.assign(std::ptrdiff_t{n} * width, 0.0);
    // b is read along its columns, x filled in strides: the kernels want a row together
    for (int c = 0; c < count; ++c)
        for (int i = 1; i <= n; ++i) x[std::ptrdiff_t{i - 1} * width + c] = b(i, first + c);
}
void unpack(const std::vector<double>& x, int first, int count, int width, int n, array<double, 2>& b) {
    for (int c = 0; c < count; ++c)
        for (int i = 1; i <= n; ++i) b(i, first + c) = x[std::ptrdiff_t{i - 1} * width + c];
}

template <int width> void forward_block(const sparse_store& m, double* x) {
    const int n = m.n;
    for (int j = 1; j < n; ++j) {
        double s[width];
        double* xj = x + static_cast<std::ptrdiff_t>(j - 1) * width;
        const double r = 1.0 / m.diag(j);
        for (int c = 0; c < width; ++c) xj[c] = s[c] = xj[c] * r;
        const int shift = m.ixvec2(j) - m.ixvec1(j);
        for (int q = m.ixvec1(j); q < m.ixvec1(j + 1); ++q) {
            const int i = m.ixsub(q + shift);
            // row n, the right-hand side, is no equation; it ends the list
            if (i == n) break;
            double* xi = x + static_cast<std::ptrdiff_t>(i - 1) * width;
            const double l = m.xspars(q);
            for (int c = 0; c < width; ++c) xi[c] -= l * s[c];
        }
    }
}

// Number of columns from j on whose patterns are nested without a gap, at most four.
int nested_from(const sparse_store& m, int j) {
    const int n = m.n;
    int w = 1;
    // the next column has the same list but for its own row, which is the first of this one
    while (w < 4 && j + w < n && rows_below(m, j + w - 1) == rows_below(m, j + w) + 1 &&
           *row_list(m, j + w - 1) == j + w)
        ++w;
    return w;
}

const double* column_of(const sparse_store& m, int j) { return m.xspars.data() + m.ixvec1(j) - 1; }

// As the blocks above, with vector kernels, four columns at a time where their rows are the same.
template <int width> void forward_fast(const sparse_store& a, const dense_kernels_table::spread& spread, double* x) {
    const int n = a.n;
    for (int j = 1, w; j < n; j += w) {
        w = nested_from(a, j);
        double* s = x + static_cast<std::ptrdiff_t>(j - 1) * width;
        const double* l[4];
        for (int k = 0; k < w; ++k) {
            l[k] = column_of(a, j + k);
            // the triangle that the w columns have among themselves
            const double r = 1.0 / a.diag(j + k);
            for (int c = 0; c < width; ++c) s[k * width + c] *= r;
            for (int i = k + 1; i < w; ++i)
                for (int c = 0; c < width; ++c) s[i * width + c] -= l[k][i - k - 1] * s[k * width + c];
            // from here on all w columns have the rows of the last one
            l[k] += w - 1 - k;
        }
        int m = rows_below(a, j + w - 1);
        if (m == 0) continue;
        const int* list = row_list(a, j + w - 1);
        if (list[m - 1] == n) --m;
        if (w == 4)
            spread.four(m, list, l, s, x);
        else
            for (int k = 0; k < w; ++k) spread.rows(m, list, l[k], s + k * width, x);
    }
}

// One block of columns first..; rows of x for all of them or for few.
template <int width>
void solve_block(const sparse_store& s, const dense_kernels_table::spread* spread, int first, array<double, 2>& b) {
    const int count = std::min(width, static_cast<int>(b.upper(2)) - first + 1);
    std::vector<double> x;
    pack(b, first, count, width, s.n - 1, x);
    if (spread)
        forward_fast<width>(s, *spread, x.data());
    else
        forward_block<width>(s, x.data());
    unpack(x, first, count, width, s.n - 1, b);
}

} // namespace

void forward_columns(const sparse_store& s, const dense_kernels_table* kernel, task_pool* pool, array<double, 2>& b) {
    need_state(s, store_state::factor, "forward_columns");
    const int columns = static_cast<int>(b.upper(2));
    // alone: blocks as broad as the vectors pay; shared: narrower ones, so that there is work for all
    if (!pool || pool->threads() < 2 || columns <= few_columns) {
        for (int first = 1; first <= columns; first += solve_columns)
            solve_block<solve_columns>(s, kernel ? &kernel->spread_all : nullptr, first, b);
        return;
    }
    const auto work = [&](int i) {
        solve_block<few_columns>(s, kernel ? &kernel->spread_few : nullptr, 1 + i * few_columns, b);
    };
    pool->run([&] {
        pool->each((columns + few_columns - 1) / few_columns,
                   [](const void* f, int i, int) { (*static_cast<const decltype(work)*>(f))(i); }, &work);
    });
}

} // namespace tarvex
