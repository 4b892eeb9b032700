// One run a folder: an advisory lock on a file of the working directory for the life of an analysis.
#pragma once

namespace tarvex {

inline constexpr char lock_name[] = ".tarvex.lock";

// Takes the lock. Stops when another run holds it, naming its process and parameter file; a file system without locks
// is told and the run goes on. The lock of a dead process is none.
void lock_folder();
// Gives the lock back, if this process has one.
void unlock_folder();

} // namespace tarvex
