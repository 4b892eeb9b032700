// The user's guide, put into the program when it is built.
#pragma once
#include <string_view>

namespace tvx {

std::string_view guide_text();

} // namespace tvx
