#include "estimation/emsteps.h"

#include "control/filenames.h"
#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "dense/numroutines.h"
#include "estimation/aireml.h"
#include "estimation/bestpoint.h"
#include "estimation/covs2parvec.h"
#include "estimation/estimates.h"
#include "estimation/evaluate.h"
#include "estimation/iteratelog.h"
#include "estimation/pxem.h"
#include "estimation/searchstate.h"
#include "likelihood/ddvecs.h"
#include "likelihood/emquants.h"
#include "likelihood/likelihood.h"
#include "parameters/randomvars.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/edit_form.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace tarvex {

namespace {

constexpr double pivot_floor = 0.0005; // pivot of a new matrix that is smaller than numbers.zero
constexpr double least_rounding = 1.0e-7, rounding_share = 1.0e-10; // of log L between two rounds
constexpr double parameters_limit = 1.0e-8; // relative change of the parameters that counts as none

// What a round starts from, for the case that it has to be taken back.
struct round_start {
    array<double> parvec = estimates.parvec;
    array<int, 2, 0> cholorder = estimates.cholorder;
    array<int, 1, 0> logdiagonals = estimates.logdiagonals;
    array<int> logpar = estimates.logpar;

    void restore() const {
        estimates.parvec = parvec;
        estimates.cholorder = cholorder;
        estimates.logdiagonals = logdiagonals;
        estimates.logpar = logpar;
        // the weights of the design have moved on with the loadings
        if (options.principal) forget_likelihoods();
    }
};

bool reduced(int irand) { return model.krfit(irand) < model.kkfit(irand) && !model.diagonal(irand); }
bool expands() { return search_state.method.pxem && !pxempc.skip_px; }

// Covariances of a block (full square) in the layout of model.cov.
std::vector<double> packed_block(const array<double, 2>& g, int irand) {
    std::vector<double> cc;
    const int n = model.kkfit(irand);
    for (int i = 1; i <= n; ++i)
        // expansions leave the matrix symmetric but for rounding
        for (int j = i; j <= (model.diagonal(irand) ? i : n); ++j) cc.push_back(0.5 * (g(i, j) + g(j, i)));
    return cc;
}

// Q M Q' of the leading r columns of Q (n rows).
array<double, 2> between(const array<double, 2>& Q, const array<double, 2>& M, int n, int r) {
    array<double, 2> g;
    g.allocate(n, n);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j)
            for (int c = 1; c <= r; ++c)
                for (int d = 1; d <= r; ++d) g(i, j) += Q(i, c) * M(c, d) * Q(j, d);
    return g;
}

// Variances of the effects before the expansion.
void list_standard(const array<double, 2>& t, int n) {
    constexpr edit_form item{"(1x,a,2i3,f15.6)"};
    if (!options.verbose) return;
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) write(screen(), item, "var(u*)", i, j, t(i, j));
}

void list_new(const array<double, 2>& g, int n) {
    if (!options.details) return;
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) print_list(screen(), "cov", i, j, ihmssf(i, j, n), g(i, j));
}

// ---- full-rank runs

array<double, 2> full_rank_update(int irand, const em_quantities& q) {
    const int n = model.kkfit(irand);
    // E(u'A^-1 u)/nlev: the plain M-step
    array<double, 2> g = q.quads(irand);
    const double nlev = effective_levels(irand);
    for (double& x : g) x /= nlev;
    if (model.diagonal(irand))
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= n; ++j)
                if (i != j) g(i, j) = 0.0;
    if (!expands()) return g;
    array<double, 2> alpha;
    pxem_solve(irand, q, alpha);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j)
            // mean distance of the expansions from none, over all blocks
            pxempc.aalpha += std::fabs(alpha(i, j) - (i == j ? 1.0 : 0.0)) / (n * n * numbers.krand);
    if (options.details)
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= n; ++j) print_list(screen(), "alpha", i, j, alpha(i, j));
    list_standard(g, n);
    // G = alpha G* alpha': what the expansion has learned goes into the matrix
    g = between(alpha, g, n, n);
    list_new(g, n);
    raise_leading(g, n, n);
    return g;
}

// ---- principal runs

