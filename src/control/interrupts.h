// Signals that ask a run to end: it ends after the step in hand, and at once when asked again.
#pragma once

namespace tarvex {

// SIGINT, SIGTERM and SIGHUP are noted from here on; a limit to the size of files makes a write fail, not the process.
void catch_signals();
// Number of the signal that asked for the end, 0: none.
int pending_signal();
// Ends the run with status 128 + signal if one is pending; `stored` tells that BestPoint holds a point of this run.
void end_if_asked(bool stored);

} // namespace tarvex
