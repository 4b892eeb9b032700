#include "reports/blup.h"

#include "control/interrupts.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "dense/numroutines.h"
#include "equations/mmmatrix.h"
#include "estimation/estimates.h"
#include "likelihood/factormmm.h"
#include "likelihood/likelihood.h"
#include "likelihood/solutions.h"
#include "likelihood/warnfix.h"
#include "parameters/randomvars.h"
#include "parameters/residualvars.h"
#include "parfile/model.h"
#include "reports/residuals.h"
#include "reports/results_json.h"
#include "reports/writesolns.h"
#include "support/stop.h"

#include <algorithm>

namespace tarvex {

namespace {

// The given matrix of a block is positive definite (all steps of the residual), at reduced rank in its leading
// components.
bool positive_definite(int irand) {
    const int n = model.kkfit(irand), rank = model.krfit(irand), steps = steps_of(irand);
    if (model.diagonal(irand))
        return std::all_of(model.cov.column(irand).begin(), model.cov.column(irand).begin() + n,
                           [](double v) { return v > 0.0; });
    for (int step = 1; step <= steps; ++step) {
        const int length = triangle(n);
        const array<double, 2> a = unpack(model.cov.column(irand).subspan((step - 1) * length), n);
        array<double, 2> vectors;
        array<double> eig;
        // the user's units may be of any size
        eigem_any_size(a, eig, vectors, n);
        if (!(eig(rank) > 0.0)) return false;
    }
    return true;
}

[[noreturn]] void invalid(const char* which) {
    print_list(screen(), which);
    stoptarvex();
}

void invert_given_matrices() {
    // eigenvalues first: an inverse of an indefinite matrix may exist, and is no covariance matrix's
    int ifail = positive_definite(0) ? 0 : 1;
    if (ifail == 0) {
        rinverse(estimates.parvec, ifail);
        if (ifail != 0) show_indefinite_pattern();
    }
    if (ifail != 0) invalid("Invalid residual covariance matrix for BLUP");
    // all blocks are looked at before any is inverted
    for (int irand = 1; irand <= numbers.krand; ++irand)
        if (!positive_definite(irand)) ifail = 1;
    if (ifail == 0) g_inverse(estimates.parvec, ifail);
    const auto& deficient = randomvars.deficient;
    if (ifail != 0 || std::any_of(deficient.begin(), deficient.end(), [](int d) { return d != 0; }))
        invalid("Invalid random covariance matrix for BLUP");
}

} // namespace

void get_ebvs() {
    invert_given_matrices();
    // zeros of the given matrices may differ from those that the structure was laid out for
    if (const auto made = build_with_new_order()) keep_order(*made);
    double detc = 0.0, ypy = 0.0;
    int ifail = 0;
    factorise_mmm(detc, ypy, ifail);
    if (ifail != 0) {
        write_reason(likelihoods.failrow);
        invalid("Error in factorisation of MMM ");
    }
    end_if_asked(false);
    // solutions first, then the inverse in place of the factor: its diagonal is the error variances
    takaha_inverse();
    end_if_asked(false);
    save_solutions();
    if (solutions.nsolerrs != 0) {
        need_state(sparse, store_state::inverse, "get_ebvs");
        if (solutions.solerrs.size() != numbers.nsrow) allocate("alloc solerrs", solutions.solerrs, numbers.nsrow);
        // the store is used again for other elements: errors are kept apart
        for (int i = 1; i < numbers.nsrow; ++i) solutions.solerrs(i) = sparse.diag(i);
    }
    write_fixsolns();
    write_randsolns();
    write_residuals();
    write_results(run_kind::blup_run);
}

} // namespace tarvex
