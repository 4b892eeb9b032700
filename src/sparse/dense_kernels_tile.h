// Tiles of products: what the dense kernels keep in registers. Included by their body, for one instruction set.
#pragma once
#include "sparse/dense_kernels.h"

namespace tarvex {

namespace {

using place_t = std::ptrdiff_t;
constexpr int lanes = TVX_LANES, vectors = TVX_VECTORS, tile_width = TVX_WIDTH, tile_height = lanes * vectors;

typedef double vec __attribute__((vector_size(8 * TVX_LANES), aligned(8), may_alias));

inline vec load(const double* p) { return *reinterpret_cast<const vec*>(p); }
inline void save(double* p, vec v) { *reinterpret_cast<vec*>(p) = v; }
inline int least(int a, int b) { return a < b ? a : b; }

// One tile of C, MV vectors high and NR columns wide, held in registers over all k.
template <int MV, int NR>
void tile(store_mode mode, int k, const double* a, place_t lda, const double* b, place_t ldb, double* c, place_t ldc) {
    vec acc[NR][MV];
#pragma GCC unroll 8
    for (int j = 0; j < NR; ++j)
#pragma GCC unroll 8
        for (int i = 0; i < MV; ++i) acc[j][i] = vec{};
    // sums long enough for C to arrive meanwhile
    if (k >= 32)
#pragma GCC unroll 8
        for (int j = 0; j < NR; ++j)
#pragma GCC unroll 8
            for (int i = 0; i < MV; ++i) __builtin_prefetch(c + j * ldc + i * lanes, 1);
    for (int p = 0; p < k; ++p, a += lda, b += ldb) {
        vec va[MV];
#pragma GCC unroll 8
        for (int i = 0; i < MV; ++i) va[i] = load(a + i * lanes);
#pragma GCC unroll 8
        for (int j = 0; j < NR; ++j)
#pragma GCC unroll 8
            for (int i = 0; i < MV; ++i) acc[j][i] += va[i] * b[j];
    }
    const double sign = mode == store_mode::subtract || mode == store_mode::set_minus ? -1.0 : 1.0;
    if (mode == store_mode::subtract || mode == store_mode::add) {
#pragma GCC unroll 8
        for (int j = 0; j < NR; ++j)
#pragma GCC unroll 8
            for (int i = 0; i < MV; ++i) {
                double* at = c + j * ldc + i * lanes;
                save(at, load(at) + acc[j][i] * sign);
            }
    } else {
#pragma GCC unroll 8
        for (int j = 0; j < NR; ++j)
#pragma GCC unroll 8
            for (int i = 0; i < MV; ++i) save(c + j * ldc + i * lanes, acc[j][i] * sign);
    }
}

// The mode of the later pieces of a product whose first piece has this mode.
inline store_mode going_on(store_mode mode) {
    return mode == store_mode::subtract || mode == store_mode::set_minus ? store_mode::subtract : store_mode::add;
}

using tile_routine = void (*)(store_mode, int, const double*, place_t, const double*, place_t, double*, place_t);

template <int MV> constexpr tile_routine tile_of_width(int nr) {
    switch (nr) {
    case 1:
        return tile<MV, 1>;
    case 2:
        return tile<MV, 2>;
    case 3:
        return tile<MV, 3>;
    case 4:
        return tile<MV, 4>;
#if TVX_WIDTH > 4
    case 5:
        return tile<MV, 5>;
    case 6:
        return tile<MV, 6>;
    case 7:
        return tile<MV, 7>;
    case 8:
        return tile<MV, 8>;
#endif
    }
    return nullptr;
}

struct tile_routines {
    tile_routine of[vectors + 1][tile_width + 1];
    constexpr tile_routines() : of() {
        for (int j = 1; j <= tile_width; ++j) {
            of[1][j] = tile_of_width<1>(j);
            of[2][j] = tile_of_width<2>(j);
            of[3][j] = tile_of_width<3>(j);
        }
    }
};
static_assert(vectors == 3);
constexpr tile_routines tiles;

// One column strip of tiles, rows 0..m-1; operands at distance lda, or in panels of full tiles when packed.
void strip(store_mode mode, int m, int n, int k, const double* a, place_t lda, bool packed, const double* b,
           place_t ldb, double* c, place_t ldc) {
    int i = 0;
    const tile_routine full = tiles.of[vectors][n];
    for (; i + tile_height <= m; i += tile_height)
        full(mode, k, packed ? a + static_cast<place_t>(i) * k : a + i, packed ? tile_height : lda, b, ldb, c + i, ldc);
    // the last tile is as many whole vectors high as its rows need
    const int left = (m - i + lanes - 1) / lanes;
    if (left == vectors)
        full(mode, k, packed ? a + static_cast<place_t>(i) * k : a + i, packed ? tile_height : lda, b, ldb, c + i, ldc);
    else if (left > 0)
        tiles.of[left][n](mode, k, packed ? a + static_cast<place_t>(i) * k : a + i, packed ? left * lanes : lda, b,
                          ldb, c + i, ldc);
}

} // namespace

} // namespace tarvex
