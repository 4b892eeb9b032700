// Kinds of covariance structure between the levels of a random effect.
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

} // namespace tarvex
