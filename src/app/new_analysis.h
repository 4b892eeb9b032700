// The start of an analysis in a process that may have run others.
#pragma once

namespace tarvex {

// Puts every module, and all else that routines keep between calls, into its state at the start of the process. What
// stays: the sink of the screen, and the choice of the kernels' instruction set.
void new_analysis();

} // namespace tarvex
