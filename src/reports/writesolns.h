// Solutions of the mixed model equations: FixSolutions.out with Curve_*.dat, RnSoln_<effect>.dat.
#pragma once
namespace tarvex {
void write_fixsolns();
void write_randsolns();
} // namespace tarvex
