#include "estimation/regionsearch.h"

#include "control/filenames.h"
#include "control/limits.h"
#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "dense/numroutines.h"
#include "estimation/aireml.h"
#include "estimation/bestpoint.h"
#include "estimation/evaluate.h"
#include "estimation/iteratelog.h"
#include "estimation/lastpoint.h"
#include "estimation/rescue.h"
#include "estimation/searchstate.h"
#include "estimation/stepcontrol.h"
#include "estimation/trustregion.h"
#include "likelihood/derivatives.h"
#include "likelihood/likelihood.h"
#include "parameters/parvec.h"
#include "parameters/randomvars.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "support/screen.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <utility>
#include <vector>

namespace tarvex {

namespace {

constexpr double end_promise = 1.0e-5;  // gain in log L that is not worth a step
constexpr double end_radius = 0.5;      // ... within at least this region
constexpr double least_radius = 1.0e-5; // no step that gains
constexpr int em_rounds = 3;
constexpr double em_gain = 0.01;                         // of a round of EM that is worth another
constexpr double border_width = 1.0e-6;                  // of a logarithm: that near to its least value it is there
constexpr double least_unit = 1.0e-8;                    // variance by which a row of a factor is measured at least
constexpr double badly_ordered_from = 4.0;               // what a column leaves of a row against its own pivot
constexpr double rest_share = 0.1;                       // of verdict_limit, promised: next to nothing
constexpr double crept_share = 0.5;                      // the same behind a step that won next to nothing
constexpr int least_limit = 50, limit_per_parameter = 3; // iterates, where the user has set no limit

// Least logarithm of a diagonal, which is a root: twice that of the least variance, since pivots below make a point
// invalid.
double least_log() { return 0.5 * std::log(4.0 * least_variance()); }

// Best point with all factors on logarithmic diagonals.
void to_best_point() {
    search_state.method.aireml = true;
    search_state.method.em_scale = false;
    estimates.logdiagonals.fill(1);
    from_best_point();
}

bool on_border(int par) {
    // log L would have it smaller still
    return estimates.logpar(par) && estimates.parvec(par) < least_log() + border_width && derivs.der1(par) <= 0.0;
}

double row_sd(const array<double>& cc, int row, int n) {
    return std::sqrt(std::max(cc(ihmssf(row, row, n)), least_unit));
}

// Axes of a block by its factor: logarithms by themselves, other elements in units of the standard deviation of their
// row. Columns at the border are left out.
void add_factor(int irand, int step, std::vector<region_axis>& axes) {
    const array<double> cc = covariances_at(estimates.parvec, irand, step).cc;
    int column = 0;
    const int n = model.kkfit(irand), from = block_start(irand, step);
    bool held = false;
    for (int k = 1; k <= block_size(irand); ++k) {
        const factor_place f = factor_element(irand, step, k);
        const int par = from + k - 1;
        if (model.diagonal(irand) || f.col != column) held = on_border(par); // the first of a column is its diagonal
        column = f.col;
        if (held || derivs.fixpar(par)) continue;
        const bool logarithm = estimates.logpar(par) != 0;
        axes.push_back({par, logarithm ? 1.0 : row_sd(cc, f.row, n), logarithm});
    }
}

// A matrix over all parameters (packed) in units of the axes.
array<double, 2> in_units(const array<double>& packed, const std::vector<region_axis>& axes) {
    const int n = static_cast<int>(axes.size());
    array<double, 2> h;
    h.allocate(n, n);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) {
            const region_axis &a = axes[i - 1], &b = axes[j - 1];
            h(i, j) = packed(packed_place(a.par, b.par, estimates.nparm)) * a.unit * b.unit;
        }
    return h;
}

} // namespace

