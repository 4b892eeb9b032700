// Dense kernels of the supernodal routines, compiled once for each instruction set and chosen at run time.
//
// Matrices are stored by columns. Kernels work on whole vectors of rows: an operand's columns must be readable, and a
// result's writable, up to the next multiple of `lane` rows above its first; what stands in these rows means nothing.
// Triangles of order m that are updated by their lower half are kept in column blocks of `block` columns, each from the
// row of its first column on (K. Goto and R. A. van de Geijn, ACM TOMS 34:12, 2008, for the blocking of the products).
#pragma once
#include <cstddef>

namespace tarvex {

constexpr int lane = 8;           // rows are padded to the longest vector of doubles
constexpr int wide = 240;         // columns of a supernode worked on at a time; a multiple of block
constexpr int broad = 4 * wide;   // columns of a large front that take its finished columns at a time
constexpr int solve_columns = 16; // right-hand sides solved for together: two cache lines for each equation
constexpr int few_columns = 8;    // the same where threads share a block
constexpr int block = 48;         // columns of a block; a multiple of the tile heights of all instruction sets

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

// Work space of the kernels; a caller that has another kernel at work at the same time gives each its own.
//   each   nullptr: pieces of a kernel are worked on in turn; else calls body(arg, i, scratch) for i = 0..count-1, in
//          any order and by several threads, each with a scratch of its own, and returns when all are done
constexpr int packed_rows = 240;  // rows of A held in the second-level cache
constexpr int packed_depth = 256; // columns of A and B multiplied at a time
constexpr std::ptrdiff_t scratch_size = packed_rows * packed_depth;
constexpr std::ptrdiff_t corner_size = column_distance(block + lane) * block;
constexpr std::ptrdiff_t kernel_space_size = scratch_size + broad * packed_depth + corner_size;
struct kernel_space {
    double* scratch = nullptr;  // (scratch_size)
    double* packed_b = nullptr; // (broad*packed_depth)
    double* corner = nullptr;   // (corner_size)
    using piece = void (*)(const void* arg, int i, double* scratch);
    void (*each)(void* pool, int count, piece body, const void* arg) = nullptr;
    void* pool = nullptr;
};

enum class store_mode { subtract, add, set_minus, set }; // C -= AB', C += AB', C = -AB', C = AB'

struct dense_kernels_table {
    const char* name;
    // C (m x n) from A (m x k) and B (n x k).
    void (*product)(const kernel_space& w, store_mode mode, int m, int n, int k, const double* a, std::ptrdiff_t lda,
                    const double* b, std::ptrdiff_t ldb, double* c, std::ptrdiff_t ldc);
    // Triangle u (m x m, column blocks) = -A A', A (m x k), or -= with mode subtract. Lower half; anything may be left
    // above the diagonal.
    void (*minus_square)(const kernel_space& w, store_mode mode, int m, int k, const double* a, std::ptrdiff_t lda,
                         double* u);
    // Lower part of C (m x n) -= A B', B the first n rows of A (m x k), whose columns stand anywhere, a(0..k-1); n <=
    // broad. Nothing is read behind row m of A.
    void (*minus_columns)(const kernel_space& w, int m, int n, int k, const double* const* a, double* c,
                          std::ptrdiff_t ldc);
    // C (m x n) = -U B' for the symmetric matrix whose triangle is u, B (n x m), n <= broad.
    void (*minus_symmetric)(const kernel_space& w, int m, int n, const double* u, const double* b, std::ptrdiff_t ldb,
                            double* c, std::ptrdiff_t ldc);
    // Panel of m rows and n columns, m >= n: the Cholesky factor of its first n rows, and the solution X of X L' = P
    // below them. Columns take lane further rows below m. Returns the first column whose pivot is not at least `limit`,
    // with this pivot, n if there is none; columns from there on are not to be used.
    int (*factor_panel)(const kernel_space& w, int m, int n, double* p, std::ptrdiff_t ld, double limit, double& pivot);
    // Y (m x n) is replaced by Y L^-1; lt = L' by columns, upper triangle.
    void (*solve_right)(const kernel_space& w, int m, int n, const double* lt, std::ptrdiff_t ldt, double* y,
                        std::ptrdiff_t ldy);
    // t (n x m) = transpose of a (m x n).
    void (*transpose)(int m, int n, const double* a, std::ptrdiff_t lda, double* t, std::ptrdiff_t ldt);
    // dst(place(i)) += src(i), i from..m-1; place ascends, runs(i) is the number of rows from i on that stay together.
    void (*add_rows)(int from, int m, const int* place, const int* runs, const double* src, double* dst);
    // dst(i) = src(place(i)), i = from..m-1.
    void (*take_rows)(int from, int m, const int* place, const int* runs, const double* src, double* dst);
    // Row r of x -= l(q) s, for q = 0..m-1, r = rows(q)-1; and the same for four columns of the factor with the same
    // rows: l(0..3), and s one row for each. Rows are of solve_columns, or of few_columns; digits are the same.
    struct spread {
        void (*rows)(int m, const int* rows, const double* l, const double* s, double* x);
        void (*four)(int m, const int* rows, const double* const* l, const double* s, double* x);
    } spread_all, spread_few;
};

// The kernels of an instruction set by its name ("baseline", "avx2", "avx512"), of the best that the processor has for
// "". nullptr if this processor or build does not have it.
const dense_kernels_table* find_kernels(const char* name);

} // namespace tarvex
