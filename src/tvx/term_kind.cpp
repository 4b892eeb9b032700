#include "tvx/term_kind.h"

#include <array>
#include <stdexcept>

namespace tvx {

namespace {

constexpr std::array<const char*, 10> names{"mean", "fixed", "covariable", "random", "nrm",
                                            "pe",   "sire",  "mgs",        "gin",    "residual"}; // in their order

} // namespace

bool by_pedigree(term_kind kind) { return kind == term_kind::nrm || kind == term_kind::sire || kind == term_kind::mgs; }

const char* name_of(term_kind kind) { return names[static_cast<std::size_t>(kind)]; }

term_kind term_named(std::string_view word) {
    for (std::size_t k = 0; k < names.size(); ++k)
        if (word == names[k]) return static_cast<term_kind>(k);
    throw std::invalid_argument("kind of an effect");
}

} // namespace tvx
