// AI-REML: Newton-type iterates with the average information of the data (Gilmour, Thompson and Cullis 1995, Biometrics
// 51:1440), and the record of all iterates and rounds.
#pragma once
#include "support/array.h"

#include <string_view>

namespace tarvex {

struct aireml_terms_module {
    double alpha = 1.0;       // step length
    double dnorm = 0.0;       // Euclidean norm of the gradient
    double pnorm = 0.0;       // relative change of the parameters in the accepted step
    double prox = 0.0;        // half the slope
    double slope = 0.0;       // slope of -log L along the step
    double tau = 0.0;         // added to the diagonal of the information matrix
    double last_change = 0.0; // in log L, by the last accepted iterate of the last AI-REML phase; 0: there was none
    int poor = 0;             // iterates in succession that won less than a quarter of what their whole steps promised
    bool creeps = false;      // the last AI-REML phase was broken off, since it did nothing else
    int accepted = 0;         // iterates accepted in the whole run
    double tt0 = 0.0;         // processor clock at the start of the iterate
};
inline aireml_terms_module aireml_terms;

// Iterates from estimates.parvec until convergence, failure, or nits iterates; also until it creeps, ten poor iterates
// from a point that is not an end, where the search goes on by itself (options.sure, no limit of iterates given).
//   iround  running count of accepted iterates over the run
//   xlike   in: log L at parvec; out: last accepted value
// Leaves parvec at the best point, maximise.converged and cchanges, AvInfoParms and AvInfoCovs of the last iterate.
void ai_reml(int nits, int& iround, double& xlike);

// What becomes of the trial in search_state.parnew, whose log L is xnew, after one of xold: accepted, perhaps after a
// search along the step, which leaves another xnew; no gain, and a block has to change its scale first (its mark in
// estimates.switchlog); no gain; or the search failed.
enum class step_outcome { accepted, rescale, stuck, failed };
step_outcome judge_step(double xold, double& xnew);

// Change in log L that counts: where steps may lose, that from the best point before the step, not from the last one.
double change_that_counts(double xold, double xnew, double best);
// It is a loss, beyond rounding where steps may lose: no limit is looked at.
bool is_loss(double change, double xnew);
// The limit that a step meets after such a change: that of the norm of the gradient (aireml_terms.dnorm), or that of
// the change, where the whole step promised little as well (aireml_terms.prox): less than 0.01, or ten times the limit.
enum class ai_limit { none, gradient, change };
ai_limit limit_met(double change);

// Counts iterates in succession whose change in log L was less than a quarter of what their whole steps promised.
void count_poor(double change);
// After ten of them, from a point (with its gradient and information) that is not an end: the search creeps along the
// border. The stated plan alone, and a user's limit of iterates, go on in spite of that.
bool creeps();

// Evaluates log L, average information and gradient at estimates.parvec, for jacob_var2chol. False, and no derivatives,
// where the point has no value.
bool derivatives_here(double& xlike);
// aireml_terms.dnorm from the gradient of jacob_var2chol.
void take_norm();
// Pivoted rank check of derivs.der2, as jacob_var2chol has left it: parameters without information that are exactly 0
// are held out. Fills derivs.fixpar, nparm2, subset.
void rank_check();

// Length of the step to `to`, relative to the length of `to` itself.
double relative_change(const array<double>& from, const array<double>& to);
// Moves maximise.cchanges up by one and takes in the last step: change in log L, aireml_terms.pnorm, norm of the
// gradient and Newton decrement (0 for rounds of EM).
void push_changes(double dd, double dnorm, double slope);

// Records an iterate or round on the screen and in Iterates; which of AI, EM and PX it is follows from the flags.
// `note` stands beside the EM labels in the developer's trace.
void print_iterate(int iround, double xlike, double xold, std::string_view note = {});

// The record's edit form with decimals to suit the values.
struct iterate_form_values {
    double dd, dnorm, pnorm, prox;
    int ncall;
};
void edit_iterate_form(char* form, const iterate_form_values& v);

// Moves parvec to search_state.parnew, whose log L is xnew, after a point of xold: counts and records the step
// (aireml_terms.pnorm, accepted, last_change).
void accept_step(int& iround, double xold, double xnew);
// Lists the step under verbose: its settings, then the parameters as below.
void list_step();
// Lists old and new values of the parameters that are not 0 (verbose).
void list_changes(const array<double>& from, const array<double>& to);

} // namespace tarvex
