#include "estimation/aireml.h"

#include "control/filenames.h"
#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "dense/numroutines.h"
#include "estimation/bestpoint.h"
#include "estimation/covs2parvec.h"
#include "estimation/estimates.h"
#include "estimation/evaluate.h"
#include "estimation/iteratelog.h"
#include "estimation/lastpoint.h"
#include "estimation/parlists.h"
#include "estimation/searchstate.h"
#include "estimation/stepcontrol.h"
#include "likelihood/derivatives.h"
#include "likelihood/likelihood.h"
#include "parameters/variances.h"
#include "support/edit_form.h"
#include "support/vector1.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

namespace tarvex {

namespace {

constexpr int second_order_from = 222;     // iterate from which the second-order term joins the information
constexpr double least_promise = 0.01;     // gain in log L that a step may still promise at the end of the search,
constexpr double promise_in_limits = 10.0; // or so many times the limit of its change
constexpr int creeping_iterates = 10;      // in succession that won less
constexpr double poor_share = 0.25;        // than this share of the promise
constexpr double rounding_share = 1.0e-10; // of log L
constexpr double below_pivots = -1.0e10;   // no diagonal of the information falls as low

// Blocks whose diagonals have become small go over to logarithms; the matrices stay as they are.
void handle_switches() {
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        // logarithms already, or not wanted
        if (options.nologd || estimates.logdiagonals(irand)) estimates.switchlog(irand) = 0;
        if (!estimates.switchlog(irand)) continue;
        if (options.verbose) print_list(screen(), " Switch to log diagonal for RE", irand);
        switch_to_logs(irand);
        estimates.switchlog(irand) = 0;
    }
}

bool any_switch() {
    return std::any_of(estimates.switchlog.begin(), estimates.switchlog.end(), [](int f) { return f != 0; });
}

void say_converged(const char* on_screen, const char* in_file, double value, double limit) {
    maximise.converged = true;
    if (!options.terse) print_list(screen(), "*** AIREML has converged");
    if (options.verbose) print_list(screen(), on_screen, value, limit);
    text_out out;
    if (!out.open_append(filenames.iteratesfile)) return;
    print_list(out, "*** AIREML has converged");
    print_list(out, in_file, value, limit);
}

// A step that the search along it has cut short may gain little and yet be far from a maximum: what the quadratic model
// promised from the whole step has to be small as well.
bool promises_little() {
    // the slope is that of -log L: half of it, with its sign changed, is the gain of the quadratic model at its
    // maximum
    return -aireml_terms.prox < std::max(least_promise, promise_in_limits * maximise.aiconv_like);
}

void test_convergence(double change) {
    const ai_limit met = limit_met(change);
    if (met == ai_limit::gradient) {
        iterate_log.ended = "gradient below its limit";
        say_converged("   Norm of gradient vector", "    Norm of gradient vector =", aireml_terms.dnorm,
                      maximise.aiconv_norm);
    } else if (met == ai_limit::change) {
        iterate_log.ended = "change in log L below its limit";
        say_converged("   Last change in log L", "    Last change in log L =", change, maximise.aiconv_like);
    }
    push_changes(change, aireml_terms.dnorm, aireml_terms.slope);
}

// Gradient and information at parvec. False where the point has no value.
bool prepare(int iter, double& xold) {
    if (!derivatives_here(xold)) return false;
    // far into a long search the exact curvature of the transformation helps where the information is nearly singular
    jacob_var2chol(iter < second_order_from ? 0 : 1);
    rank_check();
    take_norm();
    return true;
}

void take_step(int& iround, double xold, double xnew, double best) {
    count_poor(xnew - xold);
    accept_step(iround, xold, xnew);
    if (options.reconstruct && readbestpoint(true)) change_scale();
    maximise.converged = false;
    // steps that may lose: a change that is only rounding still ends the search
    const double change = change_that_counts(xold, xnew, best);
    if (!is_loss(change, xnew)) test_convergence(change);
    write_avinfo(xnew);
}

void close_phase(int iter, int nits, bool search_failed) {
    // the last step need not have been the best
    estimates.parvec = bestpoint.parbest;
    if (!maximise.converged)
        iterate_log.ended = aireml_terms.creeps ? "steps that win little of what they promise"
                            : iter > nits       ? "limit of iterates"
                                                : "no better point found";
    if (maximise.ncycle != 1 || maximise.converged || aireml_terms.creeps) return;
    if (!search_failed) print_list(screen(), "*** AIREML : No convergence");
    text_out out;
    if (!out.open_append(filenames.iteratesfile)) return;
    print_list(out, iter >= nits ? "Max. no. of iterates reached - not converged !"
                                 : "Could not locate better point - not converged !");
}

} // namespace

double change_that_counts(double xold, double xnew, double best) {
    return xnew - (options.strict_ai ? xold : std::max(xold, best));
}

bool is_loss(double change, double xnew) {
    return !(change >= (options.strict_ai ? 0.0 : -rounding_share * std::fabs(xnew)));
}

ai_limit limit_met(double change) {
    if (aireml_terms.dnorm < maximise.aiconv_norm) return ai_limit::gradient;
    return change < maximise.aiconv_like && promises_little() ? ai_limit::change : ai_limit::none;
}

void count_poor(double change) {
    auto& t = aireml_terms;
    t.poor = change < -poor_share * t.prox ? t.poor + 1 : 0;
}

bool creeps() {
    if (!options.sure || maximise.limit_given || aireml_terms.poor < creeping_iterates) return false;
    return verdict_of_derivatives().kind == search_end::not_maximum;
}

