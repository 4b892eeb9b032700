// Multifrontal Cholesky factorisation over the supernodes.
#include "likelihood/fronts.h"

namespace tarvex {

namespace {

struct factor_work {
    std::vector<int> local, place, runs; // rows of the front by row of the system; rows of a child in it
    std::vector<int> has_update;         // (ns) 1: an update matrix waits on the stack
    std::vector<int> home;               // place of each column in its own front
    std::vector<double> added;           // to the diagonals, by columns whose fronts take updates at once
    std::vector<double*> early;          // (ns) triangle of a wide front that has been begun by its children
    work_space space;
    double *columns, *top[2];            // panel; first free place on the stacks of the even and of the odd levels
};

int below_of(const supernode_tree& tree, int s) {
    return rows_below(tree.order[tree.start[s + 1] - 1]);
}

// Adds the children's update matrices to columns first..end-1 of front s; target(c)[i] is row i of its column c.
template <class Target>
void add_children(const supernode_tree& tree, int s, factor_work& w, int first, int end, Target target) {
    const dense_kernels_table& kernel = dense_kernels();
    double* at = w.top[1 - tree.level[s] % 2]; // the last child is on top; theirs lie in the order of the children
    for (int c = tree.child[s]; c >= 0; c = tree.sibling[c])
        if (w.has_update[c]) at -= triangle_size(below_of(tree, c));
    for (int c = tree.child[s]; c >= 0; c = tree.sibling[c]) {
        if (!w.has_update[c]) continue;
        const int m = below_of(tree, c);
        const int* list = row_list(tree.order[tree.start[c + 1] - 1]);
        int *place = w.place.data(), *runs = w.runs.data();
        for (int i = 0; i < m; ++i) place[i] = w.local[list[i]];
        find_runs(m, place, runs);
        int j = static_cast<int>(std::lower_bound(place, place + m, first) - place);
        for (; j < m && place[j] < end; ++j)
            kernel.add_rows(j, m, place, runs, triangle_column(at, m, j), target(place[j]));
        at += triangle_size(m);
    }
}

// Adds the update matrix of s straight to the stored columns of its parent, which is a root but for one row.
void absorb(const supernode_tree& tree, int s, const front& f, const double* u, factor_work& w) {
    const front to = front_of(tree, tree.parent[s]);
    const int m = f.below;
    int *place = w.place.data(), *runs = w.runs.data();
    for (int i = 0; i < m; ++i) place[i] = to.below == 1 && f.list[i] == *to.list ? to.width : w.home[f.list[i]];
    find_runs(m, place, runs);
    for (int k = 0; k < m; ++k) {
        const int j = f.list[k], count = rows_below(j);
        const double* from = triangle_column(u, m, k);
        w.added[j] += from[k];
        if (k + 1 == m) continue;
        double* off = sparse.xspars.data() + sparse.ixvec1(j) - 1;
        if (count == to.rows() - 1 - place[k]) {
            dense_kernels().add_rows(k + 1, m, place, runs, from, off - place[k] - 1);
            continue;
        }
        const int *list = row_list(j), *at = list;
        for (int i = k + 1; i < m; ++i, ++at) {
            if (*at != f.list[i]) at = std::lower_bound(at, list + count, f.list[i]);
            off[at - list] += from[i];
        }
    }
}

// Likewise to the triangle of a wide parent, which is begun with the first child.
void add_early(const supernode_tree& tree, int s, const front& f, const double* u, factor_work& w) {
    const int p = tree.parent[s], m = f.below;
    const front to = front_of(tree, p);
    const int empty = empty_columns(to.width), order = empty + to.rows();
    if (!w.early[p]) {
        double*& top = w.top[tree.level[p] % 2];
        w.early[p] = top;
        top += triangle_size(order);
        std::fill_n(w.early[p], triangle_size(order), 0.0);
    }
    int *place = w.place.data(), *runs = w.runs.data();
    int i = 0;
    for (; i < m && (to.below == 0 || f.list[i] < *to.list); ++i) place[i] = w.home[f.list[i]];
    for (const int* at = to.list; i < m; ++i) {
        at = std::lower_bound(at, to.list + to.below, f.list[i]);
        place[i] = to.width + static_cast<int>(at - to.list);
    }
    find_runs(m, place, runs);
    for (int k = 0; k < m; ++k)
        dense_kernels().add_rows(k, m, place, runs, triangle_column(u, m, k),
                                 triangle_column(w.early[p], order, empty + place[k]) + empty);
}

void drop_children(const supernode_tree& tree, int s, factor_work& w) {
    for (int c = tree.child[s]; c >= 0; c = tree.sibling[c]) {
        if (w.has_update[c]) w.top[1 - tree.level[s] % 2] -= triangle_size(below_of(tree, c));
        w.has_update[c] = 0;
    }
}

// The update matrix u of s stays at the top of its stack until the parent's turn, or is taken over now.
void leave_update(const supernode_tree& tree, int s, const front& f, const double* u, factor_work& w) {
    const int p = tree.parent[s];
    drop_children(tree, s, w); // the parent's triangle goes onto their stack
    if (updates_at_once(tree, p)) {
        absorb(tree, s, f, u, w);
    } else if (front_of(tree, p).width > wide) {
        add_early(tree, s, f, u, w);
    } else {
        w.top[tree.level[s] % 2] += triangle_size(f.below);
        w.has_update[s] = 1;
    }
}

void save_panel(const front& f, const std::vector<int>& local, const panel& p) {
    for (int c = p.first; c < p.end; ++c) {
        const int j = f.col[c], count = rows_below(j);
        const double* from = p.column(c);
        double* off = sparse.xspars.data() + sparse.ixvec1(j) - 1;
        sparse.diag(j) = from[c];
        if (count == f.rows() - 1 - c) {
            std::copy_n(from + c + 1, count, off);
            continue;
        }
        const int* list = row_list(j);
        for (int q = 0; q < count; ++q) off[q] = from[local[list[q]]];
    }
}

// A front whose columns make one panel. Of the columns only the first `width` are wanted; returns the first that fails, or
// width. The update matrix is left on the stack if all columns are good.
int factor_narrow(const supernode_tree& tree, int s, const front& f, int width, factor_work& w, double& pivot) {
    const dense_kernels_table& kernel = dense_kernels();
    const panel p = make_panel(w.columns, f.rows(), 0, f.width);
    for (int c = 0; c < f.width; ++c) {
        load_column(f, c, w.local, p.column(c));
        p.column(c)[c] += w.added[f.col[c]];
    }
    add_children(tree, s, w, 0, f.width, [&](int c) { return p.column(c); });
    const int good = kernel.factor_panel(f.rows(), width, p.p, p.ld, numbers.zero, pivot);
    if (good < f.width) return good;
    save_panel(f, w.local, p);
    if (f.below == 0) return good;
    double* u = w.top[tree.level[s] % 2];
    kernel.minus_square(store_mode::set_minus, f.below, f.width, p.p + f.width, p.ld, u);
    add_children(tree, s, w, f.width, f.rows(), [&](int c) { return triangle_column(u, f.below, c - f.width) - f.width; });
    leave_update(tree, s, f, u, w);
    return good;
}

// A front of many columns, gathered in one triangle and factorised in pieces; what is left of it is the update matrix.
int factor_wide(const supernode_tree& tree, int s, const front& f, int width, factor_work& w, double& pivot) {
    const dense_kernels_table& kernel = dense_kernels();
    const int empty = empty_columns(f.width), order = empty + f.rows();
    double* t = w.top[tree.level[s] % 2];
    auto column = [&](int c) { return triangle_column(t, order, empty + c) + empty; };
    if (!w.early[s]) std::fill_n(t, triangle_size(order), 0.0);
    for (int c = 0; c < f.width; ++c) {
        const int j = f.col[c];
        const double* off = sparse.xspars.data() + sparse.ixvec1(j) - 1;
        column(c)[c] += sparse.diag(j) + w.added[j];
        for (int q = 0; q < rows_below(j); ++q) column(c)[w.local[row_list(j)[q]]] += off[q];
    }
    for (int c = 0, end; c < width; c = end) {
        end = std::min(f.width, c + wide - (c == 0 ? empty : 0));
        const panel p = make_panel(w.columns, f.rows(), c, end);
        for (int k = c; k < end; ++k) std::copy_n(column(k) + k, f.rows() - k, p.column(k) + k);
        const int want = std::min(end, width) - c;
        const int good = kernel.factor_panel(f.rows() - c, want, p.p, p.ld, numbers.zero, pivot);
        if (good < end - c) return c + good;
        save_panel(f, w.local, p);
        const int left = f.rows() - end;
        if (left > 0)
            kernel.minus_square(store_mode::subtract, left, end - c, p.p + end - c, p.ld,
                                t + triangle_start(order, (empty + end) / block));
    }
    if (f.below == 0) return width;
    std::copy_n(t + triangle_start(order, (empty + f.width) / block), triangle_size(f.below), t);
    leave_update(tree, s, f, t, w);
    return width;
}

} // namespace

// After a failure at row `bad` only columns before it matter: none of them has a descendant that failed, so whatever a
// failed front would have added is not missed.
int factorise_supernodes(double& pivot) {
    const supernode_tree& tree = supernodes();
    const int ns = static_cast<int>(tree.parent.size());
    factor_work w;
    w.local.assign(numbers.nsrow + 1, 0);
    w.place.resize(tree.rows);
    w.runs.resize(tree.rows);
    w.has_update.assign(ns, 0);
    w.added.assign(numbers.nsrow + 1, 0.0);
    w.home.assign(numbers.nsrow + 1, 0);
    for (int s = 0; s < ns; ++s)
        for (int c = tree.start[s]; c < tree.start[s + 1]; ++c) w.home[tree.order[c]] = c - tree.start[s];
    w.early.assign(ns, nullptr);
    w.space = make_space(tree.triangles[0] + tree.triangles[1] + panel_size(tree.rows, tree.width));
    w.top[0] = w.space.get();
    w.top[1] = w.top[0] + tree.triangles[0];
    w.columns = w.top[1] + tree.triangles[1];
    int bad = 0, done = 0;
    for (int s = 0; s < ns; ++s) {
        const front f = front_of(tree, s);
        for (const int end = done + f.width; done < end;)
            if (++done % 20000 == 0 && options.verbose) print_list(screen(), "Factorise MMM", done);
        int width = f.width;
        if (bad != 0) width = static_cast<int>(std::lower_bound(f.col, f.col + f.width, bad) - f.col);
        if (w.early[s]) w.top[tree.level[s] % 2] = w.early[s];
        if (width > 0) {
            place_rows(f, w.local);
            double d = 0.0;
            const int good = f.width > wide ? factor_wide(tree, s, f, width, w, d) : factor_narrow(tree, s, f, width, w, d);
            if (good < width) {
                bad = f.col[good];
                pivot = d;
            }
        }
        drop_children(tree, s, w);
    }
    return bad;
}

} // namespace tarvex
