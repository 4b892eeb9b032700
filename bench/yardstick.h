// An honest yardstick: OpenBLAS with the best kernels that the processor can run.
#pragma once

namespace tarvex {

// Sets OpenBLAS to one thread. Where it took kernels below what the processor can run (it does so on processors that it
// does not know), sets OPENBLAS_CORETYPE and starts the program anew. Prints "blas NAME".
// Returns whether ratios to it may be told: false with kernels that are still below the processor.
bool honest_openblas(char** argv);

// Threads of OpenBLAS from here on.
void set_openblas_threads(int threads);

} // namespace tarvex
