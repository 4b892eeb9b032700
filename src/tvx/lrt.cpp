#include "tvx/commands.h"

namespace tvx {

void register_lrt(CLI::App&, action&) {} // not there yet

} // namespace tvx
