#include "sparse/dense_kernels.h"

#include <cstring>

namespace tarvex {

extern const dense_kernels_table dense_kernels_base, dense_kernels_avx2, dense_kernels_avx512;

const dense_kernels_table* find_kernels(const char* name) {
    const bool any = *name == 0;
    auto wanted = [&](const char* s) { return any || std::strcmp(name, s) == 0; };
#ifdef TVX_X86_KERNELS
    __builtin_cpu_init();
    // from the fastest to what every processor has
    if (wanted("avx512") && __builtin_cpu_supports("avx512f")) return &dense_kernels_avx512;
    if (wanted("avx2") && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return &dense_kernels_avx2;
#endif
    return wanted("baseline") ? &dense_kernels_base : nullptr;
}

} // namespace tarvex
