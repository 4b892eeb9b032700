// Kinds of covariance structure between the levels of a random effect, and of classes of residual variances.
#pragma once
#include <string>
#include <string_view>

namespace tarvex {

// By pedigree, by a supplied inverse, independent levels; peq: permanent environment that goes into the residual.
enum class covariance_kind { none, nrm, gin, ide, peq };

// Word of the parameter file for a kind: NRM, GIN, IDE, PEQ; empty for none.
const char* name_of(covariance_kind kind);
// Kind of a word; none for any other.
covariance_kind kind_named(std::string_view word);
inline std::string list_item(covariance_kind kind) { return name_of(kind); }

// Residual variances along the control variable: one, by intervals of it, by classes of its values in a file, by a
// function. None but in random regression analyses.
enum class residual_kind { none, hom, het, ind, fun };

// Word of the parameter file: HOM, HET, IND, FUN; empty for none.
const char* name_of(residual_kind kind);
// Kind of a word; none for any other.
residual_kind residual_named(std::string_view word);

} // namespace tarvex
