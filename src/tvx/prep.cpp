#include "tvx/commands.h"

namespace tvx {

void register_prep(CLI::App&, action&) {} // not there yet

} // namespace tvx
