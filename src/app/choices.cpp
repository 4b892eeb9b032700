#include "app/choices.h"

#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "parfile/model.h"
#include "support/screen.h"

#include <algorithm>

namespace tarvex {

namespace {

// Correlated random effects under an algorithm that the user chose: a few rounds of plain EM at most.
void restrict_to_plain_em() {
    if (options.pxem) {
        screen().line("PX-EM algorithm not implemented for correlated random effects ");
        screen().line(" ... switching to plain EM instead ! ");
        options.pxem = false;
    }
    maximise.pxem_its = std::min(maximise.pxem_its, 4);
    if (options.aireml && maximise.aireml_its < 1) maximise.aireml_its = 100;
}

bool reduced_rank() {
    for (int i = 1; i <= numbers.krand; ++i)
        if (model.krfit(i) != model.kkfit(i)) return true;
    return false;
}

} // namespace

void choose_algorithm() {
    // equations of factors: rounds of PX-EM first, since loadings may be far off at the start
    if (options.principal && !options.algorithm_set) {
        maximise.ncycle = 1;
        options.pxai = true;
        if (!options.sigam) {
            options.pxem = true;
            return;
        }
    }
    // correlated effects in one block: plain EM, then AI-REML
    if (!options.sigam) return;
    if (options.algorithm_set) {
        restrict_to_plain_em();
        return;
    }
    options.algorithm_set = options.aireml = options.emalgorithm = options.pxai = true;
    options.pxem = false;
    maximise.ncycle = 1;
}

void choose_reconstruct() {
    if (options.principal && reduced_rank())
        // average information at reduced rank needs the relationships themselves
        options.superai = true;
    else if (!options.reco_set)
        options.reconstruct = false;
}

bool any_nrm_effect() {
    for (int iq = 1; iq <= numbers.nq; ++iq)
        for (int i = 1; i <= model.nrnd(iq); ++i)
            if (model.rnd_opt(i, iq) == covariance_kind::nrm) return true;
    return false;
}

bool choose_small_problem(int nparm) {
    // AI-REML alone: with few parameters the start is near enough for it. A plan that the user has named stands.
    if (options.algorithm_set || options.blup || nparm >= nparm_for_pxem)
        return false; // BLUP takes the matrices as given
    maximise.search_type = 1;
    options.emalgorithm = options.pxem = false;
    return true;
}

} // namespace tarvex
