#include "parfile/covkinds.h"

#include <array>

namespace tarvex {

namespace {

constexpr std::array<const char*, 5> names{"", "NRM", "GIN", "IDE", "PEQ"}; // in the order of the kinds

} // namespace

const char* name_of(covariance_kind kind) { return names[static_cast<std::size_t>(kind)]; }

covariance_kind kind_named(std::string_view word) {
    for (std::size_t k = 1; k < names.size(); ++k)
        if (word == names[k]) return static_cast<covariance_kind>(k);
    return covariance_kind::none;
}

} // namespace tarvex
