// The corridor: every analysis walks once through the phases, in one order.
#pragma once

namespace tarvex {

// Runs one analysis from the options to the reports. Ends by a stop: status 0 for a finished run.
[[noreturn]] void run_phases(int argc, const char* const* argv);

} // namespace tarvex
