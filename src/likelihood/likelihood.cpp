#include "likelihood/likelihood.h"
#include "parfile/randasfix.h"

#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/datavecs.h"
#include "data/levels.h"
#include "data/units.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "likelihood/buildmmm.h"
#include "likelihood/factormmm.h"
#include "likelihood/setups.h"
#include "likelihood/solutions.h"
#include "parameters/parunits.h"
#include "parameters/parvec.h"
#include "parameters/randomvars.h"
#include "parameters/residualvars.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "relations/nrminverse.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace tarvex {

namespace {

constexpr int table_drop = 20; // oldest rows that a full table gives up

void allocate_table(int nparm) {
    auto& l = likelihoods;
    // column: log L, then the parameters
    if (!l.likesav.allocated() || l.likesav.upper(1) != nparm + 1) {
        allocate("all likesav", l.likesav, nparm + 1, likelihood_rows);
        l.nlike = 0;
    }
    if (l.lastpar.upper() != nparm) {
        allocate("all likesav", l.lastpar, nparm);
        l.factor_valid = false;
    }
}

// The vector that evaluations are compared by: residual part as it was used, the rest as given.
array<double> compared(const array<double>& parvec, int nparm) {
    array<double> p;
    p.allocate(nparm);
    // residual parameters are clamped in rinverse: two vectors may be one point
    const int nres = static_cast<int>(std::min<std::ptrdiff_t>(estimates.nresparm, residualvars.rpars.upper()));
    for (int i = 1; i <= nparm; ++i) p(i) = i <= nres ? residualvars.rpars(i) : parvec(i);
    return p;
}

bool lookuplike(const array<double>& p, int nparm, double& xlike) {
    const auto& l = likelihoods;
    // the newest first; equal to the last bit
    for (int row = l.nlike; row >= 1; --row) {
        int i = 1;
        while (i <= nparm && l.likesav(i + 1, row) == p(i)) ++i;
        if (i <= nparm) continue;
        xlike = l.likesav(1, row);
        if (options.verbose) print_list(screen(), row - l.nlike, xlike, "logl found");
        return true;
    }
    return false;
}

bool has_changed(const array<double>& p, int nparm) {
    if (!likelihoods.factor_valid) return true;
    for (int i = 1; i <= nparm; ++i)
        // not a number counts as changed
        if (!(std::fabs(p(i) - likelihoods.lastpar(i)) <= numbers.zero)) return true;
    return false;
}

// New order and structure, after an element had no place in the old one.
order_made redo_structure() {
    // the old store goes before the new one comes: both together may be too much
    sparse.xspars.deallocate();
    const order_made made = redo_eqnorders();
    resize_store();
    if (sparse.xspars.size() != sparse.maxlnz) allocate_large("XSPARS", sparse.xspars, sparse.maxlnz);
    return made;
}

// Builds and factorises at the covariances in hand. False: invalid pivot.
bool new_factor(evaluation& e) {
    auto& l = likelihoods;
    // until the new factor is complete
    l.factor_valid = false;
    l.failrow = 0;
    e.reordered = build_with_new_order();
    ++l.nfact;
    int ifail = 0;
    factorise_mmm(l.detc, l.ypy, ifail);
    return ifail == 0;
}

// Equations of the fixed part of trait iq that are in the system.
int fixed_equations(int iq) {
    const auto count = [](int start, int n) {
        int m = 0;
        for (int e = start + 1; e <= start + n; ++e) m += orders.ieqnew(e) > 0 ? 1 : 0;
        return m;
    };
    int n = 0;
    for (int i = 1; i <= model.nfix(iq); ++i) n += count(mmequations.fx_start(i, iq), levels.fx_nlev(i, iq));
    for (int i = 1; i <= model.ncov(iq); ++i) {
        // 0: one curve; above 0: one for each level of a fixed effect, below: of an extra one
        const int nest = mudmap.cv_nestfix(i, iq);
        const int curves = nest == 0 ? 1 : nest > 0 ? levels.fx_nlev(nest, iq) : levels.ex_nlev(-nest, iq);
        n += count(mmequations.cv_start(i, iq), curves * mudmap.cv_order(i, iq));
    }
    if (mmequations.ieq_trait(iq) > 0) n += count(mmequations.ieq_trait(iq) - 1, 1);
    return n;
}

// Levels of a random effect that are estimated as fixed ones: they have no variance.
int levels_as_fixed(int irand) {
    int n = geninverse.nwithout.allocated() ? geninverse.nwithout(irand) : 0;
    if (options.pseudofix && randasfix.nasfix.allocated()) n += randasfix.nasfix(irand);
    return n;
}

// What log L of the records as recoded lacks to that of the data: traits are worked out in units of their own.
double logl_shift() {
    double s = 0.0;
    for (int iq = 1; iq <= numbers.nq; ++iq)
        // y/u for y: log u for each record that no fixed equation takes up
        if (const double u = trait_unit(iq); u != 1.0) s -= (means.nrec(iq) - fixed_equations(iq)) * std::log(u);
    if (!any_unit()) return s;
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (mudmap.kovrnd(irand) == covariance_kind::peq || estimates.paraform(irand) == par_scale::cholesky) continue;
        for (int i = 1; i <= model.kkfit(irand); ++i) s += levels_as_fixed(irand) * std::log(row_unit(irand, i));
    }
    return s;
}

