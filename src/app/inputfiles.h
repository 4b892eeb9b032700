// Inputs and outputs of a run: an output never takes the place of an input, and reports of an earlier run do not stand
// beside those of this one.
#pragma once

namespace tarvex {

// Stops if a file that the run reads has the name of one that it writes, or is the same file by a link. Behind
// model2mudmap and before anything is written.
void check_inputs();
// Reports of an earlier run that this run writes anew take the suffix ".old".
void put_old_reports_aside();

} // namespace tarvex
