// The dense kernels, written once. Each translation unit that includes this file defines
//   TVX_KERNELS   name of its table
//   TVX_NAME      name of the instruction set
//   TVX_LANES     doubles in a vector
//   TVX_VECTORS   vectors in the height of a tile
//   TVX_WIDTH     columns of a tile
// and is compiled for its instruction set: nothing here may be an inline function that other units share.
#include "sparse/dense_kernels_tile.h"

namespace tarvex {

namespace {

constexpr int depth = packed_depth;
constexpr int chunk_rows = packed_rows;
constexpr int chunk_cols = broad; // rows of B packed at a time
constexpr place_t small = 24000;  // elements of A that are used where they stand

static_assert(block % tile_height == 0 && chunk_rows % block == 0 && chunk_cols % block == 0 && lane % lanes == 0);

// body(i, scratch) for i = 0..count-1, by whoever the caller lets take part. Pieces must not depend on each other.
template <class F> void each(const kernel_space& w, int count, const F& body) {
    if (count > 1 && w.each) {
        w.each(
            w.pool, count, [](const void* f, int i, double* scratch) { (*static_cast<const F*>(f))(i, scratch); },
            &body);
        return;
    }
    for (int i = 0; i < count; ++i) body(i, w.scratch);
}
inline int pieces(int m, int rows) { return (m + rows - 1) / rows; }

// Rows of A, m in all, packed at a time: the most that the cache holds, or fewer where others take part, so that they
// end together.
inline int rows_at_a_time(const kernel_space& w, int m) {
    if (!w.each) return chunk_rows;
    return m > 16 * block ? 2 * block : block / 2;
}
static_assert(block / 2 % tile_height == 0);

// Rows 0..m-1 of a (m x k) in panels of `height` rows, each by columns; the last panel is as high as whole vectors
// need.
void pack_a(double* packed_a, int m, int k, const double* a, place_t lda) {
    for (int i = 0; i < m; i += tile_height) {
        const int high = least(vectors, (m - i + lanes - 1) / lanes);
        double* to = packed_a + static_cast<place_t>(i) * k;
        for (int p = 0; p < k; ++p, to += high * lanes)
            for (int v = 0; v < high; ++v) save(to + v * lanes, load(a + i + p * lda + v * lanes));
    }
}
void pack_b(double* packed_b, int n, int k, const double* b, place_t ldb) {
    for (int j = 0; j < n; j += tile_width) {
        const int wide = least(tile_width, n - j);
        // a panel of columns j.. stands at j*k, whatever its width
        double* to = packed_b + static_cast<place_t>(j) * k;
        if (wide == tile_width)
            for (int p = 0; p < k; ++p, to += tile_width)
                for (int q = 0; q < tile_width; ++q) to[q] = b[j + p * ldb + q];
        else
            for (int p = 0; p < k; ++p, to += wide)
                for (int q = 0; q < wide; ++q) to[q] = b[j + p * ldb + q];
    }
}

constexpr int strips_of_piece = 8;
constexpr place_t much_to_pack = 30000; // elements of B that repay packing them in pieces

// f(first, end) for columns first..end-1 of B, whole strips of tiles; shared if they are worth it.
template <class F> void by_strips(const kernel_space& w, int n, int k, const F& f) {
    constexpr int step = strips_of_piece * tile_width;
    if (static_cast<place_t>(n) * k < much_to_pack) return f(0, n);
    each(w, pieces(n, step), [&](int piece, double*) { f(piece * step, least(n, (piece + 1) * step)); });
}
void share_pack_b(const kernel_space& w, int n, int k, const double* b, place_t ldb) {
    by_strips(w, n, k, [=](int first, int end) {
        pack_b(w.packed_b + static_cast<place_t>(first) * k, end - first, k, b + first, ldb);
    });
}

void product_unpacked(store_mode mode, int m, int n, int k, const double* a, place_t lda, const double* b, place_t ldb,
                      double* c, place_t ldc) {
    for (int j = 0; j < n; j += tile_width)
        strip(mode, m, least(tile_width, n - j), k, a, lda, false, b + j, ldb, c + j * ldc, ldc);
}

// How the sums of an element are cut depends on the whole product only, never on the piece of C that it stands in: the
// result is the same in however many pieces it is made.
void product(const kernel_space& w, store_mode mode, int m, int n, int k, const double* a, place_t lda, const double* b,
             place_t ldb, double* c, place_t ldc) {
    if (n <= block && k <= 2 * depth) { // too few columns to repay packing: pieces of A that stay in the cache
        if (m <= 0) return;
        const int rows = least(m, static_cast<int>(small / (k > 0 ? k : 1)) / tile_height * tile_height);
        each(w, pieces(m, rows), [=](int piece, double*) {
            const int i = piece * rows;
            product_unpacked(mode, least(rows, m - i), n, k, a + i, lda, b, ldb, c + i, ldc);
        });
        return;
    }
    if (static_cast<place_t>(m) * k <= small) {
        product_unpacked(mode, m, n, k, a, lda, b, ldb, c, ldc);
        return;
    }
    const int rows = rows_at_a_time(w, m);
    for (int jc = 0; jc < n; jc += chunk_cols) {
        const int nc = least(chunk_cols, n - jc);
        for (int pc = 0; pc < k; pc += depth) {
            const int kc = least(depth, k - pc);
            const store_mode mode_now = pc == 0 ? mode : going_on(mode);
            share_pack_b(w, nc, kc, b + jc + pc * ldb, ldb);
            each(w, pieces(m, rows), [&, jc, pc](int piece, double* packed_a) {
                const int ic = piece * rows, mc = least(rows, m - ic);
                pack_a(packed_a, mc, kc, a + ic + pc * lda, lda);
                for (int j = 0; j < nc; j += tile_width) {
                    const int nr = least(tile_width, nc - j);
                    strip(mode_now, mc, nr, kc, packed_a, 0, true, w.packed_b + static_cast<place_t>(j) * kc, nr,
                          c + ic + (jc + j) * ldc, ldc);
                }
            });
        }
    }
}

void minus_square(const kernel_space& w, store_mode first, int m, int k, const double* a, place_t lda, double* u) {
    if (static_cast<place_t>(m) * k <= small) {
        for (int j = 0; j < m; j += tile_width) {
            // the tile that holds the diagonal begins above it: nothing is read there
            const int i0 = j / tile_height * tile_height, b = j / block * block;
            double* c = triangle_column(u, m, j);
            strip(first, m - i0, least(tile_width, m - j), k, a + i0, lda, false, a + j, lda, c + i0, padded(m) - b);
        }
        return;
    }
    const int rows = rows_at_a_time(w, m);
    for (int jc = 0; jc < m; jc += chunk_cols) {
        const int nc = least(chunk_cols, m - jc);
        for (int pc = 0; pc < k; pc += depth) {
            const int kc = least(depth, k - pc);
            const store_mode mode = pc == 0 ? first : store_mode::subtract;
            share_pack_b(w, nc, kc, a + jc + pc * lda, lda);
            each(w, pieces(m - jc, rows), [&, jc, pc](int piece, double* packed_a) {
                const int ic = jc + piece * rows, mc = least(rows, m - ic), end = least(nc, ic + mc - jc);
                pack_a(packed_a, mc, kc, a + ic + pc * lda, lda);
                for (int j = 0; j < end; j += tile_width) {
                    // tiles wholly above the diagonal are left out
                    const int jj = jc + j, skip = jj > ic ? (jj - ic) / tile_height * tile_height : 0;
                    const int nr = least(tile_width, nc - j);
                    strip(mode, mc - skip, nr, kc, packed_a + static_cast<place_t>(skip) * kc, 0, true,
                          w.packed_b + static_cast<place_t>(j) * kc, nr, triangle_column(u, m, jj) + ic + skip,
                          padded(m) - jj / block * block);
                }
            });
        }
    }
}

// As pack_a and pack_b, the first row being row `from` of columns that stand anywhere.
void pack_a_columns(double* packed_a, int m, int k, const double* const* a, int from) {
    for (int i = 0; i < m; i += tile_height) {
        const int high = least(vectors, (m - i + lanes - 1) / lanes), rows = least(m - i, high * lanes);
        double* to = packed_a + static_cast<place_t>(i) * k;
        for (int p = 0; p < k; ++p, to += high * lanes) {
            const double* column = a[p] + from + i;
            if (rows == high * lanes) {
                for (int v = 0; v < high; ++v) save(to + v * lanes, load(column + v * lanes));
                continue;
            }
            for (int q = 0; q < rows; ++q) to[q] = column[q];
            for (int q = rows; q < high * lanes; ++q) to[q] = 0.0;
        }
    }
}
void pack_b_columns(double* packed_b, int first, int end, int k, const double* const* a) {
    for (int j = first; j < end; j += tile_width) {
        const int wide = least(tile_width, end - j);
        double* to = packed_b + static_cast<place_t>(j) * k;
        for (int p = 0; p < k; ++p, to += wide)
            for (int q = 0; q < wide; ++q) to[q] = a[p][j + q];
    }
}

void minus_columns(const kernel_space& w, int m, int n, int k, const double* const* a, double* c, place_t ldc) {
    const int rows = rows_at_a_time(w, m);
    for (int pc = 0; pc < k; pc += depth) {
        const int kc = least(depth, k - pc);
        by_strips(w, n, kc, [&](int first, int end) { pack_b_columns(w.packed_b, first, end, kc, a + pc); });
        each(w, pieces(m, rows), [&, pc](int piece, double* packed_a) {
            const int ic = piece * rows, mc = least(rows, m - ic);
            pack_a_columns(packed_a, mc, kc, a + pc, ic);
            for (int j = 0; j < least(n, ic + mc); j += tile_width) {
                const int skip = j > ic ? (j - ic) / tile_height * tile_height : 0;
                const int nr = least(tile_width, n - j);
                strip(store_mode::subtract, mc - skip, nr, kc, packed_a + static_cast<place_t>(skip) * kc, 0, true,
                      w.packed_b + static_cast<place_t>(j) * kc, nr, c + ic + skip + j * ldc, ldc);
            }
        });
    }
}

constexpr place_t expanded_distance = column_distance(chunk_rows);
static_assert(chunk_rows * expanded_distance + lane <= scratch_size);

// Rows pc..pc+kc-1, columns ic..ic+mc-1 of the triangle u, ic <= pc, as columns of their transpose; the part of a
// diagonal piece that is not stored is filled in.
void expand(double* expanded, const double* u, place_t m, int ic, int mc, int pc, int kc) {
    constexpr int step = 8; // columns taken together, whole in a column block
    for (int j = 0; j < mc; j += step) {
        const int n = least(step, mc - j);
        const double* col = triangle_column(u, m, ic + j) + pc;
        const place_t ld = padded(m) - (ic + j) / block * block;
        int p = 0;
        if (ic == pc) {
            // the diagonal piece: its lower half as it stands, the upper one from the same places
            for (int q = 0; q < n; ++q)
                for (p = j + q; p < kc; ++p) expanded[p + (j + q) * expanded_distance] = col[p + q * ld];
            for (p = j; p < least(j + n, kc); ++p)
                for (int q = 0; q <= p - j; ++q) expanded[j + q + p * expanded_distance] = col[p + q * ld];
        }
        if (n == step)
            for (; p < kc; ++p)
                for (int q = 0; q < step; ++q) expanded[j + q + p * expanded_distance] = col[p + q * ld];
        else
            for (; p < kc; ++p)
                for (int q = 0; q < n; ++q) expanded[j + q + p * expanded_distance] = col[p + q * ld];
    }
}

void minus_symmetric(const kernel_space& w, int m, int n, const double* u, const double* b, place_t ldb, double* c,
                     place_t ldc) {
    for (int pc = 0; pc < m; pc += chunk_rows) {
        const int kc = least(chunk_rows, m - pc);
        const store_mode mode = pc == 0 ? store_mode::set_minus : store_mode::subtract;
        share_pack_b(w, n, kc, b + pc * ldb, ldb);
        each(w, pieces(m, chunk_rows), [&, pc](int piece, double* expanded) {
            const int ic = piece * chunk_rows, mc = least(chunk_rows, m - ic);
            // the piece is on or above the diagonal: its transpose is what the triangle holds
            if (ic <= pc) {
                expand(expanded, u, m, ic, mc, pc, kc);
                for (int j = 0; j < n; j += tile_width) {
                    const int nr = least(tile_width, n - j);
                    strip(mode, mc, nr, kc, expanded, expanded_distance, false,
                          w.packed_b + static_cast<place_t>(j) * kc, nr, c + ic + j * ldc, ldc);
                }
                return;
            }
            for (int q = 0; q < kc; q += block) {
                const int kb = least(block, kc - q);
                const double* a = triangle_column(u, m, pc + q) + ic;
                for (int j = 0; j < n; j += tile_width) {
                    const int nr = least(tile_width, n - j);
                    strip(q == 0 ? mode : store_mode::subtract, mc, nr, kb, a, padded(m) - pc - q, false,
                          w.packed_b + static_cast<place_t>(j) * kc + q * nr, nr, c + ic + j * ldc, ldc);
                }
            }
        });
    }
}

// Rows 0..m-1 of N columns at x: X L' = X for the triangle l (by columns), reciprocals of its diagonal in r.
template <int N> void solve_rows(int m, const double* l, place_t ld, const double* r, double* x, place_t ldx) {
    for (int i = 0; i < m; i += lanes, x += lanes) {
        vec v[N];
#pragma GCC unroll 8
        for (int j = 0; j < N; ++j) v[j] = load(x + j * ldx);
#pragma GCC unroll 8
        for (int j = 0; j < N; ++j) {
            // X L' = P: column j is done, columns behind it get its share
            v[j] *= r[j];
#pragma GCC unroll 8
            for (int k = j + 1; k < N; ++k) v[k] -= v[j] * l[k + j * ld];
        }
#pragma GCC unroll 8
        for (int j = 0; j < N; ++j) save(x + j * ldx, v[j]);
    }
}
// Likewise X L = X, by the transpose lt.
template <int N> void solve_rows_back(int m, const double* lt, place_t ldt, const double* r, double* x, place_t ldx) {
    for (int i = 0; i < m; i += lanes, x += lanes) {
        vec v[N];
#pragma GCC unroll 8
        for (int j = 0; j < N; ++j) v[j] = load(x + j * ldx);
#pragma GCC unroll 8
        for (int j = N - 1; j >= 0; --j) {
            v[j] *= r[j];
#pragma GCC unroll 8
            for (int k = 0; k < j; ++k) v[k] -= v[j] * lt[k + j * ldt];
        }
#pragma GCC unroll 8
        for (int j = 0; j < N; ++j) save(x + j * ldx, v[j]);
    }
}

constexpr int solve_width = tile_width; // columns solved for in registers

using solve_routine = void (*)(int, const double*, place_t, const double*, double*, place_t);

struct solve_routines {
    solve_routine forward[solve_width + 1]{}, back[solve_width + 1]{}; // by number of columns
    template <int N> constexpr void enter() {
        forward[N] = solve_rows<N>;
        back[N] = solve_rows_back<N>;
        if constexpr (N > 1) enter<N - 1>();
    }
    constexpr solve_routines() { enter<solve_width>(); }
};
constexpr solve_routines solves;

constexpr int near_rows = 72; // rows of `block` columns that stay in the first-level cache
constexpr place_t near_elements = lanes == 8 ? 4500 : 12000; // of a panel that is best worked on as a whole
static_assert(near_rows % lane == 0);

// Factor of a triangle of n columns, n <= solve_width; returns the first failing column, n if none.
int factor_small(int n, double* p, place_t ld, double limit, double& pivot, double* r) {
    for (int j = 0; j < n; ++j) {
        const double d = p[j + j * ld];
        if (!(d >= limit)) {
            pivot = d;
            return j;
        }
        p[j + j * ld] = __builtin_sqrt(d);
        r[j] = 1.0 / p[j + j * ld];
        for (int i = j + 1; i < n; ++i) p[i + j * ld] *= r[j];
        for (int k = j + 1; k < n; ++k)
            for (int i = k; i < n; ++i) p[i + k * ld] -= p[i + j * ld] * p[k + j * ld];
    }
    return n;
}

// A panel that stays in the cache, factorised where it stands.
int factor_near(int m, int w, double* p, place_t ld, double limit, double& pivot) {
    const int width = w < 32 ? 4 : solve_width; // a short corner repays less work out of the registers
    double r[solve_width];
    for (int j = 0; j < w; j += width) {
        const int n = least(width, w - j);
        double* d = p + j + j * ld;
        if (j > 0) strip(store_mode::subtract, m - j, n, j, p + j, ld, false, p + j, ld, d, ld);
        // columns j.. have taken those in front of them
        const int good = factor_small(n, d, ld, limit, pivot, r);
        if (good < n) return j + good;
        solves.forward[n](m - j - n, d, ld, r, d + n, ld);
    }
    return w;
}

constexpr place_t corner_distance = column_distance(block + lane);
static_assert(corner_distance * block <= corner_size);
constexpr int rows_of_piece = 4 * near_rows; // what repays handing a piece of a panel to another thread

// A panel of n <= block columns: its corner is factorised in a place of its own, the rows below it in pieces that stay
// in the cache for all columns.
int factor_block(const kernel_space& w, int m, int n, double* p, place_t ld, double limit, double& pivot) {
    double* corner = w.corner;
    for (int j = 0; j < n; ++j) {
        double* to = corner + j * corner_distance;
        for (int i = j; i < n; ++i) to[i] = p[i + j * ld];
        // whole vectors are read below the corner
        for (int i = n; i < n + lane; ++i) to[i] = 0.0;
    }
    const int good = factor_near(n, n, corner, corner_distance, limit, pivot);
    for (int j = 0; j < good; ++j)
        for (int i = j; i < n; ++i) p[i + j * ld] = corner[i + j * corner_distance];
    if (good < n) return good;
    double r[block];
    for (int j = 0; j < n; ++j) r[j] = 1.0 / corner[j + j * corner_distance];
    each(w, pieces(m - n, rows_of_piece), [&](int piece, double*) {
        const int from = n + piece * rows_of_piece, end = least(m, from + rows_of_piece);
        for (int i = from; i < end; i += near_rows) {
            const int rows = least(near_rows, m - i);
            for (int j = 0; j < n; j += solve_width) {
                const int nj = least(solve_width, n - j);
                double* x = p + i + j * ld;
                if (j > 0)
                    strip(store_mode::subtract, rows, nj, j, p + i, ld, false, corner + j, corner_distance, x, ld);
                solves.forward[nj](rows, corner + j + j * corner_distance, corner_distance, r + j, x, ld);
            }
        }
    });
    return n;
}

// The left half first, then the right half less its products (S. Toledo, SIAM J. Matrix Anal. Appl. 18:1065, 1997).
int factor_panel(const kernel_space& w, int m, int n, double* p, place_t ld, double limit, double& pivot) {
    if (static_cast<place_t>(m) * n <= near_elements) return factor_near(m, n, p, ld, limit, pivot);
    if (n <= block) return factor_block(w, m, n, p, ld, limit, pivot);
    const int half = n / 2 / block * block > 0 ? n / 2 / block * block : block;
    const int good = factor_panel(w, m, half, p, ld, limit, pivot);
    if (good < half) return good;
    double* right = p + half + half * ld;
    product(w, store_mode::subtract, m - half, n - half, half, p + half, ld, p + half, ld, right, ld);
    return half + factor_panel(w, m - half, n - half, right, ld, limit, pivot);
}

// Y (m x n) L^-1, n <= block.
void solve_block(const kernel_space& w, int m, int n, const double* lt, place_t ldt, double* y, place_t ldy) {
    double r[block];
    for (int j = 0; j < n; ++j) r[j] = 1.0 / lt[j + j * ldt];
    each(w, pieces(m, rows_of_piece), [&](int piece, double*) {
        const int from = piece * rows_of_piece, end = least(m, from + rows_of_piece);
        for (int i = from; i < end; i += near_rows) {
            const int rows = least(near_rows, m - i);
            // from the last columns to the first
            for (int j = (n - 1) / solve_width * solve_width; j >= 0; j -= solve_width) {
                const int nj = least(solve_width, n - j), next = j + nj;
                double* x = y + i + j * ldy;
                if (next < n)
                    strip(store_mode::subtract, rows, nj, n - next, y + i + next * ldy, ldy, false, lt + j + next * ldt,
                          ldt, x, ldy);
                solves.back[nj](rows, lt + j + j * ldt, ldt, r + j, x, ldy);
            }
        }
    });
}

void solve_right(const kernel_space& w, int m, int n, const double* lt, place_t ldt, double* y, place_t ldy) {
    if (n <= block) return solve_block(w, m, n, lt, ldt, y, ldy);
    const int half = n / 2 / block * block > 0 ? n / 2 / block * block : block;
    solve_right(w, m, n - half, lt + half + half * ldt, ldt, y + half * ldy, ldy);
    product(w, store_mode::subtract, m, half, n - half, y + half * ldy, ldy, lt + half * ldt, ldt, y, ldy);
    solve_right(w, m, half, lt, ldt, y, ldy);
}

void transpose(int m, int n, const double* a, place_t lda, double* t, place_t ldt) {
    constexpr int step = 8;
    for (int j = 0; j < n; j += step) {
        const int nj = least(step, n - j);
        for (int i = 0; i < m; ++i)
            for (int q = 0; q < nj; ++q) t[j + q + i * ldt] = a[i + (j + q) * lda];
    }
}

void add_rows(int from, int m, const int* place, const int* runs, const double* src, double* dst) {
    for (int i = from; i < m;) {
        const int n = runs[i];
        double* to = dst + place[i];
        const double* of = src + i;
        int q = 0;
        for (; q + lanes <= n; q += lanes) save(to + q, load(to + q) + load(of + q));
        for (; q < n; ++q) to[q] += of[q];
        i += n;
    }
}

void take_rows(int from, int m, const int* place, const int* runs, const double* src, double* dst) {
    for (int i = from; i < m;) {
        const int n = runs[i];
        const double* of = src + place[i];
        double* to = dst + i;
        int q = 0;
        for (; q + lanes <= n; q += lanes) save(to + q, load(of + q));
        for (; q < n; ++q) to[q] = of[q];
        i += n;
    }
}

static_assert(solve_columns % lanes == 0 && few_columns % lanes == 0);

template <int columns> void spread_rows(int m, const int* rows, const double* l, const double* s, double* x) {
    constexpr int vectors_of_row = columns / lanes;
    vec v[vectors_of_row];
    for (int c = 0; c < vectors_of_row; ++c) v[c] = load(s + c * lanes);
    for (int q = 0; q < m; ++q) {
        double* xi = x + static_cast<place_t>(rows[q] - 1) * columns;
#pragma GCC unroll 8
        for (int c = 0; c < vectors_of_row; ++c) save(xi + c * lanes, load(xi + c * lanes) - v[c] * l[q]);
    }
}

// The same for four columns of the factor with the same rows, l(k) and a row of s for each.
template <int columns> void spread_four(int m, const int* rows, const double* const* l, const double* s, double* x) {
    constexpr int vectors_of_row = columns / lanes;
    const double *l0 = l[0], *l1 = l[1], *l2 = l[2], *l3 = l[3];
    vec v[4][vectors_of_row];
    for (int k = 0; k < 4; ++k)
        for (int c = 0; c < vectors_of_row; ++c) v[k][c] = load(s + columns * k + c * lanes);
    for (int q = 0; q < m; ++q) {
        double* xi = x + static_cast<place_t>(rows[q] - 1) * columns;
#pragma GCC unroll 8
        for (int c = 0; c < vectors_of_row; ++c)
            save(xi + c * lanes,
                 load(xi + c * lanes) - v[0][c] * l0[q] - v[1][c] * l1[q] - v[2][c] * l2[q] - v[3][c] * l3[q]);
    }
}

} // namespace

extern const dense_kernels_table TVX_KERNELS;
const dense_kernels_table TVX_KERNELS{TVX_NAME,
                                      product,
                                      minus_square,
                                      minus_columns,
                                      minus_symmetric,
                                      factor_panel,
                                      solve_right,
                                      transpose,
                                      add_rows,
                                      take_rows,
                                      {spread_rows<solve_columns>, spread_four<solve_columns>},
                                      {spread_rows<few_columns>, spread_four<few_columns>}};

} // namespace tarvex
