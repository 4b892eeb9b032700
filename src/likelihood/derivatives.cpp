#include "likelihood/derivatives.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/datavecs.h"
#include "dense/numroutines.h"
#include "equations/mmmatrix.h"
#include "likelihood/factormmm.h"
#include "likelihood/likelihood.h"
#include "likelihood/structure_sums.h"
#include "likelihood/subjectchunks.h"
#include "parameters/parunits.h"
#include "parameters/parvec.h"
#include "parameters/randomvars.h"
#include "parameters/residualvars.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/stop.h"

#include <algorithm>

namespace tarvex {

namespace {

// Derivatives with respect to the elements of the factors, kkfit x krfit for each block (principal runs).
using factor_sums = vector1<array<double, 2>>;

// Part of the residual parameters in log L: K = R^-1 M R^-1 against dR, less half the trace of R^-1 dR.
struct residual_part {
    vector1<double> data, trace;
    vector1<int> age, iclass;

    residual_part() : data(estimates.nrespeq), trace(estimates.nrespeq) {}

    void add(const residual_part& next) {
        for (int k = 1; k <= data.size(); ++k) data(k) += next.data(k);
        for (int k = 1; k <= trace.size(); ++k) trace(k) += next.trace(k);
    }
    void add_patterns(const vector1<pattern_matrix>& sums) {
        for (int k = 1; k <= combinations.ncombi; ++k) {
            const pattern_matrix& rinv = residualvars.eei(k);
            const vector1<int> q = pattern_traits(k);
            const pattern_matrix& m = sums(k);
            // (Py)'dR(Py) and tr(P dR) together are -2 tr(K dR) and tr(R^-1 dR)
            if (m.n > 0) add_residual_terms(between_inverses(rinv, m), q, {}, {}, 1.0, data);
            add_residual_terms(rinv, q, {}, {}, -0.5 * combinations.ncomb_subj(k), trace);
        }
    }
    void add_subject(const part_products& p) {
        const subject_record& d = *p.part.record;
        residual_classes(d, age, iclass);
        const std::span<const int> q(d.ynq.data(), d.nobs);
        pattern_matrix rinv;
        rinv.reset(p.part.design->nobs, p.part.diagonal);
        std::copy_n(p.part.r, rinv.v.size(), rinv.v.begin());
        const auto cut = [&](std::span<const int> s) { return s.subspan(p.part.obs, rinv.n); };
        add_residual_terms(between_inverses(rinv, p.m), cut(q), cut(age), cut(iclass), 1.0, data);
        add_residual_terms(rinv, cut(q), cut(age), cut(iclass), -0.5, trace);
    }
};

void set_principal(const factor_sums& d) {
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (mudmap.kovrnd(irand) == covariance_kind::peq) continue;
        const int from = block_start(irand);
        for (int k = 1; k <= block_size(irand); ++k) {
            const factor_place f = factor_element(irand, 1, k);
            derivs.devc(from + k - 1) = d(irand)(f.row, f.col);
            // the effects have variance I: log|G| is 0
            derivs.devl1(from + k - 1) = -derivs.devc(from + k - 1);
        }
    }
}

// Covariances of a full-rank block, from T(i,j) = sum of A^-1 times X: K = G^-1 T G^-1.
void block_derivatives(int irand, const pattern_values& x) {
    array<double, 2> t;
    // T is symmetric: covariance (i,j) stands for both elements of G, hence the factor 2
    structure_sums(irand, x, t);
    const int n = model.kkfit(irand);
    const auto& g = randomvars.zig;
    const double nlev = effective_levels(irand);
    int par = block_start(irand);
    for (int i = 1; i <= n; ++i)
        // par runs along the packed triangle, by rows
        for (int j = i; j <= (model.diagonal(irand) ? i : n); ++j, ++par) {
            double k = 0.0;
            for (int r = 1; r <= n; ++r)
                for (int s = 1; s <= n; ++s) k += g(i, r, irand) * t(r, s) * g(s, j, irand);
            const double times = i == j ? 1.0 : 2.0;
            // log|G| gives -nlev/2 tr(G^-1 dG), y'Py and log|C| together K
            derivs.devc(par) = -times * k;
            derivs.devl1(par) = times * (k - 0.5 * nlev * g(i, j, irand));
        }
}

void set_residual(const residual_part& r) {
    for (int k = 1; k <= estimates.nrespeq; ++k) {
        derivs.devc(k) = -r.data(k);
        derivs.devl1(k) = r.data(k) + r.trace(k);
    }
}

// What a chunk of subjects adds up.
struct chunk_sums {
    residual_part residual{};
    vector1<pattern_matrix> patterns{};
    factor_sums factors{};

    chunk_sums() : factors(numbers.krand) {
        if (options.principal)
            // one place for each element of the factor, also for those above its diagonal, which stay 0
            for (int irand = 1; irand <= numbers.krand; ++irand)
                factors(irand).allocate(model.kkfit(irand), model.krfit(irand));
        if (!options.randreg) patterns.resize(combinations.ncombi);
    }
    void add(const chunk_sums& next) {
        residual.add(next.residual);
        add_patterns(next.patterns, patterns);
        add_loads(next.factors, factors);
    }
};

void data_pass(const pattern_values& x) {
    std::vector<chunk_sums> sums(subject_chunks());
    walk_products(x, options.principal, [&](int chunk, const part_products& p) {
        chunk_sums& mine = sums[chunk];
        if (options.randreg)
            mine.residual.add_subject(p);
        else
            add_products(p, mine.patterns);
        if (options.principal) add_loads(p, 2.0, mine.factors);
    });
    // added in the order of the subjects, whoever has formed them
    chunk_sums& all = sums.front();
    for (std::size_t c = 1; c < sums.size(); ++c) all.add(sums[c]);
    if (!options.randreg) all.residual.add_patterns(all.patterns);
    set_residual(all.residual);
    if (options.principal) set_principal(all.factors);
}

} // namespace

void derivatives_mmm() {
    const int nparm = estimates.nparm;
    check_repeat_block();
    need_evaluation("derivatives_mmm");
    allocate("all devl1", derivs.devc, nparm);
    allocate("all devl1", derivs.devl1, nparm);
    // from here on the store holds F; half of it is X between two equations, see structure_sums.h
    autodiff_in_place();
    if (options.details) print_list(screen(), " Auto differentiation complete");

    const pattern_values x{sparse.diag, sparse.xspars, 0.5, true};
    data_pass(x);
    if (options.print_times) tvxtimes(2, "1st - residuals");
    // the residual block has all of the repeat effect
    for (int irand = 1; irand <= numbers.krand; ++irand)
        if (mudmap.kovrnd(irand) != covariance_kind::peq && !options.principal) block_derivatives(irand, x);
    derivs.gradient_at = estimates.parvec;
    if (options.details)
        for (int i = 1; i <= nparm; ++i) print_list(screen(), "devc", i, derivs.devc(i));
    if (options.print_times) tvxtimes(2, "1st - all");
}

} // namespace tarvex
