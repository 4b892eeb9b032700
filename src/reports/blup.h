// BLUP run: the equations solved once at the given covariances.
#pragma once
namespace tarvex {
// Solutions and residuals at the matrices of the parameter file, with their reports. A matrix that is not positive
// definite (at reduced rank in its leading components) stops the run.
void get_ebvs();
} // namespace tarvex