region_model model_here() {
    region_model m;
    for (int irand = estimates.nresparm == 0 ? 1 : 0; irand <= numbers.krand; ++irand)
        for (int step = 1; step <= steps_of(irand); ++step) add_factor(irand, step, m.axes);
    for (const region_axis& a : m.axes) m.g.push_back(derivs.der1(a.par) * a.unit);
    m.h = in_units(derivs.der2, m.axes);
    return m;
}

void move_by(const region_model& m, const std::vector<double>& step) {
    search_state.parnew = estimates.parvec;
    for (std::size_t k = 0; k < m.axes.size(); ++k) {
        double& p = search_state.parnew(m.axes[k].par);
        p += step[k] * m.axes[k].unit;
        // a diagonal that starts below is not raised by a bound
        if (m.axes[k].logarithm) p = std::max(p, std::min(least_log(), estimates.parvec(m.axes[k].par)));
    }
}

namespace {

// Gradient and information at parvec, and the curvature of the factors (packed) that the information leaves out. False
// where the point has no value.
bool models_here(double& xold, array<double>& curvature) {
    if (!derivatives_here(xold)) return false;
    jacob_var2chol(1);
    curvature = derivs.der2b;
    jacob_var2chol(0);
    rank_check();
    take_norm(); // for the record alone: the region is measured in units of the axes
    return true;
}

} // namespace

bool badly_ordered() {
    bool bad = false;
    for (int irand = 0; irand <= numbers.krand && estimates.reorder; ++irand) {
        if (model.diagonal(irand)) continue;
        if (irand == 0 && no_fixed_residuals() > 0 && !residualvars.filled) continue; // its order keeps zeros
        for (int step = 1; step <= steps_of(irand) && estimates.nnparm(irand) > 0; ++step) {
            const array<double, 2> vv = covariances_at(estimates.parvec, irand, step).vv;
            for (int c = 1; c <= model.krfit(irand); ++c) {
                const int n = model.kkfit(irand), row = estimates.cholorder((step - 1) * n + c, irand);
                for (int r = c + 1; r <= n; ++r) {
                    const int other = estimates.cholorder((step - 1) * n + r, irand);
                    double left = 0.0;
                    // what columns c and later make of the row: its diagonal when c was to be the pivot
                    for (int k = c; k <= std::min(r, model.krfit(irand)); ++k) left += vv(other, k) * vv(other, k);
                    bad = bad || left > badly_ordered_from * vv(row, c) * vv(row, c);
                }
            }
        }
    }
    return bad;
}

bool at_rest() {
    const search_verdict v = verdict_of_derivatives();
    if (v.kind == search_end::not_maximum || !v.lifts.empty()) return false;
    // the last step won next to nothing though its promise was larger
    const bool crept = aireml_terms.last_change > 0.0 && aireml_terms.last_change < rest_share * verdict_limit;
    return v.promised < (crept ? crept_share : rest_share) * verdict_limit;
}

