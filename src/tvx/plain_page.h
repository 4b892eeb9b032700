// Pages of docs/ as text on the screen.
#pragma once
#include <string>
#include <string_view>

namespace tvx {

// The page without fences, its blocks set in, its tables as terms with what they mean, and without what is meant for
// the tests only (<!-- ... -->).
std::string plain_page(std::string_view page);

} // namespace tvx
