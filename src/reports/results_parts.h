// Parts of Results.json.
#pragma once
#include <nlohmann/json_fwd.hpp>

namespace tarvex {

nlohmann::ordered_json input_sums(); // of the files noted at the start

nlohmann::ordered_json trait_list();
nlohmann::ordered_json effect_list();   // fixed and extra effects, covariables
nlohmann::ordered_json block_list();    // covariance blocks with the rows of their matrices, control variables, bases
nlohmann::ordered_json estimate_list(); // covariances in the order of ListofCovs
nlohmann::ordered_json function_list(); // variances, covariances, ratios and correlations of all blocks
nlohmann::ordered_json phenotype_list();
nlohmann::ordered_json user_function_list();
nlohmann::ordered_json solution_list(); // fixed and random

} // namespace tarvex
