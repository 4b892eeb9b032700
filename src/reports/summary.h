// Report of the estimates.
#pragma once

namespace tarvex {

// Writes SumEstimates.out, or with options.bestonly BestSoFar.out.
void write_estimates();

} // namespace tarvex
