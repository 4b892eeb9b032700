#include "tvx/commands.h"

namespace tvx {

void register_gin(CLI::App&, action&) {} // not there yet

} // namespace tvx
