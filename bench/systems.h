// Systems for the benchmarks of the sparse kernels.
#pragma once
#include <string>

namespace tarvex {

// Lays the structure of a factor into module sparse, and allocates its values.
//   symbfact.bin          as a run of the program left it
//   directory of a case   data.dat, ped.dat and case.meta of the generator: pattern of its mixed model equations,
//                         ordered by nested dissection
//   grid:N                a grid of N x N points, likewise
void load_structure(const std::string& source);

// Values that make the matrix positive definite, in every place of the pattern; the same at each call.
void set_values();

} // namespace tarvex