namespace {

// Two models of log L that differ in H: average information alone, or less the curvature of the factors, which is most
// of it near the border and misleads far from a maximum. That in use is the one that told the gain of the last trial
// better (Dennis, Gay and Welsch 1981, ACM Trans. Math. Softw. 7:348).
struct rival_models {
    region_model m;         // the one in use
    array<double, 2> other; // H of the other one
    bool curved = false;    // the one in use knows the curvature
};

void exchange(rival_models& r) {
    std::swap(r.m.h, r.other);
    r.curved = !r.curved;
}

void exchange_if_better(rival_models& r, double won, const region_step& s) {
    if (std::fabs(won - model_gain(r.other, r.m.g, s.step)) < std::fabs(won - s.promised)) exchange(r);
}

void take_models(rival_models& r, const array<double>& curvature) {
    r.m = model_here();
    r.other = in_units(curvature, r.m.axes);
    const array<double, 2>& h = r.m.h;
    std::transform(h.begin(), h.end(), r.other.begin(), r.other.begin(), std::minus<>());
    if (r.curved) std::swap(r.m.h, r.other);
}

enum class region_end { accepted, arrived, stuck, poor };

// Tries steps until one is accepted; `impatient`: or two in succession were poor.
region_end try_steps(rival_models& models, double xold, double& xnew, trust_region& region, bool impatient) {
    auto& t = aireml_terms;
    const region_model& m = models.m;
    // whether it is worth going on is asked of a region of decent size, not of one that has shrunk
    const region_step wide = step_in_region(m.h, m.g, std::max(region.radius, end_radius));
    t.prox = -wide.promised;
    t.slope = -2.0 * wide.promised;
    if (wide.promised < end_promise || at_rest()) return region_end::arrived;
    for (;;) {
        if (region.radius < least_radius) return region_end::stuck;
        const region_step s = step_in_region(m.h, m.g, region.radius);
        move_by(m, s.step);
        xnew = evaluate_point(search_state.parnew, 0);
        t.alpha = s.length;
        t.tau = s.lambda;
        t.prox = -s.promised;
        t.slope = -2.0 * s.promised;
        if (!(xnew > invalid_logl))
            // a wall is no lack of curvature: the region shrinks to half the step, the count of poor steps goes up
            region.invalid(s.length);
        else {
            const bool accepted = region.judge(xnew - xold, s.promised, s.length);
            exchange_if_better(models, xnew - xold, s);
            if (accepted) return region_end::accepted;
        }
        if (impatient && region.poor >= 2) return region_end::poor;
    }
}

void take_step(int& iround, double xold, double xnew) {
    accept_step(iround, xold, xnew);
    push_changes(xnew - xold, aireml_terms.dnorm, aireml_terms.slope);
    if (badly_ordered()) to_best_point();
}

// As AI-REML, whose plan this belongs to.
void say_arrived() {
    maximise.converged = true;
    if (!options.terse) print_list(screen(), "*** AIREML has converged");
    text_out out;
    if (out.open_append(filenames.iteratesfile)) print_list(out, "*** AIREML has converged");
}

} // namespace

void region_search(int& iround, double& xlike) {
    auto& t = aireml_terms;
    t.alpha = t.tau = t.slope = t.prox = t.dnorm = t.pnorm = t.last_change = 0.0;
    trust_region region;
    to_best_point();
    if (iround == 0) {
        t.tt0 = cpu_time();
        print_iterate(0, xlike, xlike);
    }
    region_end end = region_end::accepted;
    bool em_helps = true;
    rival_models models;
    array<double> curvature;
    // the user's limit, or enough that only the end by verdict counts
    const int most =
        maximise.limit_given ? maximise.aireml_its : std::max(least_limit, limit_per_parameter * estimates.nparm);
    for (int iter = 1; iter <= most; ++iter) {
        t.tt0 = cpu_time();
        double xold = invalid_logl, xnew = invalid_logl;
        if (!models_here(xold, curvature)) {
            end = region_end::stuck;
            break;
        }
        take_models(models, curvature);
        end = try_steps(models, xold, xnew, region, em_helps);
        if (end == region_end::accepted) {
            take_step(iround, xold, xnew);
            xlike = xnew;
        }
        if (end == region_end::arrived || end == region_end::stuck) break;
        // poor steps: the quadratic model is no good here, EM moves without one
        if (region.poor < 2 || !em_helps) continue;
        const double before = bestpoint.xbest;
        expanded_rounds(em_rounds, em_gain, false, iround, xlike);
        em_helps = bestpoint.xbest > before + em_gain;
        // at another point: the region is as at the start
        region = {};
        to_best_point();
    }
    estimates.parvec = bestpoint.parbest;
    if (maximise.search_type != 7 && end == region_end::arrived) say_arrived();
    iterate_log.ended = end == region_end::arrived ? "the step promises nothing"
                        : end == region_end::stuck ? "no better point found"
                                                   : "limit of iterates";
}

} // namespace tarvex
