// AI-REML for hard cases: steps inside a trust region.
#pragma once

namespace tarvex {

// From the best point: the parameters are the elements of pivoted factors with logarithmic diagonals; each step
// maximises the quadratic model of gradient and average information within a region (trustregion.h) whose size follows
// what steps win against what they promise. A column of a factor whose diagonal has come to its least value is held
// there while log L falls inwards, and let go when it rises. Where the model has promised badly twice, rounds of PX-EM
// go in between. Ends where model or verdict promise next to nothing, where no step gains, or after the
// limit of iterates that the user has set (else 50, or three for each parameter). iround, xlike as of ai_reml; leaves
// parvec at the best point. maximise.converged is left to the verdict in the plan of --sure.
void region_search(int& iround, double& xlike);

} // namespace tarvex
