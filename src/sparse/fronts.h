// Dense fronts of the supernodal routines: aligned work space, a supernode's columns as a panel, and places of rows.
#pragma once
#include "sparse/dense_kernels.h"
#include "sparse/supernodes.h"
#include "sparse/workspace.h"

#include <algorithm>
#include <vector>

namespace tarvex {

// A supernode: columns col(0..width-1), `below` rows under them in list.
struct front {
    const int* col;
    const int* list;
    int width, below;
    int rows() const { return width + below; }
};
inline front front_of(const sparse_store& m, const supernode_tree& tree, int s) {
    front f{};
    f.col = tree.order.data() + tree.start[s];
    f.width = tree.start[s + 1] - tree.start[s];
    f.below = rows_below(m, f.col[f.width - 1]);
    f.list = f.below > 0 ? row_list(m, f.col[f.width - 1]) : nullptr;
    return f;
}

// Columns first..end-1 of a front as a panel: row i of column c, i >= first, at column(c)[i]. Row `end` stands on a
// cache line.
struct panel {
    double* p;
    std::ptrdiff_t ld;
    int first, end;
    double* column(int c) const { return p + (c - first) * ld - first; }
};
inline std::ptrdiff_t panel_size(int rows, int width) {
    return std::min(width, wide) * column_distance(rows + 2 * lane) + lane;
}
inline panel make_panel(double* space, int rows, int first, int end) {
    return {space + (lane - (end - first) % lane) % lane, column_distance(rows - first + 2 * lane), first, end};
}

constexpr int columns_of_piece = 24;           // columns of a front handed out at a time
constexpr std::ptrdiff_t least_shared = 20000; // elements: below, handing them out costs more than it saves

// f(first, end) for columns first..end-1 of a front with `rows` rows, shared with others if they are worth it.
template <class F> void by_columns(const kernel_space& space, int first, int end, int rows, F f) {
    const int count = (end - first + columns_of_piece - 1) / columns_of_piece;
    if (!space.each || static_cast<std::ptrdiff_t>(end - first) * rows < least_shared) return f(first, end);
    share_out(space, count, [&](int i, double*) {
        f(first + i * columns_of_piece, std::min(end, first + (i + 1) * columns_of_piece));
    });
}

// Where the rows of a front stand in it, by row of the system.
inline void place_rows(const front& f, std::vector<int>& local) {
    for (int c = 0; c < f.width; ++c) local[f.col[c]] = c;
    for (int i = 0; i < f.below; ++i) local[f.list[i]] = f.width + i;
}

// Column c of a front of `rows` rows out of diag, off, which has `count` rows below its diagonal: to[i] for row i >= c,
// zeros where the pattern has no element.
inline void load_column(const sparse_store& m, const front& f, int c, int count, int rows, const array<double>& diag,
                        const array<double>& off, const std::vector<int>& local, double* to) {
    const int j = f.col[c];
    const double* from = off.data() + m.ixvec1(j) - 1;
    to[c] = diag(j);
    if (count == rows - 1 - c) {
        std::copy_n(from, count, to + c + 1);
        return;
    }
    std::fill(to + c + 1, to + rows, 0.0);
    const int* list = row_list(m, j);
    for (int q = 0; q < count; ++q) to[local[list[q]]] = from[q];
}
// Column c of the matrix or of its factor.
inline void load_column(const sparse_store& m, const front& f, int c, const std::vector<int>& local, double* to) {
    load_column(m, f, c, rows_below(m, f.col[c]), f.rows(), m.diag, m.xspars, local, to);
}

// runs(i) = number of rows from i on whose places stay together.
inline void find_runs(int m, const int* place, int* runs) {
    int run = 0;
    for (int i = m - 1; i >= 0; --i) {
        run = i + 1 < m && place[i + 1] == place[i] + 1 ? run + 1 : 1;
        runs[i] = run;
    }
}

// Where rows from..m-1 stand in an ascending list that has them all, counted back from its end, and the runs of these
// places.
inline void find_spots(const int* list, const int* end, const int* rows, int from, int m, std::vector<int>& spot,
                       std::vector<int>& runs) {
    for (int i = from; i < m; ++i, ++list) {
        if (*list != rows[i]) { // steps grow until they pass the row
            const std::ptrdiff_t left = end - list;
            std::ptrdiff_t step = 1;
            while (step < left && list[step] < rows[i]) step *= 2;
            list = std::lower_bound(list + step / 2, list + std::min(step, left), rows[i]);
        }
        spot[i] = static_cast<int>(list - end);
    }
    find_runs(m - from, spot.data() + from, runs.data() + from);
}

} // namespace tarvex
