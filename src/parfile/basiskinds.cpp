#include "parfile/basiskinds.h"

#include <array>

namespace tarvex {

namespace {

constexpr std::array<const char*, 5> names{"POL", "LEG", "BSP", "SPL", "USR"}; // in the order of the kinds

} // namespace

const char* name_of(basis_kind kind) {
    const auto k = static_cast<std::size_t>(kind);
    return k < names.size() ? names[k] : "";
}

std::optional<basis_kind> basis_named(std::string_view word) {
    for (std::size_t k = 0; k < names.size(); ++k)
        if (word == names[k]) return static_cast<basis_kind>(k);
    return std::nullopt;
}

} // namespace tarvex
