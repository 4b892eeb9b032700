// Kinds of basis functions of regressions, fixed (covariables) and random.
#pragma once
#include <optional>
#include <string_view>

namespace tarvex {

// Powers, Legendre polynomials, B-splines, truncated power functions, the user's table.
enum class basis_kind { pol, leg, bsp, spl, usr };

// Word of the parameter file for a kind, and of the names of tables: POL, LEG, BSP, SPL, USR. Empty for no kind.
const char* name_of(basis_kind kind);
// Kind of a word; nothing for any other.
std::optional<basis_kind> basis_named(std::string_view word);

} // namespace tarvex
