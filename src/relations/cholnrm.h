// Cholesky factor of the relationship matrix, row by row from the pedigree: cholnrm<d>.bin.
#pragma once
#include <cstdint>
#include <vector>

namespace tarvex {

struct cholnrm_module {
    std::int64_t maxlzhz = 294000000; // most off-diagonal elements of a factor
};
inline cholnrm_module cholnrm;

// Writes the factor of each relationship matrix in use; one of the same size is taken over. Needs the inbreeding
// coefficients of this run.
void cholnrm_animal();
// y = A x for relationship matrix irun through the pedigree, A = T D T', in linear time; x and y by animal of the
// pruned list (0-based vectors). Inbreeding coefficients are computed where the inverse was taken over from an earlier
// run.
void nrm_product(int irun, const std::vector<double>& x, std::vector<double>& y);

} // namespace tarvex