// Second moments of the standardised effects: nlev I + Q' E(z R^-1 e u').
array<double, 2> standard_moments(int irand, const em_quantities& q) {
    const int n = model.kkfit(irand), r = model.krfit(irand);
    const double nlev = effective_levels(irand);
    array<double, 2> t;
    t.allocate(r, r);
    for (int c = 1; c <= r; ++c)
        for (int d = 1; d <= r; ++d) {
            double s = 0.0;
            // the two halves agree at convergence only: their mean is used
            for (int i = 1; i <= n; ++i)
                s += 0.5 * (randomvars.zig(i, c, irand) * q.loads(irand)(i, d) +
                            randomvars.zig(i, d, irand) * q.loads(irand)(i, c));
            // in units of levels, as variances
            t(c, d) = (c == d ? 1.0 : 0.0) + s / nlev;
        }
    return t;
}

// New loadings stand in randomvars.zig on return; the covariance matrices of all blocks are returned.
std::vector<array<double, 2>> principal_update(em_quantities& q) {
    std::vector<array<double, 2>> moments, change, g;
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        moments.push_back(standard_moments(irand, q));
        if (!model.diagonal(irand)) continue;
        // diagonal block: moments between components have no place
        for (int c = 1; c <= model.krfit(irand); ++c)
            for (int d = 1; d <= model.krfit(irand); ++d)
                if (c != d) moments.back()(c, d) = 0.0;
    }
    pxem_solve_all(q, change);
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        const int n = model.kkfit(irand), r = model.krfit(irand);
        array<double, 2> Q;
        Q.allocate(n, r);
        for (int i = 1; i <= n; ++i)
            for (int c = 1; c <= r; ++c) Q(i, c) = randomvars.zig(i, c, irand) + change[irand - 1](i, c);
        for (int i = 1; i <= n; ++i)
            for (int c = 1; c <= r; ++c) randomvars.zig(i, c, irand) = Q(i, c);
        if (reduced(irand) && !expands()) { // the loadings alone
            moments[irand - 1].fill(0.0);
            for (int c = 1; c <= r; ++c) moments[irand - 1](c, c) = 1.0;
        }
        g.push_back(between(Q, moments[irand - 1], n, r));
        if (expands()) {
            list_standard(moments[irand - 1], r);
            list_new(g.back(), n);
        }
        raise_leading(g.back(), n, r);
    }
    // residuals have to be those of the new loadings before their covariances are estimated
    if (!options.randreg) dvec_combs_muv();
    em_residuals(q);
    forget_factor(); // the weights no longer are those of the factor's parameters
    return g;
}

em_request wanted() {
    em_request request;
    request.joint = options.principal;
    for (int irand = 1; irand <= numbers.krand; ++irand)
        request.expand.push_back((options.principal && reduced(irand)) || expands() ? 1 : 0);
    return request;
}

// New parameters by one EM or PX-EM step from the factor in hand.
void em_step() {
    em_quantities q;
    em_expectations(wanted(), q);
    pxempc.skippx = expands() ? 0 : 1;
    pxempc.aalpha = 0.0;
    std::vector<array<double, 2>> g;
    if (options.principal) {
        g = principal_update(q);
        if (!search_state.method.pxem) pxempc.aalpha = 0.0;
    } else
        for (int irand = 1; irand <= numbers.krand; ++irand)
            g.push_back(irand == residualvars.ipeq ? array<double, 2>() : full_rank_update(irand, q));
    const vector1<double> residual = covarsres(q);
    // small pivots are lifted: an EM step may run along the border, and must not stop there
    transform_covs(0, residual.data(), pivot_floor, estimates.parvec);
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (irand == residualvars.ipeq) {
            transform_covs(irand, residual.data() + estimates.nresparm, pivot_floor, estimates.parvec);
            continue;
        }
        const std::vector<double> cc = packed_block(g[irand - 1], irand);
        transform_covs(irand, cc.data(), pivot_floor, estimates.parvec);
    }
    if (options.principal) forget_likelihoods();
}

double evaluate(int iopt) { return evaluate_point(estimates.parvec, iopt); }

enum class round_end { taken, invalid, lost };

// One round; invalid where no valid point was found, lost where it was taken back since log L fell. xold, xnew: log L
// before and behind.
round_end one_round(double& xold, double& xnew) {
    // the factor is often that of this point, from the end of the last round
    xold = evaluate(-1);
    if (!(xold > invalid_logl)) xold = evaluate(1);
    if (!(xold > invalid_logl)) return round_end::invalid;
    const round_start start;
    em_step();
    if (search_state.method.pxem) list_changes(start.parvec, estimates.parvec);
    xnew = evaluate(1);
    // an expanded step may overshoot: the same round again without, and for good
    if (search_state.method.pxem && xnew < xold) {
        start.restore();
        search_state.method.pxem = false;
        if (options.verbose && !pxempc.skip_px) print_list(screen(), "switch to EM algorithm ! ", pxempc.aalpha);
        xold = evaluate(1);
        if (!(xold > invalid_logl)) return round_end::invalid;
        em_step();
        xnew = evaluate(1);
    }
    if (!(xnew > invalid_logl)) {
        start.restore();
        return round_end::invalid;
    }
    if (round_loses(xold, xnew)) {
        start.restore();
        return round_end::lost;
    }
    aireml_terms.pnorm = relative_change(start.parvec, estimates.parvec);
    return round_end::taken;
}

