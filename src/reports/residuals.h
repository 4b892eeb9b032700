// Residuals of all observations.
#pragma once

namespace tarvex {

void write_residuals(); // Residuals.dat

} // namespace tarvex
