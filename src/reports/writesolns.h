// Solutions of the mixed model equations: FixSolutions.out with Curve_*.dat, RnSoln_<effect>.dat.
#pragma once
#include <string>
#include <vector>

namespace tarvex {
// Names of the files of curves. Needs mudmap only.
std::vector<std::string> curve_files();
void write_fixsolns();
void write_randsolns();
} // namespace tarvex
