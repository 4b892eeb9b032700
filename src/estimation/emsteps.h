// EM and PX-EM rounds (Dempster, Laird and Rubin 1977; Liu, Rubin and Wu 1998; Foulley and van Dyk 2000).
#pragma once
namespace tarvex {
// Rounds from estimates.parvec: at most nits, each worth at least xlimit in log L in the default plan; otherwise to
// convergence. iround counts over the run, xlike is the last value. Leaves maximise.converged, cchanges, parvec.
void em_algorithm(int nits, int& iround, double& xlike, double xlimit);
} // namespace tarvex
