// EM and PX-EM rounds (Dempster, Laird and Rubin 1977; Liu, Rubin and Wu 1998; Foulley and van Dyk 2000).
#pragma once

namespace tarvex {

// Rounds from estimates.parvec, at most nits. In the default plan, and where the method in hand goes by_gain, they
// end with the first worth less than xlimit in log L; otherwise by maximise.emconv_like, or where the parameters stand
// still: maximise.converged. A round without a valid point ends them too.
//   iround  rounds of the run, goes on      xlike  log L behind the last valid round
// Leaves the last point in estimates.parvec, cchanges, aireml_terms.alpha, pnorm, iterate_log.ended and a line a round
// in Iterates. An expansion that lowers log L is given up for the run (search_state.method.pxem).
void em_algorithm(int nits, int& iround, double& xlike, double xlimit);

// True if a round has lost log L beyond rounding: it is taken back, and ends the rounds without convergence.
bool round_loses(double before, double after);

} // namespace tarvex
