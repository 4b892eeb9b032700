// Sparse inverse over the supernodes, from the root of the tree down.
//
// With L11, L21 a supernode's columns of the factor, Y = L21 inv(L11), and Z22 the inverse for the rows below, which
// stands in the columns of ancestors: Z21 = -Z22 Y, Z11 = inv(L11 L11') - Y' Z21.
#include "sparse/fronts.h"

#include <atomic>
#include <exception>
#include <memory>

namespace tarvex {

namespace {

// What all that are at work on an inverse share. Each supernode is written by one of them, after its ancestors.
struct inverse_state {
    const sparse_store& s;
    const supernode_tree& tree;
    const dense_kernels_table& kernel;
    array<double>&zdiag, &zoff;
    const double* x;
    std::vector<int> link_start{}, link{}; // for each supernode: place of its rows below in the parent's front
};

// What one of them has of its own.
struct inverse_work {
    const inverse_state& all;
    const sparse_store& s;
    const dense_kernels_table& kernel;
    kernel_space packing;
    std::vector<int> local{}, place{}, runs{};
    std::vector<int> spot{}, spot_runs{}; // rows of a front in the list of a column, counted back from its end
    work_space space{};
    double *columns{}, *z{}, *yt{}, *zt{}, *m{}, *piece{}, *corner{}, *stored{}, *triangle{};
};

// A front without the row of the right-hand sides.
struct inverse_front : front {
    bool rhs; // row n is the last row of the front
    int inner() const { return below - (rhs ? 1 : 0); }
    int order() const { return width + inner(); }
};

inverse_front inverse_front_of(const inverse_state& all, int s) {
    inverse_front f{};
    static_cast<front&>(f) = front_of(all.s, all.tree, s);
    f.rhs = f.below > 0 && f.list[f.below - 1] == all.s.n;
    return f;
}

void link_fronts(inverse_state& all) {
    const supernode_tree& tree = all.tree;
    const int ns = static_cast<int>(tree.parent.size());
    std::vector<int> local(all.s.n + 1);
    all.link_start.assign(ns + 1, 0);
    for (int s = 0; s < ns; ++s) all.link_start[s + 1] = all.link_start[s] + inverse_front_of(all, s).inner();
    all.link.resize(all.link_start[ns]);
    for (int p = 0; p < ns; ++p) {
        if (tree.child[p] < 0) continue;
        place_rows(front_of(all.s, tree, p), local);
        for (int c = tree.child[p]; c >= 0; c = tree.sibling[c]) {
            const inverse_front f = inverse_front_of(all, c);
            for (int i = 0; i < f.inner(); ++i) all.link[all.link_start[c] + i] = local[f.list[i]];
        }
    }
}

// Columns first..end-1 of that inverse, which are columns of front `from`: row i of the triangle at place(i) in it.
void gather_columns(const front& from, int first, int end, const inverse_front& f, const inverse_work& w, double* u,
                    std::vector<int>& spot, std::vector<int>& spot_runs) {
    const int m = f.inner(), *place = w.place.data(), *runs = w.runs.data();
    const int* known = nullptr; // end of the list that the spots belong to; lists that end alike have the same tail
    for (int k = first; k < end; ++k) {
        const int j = from.col[place[k]], count = rows_below(w.s, j);
        const double* off = w.all.zoff.data() + w.s.ixvec1(j) - 1;
        double* to = triangle_column(u, m, k);
        to[k] = w.all.zdiag(j);
        if (k + 1 == m) continue;
        if (count == from.rows() - 1 - place[k]) {
            w.kernel.take_rows(k + 1, m, place, runs, off - place[k] - 1, to);
            continue;
        }
        const int *list = row_list(w.s, j), *last = list + count; // linked to each other below s: all are found
        if (last != known) find_spots(list, last, f.list, k + 1, m, spot, spot_runs);
        known = last;
        w.kernel.take_rows(k + 1, m, spot.data(), spot_runs.data(), off + count, to);
    }
}

// The inverse for the rows below supernode s, into triangle u, out of the columns of its ancestors.
void gather_inverse(int s, const inverse_front& f, inverse_work& w, double* u) {
    const supernode_tree& tree = w.all.tree;
    const int m = f.inner();
    int *place = w.place.data(), *runs = w.runs.data();
    std::copy_n(w.all.link.data() + w.all.link_start[s], m, place);
    // Upwards: rows that are columns of ancestor a are taken there; the places of the others go on to its parent.
    // All rows below s are columns of ancestors.
    for (int k = 0, a = tree.parent[s]; k < m; a = tree.parent[a]) {
        const front from = front_of(w.s, tree, a);
        find_runs(m, place, runs);
        const int end = static_cast<int>(std::lower_bound(place + k, place + m, from.width) - place);
        by_columns(w.packing, k, end, m - k, [&](int first, int last) {
            if (!w.packing.each) return gather_columns(from, first, last, f, w, u, w.spot, w.spot_runs);
            std::vector<int> spot(m), spot_runs(m);
            gather_columns(from, first, last, f, w, u, spot, spot_runs);
        });
        k = end;
        // place in the front of a is width + number of its row below
        for (int i = k; i < m; ++i) place[i] = w.all.link[w.all.link_start[a] + place[i] - from.width];
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
    // rows of inv(L): those of the identity, times L^-1
    share_out(w.packing, (n + block - 1) / block, [&](int piece, double*) {
        const int i = piece * block, ni = std::min(block, n - i);
        for (int j = 0; j < i + ni; ++j) std::fill_n(m + i + j * ldm, ni, 0.0);
        for (int k = 0; k < ni; ++k) m[i + k + (i + k) * ldm] = 1.0;
        kernel.solve_right(w.packing, ni, i + ni, lt, ld, m + i, ldm);
    });
    mirror(kernel, n, m, ldm);
    for (int j = 0; j < n; j += block) {
        const int nj = std::min(block, n - j);
        const std::ptrdiff_t ldc = column_distance(n - j);
        for (int i = j; i < n; i += block) {
            // element (i,j) = sum over k >= i of inv(L)(k,i) inv(L)(k,j): the square at i first, then the rest
            const int ni = std::min(block, n - i), rest = n - i - ni;
            for (int k = 0; k < ni; ++k) { // upper triangle of this piece of the transpose
                std::copy_n(m + i + (i + k) * ldm, k + 1, d + k * ldd);
                std::fill_n(d + k + 1 + k * ldd, ni - k - 1, 0.0);
            }
            const double* other = i == j ? d : m + j + i * ldm;
            kernel.product(w.packing, store_mode::set, ni, nj, ni, d, ldd, other, i == j ? ldd : ldm, c + i - j, ldc);
            if (rest > 0)
                kernel.product(w.packing, store_mode::add, ni, nj, rest, m + i + (i + ni) * ldm, ldm,
                               m + j + (i + ni) * ldm, ldm, c + i - j, ldc);
        }
        if (left > 0)
            kernel.product(w.packing, store_mode::subtract, n - j, nj, left, w.yt + j, ldm, w.zt + j, ldm, c, ldc);
        for (int k = 0; k < nj; ++k) std::copy_n(c + k + k * ldc, n - j - k, z + j + k + (j + k) * ldz);
    }
}

// Rows below column c of a front that it has in the store, without row n.
int stored_rows(const inverse_work& w, const inverse_front& f, int c) {
    const int j = f.col[c], count = rows_below(w.s, j);
    return f.rhs && count > 0 && row_list(w.s, j)[count - 1] == w.s.n ? count - 1 : count;
}

// Columns of the inverse from panel z to the store; row n gets -x(j), or the scaled right-hand side if x is not given.
void save_columns(const inverse_front& f, const panel& z, int first, int end, const inverse_work& w) {
    const double* x = w.all.x;
    for (int c = first; c < end; ++c) {
        const int j = f.col[c], start = w.s.ixvec1(j), count = stored_rows(w, f, c);
        const double* from = z.column(c);
        double* off = w.all.zoff.data() + start - 1;
        // the place of row n is the last of the column
        if (count < rows_below(w.s, j)) off[count] = x ? -x[j - 1] : w.s.xspars(start + count) / w.s.diag(j);
        if (count == f.order() - 1 - c) {
            std::copy_n(from + c + 1, count, off);
        } else {
            const int* list = row_list(w.s, j);
            for (int q = 0; q < count; ++q) off[q] = from[w.local[list[q]]];
        }
        w.all.zdiag(j) = from[c];
    }
}

// t (n x m) = transpose of a (m x n), rows of a shared out.
void transpose(const inverse_work& w, int m, int n, const double* a, std::ptrdiff_t lda, double* t,
               std::ptrdiff_t ldt) {
    by_columns(w.packing, 0, m, n,
               [&](int first, int end) { w.kernel.transpose(end - first, n, a + first, lda, t + first * ldt, ldt); });
}

// Z21 = -Z22 Y for the rows from `end` on: n columns, row i of the front at c[i]. Of Z22 the rows below the front stand
// in the triangle, columns of the front in the store. Elements that merged columns have no place for are taken as 0,
// since they would only meet zeros: column e of Y has rows of columns d alone to which e leads in the tree; the rows of
// e behind the piece are rows of d as well, and the rows of a column have places among each other.
void multiply_inverse(const inverse_front& f, int end, int n, double* c, std::ptrdiff_t ldc, inverse_work& w) {
    const dense_kernels_table& kernel = w.kernel;
    const std::ptrdiff_t ldy = column_distance(n);
    auto y = [&](int row) { return w.yt + (row - end) * ldy; };
    if (f.inner() > 0) kernel.minus_symmetric(w.packing, f.inner(), n, w.triangle, y(f.width), ldy, c + f.width, ldc);
    for (int k = 0; k < n; ++k) std::fill(c + end + k * ldc, c + f.width + k * ldc, 0.0);
    for (int q = end, next; q < f.width; q = next) {
        next = std::min(f.width, q + wide);
        const int k = next - q, rest = f.order() - next;
        const std::ptrdiff_t ld = column_distance(f.order() - q + lane), ldt = column_distance(padded(k));
        by_columns(w.packing, q, next, f.order() - q, [&](int first, int last) {
            for (int i = first; i < last; ++i)
                load_column(w.s, f, i, stored_rows(w, f, i), f.order(), w.all.zdiag, w.all.zoff, w.local,
                            w.stored + (i - q) * ld - q);
        });
        mirror(kernel, k, w.stored, ld);
        kernel.product(w.packing, store_mode::subtract, f.order() - q, n, k, w.stored, ld, y(q), ldy, c + q, ldc);
        if (rest == 0) continue;
        double* transposed = w.zt; // not yet in use
        transpose(w, rest, k, w.stored + k, ld, transposed, ldt);
        for (int i = 0; i < rest && k < padded(k); ++i) // rows that the product takes along must not change the result
            std::fill(transposed + i * ldt + k, transposed + i * ldt + padded(k), 0.0);
        kernel.product(w.packing, store_mode::subtract, k, n, rest, transposed, ldt, y(next), ldy, c + q, ldc);
    }
}

void invert_front(int s, inverse_work& w) {
    const dense_kernels_table& kernel = w.kernel;
    const inverse_front f = inverse_front_of(w.all, s);
    if (f.inner() > 0) gather_inverse(s, f, w, w.triangle);
    place_rows(f, w.local);
    // panels from the right: the inverse for all rows behind is there, in the store or in the triangle
    for (int end = f.width, first; end > 0; end = first) {
        first = (end - 1) / wide * wide;
        const int n = end - first, left = f.order() - end;
        const panel l = make_panel(w.columns, f.rows(), first, end), z = make_panel(w.z, f.rows(), first, end);
        by_columns(w.packing, first, end, f.rows(), [&](int from, int to) {
            for (int c = from; c < to; ++c) load_column(w.s, f, c, w.local, l.column(c));
        });
        // L' above the diagonal, as solve_right wants it
        mirror(kernel, n, l.p, l.ld);
        const std::ptrdiff_t ldy = column_distance(n);
        if (left > 0) {
            kernel.solve_right(w.packing, left, n, l.p, l.ld, l.p + n, l.ld);
            transpose(w, left, n, l.p + n, l.ld, w.yt, ldy);
            multiply_inverse(f, end, n, z.p - first, z.ld, w);
            // zt was work space of multiply_inverse up to here
            transpose(w, left, n, z.p + n, z.ld, w.zt, ldy);
        }
        invert_corner(n, left, l.p, l.ld, z.p, z.ld, w);
        by_columns(w.packing, first, end, f.rows(), [&](int from, int to) { save_columns(f, z, from, to, w); });
    }
}

// From the inverse to the derivatives: x x' is added, the diagonal is halved.
void add_solutions(const sparse_store& s, array<double>& zdiag, array<double>& zoff, const double* x) {
    const int n = s.n;
    // df/dC(i,j) of f = (log|C| + y'Py)/2 is Z + x x' off the diagonal, where an element counts twice
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

// Work space for the fronts of the top, or for those of pieces.
inverse_work make_work(const inverse_state& all, kernel_space packing, bool top) {
    const supernode_tree& tree = all.tree;
    const int rows = top ? tree.rows : tree.piece_rows, widest = top ? tree.width : tree.piece_width;
    const int width = std::min(widest, wide);
    inverse_work w{all, all.s, all.kernel, packing};
    w.local.assign(all.s.n + 1, 0);
    for (auto* v : {&w.place, &w.runs, &w.spot, &w.spot_runs}) v->resize(rows);
    struct part {
        double*& at;
        std::ptrdiff_t size;
    };
    const std::ptrdiff_t columns = panel_size(rows, width), across = rows * column_distance(width) + lane;
    const part parts[] = {{w.columns, columns},
                          {w.z, columns},
                          {w.yt, across},
                          {w.zt, across},
                          {w.m, width * column_distance(width) + lane},
                          {w.piece, block * column_distance(width) + lane},
                          {w.corner, block * column_distance(block) + lane},
                          {w.stored, widest > wide ? columns : 0}, // columns of a wide front
                          {w.triangle, top ? tree.inverse : tree.piece_inverse}};
    std::ptrdiff_t size = 0;
    for (const part& p : parts) size += p.size;
    w.space = make_space(size);
    size = 0;
    for (const part& p : parts) {
        p.at = w.space.get() + size;
        size += p.size;
    }
    return w;
}

// Works through the steps of the tree from the last to the first; a piece can start when all before it at the top are
// done.
class inverse_walk {
public:
    inverse_walk(const inverse_state& all, sparse_work& work)
        : all_(all), shared_(work), ready_(all.tree.steps.size()), of_slot_(shared_.threads()),
          top_(make_work(all, shared_.packing(all.tree.steps.size() > 2), true)) {}

    void run(const progress& tell) {
        if (!shared_.pool()) return walk(tell);
        shared_.pool()->run([&] {
            walk(tell);
            shared_.pool()->finish();
        });
        if (failed_.load(std::memory_order_acquire) != 0) std::rethrow_exception(error_);
        ended_.load(std::memory_order_acquire);
    }

private:
    void walk(const progress& tell) {
        const supernode_tree& tree = all_.tree;
        const int n = all_.s.n, total = all_.x ? n : n - 1; // the sweep of the derivatives starts with row n
        int todo = n;                                       // columns not yet done, or not yet handed out
        for (std::size_t i = tree.steps.size(); i-- > 0;) {
            const auto& step = tree.steps[i];
            // told by columns handed out: pieces end when they like
            for (const int end = tree.start[step.first]; todo > end; --todo)
                if (todo % tell_every == 0 && tell && (all_.x || todo < total)) tell(todo);
            if (!step.piece) {
                if (tree.order[tree.start[step.first]] != n) invert_front(step.first, top_);
            } else if (shared_.pool()) {
                ready_[i].store(1, std::memory_order_release);
                shared_.pool()->start([this, i] { work_on(i); });
            } else {
                invert_piece(step);
            }
        }
    }
    void invert_piece(const supernode_tree::step& step) {
        const int slot = shared_.slot();
        auto& mine = of_slot_[slot];
        if (!mine) mine = std::make_unique<inverse_work>(make_work(all_, shared_.packing_of_slot(slot), false));
        for (int s = step.end - 1; s >= step.first; --s) invert_front(s, *mine);
    }
    void work_on(std::size_t i) {
        ready_[i].load(std::memory_order_acquire); // what it reads is there
        try {
            invert_piece(all_.tree.steps[i]);
        } catch (...) {
            // the first of several errors is the one that is told
            if (claimed_.exchange(1) == 0) {
                error_ = std::current_exception();
                failed_.store(1, std::memory_order_release);
            }
        }
        ended_.fetch_add(1, std::memory_order_acq_rel);
    }

    const inverse_state& all_;
    shared_work shared_;
    std::vector<std::atomic<int>> ready_;
    std::vector<std::unique_ptr<inverse_work>> of_slot_;
    inverse_work top_;
    std::atomic<int> ended_{0}, claimed_{0}, failed_{0};
    std::exception_ptr error_{};
};

} // namespace

void inverse_supernodes(const sparse_store& m, sparse_work& work, array<double>& zdiag, array<double>& zoff,
                        const double* x, const progress& tell) {
    need_state(m, store_state::factor, "inverse_supernodes");
    const int n = m.n;
    if (n == 0) return;
    inverse_state all{m, supernodes(m, work), dense_of(work), zdiag, zoff, x};
    link_fronts(all);
    const double last = m.diag(n);
    inverse_walk(all, work).run(tell);
    zdiag(n) = x ? 0.5 : last * last;
    if (x) add_solutions(m, zdiag, zoff, x);
}

} // namespace tarvex
