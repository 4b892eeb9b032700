// AI-REML for hard cases: steps inside a trust region.
#pragma once
#include "support/array.h"

#include <vector>

namespace tarvex {

// From the best point: the parameters are the elements of pivoted factors with logarithmic diagonals; each step
// maximises a quadratic model within a region (trustregion.h) whose size follows what steps win against what they
// promise: of gradient and average information, or with the curvature of the factor too, whichever told the last gain
// better. A column of a factor whose diagonal has come to its least value is held there while log L falls inwards, and
// let go when it rises. Where the model has promised badly twice, rounds of PX-EM go in between. Ends where model or
// verdict promise next to nothing, where no step gains, or after the limit of iterates that the user has set (else 50,
// or three for each parameter). iround, xlike as of ai_reml; leaves parvec at the best point. maximise.converged is
// left to the verdict in the plan of --sure.
void region_search(int& iround, double& xlike);

// ---- steps of the search

// One parameter of the model: its place, and its change by a unit step.
struct region_axis {
    int par;
    double unit;
    bool logarithm;
};
struct region_model {
    std::vector<region_axis> axes;
    std::vector<double> g;
    array<double, 2> h;
};
// The quadratic model at estimates.parvec from derivs.der1, der2 and fixpar, in units of its axes: a logarithm by
// itself, another element of a factor in units of the standard deviation of its row. What is held is no axis:
// parameters with fixpar or fixres, and columns of a factor at the border.
region_model model_here();
// Makes search_state.parnew the trial point of a step; logarithms end at their least value.
void move_by(const region_model& m, const std::vector<double>& step);
// True if some pivot is small against what the rows below it still hold: the factor is to be laid out anew.
bool badly_ordered();
// The verdict would be an end, with next to nothing left to gain, or little after a step that won next to nothing.
bool at_rest();

} // namespace tarvex
