#include "estimation/estimates.h"

#include "control/filenames.h"
#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/levels.h"
#include "dense/numroutines.h"
#include "estimation/aireml.h"
#include "estimation/bestpoint.h"
#include "estimation/covs2parvec.h"
#include "estimation/emsteps.h"
#include "estimation/evaluate.h"
#include "estimation/iteratelog.h"
#include "estimation/lastpoint.h"
#include "estimation/parlists.h"
#include "estimation/powell.h"
#include "estimation/pulledstart.h"
#include "estimation/regionsearch.h"
#include "estimation/rescue.h"
#include "estimation/searchstate.h"
#include "likelihood/derivatives.h"
#include "likelihood/likelihood.h"
#include "likelihood/solutions.h"
#include "likelihood/warnfix.h"
#include "parameters/randomvars.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/record_file.h"
#include "support/stop.h"

#include <algorithm>
#include <cmath>
#include <fstream>

namespace tarvex {

namespace {

// The first number of BestPoint is its log L.
double stored_best_value() {
    std::ifstream in(filenames.bestfile);
    double x = invalid_logl;
    const bool closed = !in && file_exists(filenames.bestfile);
    in >> x;
    if (closed || in.bad()) stop_with("Error reading file \"" + filenames.bestfile + "\"");
    return in ? x : invalid_logl;
}

constexpr double hand_over_gain = 2.0; // of a round of PX-EM: below it the only cycle goes over to AI-REML
constexpr int rescue_rounds = 3;       // of EM where the last AI-REML has not converged,
constexpr double rescue_gain = 0.01;   // ended below that gain
constexpr double same_value = 0.001;   // difference of log L from that of the stored point
constexpr double resume_share = 0.1;   // of verdict_limit: least gain of a search that goes on
constexpr int most_resumed = 3, most_resumed_sure = 10;
constexpr int least_iterates = 10;             // of AI-REML where the user has set no limit,
constexpr float iterates_per_parameter = 1.4f; // or so many for each parameter
constexpr int simplex_limit = 1000;

// Pivots vanish against variances that are too large by far.
void tell_far_variances() {
    for (int irand = 0; irand <= numbers.krand; ++irand)
        for (int i = 1; i <= model.kkfit(irand) && !options.randreg; ++i) {
            const start_variance v = variance_at_start(irand, i);
            if (!v.far_off()) continue;
            print_list(screen(),
                       "      Starting variance far above that of the records : \"" +
                           (irand == 0 ? "residual" : model.krandom(irand)) + "\", trait",
                       v.trait, ":", v.start, "against", v.found);
        }
}

// What a failed first evaluation is due to.
void tell_reason(invalid_point why) {
    switch (why) {
    case invalid_point::residual:
        print_list(screen(), "      Residual covariance matrix without an inverse at the starting values");
        return show_indefinite_pattern();
    case invalid_point::random:
        for (int irand = 1; irand <= numbers.krand; ++irand)
            if (randomvars.deficient(irand) != 0)
                print_list(screen(), "      Covariance matrix without an inverse at the starting values : \"" +
                                         model.krandom(irand) + "\"");
        return;
    case invalid_point::value:
        print_list(screen(), "      log L is not finite at the starting values");
        return;
    default:
        write_warnfix(likelihoods.failrow);
        tell_far_variances();
    }
}

void first_evaluation(double& xlike) {
    xlike = evaluate_point(estimates.parvec, 1);
    if (xlike > invalid_logl) return;
    print_list(screen(), "***** ERROR in sparse matrix factorisation ");
    print_list(screen(), "      mixed model matrix is not positive definite !!!");
    tell_reason(search_state.why);
    stoptarvex();
}

// Residual covariances that stay at 0 throughout, by the names of the traits.
void tell_held() {
    if (options.terse || !residualvars.fixres.allocated()) return;
    const int nq = numbers.nq;
    for (int i = 1; i <= nq; ++i)
        for (int j = i + 1; j <= nq; ++j) {
            if (ihmssf(i, j, nq) > residualvars.fixres.upper() || !residualvars.fixres(ihmssf(i, j, nq))) continue;
            const bool never = means.pairs(ihmssf(i, j, nq)) == 0;
            print_list(screen(), "Residual covariance of \"" + model.trait(i) + "\" and \"" + model.trait(j) +
                                     "\" is held at 0" + (never ? " (never recorded together)" : " (it starts there)"));
        }
}

void ai_phase(int& iround, double& xlike) {
    search_state.method.aireml = true;
    search_state.method.em_scale = false;
    // covariances go over by BestPoint: on the scale of factors from here on
    from_best_point();
    ai_reml(maximise.aireml_its, iround, xlike);
}

// Back to covariances, from the best point that AI-REML has left.
void em_from_best_point() {
    search_state.method.em_scale = true;
    search_state.method.aireml = false;
    from_best_point();
}

void cycle_of_em_and_ai(int& iround, double& xlike) {
    const bool pxem = search_state.method.pxem;
    cycle_methods m;
    m.em = [&](int rounds, double gain) { em_algorithm(rounds, iround, xlike, gain); };
    m.ai = [&] {
        search_state.method.pxem = false;
        ai_phase(iround, xlike);
    };
    // a search by AI that is stuck gets rounds of EM from the best point, which cannot lose
    m.rescue = [&](int rounds, double gain) {
        em_from_best_point();
        em_algorithm(rounds, iround, xlike, gain);
    };
    m.next_cycle = [&] {
        search_state.method.pxem = pxem;
        em_from_best_point();
        // the residual inverse at the point that EM begins with
        int ifail = 0;
        rinverse(estimates.parvec, ifail);
    };
    run_cycles(m);
}

// The point of the reports: the best one. Average information there, for the sampling errors, and the verdict.
void final_step() {
    estimates.parvec = bestpoint.parbest; // a last round may have lost by rounding
    const double xlike = evaluate_point(estimates.parvec, 1);
    if (!(xlike > invalid_logl)) return;
    save_solutions(); // on the scale of the final parameters
    // the report of the search wants its own derivatives where this point is not the stored one
    const derivs_module search = derivs;
    judge_last_point();
    bestpoint.xlike_file = stored_best_value();
    if (!search_state.method.aireml || !(std::fabs(xlike - bestpoint.xlike_file) < same_value)) {
        derivs = search;
        return;
    }
    allocate("all devl1", derivs.devl1, estimates.nparm); // the report wants no curvature of the transformation
    jacob_var2chol(0);
    write_avinfo(xlike);
    rank_check();
    search_state.saverr_ready = true;
}

// Rounds of EM, and AI-REML again inside a trust region, from an end that is short of a maximum: parameters are laid
// out anew by each change of scale. False: next to nothing was gained.
bool resume(int& iround, double& xlike) {
    constexpr int rounds = 20;
    constexpr double least_gain = 0.01; // of a round that calls for another
    const double before = bestpoint.xbest;
    expanded_rounds(rounds, least_gain, true, iround, xlike);
    region_search(iround, xlike); // the surest way
    return bestpoint.xbest > before + resume_share * verdict_limit;
}

// The verdict, and the search again where it is not at a maximum and the user has set no limit of iterates.
void judge_and_resume(int& iround, double& xlike) {
    verdict.resumed = 0;
    for (;;) {
        final_step();
        if (!search_goes_on()) return;
        screen().line(verdict_line(verdict.last) + " - the search goes on");
        ++verdict.resumed;
        if (resume(iround, xlike)) continue;
        final_step();
        return;
    }
}

// Here only the verdict makes an end.
void close_sure_search() {
    maximise.converged = verdict.last.kind != search_end::not_maximum && verdict.last.kind != search_end::none;
    const char* text = maximise.converged ? "*** SURE has converged" : "*** SURE : No convergence";
    if (!options.terse || !maximise.converged) print_list(screen(), text);
    text_out out;
    if (out.open_append(filenames.iteratesfile)) print_list(out, text);
}

} // namespace

void run_cycles(const cycle_methods& m) {
    bool repeat_em = true;
    for (int icycle = 1; icycle <= maximise.ncycle; ++icycle) {
        if (icycle > 1) m.next_cycle();
        m.em(maximise.pxem_its, maximise.ncycle == 1 ? hand_over_gain : 0.0);
        if (maximise.converged) return;
        // in the last cycle a few rounds of EM help AI-REML out as long as it goes on gaining
        for (bool more = true; more;) {
            more = false;
            m.ai();
            if (maximise.converged || aireml_terms.creeps) return;
            if (icycle != maximise.ncycle || options.principal || !repeat_em) break;
            const double ai_change = aireml_terms.last_change;
            m.rescue(rescue_rounds, rescue_gain);
            if (ai_change < rescue_gain) repeat_em = false;
            more = !maximise.converged;
        }
        if (maximise.converged) return;
    }
}

bool search_goes_on() {
    const int type = maximise.search_type, most = type == 7 ? most_resumed_sure : most_resumed;
    const bool planned = type == 1 || type == 6 || type == 7;
    if (verdict.last.kind != search_end::not_maximum || !planned || !options.sure) return false;
    return verdict.resumed < most && !maximise.limit_given;
}

void get_estimates() {
    const int type = maximise.search_type;
    if (type == 1 || type == 6 || type == 7) check_average_info();
    if (type == 3 || type == 5) check_repeat_block();
    double xlike = invalid_logl;
    bestpoint.to_beat = options.continew ? bestpoint.xlike_file : invalid_logl;
    if (type == 7) pull_start();
    first_evaluation(xlike);
    tell_held();
    search_state.saverr_ready = false;
    maximise.converged = false;
    for (auto& row : maximise.cchanges) std::fill(std::begin(row), std::end(row), 0.0);
    estimates.logpar.fill(0);
    // count of parameters for the reports
    derivs.nparm2 = estimates.nparm - no_fixed_residuals(); // until AI-REML has looked at their information
    maximise.limit_given = maximise.aireml_its != 0;
    if ((type == 1 || type == 6) && maximise.aireml_its == 0)
        maximise.aireml_its =
            std::max(least_iterates, static_cast<int>(iterates_per_parameter * static_cast<float>(estimates.nparm)));
    verdict = {};
    int iround = 0;
    switch (type) {
    case 1:
        search_state.method.aireml = true;
        ai_reml(maximise.aireml_its, iround, xlike);
        break;
    case 2:
        if (maximise.simplx_its == 0) maximise.simplx_its = simplex_limit;
        break;
    case 3:
        maximise.converged = powell(xlike, estimates.parvec);
        iterate_log.ended = maximise.converged ? "change in log L below its limit" : "limit of rounds";
        break;
    case 5:
        em_algorithm(maximise.pxem_its, iround, xlike, 0.0);
        break;
    case 6:
        cycle_of_em_and_ai(iround, xlike);
        break;
    case 7:
        region_search(iround, xlike);
        break;
    default:
        break;
    }
    judge_and_resume(iround, xlike);
    if (bestpoint.to_beat > bestpoint.xbest + verdict_limit)
        print_list(screen(), "\"" + filenames.bestfile + "\" keeps the better point of the run before : log L =",
                   bestpoint.to_beat);
    if (type == 7) close_sure_search();
    if (verdict.last.kind != search_end::none) screen().line(verdict_line(verdict.last));
}

} // namespace tarvex
