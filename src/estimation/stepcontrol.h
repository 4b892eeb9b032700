// Step control of AI-REML: modification of the information matrix, trial step, backtracking line search (Dennis and
// Schnabel 1983, Numerical methods for unconstrained optimization).
#pragma once
#include "estimation/searchstate.h"
#include "support/array.h"

#include <functional>

namespace tarvex {

struct linesearch_module {
    double ls_alpha = 1.0e-4; // share of the predicted decrease that a step must reach
    double ls_shrink = 0.1;   // a step is never cut below this share of the last length
    double ls_steptol = 0.0;  // relative length below which the search gives up
    double ls_maxstep = 0.0;  // largest step length, by search
    double ls_grow = 0.5;     // a step is never above this share of the last length
};
inline linesearch_module linesearch;
void set_linesearch(); // constants at the start of AI-REML

// Step of full length from derivs.der1, der2 (subset of nparm2 parameters), the information made safe by
// maximise.modify_chol, and the trial evaluation: leaves aireml_terms.tau, alpha, slope, derivs.dvec, hess and
// search_state.parnew; xnew is its log L, -1.0e36 where it is not valid. estimates.parvec stays.
void eztimates(double& xnew);

// tau to add to the diagonal for largest and smallest eigenvalue e1, en; 0: none needed.
double set_tau(double e1, double en);

// Where residual covariances themselves are parameters: makes search_state.parnew the point that its evaluation takes.
void damage_control();

// A search over lengths of a step, of a function that is to fall (9.9e35 and more: it has no value).
struct length_search {
    double f0 = 0.0, slope = 0.0; // value and slope at length 0
    double minlambda = 0.0;       // no length below
    double alpha = 1.0, f1 = 0.0; // the last length tried, and the value there: in front, that of the trial
    double lambda = 0.0;          // behind: the last length but for what points without a value have taken off
    bool found = false;
};
// Goes on from a trial that is too long: a parabola through its value gives the next length, cubics through the last
// two the later ones, each within ls_shrink and ls_grow of the one before, until ls_alpha of what the slope predicts is
// won, or seven lengths have been tried. A trial without value is cut to 0.8 until there is one, which will do if it is
// below f0; a later length without value to 0.99.
length_search search_lengths(const std::function<double(double)>& value, const length_search& start);

// Searches along derivs.dvec after a trial (eztimates) that did not gain on xold. Leaves search_state.parnew, xnew,
// aireml_terms.alpha and a shorter dvec where the step was too long. fail: no point found, xnew is of no use.
void line_search(double xold, double& xnew, bool& fail);

} // namespace tarvex
