// Ways on for a search that has stalled: rounds of EM, and steps off the border of the parameter space.
#pragma once

namespace tarvex {

// Hands over at the best point found so far, on the scale of the method in hand.
void from_best_point();

// Steps away from the border where the last verdict has found that log L rises there: the better point is the best one
// then.
void leave_border();

// Rounds of PX-EM (EM where effects are correlated) from the best point while they gain at least `least_gain`; the
// method in hand is put back. `off_border`: leave_border first. iround, xlike as of em_algorithm.
void expanded_rounds(int rounds, double least_gain, bool off_border, int& iround, double& xlike);

} // namespace tarvex
