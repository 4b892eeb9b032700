// Cholesky factor of the relationship matrix, row by row from the pedigree: cholnrm<d>.bin.
#pragma once
#include <cstdint>
#include <vector>

namespace tarvex {

struct cholnrm_module {
    std::int64_t maxlzhz = 294000000; // most off-diagonal elements of a factor
};
inline cholnrm_module cholnrm;

// Writes the factor of each relationship matrix in use (option --super: the estimation itself goes through the
// pedigree); one of the same pedigree is taken over.
void cholnrm_animal();
// y = A x for relationship matrix irun through the pedigree, A = T D T', in linear time; x and y by animal of the
// pruned list (0-based vectors). Parents stand before their offspring. Sires go by the rules for them.
void nrm_product(int irun, const std::vector<double>& x, std::vector<double>& y);

} // namespace tarvex
