#include "yardstick.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <unistd.h>

extern "C" void openblas_set_num_threads(int);
extern "C" char* openblas_get_corename();

namespace tarvex {

namespace {

// Width of the kernels: 3 AVX-512, 2 AVX2 with FMA, 1 anything else.
int level_of(std::string_view core) {
    constexpr std::array<std::string_view, 3> wide{"SkylakeX", "Cooperlake", "SapphireRapids"};
    constexpr std::array<std::string_view, 3> middle{"Haswell", "Zen", "Excavator"};
    if (std::find(wide.begin(), wide.end(), core) != wide.end()) return 3;
    return std::find(middle.begin(), middle.end(), core) != middle.end() ? 2 : 1;
}

int level_of_processor() {
#if defined(__x86_64__)
    const bool avx512 = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
                        __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl");
    if (avx512) return 3;
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") ? 2 : 1;
#else
    return 1;
#endif
}

} // namespace

bool honest_openblas(char** argv) {
    constexpr std::array<const char*, 4> best{"", "", "Haswell", "SkylakeX"};
    const int can = level_of_processor();
    const std::string_view core = openblas_get_corename();
    if (level_of(core) < can && !std::getenv("TVX_BLAS_STARTED_ANEW")) {
        setenv("OPENBLAS_CORETYPE", best[static_cast<std::size_t>(can)], 1);
        setenv("TVX_BLAS_STARTED_ANEW", "1", 1);
        execv("/proc/self/exe", argv);
    }
    openblas_set_num_threads(1);
    std::printf("blas %s\n", core.data());
    std::fflush(stdout);
    const bool honest = level_of(core) >= can;
    if (!honest) std::puts("OpenBLAS takes kernels below what the processor can run: no ratios to CHOLMOD");
    return honest;
}

void set_openblas_threads(int threads) { openblas_set_num_threads(threads); }

} // namespace tarvex
