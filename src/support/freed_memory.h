// What becomes of the memory of freed arrays: of the process as a whole.
#pragma once

namespace tarvex {

// Arrays above 1 MB go back to the system when they are freed, so that those of one step of the set-up do not stand
// as holes between those of the next.
void return_freed_memory();
// Arrays up to 4 MB stay with the process, as work space that each evaluation asks for anew.
void keep_freed_memory();

} // namespace tarvex
