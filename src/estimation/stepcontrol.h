// Step control of AI-REML: modification of the information matrix, trial step, backtracking line search (Dennis and
// Schnabel 1983, Numerical methods for unconstrained optimization).
#pragma once
#include "estimation/searchstate.h"
#include "support/array.h"

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
void eztimates(int iter, double& xnew);

// tau to add to the diagonal for largest and smallest eigenvalue e1, en; 0: none needed.
double set_tau(double e1, double en);

// Where residual covariances themselves are parameters: makes search_state.parnew the point that its evaluation takes.
void damage_control();

// Searches along derivs.dvec after a trial (eztimates) that did not gain on xold. Leaves search_state.parnew, xnew,
// aireml_terms.alpha and a shorter dvec where the step was too long. fail: no point found, xnew is of no use.
void line_search(double xold, double& xnew, bool& fail);

} // namespace tarvex