step_outcome judge_step(double xold, double& xnew) {
    // "strict": a step must gain; otherwise any point with a value will do
    if (xnew > xold || (!options.strict_ai && xnew > invalid_logl)) return step_outcome::accepted;
    bool fail = false;
    line_search(xold, xnew, fail);
    if (fail) return step_outcome::failed;
    if (!(xold > xnew)) return step_outcome::accepted;
    return any_switch() ? step_outcome::rescale : step_outcome::stuck;
}

void ai_reml(int nits, int& iround, double& xlike) {
    set_linesearch();
    auto& t = aireml_terms;
    t.alpha = 1.0;
    t.tau = t.slope = t.prox = t.dnorm = t.pnorm = 0.0;
    t.last_change = 0.0;
    t.poor = 0;
    t.creeps = false;
    if (iround == 0) {
        t.tt0 = cpu_time();
        print_iterate(0, xlike, xlike);
    }
    bool fail = false;
    int iter = 1;
    for (; iter <= nits; ++iter) {
        t.tt0 = cpu_time();
        // set again by whoever forms the matrices
        estimates.logpar.fill(0);
        handle_switches();
        double xold = invalid_logl, xnew = invalid_logl;
        if (!prepare(iter, xold)) {
            fail = true;
            break;
        }
        t.creeps = creeps();
        if (t.creeps) break;
        t.tau = 0.0;
        const double best = bestpoint.xbest; // the trial may become it
        eztimates(xnew);
        t.prox = 0.5 * t.slope;
        const step_outcome step = judge_step(xold, xnew);
        // the next iterate begins at the same point, on another scale
        if (step == step_outcome::rescale) continue;
        fail = step == step_outcome::failed;
        if (step != step_outcome::accepted) break;
        take_step(iround, xold, xnew, best);
        xlike = xnew;
        if (maximise.converged) break;
    }
    close_phase(iter, nits, fail);
}

void accept_step(int& iround, double xold, double xnew) {
    auto& t = aireml_terms;
    t.pnorm = relative_change(estimates.parvec, search_state.parnew);
    ++iround;
    ++t.accepted;
    t.last_change = xnew - xold;
    print_iterate(iround, xnew, xold);
    list_step();
    estimates.parvec = search_state.parnew;
}

void list_step() {
    constexpr edit_form head{"(1x,a,g12.5,2(3x,a,g12.5))"};
    if (!options.verbose) return;
    const auto& t = aireml_terms;
    write(screen(), head, "Estimates for \"tau\" =", t.tau, "\"alpha\" =", t.alpha, "\"norm\" =", t.dnorm);
    list_changes(estimates.parvec, search_state.parnew);
}

void list_changes(const array<double>& from, const array<double>& to) {
    constexpr edit_form item{"(i4,3x,a,3x,2(a,g16.7),2x,a)"};
    if (!options.verbose) return;
    for (int i = 1; i <= estimates.nparm; ++i)
        if (from(i) != 0.0 || to(i) != 0.0)
            write(screen(), item, i, estimates.parnames(i), "Old =", from(i), " New =", to(i),
                  search_state.method.aireml && estimates.logpar(i) ? "log" : "   ");
}

bool derivatives_here(double& xlike) {
    xlike = evaluate_point(estimates.parvec, 1);
    if (!(xlike > invalid_logl)) return false;
    average_info();
    derivatives_mmm();
    return true;
}

void take_norm() {
    double s = 0.0;
    for (double g : derivs.der1) s += g * g;
    aireml_terms.dnorm = std::sqrt(s);
}

void rank_check() {
    const int n = estimates.nparm;
    array<double, 2> a = unpack(derivs.der2.prefix(derivs.der2.size()), n);
    vector1<int> index(n);
    array<double> dia;
    dia.allocate(n);
    for (int i = 1; i <= n; ++i) {
        index(i) = i;
        dia(i) = a(i, i);
    }
    derivs.fixpar.allocate(n);
    derivs.fixpar.fill(1);
    bool stopped = false;
    // Cholesky elimination with the largest diagonal first; rows change places in the index alone
    for (int row = 1; row <= n; ++row) {
        int best = 0;
        double pivot = below_pivots;
        for (int k = row; k <= n; ++k)
            if (a(index(k), index(k)) > pivot) {
                pivot = a(index(k), index(k));
                best = k;
            }
        if (options.details) {
            print_list(screen(), "hess piv", row, pivot);
            if (best == 0) {
                std::string rest;
                for (int k = row; k <= n; ++k) rest += (k > row ? " " : "") + list_item(a(index(k), index(k)));
                print_list(screen(), rest);
            }
        }
        if (best == 0 || pivot < numbers.zero) {
            stopped = true;
            break;
        }
        std::swap(index(row), index(best));
        const int p = index(row);
        derivs.fixpar(p) = 0;
        for (int k = row + 1; k <= n; ++k) {
            const double f = a(index(k), p) / pivot;
            for (int l = row + 1; l <= n; ++l) a(index(k), index(l)) -= f * a(p, index(l));
        }
    }
    derivs.subset.allocate(n);
    derivs.nparm2 = 0;
    for (int i = 1; i <= n; ++i) {
        if (stopped && options.details)
            print_list(screen(), i, index(i), derivs.fixpar(i), " par", estimates.parvec(i), " dia", dia(i));
        // one that is not 0 takes part whatever its pivot
        if (estimates.parvec(i) != 0.0) derivs.fixpar(i) = 0;
        if (!derivs.fixpar(i)) derivs.subset(++derivs.nparm2) = i;
    }
    if (stopped && options.details) print_list(screen(), "subset of parameters =", derivs.nparm2);
}

} // namespace tarvex
