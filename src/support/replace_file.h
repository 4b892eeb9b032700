// Small text files that are replaced as a whole.
#pragma once
#include <string>
#include <string_view>

namespace tarvex {

// Puts `text` in the place of file `name`: under a temporary name first, on the disk before it takes the name. False,
// and the earlier file as it was, if anything fails.
[[nodiscard]] bool replace_file(const std::string& name, std::string_view text);

} // namespace tarvex
