// Dense fronts of the supernodal routines: aligned work space, a supernode's columns as a panel, and places of rows.
#pragma once
#include "control/numbers.h"
#include "control/options.h"
#include "likelihood/dense_kernels.h"
#include "likelihood/supernodes.h"
#include "support/screen.h"

#include <algorithm>
#include <memory>
#include <new>

namespace tarvex {

// Work space on cache lines, not cleared: what is never used takes no memory.
struct free_aligned {
    void operator()(double* p) const { ::operator delete(p, std::align_val_t{64}); }
};
using work_space = std::unique_ptr<double, free_aligned>;
inline work_space make_space(std::ptrdiff_t size) {
    return work_space(static_cast<double*>(
        ::operator new(static_cast<std::size_t>(size + lane) * sizeof(double), std::align_val_t{64})));
}

// A supernode: columns col(0..width-1), `below` rows under them in list. Row `width` of a panel stands on a cache line,
// hence the shift.
struct front {
    const int* col;
    const int* list;
    int width, below, shift;
    int rows() const { return width + below; }
    int last() const { return col[width - 1]; }
};
inline front front_of(const supernode_tree& tree, int s) {
    front f{};
    f.col = tree.order.data() + tree.start[s];
    f.width = tree.start[s + 1] - tree.start[s];
    f.below = rows_below(f.last());
    f.list = f.below > 0 ? row_list(f.last()) : nullptr;
    f.shift = (lane - f.width % lane) % lane;
    return f;
}
inline std::ptrdiff_t panel_distance(const front& f) { return column_distance(f.rows() + 2 * lane); }

// Where the rows of a front stand in it, by row of the system.
inline void place_rows(const front& f, std::vector<int>& local) {
    for (int c = 0; c < f.width; ++c) local[f.col[c]] = c;
    for (int i = 0; i < f.below; ++i) local[f.list[i]] = f.width + i;
}

// The columns of a supernode from the store into panel p (row 0 of column c at p + c*ld); zeros where the pattern has no
// element, diagonals in place.
inline void load_panel(const front& f, const std::vector<int>& local, double* p, std::ptrdiff_t ld) {
    for (int c = 0; c < f.width; ++c, p += ld) {
        const int j = f.col[c], count = rows_below(j);
        const double* off = sparse.xspars.data() + sparse.ixvec1(j) - 1;
        p[c] = sparse.diag(j);
        if (count == f.rows() - 1 - c) {
            std::copy_n(off, count, p + c + 1);
            continue;
        }
        std::fill(p + c + 1, p + f.rows(), 0.0);
        const int* list = row_list(j);
        for (int q = 0; q < count; ++q) p[local[list[q]]] = off[q];
    }
}

// place(i) = row of `into` for row i of the list of a child; runs(i) = number of rows from i on that stay together there.
inline void match_rows(const int* list, int m, const std::vector<int>& local, int* place, int* runs) {
    int run = 0;
    for (int i = m - 1; i >= 0; --i) {
        place[i] = local[list[i]];
        run = i + 1 < m && place[i + 1] == place[i] + 1 ? run + 1 : 1;
        runs[i] = run;
    }
}

} // namespace tarvex
