#include "tvx/commands.h"

namespace tvx {

void register_help(CLI::App&, action&) {} // not there yet

} // namespace tvx
