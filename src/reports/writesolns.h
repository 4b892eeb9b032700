// Solutions for fixed and random effects.
#pragma once

namespace tarvex {

void write_fixsolns();  // FixSolutions.out and the Curve_*.dat files
void write_randsolns(); // RnSoln_<effect>.dat

} // namespace tarvex
