#include "tvx/commands.h"

namespace tvx {

void register_boot(CLI::App&, action&) {} // not there yet

} // namespace tvx
