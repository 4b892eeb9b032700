#include "sparse/dense_kernels.h"

#include <cstdlib>
#include <cstring>

namespace tarvex {

extern const dense_kernels_table dense_kernels_base, dense_kernels_avx2, dense_kernels_avx512;

namespace {

const dense_kernels_table* chosen = nullptr;

// The table of this name if the processor has it; the best one for "".
const dense_kernels_table* find_kernels(const char* name) {
    const bool any = *name == 0;
    auto wanted = [&](const char* s) { return any || std::strcmp(name, s) == 0; };
#ifdef TVX_X86_KERNELS
    __builtin_cpu_init();
    if (wanted("avx512") && __builtin_cpu_supports("avx512f")) return &dense_kernels_avx512;
    if (wanted("avx2") && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return &dense_kernels_avx2;
#endif
    return wanted("baseline") ? &dense_kernels_base : nullptr;
}

} // namespace

bool set_instruction_set(const char* name) {
    const char* wanted = std::getenv("TVX_ISA");
    const dense_kernels_table* found = nullptr;
    if (*name == 0 && wanted) found = find_kernels(wanted);
    if (!found) found = find_kernels(name);
    if (found) chosen = found;
    return found != nullptr;
}

const dense_kernels_table& dense_kernels() {
    if (!chosen) set_instruction_set("");
    return *chosen;
}

} // namespace tarvex
