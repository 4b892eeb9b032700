// Kinds of the terms of a formula, and of the effects of a study.
#pragma once
#include <string_view>

namespace tvx {

// random: independent levels; pe: independent, of the animal; nrm, sire, mgs: by the pedigree; gin: by a supplied
// matrix. A study has effects of the kinds from fixed to gin.
enum class term_kind { mean, fixed, covariable, random, nrm, pe, sire, mgs, gin, residual };

// Related by the pedigree ?
bool by_pedigree(term_kind kind);

// Word of study.json for a kind: as it is named above.
const char* name_of(term_kind kind);
// Kind of a word. Throws std::invalid_argument for any other.
term_kind term_named(std::string_view word);

} // namespace tvx
