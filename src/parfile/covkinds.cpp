#include "parfile/covkinds.h"

#include <array>

namespace tarvex {

namespace {

// in the order of the kinds; the first is no word
constexpr std::array<const char*, 5> structures{"", "NRM", "GIN", "IDE", "PEQ"};
constexpr std::array<const char*, 5> classes{"", "HOM", "HET", "IND", "FUN"};

template <class kind> kind place_of(std::string_view word, const std::array<const char*, 5>& names) {
    for (std::size_t k = 1; k < names.size(); ++k)
        if (word == names[k]) return static_cast<kind>(k);
    return kind::none;
}

} // namespace

const char* name_of(covariance_kind kind) { return structures[static_cast<std::size_t>(kind)]; }
const char* name_of(residual_kind kind) { return classes[static_cast<std::size_t>(kind)]; }

covariance_kind kind_named(std::string_view word) { return place_of<covariance_kind>(word, structures); }
residual_kind residual_named(std::string_view word) { return place_of<residual_kind>(word, classes); }

} // namespace tarvex
