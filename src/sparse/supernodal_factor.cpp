// Multifrontal Cholesky factorisation over the supernodes.
#include "sparse/fronts.h"

namespace tarvex {

namespace {

struct factor_work {
    sparse_store& m;
    const supernode_tree& tree;
    const dense_kernels_table& kernel;
    kernel_space packing;
    double limit; // smallest pivot
    std::vector<int> local{}, place{}, runs{}; // rows of the front by row of the system; rows of a child in it
    std::vector<int> has_update{};             // (ns) 1: an update matrix waits on the stack
    std::vector<double> added{};               // to the diagonals, by columns whose fronts take updates at once
    std::vector<int> spot{}, spot_runs{};      // rows of a child in the list of a column, counted back from its end
    work_space space{};
    double *columns = nullptr, *spare = nullptr; // panels
    double* top[2]{}; // first free place on the stacks of the even and of the odd levels
};

// Adds the children's update matrices to columns first..end-1 of front s; target(c)[i] is row i of its column c.
template <class Target>
void add_children(int s, factor_work& w, int first, int end, Target target) {
    const supernode_tree& tree = w.tree;
    double* at = w.top[1 - tree.level[s] % 2]; // the last child is on top; theirs lie in the order of the children
    for (int c = tree.child[s]; c >= 0; c = tree.sibling[c])
        if (w.has_update[c]) at -= triangle_size(below_of(w.m, tree, c));
    for (int c = tree.child[s]; c >= 0; c = tree.sibling[c]) {
        if (!w.has_update[c]) continue;
        const int m = below_of(w.m, tree, c);
        const int* list = row_list(w.m, tree.order[tree.start[c + 1] - 1]);
        int *place = w.place.data(), *runs = w.runs.data();
        for (int i = 0; i < m; ++i) place[i] = w.local[list[i]];
        find_runs(m, place, runs);
        int j = static_cast<int>(std::lower_bound(place, place + m, first) - place);
        for (; j < m && place[j] < end; ++j)
            w.kernel.add_rows(j, m, place, runs, triangle_column(at, m, j), target(place[j]));
        at += triangle_size(m);
    }
}

// Adds columns first..end-1 of the update matrix of front f to the stored columns that they belong to; column(k)[i] is
// row i.
template <class Column> void absorb(const front& f, int first, int end, Column column, factor_work& w) {
    const int m = f.below;
    const int* known = nullptr; // end of the list that the spots belong to; lists that end alike have the same tail
    for (int k = first; k < end; ++k) {
        const int j = f.list[k], count = rows_below(w.m, j);
        const double* from = column(k);
        w.added[j] += from[k];
        if (k + 1 == m) continue;
        const int *list = row_list(w.m, j), *last = list + count; // the rows below are linked to each other: all are found
        if (last != known) find_spots(list, last, f.list, k + 1, m, w.spot, w.spot_runs);
        known = last;
        double* off = w.m.xspars.data() + w.m.ixvec1(j) - 1;
        w.kernel.add_rows(k + 1, m, w.spot.data(), w.spot_runs.data(), from, off + count);
    }
}

void drop_children(int s, factor_work& w) {
    const supernode_tree& tree = w.tree;
    for (int c = tree.child[s]; c >= 0; c = tree.sibling[c]) {
        if (w.has_update[c]) w.top[1 - tree.level[s] % 2] -= triangle_size(below_of(w.m, tree, c));
        w.has_update[c] = 0;
    }
}

// The update matrix u of s stays at the top of its stack until the parent's turn, or is taken over now.
void leave_update(int s, const front& f, const double* u, factor_work& w) {
    const supernode_tree& tree = w.tree;
    if (updates_at_once(w.m, tree, tree.parent[s])) {
        absorb(
            f, 0, f.below, [&](int k) { return triangle_column(u, f.below, k); }, w);
    } else {
        w.top[tree.level[s] % 2] += triangle_size(f.below);
        w.has_update[s] = 1;
    }
}

void save_panel(const front& f, factor_work& w, const panel& p) {
    for (int c = p.first; c < p.end; ++c) {
        const int j = f.col[c], count = rows_below(w.m, j);
        const double* from = p.column(c);
        double* off = w.m.xspars.data() + w.m.ixvec1(j) - 1;
        w.m.diag(j) = from[c];
        if (count == f.rows() - 1 - c) {
            std::copy_n(from + c + 1, count, off);
            continue;
        }
        const int* list = row_list(w.m, j);
        for (int q = 0; q < count; ++q) off[q] = from[w.local[list[q]]];
    }
}

// A front whose columns make one panel. Of the columns only the first `width` are wanted; returns the first that fails,
// or width. The update matrix is left on the stack if all columns are good.
int factor_narrow(int s, const front& f, int width, factor_work& w, double& pivot) {
    const dense_kernels_table& kernel = w.kernel;
    const panel p = make_panel(w.columns, f.rows(), 0, f.width);
    for (int c = 0; c < f.width; ++c) {
        load_column(w.m, f, c, w.local, p.column(c));
        p.column(c)[c] += w.added[f.col[c]];
    }
    add_children(s, w, 0, f.width, [&](int c) { return p.column(c); });
    const int good = kernel.factor_panel(w.packing, f.rows(), width, p.p, p.ld, w.limit, pivot);
    if (good < f.width) return good;
    save_panel(f, w, p);
    if (f.below == 0) return good;
    double* u = w.top[w.tree.level[s] % 2];
    kernel.minus_square(w.packing, store_mode::set_minus, f.below, f.width, p.p + f.width, p.ld, u);
    add_children(s, w, f.width, f.rows(),
                 [&](int c) { return triangle_column(u, f.below, c - f.width) - f.width; });
    leave_update(s, f, u, w);
    return good;
}

// Rows first.. of column c of a front from the store, zeros where the pattern has no element; first > c.
void load_rows(const front& f, int c, int first, const factor_work& w, double* to) {
    const int j = f.col[c], count = rows_below(w.m, j);
    const double* off = w.m.xspars.data() + w.m.ixvec1(j) - 1;
    const int *list = row_list(w.m, j), *end = list + count;
    const int row = first < f.width ? f.col[first] : f.list[first - f.width];
    std::fill(to + first, to + f.rows(), 0.0);
    for (const int* at = std::lower_bound(list, end, row); at < end; ++at) to[w.local[*at]] = off[at - list];
}

// Takes the products of the front's columns 0..done-1 from c (n columns), whose first row and column are row `first` of
// the front. The columns are used where they stand in the store, but for those that the pattern leaves holes in.
void subtract_columns(const front& f, int done, int first, int n, double* c, std::ptrdiff_t ldc, factor_work& w) {
    const std::ptrdiff_t ld = column_distance(f.rows() + 2 * lane);
    const double* column[wide];
    for (int from = 0; from < done; from += wide) {
        const int k = std::min(wide, done - from);
        for (int i = 0; i < k; ++i) {
            const int j = f.col[from + i];
            if (rows_below(w.m, j) == f.rows() - 1 - from - i) {
                column[i] = w.m.xspars.data() + w.m.ixvec1(j) - 1 + (first - from - i - 1);
            } else {
                load_rows(f, from + i, first, w, w.spare + i * ld);
                column[i] = w.spare + i * ld + first;
            }
        }
        w.kernel.minus_columns(w.packing, f.rows() - first, n, k, column, c, ldc);
    }
}

// A large front, factorised in pieces; the children have left their updates in the store, and its own goes there.
int factor_large(const front& f, int width, factor_work& w, double& pivot) {
    for (int c = 0, end; c < width; c = end) {
        end = std::min(f.width, c + broad);
        const panel p = make_panel(w.columns, f.rows(), c, end);
        for (int k = c; k < end; ++k) {
            load_column(w.m, f, k, w.local, p.column(k));
            p.column(k)[k] += w.added[f.col[k]];
        }
        subtract_columns(f, c, c, end - c, p.p, p.ld, w);
        const int want = std::min(end, width) - c;
        const int good = w.kernel.factor_panel(w.packing, f.rows() - c, want, p.p, p.ld, w.limit, pivot);
        if (good < end - c) return c + good;
        save_panel(f, w, p);
    }
    for (int first = 0, end; first < f.below; first = end) {
        end = std::min(f.below, first + broad);
        const std::ptrdiff_t ld = column_distance(f.below - first + lane);
        std::fill_n(w.columns, (end - first) * ld, 0.0);
        subtract_columns(f, f.width, f.width + first, end - first, w.columns, ld, w);
        absorb(
            f, first, end, [&](int k) { return w.columns + (k - first) * ld - first; }, w);
    }
    return width;
}

} // namespace

// After a failure at row `bad` only columns before it matter: none of them has a descendant that failed, so whatever a
// failed front would have added is not missed.
int factorise_supernodes(sparse_store& m, sparse_work& work, double limit, double& pivot, const progress& tell) {
    need_state(m, store_state::assembled, "factorise_supernodes");
    const supernode_tree& tree = supernodes(m, work);
    const int ns = static_cast<int>(tree.parent.size());
    factor_work w{m, tree, dense_of(work), packing_of(work), limit};
    w.local.assign(m.n + 1, 0);
    w.place.resize(tree.rows);
    w.runs.resize(tree.rows);
    w.has_update.assign(ns, 0);
    w.added.assign(m.n + 1, 0.0);
    w.spot.resize(tree.rows);
    w.spot_runs.resize(tree.rows);
    const std::ptrdiff_t columns = panel_size(tree.rows, wide);
    // what is not used takes no memory
    w.space = make_space(tree.triangles[0] + tree.triangles[1] + (broad / wide + 1) * columns);
    w.top[0] = w.space.get();
    w.top[1] = w.top[0] + tree.triangles[0];
    w.columns = w.top[1] + tree.triangles[1];
    w.spare = w.columns + broad / wide * columns;
    int bad = 0, done = 0;
    for (int s = 0; s < ns; ++s) {
        const front f = front_of(m, tree, s);
        for (const int end = done + f.width; done < end;)
            if (++done % tell_every == 0 && tell) tell(done);
        int width = f.width;
        if (bad != 0) width = static_cast<int>(std::lower_bound(f.col, f.col + f.width, bad) - f.col);
        if (width > 0) {
            place_rows(f, w.local);
            double d = 0.0;
            const bool large = large_front(f.width, f.below);
            const int good = large ? factor_large(f, width, w, d) : factor_narrow(s, f, width, w, d);
            if (good < width) {
                bad = f.col[good];
                pivot = d;
            }
        }
        drop_children(s, w);
    }
    m.state = bad == 0 ? store_state::factor : store_state::empty;
    return bad;
}

} // namespace tarvex
