// Sparse inverse over the supernodes, from the root of the tree down.
//
// With L11, L21 a supernode's columns of the factor, Y = L21 inv(L11), and Z22 the inverse for the rows below, which
// stands in the columns of ancestors: Z21 = -Z22 Y, Z11 = inv(L11 L11') - Y' Z21.
#include "sparse/fronts.h"

namespace tarvex {

namespace {

struct inverse_work {
    const sparse_store& s;
    const supernode_tree& tree;
    const dense_kernels_table& kernel;
    kernel_space packing;
    std::vector<int> local{}, place{}, runs{};
    std::vector<int> spot{}, spot_runs{};  // rows of a front in the list of a column, counted back from its end
    std::vector<int> link_start{}, link{}; // for each supernode: place of its rows below in the parent's front
    work_space space{};
    double *columns{}, *z{}, *yt{}, *zt{}, *m{}, *piece{}, *corner{}, *stored{}, *triangle{};
};

// A front without the row of the right-hand sides.
struct inverse_front : front {
    bool rhs; // row n is the last row of the front
    int inner() const { return below - (rhs ? 1 : 0); }
    int order() const { return width + inner(); }
};

inverse_front inverse_front_of(const inverse_work& w, int s) {
    inverse_front f{};
    static_cast<front&>(f) = front_of(w.s, w.tree, s);
    f.rhs = f.below > 0 && f.list[f.below - 1] == w.s.n;
    return f;
}

void link_fronts(inverse_work& w) {
    const supernode_tree& tree = w.tree;
    const int ns = static_cast<int>(tree.parent.size());
    w.link_start.assign(ns + 1, 0);
    for (int s = 0; s < ns; ++s) w.link_start[s + 1] = w.link_start[s] + inverse_front_of(w, s).inner();
    w.link.resize(w.link_start[ns]);
    for (int p = 0; p < ns; ++p) {
        if (tree.child[p] < 0) continue;
        place_rows(front_of(w.s, tree, p), w.local);
        for (int c = tree.child[p]; c >= 0; c = tree.sibling[c]) {
            const inverse_front f = inverse_front_of(w, c);
            for (int i = 0; i < f.inner(); ++i) w.link[w.link_start[c] + i] = w.local[f.list[i]];
        }
    }
}

// The inverse for the rows below supernode s, into triangle u, out of the columns of its ancestors.
void gather_inverse(int s, const inverse_front& f, const array<double>& zdiag,
                    const array<double>& zoff, inverse_work& w, double* u) {
    const supernode_tree& tree = w.tree;
    const int m = f.inner();
    int *place = w.place.data(), *runs = w.runs.data();
    std::copy_n(w.link.data() + w.link_start[s], m, place);
    for (int k = 0, a = tree.parent[s]; k < m; a = tree.parent[a]) {
        const front from = front_of(w.s, tree, a);
        find_runs(m, place, runs);
        const int* known = nullptr; // end of the list that the spots belong to; lists that end alike have the same tail
        for (; k < m && place[k] < from.width; ++k) {
            const int j = from.col[place[k]], count = rows_below(w.s, j);
            const double* off = zoff.data() + w.s.ixvec1(j) - 1;
            double* to = triangle_column(u, m, k);
            to[k] = zdiag(j);
            if (k + 1 == m) continue;
            if (count == from.rows() - 1 - place[k]) {
                w.kernel.take_rows(k + 1, m, place, runs, off - place[k] - 1, to);
                continue;
            }
            const int *list = row_list(w.s, j), *end = list + count; // linked to each other below s: all are found
            if (end != known) find_spots(list, end, f.list, k + 1, m, w.spot, w.spot_runs);
            known = end;
            w.kernel.take_rows(k + 1, m, w.spot.data(), w.spot_runs.data(), off + count, to);
        }
        for (int i = k; i < m; ++i) place[i] = w.link[w.link_start[a] + place[i] - from.width];
    }
}

// Copies the lower triangle of a square onto the upper one.
void mirror(const dense_kernels_table& kernel, int n, double* a, std::ptrdiff_t ld) {
    for (int j = 0; j < n; j += block)
        for (int i = j; i < n; i += block) {
            const int nj = std::min(block, n - j), ni = std::min(block, n - i);
            if (i > j)
                kernel.transpose(ni, nj, a + i + j * ld, ld, a + j + i * ld, ld);
            else
                for (int q = 0; q < nj; ++q)
                    for (int k = q + 1; k < nj; ++k) a[j + q + (j + k) * ld] = a[j + k + (j + q) * ld];
        }
}

// Lower triangle of inv(L)' inv(L) - Y' Z21, order n, into z. lt: L with its transpose in the upper triangle; zt: Z21'.
void invert_corner(int n, int left, const double* lt, std::ptrdiff_t ld, double* z, std::ptrdiff_t ldz,
                   inverse_work& w) {
    const dense_kernels_table& kernel = w.kernel;
    const std::ptrdiff_t ldm = column_distance(n), ldd = column_distance(block);
    double *m = w.m, *d = w.corner, *c = w.piece; // m: inv(L) below, its transpose above the diagonal
    for (int i = 0; i < n; i += block) {
        const int ni = std::min(block, n - i);
        for (int j = 0; j < i + ni; ++j) std::fill_n(m + i + j * ldm, ni, 0.0);
        for (int k = 0; k < ni; ++k) m[i + k + (i + k) * ldm] = 1.0;
        kernel.solve_right(w.packing, ni, i + ni, lt, ld, m + i, ldm);
    }
    mirror(kernel, n, m, ldm);
    for (int j = 0; j < n; j += block) {
        const int nj = std::min(block, n - j);
        const std::ptrdiff_t ldc = column_distance(n - j);
        for (int i = j; i < n; i += block) {
            const int ni = std::min(block, n - i), rest = n - i - ni;
            for (int k = 0; k < ni; ++k) { // upper triangle of this piece of the transpose
                std::copy_n(m + i + (i + k) * ldm, k + 1, d + k * ldd);
                std::fill_n(d + k + 1 + k * ldd, ni - k - 1, 0.0);
            }
            const double* other = i == j ? d : m + j + i * ldm;
            kernel.product(w.packing, store_mode::set, ni, nj, ni, d, ldd, other, i == j ? ldd : ldm, c + i - j, ldc);
            if (rest > 0)
                kernel.product(w.packing, store_mode::add, ni, nj, rest, m + i + (i + ni) * ldm, ldm, m + j + (i + ni) * ldm, ldm,
                               c + i - j, ldc);
        }
        if (left > 0) kernel.product(w.packing, store_mode::subtract, n - j, nj, left, w.yt + j, ldm, w.zt + j, ldm, c, ldc);
        for (int k = 0; k < nj; ++k) std::copy_n(c + k + k * ldc, n - j - k, z + j + k + (j + k) * ldz);
    }
}

// Rows below column c of a front that it has in the store, without row n.
int stored_rows(const inverse_work& w, const inverse_front& f, int c) {
    const int j = f.col[c], count = rows_below(w.s, j);
    return f.rhs && count > 0 && row_list(w.s, j)[count - 1] == w.s.n ? count - 1 : count;
}

// Columns of the inverse from panel z to the store; row n gets -x(j), or the scaled right-hand side if x is not given.
void save_columns(const inverse_front& f, const panel& z, const inverse_work& w, array<double>& zdiag,
                  array<double>& zoff, const double* x) {
    for (int c = z.first; c < z.end; ++c) {
        const int j = f.col[c], start = w.s.ixvec1(j), count = stored_rows(w, f, c);
        const double* from = z.column(c);
        double* off = zoff.data() + start - 1;
        if (count < rows_below(w.s, j)) off[count] = x ? -x[j - 1] : w.s.xspars(start + count) / w.s.diag(j);
        if (count == f.order() - 1 - c) {
            std::copy_n(from + c + 1, count, off);
        } else {
            const int* list = row_list(w.s, j);
            for (int q = 0; q < count; ++q) off[q] = from[w.local[list[q]]];
        }
        zdiag(j) = from[c];
    }
}

// Z21 = -Z22 Y for the rows from `end` on: n columns, row i of the front at c[i]. Of Z22 the rows below the front stand
// in the triangle, columns of the front in the store. Elements that merged columns have no place for are taken as 0,
// since they would only meet zeros: column e of Y has rows of columns d alone to which e leads in the tree; the rows of
// e behind the piece are rows of d as well, and the rows of a column have places among each other.
void multiply_inverse(const inverse_front& f, int end, int n, const array<double>& zdiag, const array<double>& zoff,
                      double* c, std::ptrdiff_t ldc, inverse_work& w) {
    const dense_kernels_table& kernel = w.kernel;
    const std::ptrdiff_t ldy = column_distance(n);
    auto y = [&](int row) { return w.yt + (row - end) * ldy; };
    if (f.inner() > 0) kernel.minus_symmetric(w.packing, f.inner(), n, w.triangle, y(f.width), ldy, c + f.width, ldc);
    for (int k = 0; k < n; ++k) std::fill(c + end + k * ldc, c + f.width + k * ldc, 0.0);
    for (int q = end, next; q < f.width; q = next) {
        next = std::min(f.width, q + wide);
        const int k = next - q, rest = f.order() - next;
        const std::ptrdiff_t ld = column_distance(f.order() - q + lane), ldt = column_distance(padded(k));
        for (int i = q; i < next; ++i)
            load_column(w.s, f, i, stored_rows(w, f, i), f.order(), zdiag, zoff, w.local, w.stored + (i - q) * ld - q);
        mirror(kernel, k, w.stored, ld);
        kernel.product(w.packing, store_mode::subtract, f.order() - q, n, k, w.stored, ld, y(q), ldy, c + q, ldc);
        if (rest == 0) continue;
        double* transposed = w.zt; // not yet in use
        kernel.transpose(rest, k, w.stored + k, ld, transposed, ldt);
        for (int i = 0; i < rest && k < padded(k); ++i) // rows that the product takes along must not change the result
            std::fill(transposed + i * ldt + k, transposed + i * ldt + padded(k), 0.0);
        kernel.product(w.packing, store_mode::subtract, k, n, rest, transposed, ldt, y(next), ldy, c + q, ldc);
    }
}

void invert_front(int s, array<double>& zdiag, array<double>& zoff, const double* x,
                  inverse_work& w) {
    const dense_kernels_table& kernel = w.kernel;
    const inverse_front f = inverse_front_of(w, s);
    if (f.inner() > 0) gather_inverse(s, f, zdiag, zoff, w, w.triangle);
    place_rows(f, w.local);
    for (int end = f.width, first; end > 0; end = first) {
        first = (end - 1) / wide * wide;
        const int n = end - first, left = f.order() - end;
        const panel l = make_panel(w.columns, f.rows(), first, end), z = make_panel(w.z, f.rows(), first, end);
        for (int c = first; c < end; ++c) load_column(w.s, f, c, w.local, l.column(c));
        mirror(kernel, n, l.p, l.ld);
        const std::ptrdiff_t ldy = column_distance(n);
        if (left > 0) {
            kernel.solve_right(w.packing, left, n, l.p, l.ld, l.p + n, l.ld);
            kernel.transpose(left, n, l.p + n, l.ld, w.yt, ldy);
            multiply_inverse(f, end, n, zdiag, zoff, z.p - first, z.ld, w);
            kernel.transpose(left, n, z.p + n, z.ld, w.zt, ldy);
        }
        invert_corner(n, left, l.p, l.ld, z.p, z.ld, w);
        save_columns(f, z, w, zdiag, zoff, x);
    }
}

// From the inverse to the derivatives: x x' is added, the diagonal is halved.
void add_solutions(const sparse_store& s, array<double>& zdiag, array<double>& zoff, const double* x) {
    const int n = s.n;
    for (int j = 1; j < n; ++j) {
        int count = rows_below(s, j);
        const double xj = x[j - 1];
        zdiag(j) = 0.5 * (zdiag(j) + xj * xj);
        if (count == 0) continue;
        const int* list = row_list(s, j);
        if (list[count - 1] == n) --count;
        double* off = zoff.data() + s.ixvec1(j) - 1;
        for (int q = 0; q < count; ++q) off[q] += xj * x[list[q] - 1];
    }
}

} // namespace

void inverse_supernodes(const sparse_store& m, sparse_work& work, array<double>& zdiag, array<double>& zoff,
                        const double* x, const progress& tell) {
    need_state(m, store_state::factor, "inverse_supernodes");
    const supernode_tree& tree = supernodes(m, work);
    const int ns = static_cast<int>(tree.parent.size()), n = m.n;
    if (n == 0) return;
    const int width = std::min(tree.width, wide);
    inverse_work w{m, tree, dense_of(work), packing_of(work)};
    w.local.assign(n + 1, 0);
    w.place.resize(tree.rows);
    w.runs.resize(tree.rows);
    w.spot.resize(tree.rows);
    w.spot_runs.resize(tree.rows);
    link_fronts(w);
    struct part {
        double*& at;
        std::ptrdiff_t size;
    };
    const std::ptrdiff_t columns = panel_size(tree.rows, width), across = tree.rows * column_distance(width) + lane;
    const part parts[] = {{w.columns, columns},
                          {w.z, columns},
                          {w.yt, across},
                          {w.zt, across},
                          {w.m, width * column_distance(width) + lane},
                          {w.piece, block * column_distance(width) + lane},
                          {w.corner, block * column_distance(block) + lane},
                          {w.stored, tree.width > wide ? columns : 0}, // columns of a wide front
                          {w.triangle, tree.inverse}};
    std::ptrdiff_t size = 0;
    for (const part& p : parts) size += p.size;
    w.space = make_space(size);
    size = 0;
    for (const part& p : parts) {
        p.at = w.space.get() + size;
        size += p.size;
    }
    const double last = m.diag(n);
    const int total = x ? n : n - 1; // the sweep of the derivatives starts with row n
    int todo = n;                    // columns not yet done
    for (int s = ns - 1; s >= 0; --s) {
        for (const int end = todo - (tree.start[s + 1] - tree.start[s]); todo > end; --todo)
            if (todo % tell_every == 0 && tell && (x || todo < total)) tell(todo);
        if (tree.order[tree.start[s]] != n) invert_front(s, zdiag, zoff, x, w);
    }
    zdiag(n) = x ? 0.5 : last * last;
    if (x) add_solutions(m, zdiag, zoff, x);
}

} // namespace tarvex
