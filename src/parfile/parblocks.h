// The blocks of the parameter file: what their readers share. Internal to the reader of the parameter file.
#pragma once
#include "parfile/parlines.h"
#include "support/array.h"

#include <string>
#include <vector>

namespace tarvex {

struct par_state {
    par_lines lines;
    bool analysis_set = false, data_spec = false, model_set = false, traits_set = false, nrm_set = false;
    int ntraits = 0;                         // TR lines of the model block
    int maxblocks = 0;                       // distinct names of random effects
    std::vector<std::string> start_tokens;   // numbers of the file of starting values
    std::size_t start_at = 0;                // those used up
    array<std::vector<double>, 1, 0> values; // (0:maxblocks) covariances by block, 0 residual
    std::string by_record;                   // PEQ effect of a block with the word REC
};

// Trait numbers behind the current token; none means all traits.
std::vector<int> get_traitnos(par_lines& p);

void read_data(par_state& s);      // DAT
void read_model(par_state& s);     // MOD
void read_covars(par_state& s);    // VAR
void store_covars(par_state& s);   // closes: values to model.cov, arrays cut to the blocks read
void read_starting(par_state& s);  // STA
void read_zerout(par_state& s);    // ZER
void read_pseudofix(par_state& s); // PSE
void read_usrcovs(par_state& s);   // SE+

} // namespace tarvex