void tell_loss(double xold, double xnew) {
    if (!options.terse) print_list(screen(), "*** (PX-) EM : round lost", xold - xnew, "in log L - taken back");
    text_out out;
    if (out.open_append(filenames.iteratesfile))
        print_list(out, "*** (PX-) EM : round lost", xold - xnew, "in log L - taken back");
}

void close_converged(double dd) {
    text_out out;
    out.open_append(filenames.iteratesfile);
    if (!options.terse) print_list(screen(), "*** (PX-) EM has converged !");
    print_list(out, "*** (PX-) EM has converged");
    if (dd < maximise.emconv_like) {
        if (options.verbose) print_list(screen(), "   Last change in log L", dd, maximise.emconv_like);
        print_list(out, "    Last change in log L =", dd, maximise.emconv_like);
    } else {
        if (options.verbose) print_list(screen(), "   Last change in parameters", aireml_terms.pnorm, parameters_limit);
        print_list(out, "    Last change in parameters =", aireml_terms.pnorm, parameters_limit);
    }
}

void close_not_converged() {
    if (search_state.method.by_gain || maximise.search_type == 6) return;
    text_out out;
    out.open_append(filenames.iteratesfile);
    print_list(screen(), "*** (PX-) EM has not converged !");
    print_list(out, "*** (PX-) EM has not converged !");
}

bool traced(int iround) { return options.devtrace && (iround <= 10 || iround % 10 == 0); }

} // namespace

bool round_loses(double before, double after) {
    return after < before - (least_rounding + rounding_share * std::fabs(before));
}

void em_algorithm(int nits, int& iround, double& xlike, double xlimit) {
    auto& t = aireml_terms;
    t.tau = t.prox = t.dnorm = t.pnorm = t.alpha = 0.0;
    t.tt0 = cpu_time();
    if (options.sigam && search_state.method.pxem) {
        search_state.method.em_scale = true;
        search_state.method.pxem = false;
    }
    const bool aireml = search_state.method.aireml; // the label of a round is that of EM, whatever the plan
    search_state.method.aireml = false;
    pxempc.skip_px = false;
    maximise.converged = false;
    if (iround == 0) print_iterate(0, xlike, xlike, std::to_string(pxempc.skippx));
    const bool in_cycle = search_state.method.by_gain || (maximise.search_type == 6 && !options.algorithm_set);
    double dd = 0.0;
    round_end end = round_end::taken;
    for (int round = 1; round <= nits; ++round) {
        t.tt0 = cpu_time();
        double xold = 0.0, xnew = 0.0;
        end = one_round(xold, xnew);
        if (end == round_end::lost) {
            tell_loss(xold, xnew);
            xlike = xold;
        }
        if (end != round_end::taken) break;
        dd = xnew - xold;
        // from here on the round counts
        xlike = xnew;
        t.alpha = pxempc.aalpha;
        ++iround;
        print_iterate(iround, xnew, xold, std::to_string(pxempc.skippx));
        push_changes(dd, 0.0, 0.0);
        // A new pivot order leaves the best point in the old one unless this round has become the best.
        const bool lost = options.principal && xnew < bestpoint.xbest;
        if ((options.reconstruct || lost) && readbestpoint(true)) change_scale();
        if (traced(iround)) writebestpoint(iround);
        if (in_cycle) {
            if (dd < xlimit) break;
        } else if (dd < maximise.emconv_like || t.pnorm < parameters_limit) {
            maximise.converged = true;
            break;
        }
    }
    search_state.method.aireml = aireml;
    iterate_log.ended = end == round_end::lost      ? "a round that lost log L"
                        : end == round_end::invalid ? "no valid point"
                        : !maximise.converged       ? "limit of rounds"
                        : dd < maximise.emconv_like ? "change in log L below its limit"
                                                    : "change in parameters below its limit";
    if (maximise.converged)
        close_converged(dd);
    else
        close_not_converged();
}

} // namespace tarvex
