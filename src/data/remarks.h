// Input that is accepted but may not be meant.
#pragma once

namespace tarvex {

// A warning line for each: class code 0, a trait without a mean, -999 or the code of missing observations as the value
// of a covariable, residual covariances of recorded pairs that start at zero and stay there. Needs the first scan.
void remark_on_input();

} // namespace tarvex
