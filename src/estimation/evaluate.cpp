#include "estimation/evaluate.h"

#include "control/interrupts.h"
#include "control/limits.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "estimation/bestpoint.h"
#include "estimation/searchstate.h"
#include "likelihood/likelihood.h"
#include "likelihood/solutions.h"
#include "support/edit_form.h"

#include <cmath>

namespace tarvex {

namespace {

// Difference of log L of a stored point, read from its file and evaluated anew.
constexpr double rounding_of_a_point = 1.0e-8, rounding_share = 1.0e-9;

void log_evaluation(double xlike) {
    constexpr edit_form logged{"(i5,f22.6,i6)   "};
    if (!options.details) return;
    text_out log;
    if (log.open_append("logL.dat")) write(log, logged, likelihoods.ncall, xlike, static_cast<int>(cpu_time()));
}

} // namespace

double evaluate_point(array<double>& parvec, int iopt) {
    const double rounding = rounding_of_a_point + rounding_share * std::fabs(bestpoint.to_beat);
    const evaluation e = loglike(parvec, iopt);
    search_state.why = e.why;
    if (e.reordered) keep_order(*e.reordered);
    if (e.new_factor) log_evaluation(e.xlike);
    if (e.solved && e.xlike > bestpoint.xbest) {
        bestpoint.xbest = e.xlike;
        bestpoint.parbest = parvec;
        // a better point of the run before is not overwritten, not by a run that starts lower
        if (e.xlike > bestpoint.to_beat - rounding) writebestpoint(0);
        save_solutions();
    }
    // an interrupt ends the run here, with the best point written
    end_if_asked(bestpoint.xbest > invalid_logl);
    return e.xlike;
}

} // namespace tarvex
