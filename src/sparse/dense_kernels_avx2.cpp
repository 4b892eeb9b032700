// Dense kernels for processors with AVX2 and FMA.
#if defined(__AVX2__) && defined(__FMA__)
#define TVX_KERNELS dense_kernels_avx2
#define TVX_NAME "avx2"
#define TVX_LANES 4
#define TVX_VECTORS 3
#define TVX_WIDTH 4
#include "sparse/dense_kernels_body.h"
#endif
