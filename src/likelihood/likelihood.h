// One evaluation of the REML log likelihood.
#pragma once
#include "control/limits.h"
#include "equations/eqnorders.h"
#include "support/array.h"

#include <optional>

namespace tarvex {

constexpr int likelihood_rows = 200; // of the table of evaluations

struct likelihoods_module {
    double detc = 0.0;           // log determinant of the coefficient matrix
    double ypy = 0.0;            // y'Py
    bool first = true;           // no evaluation has come to its end yet
    int ncall = 0;               // completed evaluations
    int nfact = 0;               // factorisations
    int nlike = 0;               // rows in use in likesav
    double xlast = 0.0;          // log L of the last evaluation
    array<double> lastpar;       // (nparm) parameters of the factor at hand
    array<double> given;         // (nparm) the vector to which covariance inverses and factor belong; empty: to none
    int failrow = 0;             // row of the last invalid pivot, 0 none
    bool factor_valid = false;   // diag, xspars hold the factor of lastpar
    array<double, 2, 1> likesav; // (nparm+1,200) table of evaluations: log L, parameters
};
inline likelihoods_module likelihoods;

// Why a point has no log L: a residual matrix or that of a random effect without an inverse, an invalid pivot, a value
// that is not finite.
enum class invalid_point { no, residual, random, pivot, value };

// What an evaluation has found.
struct evaluation {
    double xlike = invalid_logl; // log L, -1.0e36 at an invalid point
    invalid_point why = invalid_point::no;
    bool valid = false;      // xlike is the log L of the point
    bool solved = false;     // worked out now, not taken from an earlier evaluation: factor and solutions belong to it
    bool new_factor = false; // they were made for it
    std::optional<order_made> reordered{}; // the equations have been ordered anew: for keep_order
};

// log L at parvec (nparm values, which clamps may change). Where all parameters are within numbers.zero of those of the
// factor at hand, the value is that of the factor.
//   iopt 0   plain: the table of earlier evaluations may answer, then the factor at hand belongs to another point
//       -1   the factor is wanted: returns at once when it belongs to parvec, xlike is its log L
//       >0   for derivatives: the table is not consulted, factor and solutions are those of parvec on return
// After setup4mmm. Writes no file. Stops the run where options.mmmposdef forbids an invalid pivot, and where build_mmm
// does.
evaluation loglike(array<double>& parvec, int iopt);

// Stops the program where factor, covariance inverses and solutions are not those of estimates.parvec, as loglike with
// iopt 1 leaves them: `routine` was called out of turn.
void need_evaluation(const char* routine);

// build_mmm, with a new order and structure where an element has no place in those in hand: what it is, if so.
std::optional<order_made> build_with_new_order();

// Levels of block irand that count in log|G|: those treated as fixed are left out.
double effective_levels(int irand);

// The factor at hand is used up or its parameters have changed meaning: nothing may be reused.
void forget_factor();
// The parameters have changed meaning (scale, pivot order): empties the table as well.
void forget_likelihoods();

} // namespace tarvex
