// Solutions at given covariances.
#pragma once

namespace tarvex {

// Solves the equations at the covariances of the model, writes solutions with standard errors, and finishes the run.
[[noreturn]] void get_ebvs();

} // namespace tarvex
