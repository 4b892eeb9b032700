// Sums over what a best point belongs to: the parts of the model, and the data and pedigree as recoded.
#pragma once
#include "support/digest.h"

#include <array>
#include <string_view>

namespace tarvex {

struct modelsums_module {
    digest analysis;
    digest traits;
    digest effects;  // of each trait in their order, with their options
    digest blocks;   // covariance blocks in their order: size, rank, form, residual covariances kept at zero
    digest data;     // not known in runs that do not look at the data
    digest pedigree; // neither
};
inline modelsums_module modelsums;

// Parts by their names in BestPoint. The first four are known in every run.
struct sum_part {
    std::string_view name;
    digest modelsums_module::*sum;
    bool of_inputs;
};
inline constexpr std::array<sum_part, 6> sum_parts{{{"analysis", &modelsums_module::analysis, false},
                                                    {"traits", &modelsums_module::traits, false},
                                                    {"effects", &modelsums_module::effects, false},
                                                    {"blocks", &modelsums_module::blocks, false},
                                                    {"data", &modelsums_module::data, true},
                                                    {"pedigree", &modelsums_module::pedigree, true}}};

// From the parameter file, with its starting values still in model.cov.
void sum_model();
// From recoded1.bin, recoded2.bin and the pruned pedigrees.
void sum_inputs();

} // namespace tarvex
