// The seal of a scratch file that later runs may take over: 56 bytes behind the last record, which readers of records
// meet as the end of the file.
//   mark (8 bytes) | sum over what the file was made from (16) | note: two reals of the writer (16) | sum over all
//   bytes of the file before this one (16)
#pragma once
#include "support/digest.h"

#include <string>

namespace tarvex {

struct seal {
    digest made_from;
    double note[2] = {};
};

inline constexpr char seal_mark[] = "TVXseal1"; // as the length of a record: more than any file holds
inline constexpr std::size_t seal_bytes = 56;

// Reads the seal. False: there is no such file, it bears no seal, or it does not hold what was sealed.
[[nodiscard]] bool read_seal(const std::string& name, seal& s);
// The file is sound and was made from this.
[[nodiscard]] bool sealed(const std::string& name, const digest& made_from);
// The bytes of a seal behind content whose sum so far is in `content`, to which they are added.
std::string seal_text(const seal& s, digest_maker& content);

} // namespace tarvex
