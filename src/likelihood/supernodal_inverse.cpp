// Sparse inverse over the supernodes, from the root of the tree down.
//
// With L11, L21 the panel of a supernode, Y = L21 inv(L11) and Z22 the inverse for the rows below, which is part of the
// parent's block: Z21 = -Z22 Y, Z11 = inv(L11 L11') - Y' Z21.
#include "likelihood/fronts.h"

#include <algorithm>

namespace tarvex {

namespace {

struct inverse_work {
    std::vector<int> local, place, runs;
    std::vector<double*> square; // (ns) block of the inverse for all rows of the front, while children need it
    work_space panel, yt, m, piece, corner, stack[2];
    double* top[2];
};

// A front without the row of the right-hand sides, and its block of the inverse: row i of column j at z[i + j*ldz].
struct inverse_front : front {
    bool rhs; // row n is the last row of the front
    double* z;
    std::ptrdiff_t ldz;
};

inverse_front inverse_front_of(const supernode_tree& tree, int s) {
    inverse_front f{};
    static_cast<front&>(f) = front_of(tree, s);
    f.rhs = f.below > 0 && f.list[f.below - 1] == numbers.nsrow;
    if (f.rhs) --f.below;
    f.ldz = column_distance(f.rows() + lane);
    return f;
}

std::ptrdiff_t square_size(const front& f) {
    return f.rows() * column_distance(f.rows() + lane) + lane;
}

// Rows i..i+count-1 of inv(L) for the triangle with transpose lt (upper, by columns), into m.
void invert_rows(int i, int count, const double* lt, std::ptrdiff_t ldt, double* m, std::ptrdiff_t ldm) {
    for (int j = 0; j < i + count; ++j) std::fill_n(m + i + j * ldm, count, 0.0);
    for (int k = 0; k < count; ++k) m[i + k + (i + k) * ldm] = 1.0;
    dense_kernels().solve_right(count, i + count, lt, ldt, m + i, ldm);
}

// Height of the pieces in which triangles of this width are worked on: multiples of the column blocks.
int piece_height(int width) {
    return std::max(block, width / 10 / block * block);
}

// Copies the lower triangle of a square onto the upper one.
void mirror(int n, double* a, std::ptrdiff_t ld) {
    for (int j = 0; j < n; j += block)
        for (int i = j; i < n; i += block) {
            const int nj = std::min(block, n - j), ni = std::min(block, n - i);
            if (i > j)
                dense_kernels().transpose(ni, nj, a + i + j * ld, ld, a + j + i * ld, ld);
            else
                for (int q = 0; q < nj; ++q)
                    for (int k = q + 1; k < nj; ++k) a[j + q + (j + k) * ld] = a[j + k + (j + q) * ld];
        }
}

// Z11 = inv(L11)' inv(L11) - Y' Z21. p: L11 with its transpose in the upper triangle.
void invert_corner(const inverse_front& f, const double* p, std::ptrdiff_t ld, const double* yt, std::ptrdiff_t ldy,
                   inverse_work& w) {
    const dense_kernels_table& kernel = dense_kernels();
    const int n = f.width, high = piece_height(n);
    const std::ptrdiff_t ldm = column_distance(n), ldd = column_distance(high);
    double* m = w.m.get(); // lower triangle inv(L11), upper its transpose
    for (int i = 0; i < n; i += high) invert_rows(i, std::min(high, n - i), p, ld, m, ldm);
    mirror(n, m, ldm);
    double *d = w.corner.get(), *c = w.piece.get();
    for (int j = 0; j < n; j += high) {
        const int nj = std::min(high, n - j);
        const std::ptrdiff_t ldc = column_distance(n - j);
        for (int i = j; i < n; i += high) {
            const int ni = std::min(high, n - i), rest = n - i - ni;
            for (int k = 0; k < ni; ++k) {
                std::copy_n(m + i + (i + k) * ldm, k + 1, d + k * ldd);
                std::fill_n(d + k + 1 + k * ldd, ni - k - 1, 0.0);
            }
            double* to = c + i - j;
            if (i == j)
                kernel.product(store_mode::set, ni, nj, ni, d, ldd, d, ldd, to, ldc);
            else
                kernel.product(store_mode::set, ni, nj, ni, d, ldd, m + j + i * ldm, ldm, to, ldc);
            if (rest > 0)
                kernel.product(store_mode::add, ni, nj, rest, m + i + (i + ni) * ldm, ldm, m + j + (i + ni) * ldm, ldm, to, ldc);
        }
        if (f.below > 0)
            kernel.product(store_mode::subtract, n - j, nj, f.below, yt + j, ldy, f.z + j + n * f.ldz, f.ldz, c, ldc);
        for (int k = 0; k < nj; ++k) std::copy_n(c + k + k * ldc, n - j - k, f.z + j + k + (j + k) * f.ldz);
    }
    mirror(n, f.z, f.ldz);
}

// Writes the supernode's columns of the inverse, or of the derivatives if x is given.
void save_columns(const inverse_front& f, const inverse_work& w, array<double>& zdiag, array<double>& zoff, const double* x) {
    const int n = numbers.nsrow;
    for (int c = 0; c < f.width; ++c) {
        const int j = f.col[c], start = sparse.ixvec1(j);
        int count = rows_below(j);
        const int* list = count > 0 ? row_list(j) : nullptr;
        const double* z = f.z + c * f.ldz;
        double* off = zoff.data() + start - 1;
        if (f.rhs && count > 0 && list[count - 1] == n) {
            --count;
            off[count] = x ? -x[j - 1] : sparse.xspars(start + count) / sparse.diag(j);
        }
        if (!x) {
            for (int q = 0; q < count; ++q) off[q] = z[w.local[list[q]]];
            zdiag(j) = z[c];
        } else {
            const double xj = x[j - 1];
            for (int q = 0; q < count; ++q) off[q] = z[w.local[list[q]]] + xj * x[list[q] - 1];
            zdiag(j) = 0.5 * (z[c] + xj * xj);
        }
    }
}

// The block for the rows below, out of the parent's.
void take_parent(const inverse_front& f, const inverse_front& from, inverse_work& w) {
    place_rows(from, w.local);
    match_rows(f.list, f.below, w.local, w.place.data(), w.runs.data());
    for (int j = 0; j < f.below; ++j)
        dense_kernels().take_rows(f.below, w.place.data(), w.runs.data(), from.z + w.place[j] * from.ldz,
                                  f.z + f.width + (f.width + j) * f.ldz);
}

void invert_front(const inverse_front& f, inverse_work& w) {
    const dense_kernels_table& kernel = dense_kernels();
    const std::ptrdiff_t ld = panel_distance(f), ldy = column_distance(f.width);
    double *p = w.panel.get() + f.shift, *yt = w.yt.get(), *z21 = f.z + f.width;
    place_rows(f, w.local);
    if (f.rhs) w.local[numbers.nsrow] = f.rows(); // loaded, and not used
    front whole = f;
    whole.below += f.rhs ? 1 : 0;
    load_panel(whole, w.local, p, ld);
    mirror(f.width, p, ld);
    if (f.below > 0) {
        kernel.solve_right(f.below, f.width, p, ld, p + f.width, ld);
        kernel.transpose(f.below, f.width, p + f.width, ld, yt, ldy);
        kernel.product(store_mode::set_minus, f.below, f.width, f.below, f.z + f.width + f.width * f.ldz, f.ldz, yt, ldy, z21,
                       f.ldz);
        kernel.transpose(f.below, f.width, z21, f.ldz, f.z + f.width * f.ldz, f.ldz);
    }
    invert_corner(f, p, ld, yt, ldy, w);
}

} // namespace

void inverse_supernodes(array<double>& zdiag, array<double>& zoff, const double* x, const char* word) {
    const supernode_tree& tree = supernodes();
    const int ns = static_cast<int>(tree.parent.size()), n = numbers.nsrow;
    if (n == 0) return;
    inverse_work w;
    w.local.assign(n + 1, 0);
    w.place.resize(tree.rows);
    w.runs.resize(tree.rows);
    w.square.assign(ns, nullptr);
    const int high = piece_height(tree.width);
    w.panel = make_space(tree.panel);
    w.yt = make_space(tree.rows_by_width);
    w.m = make_space(tree.width * column_distance(tree.width));
    w.piece = make_space(high * column_distance(tree.width));
    w.corner = make_space(high * column_distance(high));
    for (int i = 0; i < 2; ++i) {
        w.stack[i] = make_space(tree.squares[i]);
        w.top[i] = w.stack[i].get();
    }
    if (x)
        zdiag(n) = 0.5;
    else
        zdiag(n) = sparse.diag(n) * sparse.diag(n);
    const int total = x ? n : n - 1; // the sweep of the derivatives starts with row n
    int todo = n;                    // columns not yet done
    for (int s = ns - 1; s >= 0; --s) {
        inverse_front f = inverse_front_of(tree, s);
        for (const int end = todo - f.width; todo > end; --todo)
            if (todo % 20000 == 0 && !options.terse && (x || todo < total)) print_list(screen(), word, todo, total);
        if (f.col[0] == n) continue;
        const int odd = tree.level[s] % 2, p = tree.parent[s];
        f.z = w.square[s] = w.top[odd];
        w.top[odd] += square_size(f);
        f.z += f.shift;
        if (f.below > 0) {
            inverse_front from = inverse_front_of(tree, p);
            from.z = w.square[p] + from.shift;
            take_parent(f, from, w);
        }
        if (p >= 0 && tree.child[p] == s && w.square[p]) w.top[1 - odd] = w.square[p];
        invert_front(f, w);
        save_columns(f, w, zdiag, zoff, x);
        if (tree.child[s] < 0) w.top[odd] = w.square[s];
    }
}

} // namespace tarvex