double assembled_dev() {
    // -2 log L without constants: log|C| + y'Py + log|G x A| + log|R|
    double dev = likelihoods.detc + likelihoods.ypy;
    if (any_unit()) dev -= 2.0 * logl_shift();
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (mudmap.kovrnd(irand) == covariance_kind::peq) continue;
        const double nlev = effective_levels(irand);
        dev += nlev * randomvars.detg(irand);
        // log|A| once for each coefficient of a level
        if (!options.siremodel) dev += nfit(irand) * randomvars.detl(irand);
    }
    if (options.randreg) return dev + residualvars.detres(1);
    for (int k = 1; k <= combinations.ncombi; ++k) dev += combinations.ncomb_subj(k) * residualvars.detres(k);
    return dev;
}

void tell_evaluation(double xlike) {
    constexpr edit_form told{"(a,i5,3x,f15.3,3x,a,i8) "};
    if (!options.verbose) return;
    write(screen(), told, "***log L", likelihoods.ncall, xlike, "Time", static_cast<int>(cpu_time()));
}

void table_evaluation(const array<double>& p, int nparm, double xlike) {
    auto& l = likelihoods;
    // rows move to the front: the newest stay
    if (l.nlike == likelihood_rows) {
        for (int row = table_drop + 1; row <= likelihood_rows; ++row)
            std::ranges::copy(l.likesav.column(row), l.likesav.column(row - table_drop).begin());
        l.nlike = likelihood_rows - table_drop;
    }
    // a search that stands still does not fill the table
    if (xlike == l.xlast && l.nlike > 0) return;
    ++l.nlike;
    l.likesav(1, l.nlike) = xlike;
    for (int i = 1; i <= nparm; ++i) l.likesav(i + 1, l.nlike) = p(i);
}

void housekeeping(const array<double>& p, int nparm, bool changed, double xlike) {
    auto& l = likelihoods;
    if (changed) {
        if (options.print_times) tvxtimes(2, "Log L");
        ++l.ncall;
        tell_evaluation(xlike);
    }
    if (changed) l.lastpar = p;
    table_evaluation(p, nparm, xlike);
    l.xlast = xlike;
    likelihoods.first = false;
}

evaluation without_value(evaluation e, invalid_point why) {
    e.why = why;
    return e;
}

} // namespace

double effective_levels(int irand) { return levels.rn_nlev(irand) - levels_as_fixed(irand); }

evaluation loglike(array<double>& parvec, int iopt) {
    auto& l = likelihoods;
    const int nparm = estimates.nparm;
    evaluation e;
    allocate_table(nparm);
    l.given.deallocate(); // the covariance inverses of another point may be left behind

    int ifail = 0;
    rinverse(parvec, ifail);
    if (ifail) return without_value(e, invalid_point::residual);
    // residual matrices have been formed: they are of the point asked for, the factor is not
    if (iopt == 0 && lookuplike(compared(parvec, nparm), nparm, e.xlike)) {
        e.valid = true;
        return e;
    }
    // before g_inverse, so that a deficient block does not spoil the comparison
    const bool changed = has_changed(compared(parvec, nparm), nparm);
    g_inverse(parvec, ifail);
    if (ifail || any_deficient()) return without_value(e, invalid_point::random);
    if (iopt == -1 && !changed) {
        l.given = parvec;
        e.xlike = l.xlast;
        e.valid = true;
        return e;
    }
    const array<double> p = compared(parvec, nparm); // as clamped by both
    if (changed) {
        if (!new_factor(e)) return without_value(e, invalid_point::pivot);
        e.new_factor = true;
        const double dev = assembled_dev();
        if (!std::isfinite(dev)) return without_value(e, invalid_point::value);
        l.factor_valid = true;
        e.xlike = -0.5 * dev;
    } else { // a value belongs to its factor: log|R| and log|G| of a point beside it do not go with its log|C|
        e.xlike = l.xlast;
    }
    l.given = parvec;
    e.valid = e.solved = true;
    // solutions go with the factor even where it was reused: derivatives may have been there meanwhile
    back_solutions();
    housekeeping(p, nparm, changed, e.xlike);
    return e;
}

void need_evaluation(const char* routine) {
    need_state(sparse, store_state::factor, routine);
    const auto& l = likelihoods;
    const auto& p = estimates.parvec;
    if (l.factor_valid && l.given.upper() == p.upper() && std::equal(p.begin(), p.end(), l.given.begin())) return;
    stop(std::string("programming error: \"") + routine + "\" needs an evaluation of its point");
}

std::optional<order_made> build_with_new_order() {
    int iflag = 0;
    places.lenient = true; // covariances that were zero when the structure was laid out may have become free
    build_mmm(iflag);
    places.lenient = false;
    if (!iflag) return {};
    const order_made made = redo_structure();
    // the second time every element has its place
    build_mmm(iflag);
    if (iflag) stop("this should not happen");
    return made;
}

void forget_factor() { likelihoods.factor_valid = false; }

void forget_likelihoods() {
    likelihoods.factor_valid = false;
    likelihoods.nlike = 0;
}

} // namespace tarvex
