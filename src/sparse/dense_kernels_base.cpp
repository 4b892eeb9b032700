// Dense kernels for any processor: vectors of two doubles.
#define TVX_KERNELS dense_kernels_base
#define TVX_NAME "baseline"
#define TVX_LANES 2
#define TVX_VECTORS 3
#define TVX_WIDTH 4
#include "sparse/dense_kernels_body.h"
