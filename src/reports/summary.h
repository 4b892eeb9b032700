// Report of the estimates: SumEstimates.out, or BestSoFar.out in a run that only reports the best point.
#pragma once
namespace tarvex {
void write_estimates();
// Records of all traits that the analysis uses.
int records_used();
} // namespace tarvex
