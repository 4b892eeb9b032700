#include "tvx/commands.h"

namespace tvx {

void register_explain(CLI::App&, action&) {} // not there yet

} // namespace tvx
