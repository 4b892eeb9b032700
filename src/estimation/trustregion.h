// Steps of a quadratic model inside a trust region (J. J. Moré and D. C. Sorensen 1983, SIAM J. Sci. Stat. Comput.
// 4:553; Nocedal and Wright, Numerical Optimization, chapter 4).
#pragma once
#include "support/array.h"

#include <vector>

namespace tarvex {

struct region_step {
    std::vector<double> step;
    double promised = 0.0; // gain that the model promises from the step
    double length = 0.0;
    double lambda = 0.0; // multiplier of the region, added to the diagonal; 0: the maximum lies inside
};

// g's - s'Hs/2.
double model_gain(const array<double, 2>& h, const std::vector<double>& g, const std::vector<double>& s);

// Maximises g's - s'Hs/2 over steps of length up to `radius`, H symmetric (n x n). A combination without curvature, or
// with that of a minimum, is followed to the edge of the region where the gradient has a part in it.
region_step step_in_region(const array<double, 2>& h, const std::vector<double>& g, double radius);

// What becomes of the region after a trial.
struct trust_region {
    double radius = 1.0;
    double largest = 4.0;
    int poor = 0; // trials in succession that won less than a quarter of what was promised

    // True if the trial is accepted: it won something, and at least 1e-4 of what was promised. Below a quarter of it
    // the radius shrinks to a quarter of the step, above three quarters a step at the edge doubles it.
    bool judge(double won, double promised, double length);
    // The trial has no value: half the step.
    void invalid(double length);
};

} // namespace tarvex
