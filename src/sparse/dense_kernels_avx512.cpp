// Dense kernels for processors with AVX-512.
#if defined(__AVX512F__)
#define TVX_KERNELS dense_kernels_avx512
#define TVX_NAME "avx512"
#define TVX_LANES 8
#define TVX_VECTORS 3
#define TVX_WIDTH 8
#include "sparse/dense_kernels_body.h"
#endif
