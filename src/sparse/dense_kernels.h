// Dense kernels of the supernodal routines, compiled once for each instruction set and chosen at run time.
//
// Matrices are stored by columns. Kernels work on whole vectors of rows: an operand's columns must be readable, and a
// result's writable, up to the next multiple of `lane` rows above its first; what stands in these rows means nothing.
// Triangles of order m that are updated by their lower half are kept in column blocks of `block` columns, each from the
// row of its first column on (K. Goto and R. A. van de Geijn, ACM TOMS 34:12, 2008, for the blocking of the products).
#pragma once
#include <cstddef>

namespace tarvex {

constexpr int lane = 8;         // rows are padded to the longest vector of doubles
constexpr int wide = 240;       // columns of a supernode worked on at a time; a multiple of block
constexpr int broad = 4 * wide; // columns of a large front that take its finished columns at a time
constexpr int block = 48;       // columns of a block; a multiple of the tile heights of all instruction sets

constexpr std::ptrdiff_t padded(std::ptrdiff_t rows) { return (rows + lane - 1) / lane * lane; }
// Distance of columns for `rows` rows: an odd number of cache lines, which spreads a row over the cache.
constexpr std::ptrdiff_t column_distance(std::ptrdiff_t rows) { return padded(rows) | lane; }

// Triangle of order m in column blocks: its size, and column j such that element (i,j), i >= j, is at [i].
constexpr std::ptrdiff_t triangle_start(std::ptrdiff_t m, std::ptrdiff_t b) {
    return block * (b * padded(m) - block / 2 * b * (b - 1));
}
constexpr std::ptrdiff_t triangle_size(std::ptrdiff_t m) {
    if (m == 0) return 0;
    const std::ptrdiff_t b = (m - 1) / block;
    return triangle_start(m, b) + (m - b * block) * (padded(m) - b * block);
}
template <class T> T* triangle_column(T* u, std::ptrdiff_t m, std::ptrdiff_t j) {
    const std::ptrdiff_t b = j / block;
    return u + triangle_start(m, b) + (j - b * block) * (padded(m) - b * block) - b * block;
}

enum class store_mode { subtract, add, set_minus, set }; // C -= AB', C += AB', C = -AB', C = AB'

struct dense_kernels_table {
    const char* name;
    // C (m x n) from A (m x k) and B (n x k).
    void (*product)(store_mode mode, int m, int n, int k, const double* a, std::ptrdiff_t lda, const double* b,
                    std::ptrdiff_t ldb, double* c, std::ptrdiff_t ldc);
    // Triangle u (m x m, column blocks) = -A A', A (m x k), or -= with mode subtract. Lower half; anything may be left
    // above the diagonal.
    void (*minus_square)(store_mode mode, int m, int k, const double* a, std::ptrdiff_t lda, double* u);
    // Lower part of C (m x n) -= A B', B the first n rows of A (m x k), whose columns stand anywhere, a(0..k-1); n <=
    // broad. Nothing is read behind row m of A.
    void (*minus_columns)(int m, int n, int k, const double* const* a, double* c, std::ptrdiff_t ldc);
    // C (m x n) = -U B' for the symmetric matrix whose triangle is u, B (n x m), n <= broad.
    void (*minus_symmetric)(int m, int n, const double* u, const double* b, std::ptrdiff_t ldb, double* c,
                            std::ptrdiff_t ldc);
    // Panel of m rows and w columns, m >= w: the Cholesky factor of its first w rows, and the solution X of X L' = P
    // below them. Columns take lane further rows below m. Returns the first column whose pivot is not at least `limit`,
    // with this pivot, w if there is none; columns from there on are not to be used.
    int (*factor_panel)(int m, int w, double* p, std::ptrdiff_t ld, double limit, double& pivot);
    // Y (m x w) is replaced by Y L^-1; lt = L' by columns, upper triangle.
    void (*solve_right)(int m, int w, const double* lt, std::ptrdiff_t ldt, double* y, std::ptrdiff_t ldy);
    // t (n x m) = transpose of a (m x n).
    void (*transpose)(int m, int n, const double* a, std::ptrdiff_t lda, double* t, std::ptrdiff_t ldt);
    // dst(place(i)) += src(i), i from..m-1; place ascends, runs(i) is the number of rows from i on that stay together.
    void (*add_rows)(int from, int m, const int* place, const int* runs, const double* src, double* dst);
    // dst(i) = src(place(i)), i = from..m-1.
    void (*take_rows)(int from, int m, const int* place, const int* runs, const double* src, double* dst);
    // Row r of x (16 a row) -= l(q) s, for q = 0..m-1, r = rows(q)-1; and s -= sum of l(q) times row r.
    void (*spread_rows)(int m, const int* rows, const double* l, const double* s, double* x);
    void (*collect_rows)(int m, const int* rows, const double* l, double* s, const double* x);
    // The same for four columns with the same rows: l(0..3), and s with 16 values for each.
    void (*spread_four)(int m, const int* rows, const double* const* l, const double* s, double* x);
    void (*collect_four)(int m, const int* rows, const double* const* l, double* s, const double* x);
};

// The kernels of the best instruction set that the processor has, or of the one asked for by set_instruction_set or the
// environment variable TVX_ISA ("baseline", "avx2", "avx512").
const dense_kernels_table& dense_kernels();
// "" goes back to that of the environment, or the best; false, and no change, if this processor or build does not have
// it.
bool set_instruction_set(const char* name);

} // namespace tarvex
