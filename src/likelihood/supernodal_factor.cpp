// Multifrontal Cholesky factorisation over the supernodes.
#include "likelihood/fronts.h"

#include <algorithm>

namespace tarvex {

namespace {

struct factor_work {
    std::vector<int> local, place, runs; // rows of the front by row of the system; rows of a child in it
    std::vector<int> has_update;         // (ns) 1: an update matrix waits on the stack
    work_space panel, stack[2];          // update matrices of the even and of the odd levels
    double* top[2];                      // first free place of each stack
};

int below_of(const supernode_tree& tree, int s) {
    return rows_below(tree.order[tree.start[s + 1] - 1]);
}

// Adds the children's update matrices to the panel's columns, or to the front's own update matrix u.
void add_children(const supernode_tree& tree, int s, const front& f, factor_work& w, double* p, std::ptrdiff_t ld, double* u) {
    const dense_kernels_table& kernel = dense_kernels();
    double* at = w.top[1 - tree.level[s] % 2]; // the last child is on top; theirs lie in the order of the children
    for (int c = tree.child[s]; c >= 0; c = tree.sibling[c])
        if (w.has_update[c]) at -= triangle_size(below_of(tree, c));
    for (int c = tree.child[s]; c >= 0; c = tree.sibling[c]) {
        if (!w.has_update[c]) continue;
        const int m = below_of(tree, c);
        match_rows(row_list(tree.order[tree.start[c + 1] - 1]), m, w.local, w.place.data(), w.runs.data());
        const int split = static_cast<int>(std::lower_bound(w.place.begin(), w.place.begin() + m, f.width) - w.place.begin());
        if (!u)
            for (int j = 0; j < split; ++j)
                kernel.add_rows(j, m, w.place.data(), w.runs.data(), triangle_column(at, m, j), p + w.place[j] * ld);
        else
            for (int j = split; j < m; ++j)
                kernel.add_rows(j, m, w.place.data(), w.runs.data(), triangle_column(at, m, j),
                                triangle_column(u, f.below, w.place[j] - f.width) - f.width);
        at += triangle_size(m);
    }
}

void drop_children(const supernode_tree& tree, int s, factor_work& w) {
    for (int c = tree.child[s]; c >= 0; c = tree.sibling[c])
        if (w.has_update[c]) w.top[1 - tree.level[s] % 2] -= triangle_size(below_of(tree, c));
}

void save_panel(const front& f, const std::vector<int>& local, const double* p, std::ptrdiff_t ld) {
    for (int c = 0; c < f.width; ++c, p += ld) {
        const int j = f.col[c], count = rows_below(j);
        double* off = sparse.xspars.data() + sparse.ixvec1(j) - 1;
        sparse.diag(j) = p[c];
        if (count == f.rows() - 1 - c) {
            std::copy_n(p + c + 1, count, off);
            continue;
        }
        const int* list = row_list(j);
        for (int q = 0; q < count; ++q) off[q] = p[local[list[q]]];
    }
}

} // namespace

// After a failure at row `bad` only columns before it matter: none of them has a descendant that failed, so whatever a
// failed front would have added is not missed.
int factorise_supernodes(double& pivot) {
    const supernode_tree& tree = supernodes();
    const dense_kernels_table& kernel = dense_kernels();
    const int ns = static_cast<int>(tree.parent.size());
    factor_work w;
    w.local.assign(numbers.nsrow + 1, 0);
    w.place.resize(tree.rows);
    w.runs.resize(tree.rows);
    w.has_update.assign(ns, 0);
    w.panel = make_space(tree.panel);
    for (int i = 0; i < 2; ++i) {
        w.stack[i] = make_space(tree.triangles[i]);
        w.top[i] = w.stack[i].get();
    }
    int bad = 0, done = 0;
    for (int s = 0; s < ns; ++s) {
        const front f = front_of(tree, s);
        for (const int end = done + f.width; done < end;)
            if (++done % 20000 == 0 && options.verbose) print_list(screen(), "Factorise MMM", done);
        int width = f.width;
        if (bad != 0) width = static_cast<int>(std::lower_bound(f.col, f.col + f.width, bad) - f.col);
        if (width > 0) {
            const std::ptrdiff_t ld = panel_distance(f);
            double* p = w.panel.get() + f.shift;
            place_rows(f, w.local);
            load_panel(f, w.local, p, ld);
            add_children(tree, s, f, w, p, ld, nullptr);
            double d = 0.0;
            const int good = kernel.factor_panel(f.rows(), width, p, ld, numbers.zero, d);
            if (good < width) {
                bad = f.col[good];
                pivot = d;
            } else if (width == f.width) {
                save_panel(f, w.local, p, ld);
                if (f.below > 0) {
                    double* u = w.top[tree.level[s] % 2];
                    w.top[tree.level[s] % 2] += triangle_size(f.below);
                    kernel.minus_square(f.below, f.width, p + f.width, ld, u);
                    add_children(tree, s, f, w, p, ld, u);
                    w.has_update[s] = 1;
                }
            }
        }
        drop_children(tree, s, w);
    }
    return bad;
}

} // namespace tarvex
