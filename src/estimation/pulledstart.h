// Starting values for the search for hard cases.
#pragma once

namespace tarvex {

// Where the sum of the starting variances of a trait is more than four times its variance in the data, or less than a
// quarter: tries all matrices scaled to that variance (correlations as they are, and shares of the effects as they are
// or equal) and goes on from the best of these and the matrices as given, in model.cov and estimates.parvec. Does
// nothing for a run that continues.
void pull_start();

} // namespace tarvex
