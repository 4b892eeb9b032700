#include "estimation/modelsums.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "data/pedigreelist.h"
#include "data/recodedata.h"
#include "data/units.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "relations/inverse_stream.h"

#include <cstddef>
#include <span>

namespace tarvex {

namespace {

digest analysis_sum() {
    digest_maker sum;
    for (const int n : {model.anal_type, int{options.randreg}, int{options.siremodel}}) sum.add(n);
    return sum.value();
}

digest traits_sum() {
    digest_maker sum;
    // names, not columns: the same traits in another file are the same traits
    sum.add(numbers.nq);
    for (int iq = 1; iq <= numbers.nq; ++iq) sum.add(model.trait(iq));
    return sum.value();
}

digest effects_sum() {
    digest_maker sum;
    const auto list = [&](const array<std::string, 2>& names, int n, int iq) {
        // the length first: names of neighbouring lists must not run together
        sum.add(n);
        for (int i = 1; i <= n; ++i) sum.add(names(i, iq));
    };
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        list(model.fixed, model.nfix(iq), iq);
        list(model.covar, model.ncov(iq), iq);
        list(model.random, model.nrnd(iq), iq);
        sum.add(model.nrnd(iq));
        for (int i = 1; i <= model.nrnd(iq); ++i) sum.add(name_of(model.rnd_opt(i, iq)));
        list(model.extra, model.nextra(iq), iq);
        list(model.rricontrol, model.nmeta(iq), iq);
        sum.add(model.fitmean(iq));
    }
    sum.add(model.subject_line ? 1 : 0);
    for (const auto& column : model.subject) sum.add(column);
    return sum.value();
}

// Residual covariances that start at zero are kept there.
void add_zero_pattern(digest_maker& sum) {
    if (model.kkfit(0) < 1) return;
    for (int k = 1; k <= cov_length(0) && k <= model.cov.upper(1); ++k)
        // which are zero, not how large: other starting values are the same model
        sum.add(model.cov(k, 0) == 0.0 ? 1 : 0);
}

digest blocks_sum() {
    digest_maker sum;
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        sum.add(model.krandom(irand));
        for (const int n : {model.kkfit(irand), model.krfit(irand), model.diagonal(irand), model.correlated(irand)})
            sum.add(n);
        if (irand > 0) sum.add(name_of(mudmap.kovrnd(irand)));
    }
    sum.add(model.rr_resteps);
    sum.add(name_of(model.me_type));
    sum.add(model.me_control);
    sum.add(model.me_range.prefix(model.me_range.size()));
    add_zero_pattern(sum);
    return sum.value();
}

template <class T> void add_part(digest_maker& sum, const array<T, 2>& a, int rows, int n) {
    sum.bytes(a.data(), sizeof(T) * rows * n);
}

digest data_sum() {
    digest_maker sum;
    recdata_pass pass;
    setup_recdata(pass, filenames.recdatfil2);
    const subject_record& d = pass.record;
    // records are stored in these units
    for (int iq = 1; iq <= numbers.nq; ++iq) sum.add(trait_unit(iq));
    while (next_subject(pass)) {
        // codes and values as recoded: a renamed column or file is the same data
        const int head[4] = {d.nobs, d.nobs, d.nr, d.mcov};
        sum.bytes(head, sizeof head);
        const std::size_t nobs = d.nobs;
        sum.bytes(d.yvec.data(), nobs * sizeof(double));
        sum.bytes(d.ynq.data(), nobs * sizeof(int));
        add_part(sum, d.imeta, d.nmeta, d.nobs);
        add_part(sum, d.xcov, d.mcov, d.nobs);
        add_part(sum, d.icov, d.mcov, d.nobs);
        add_part(sum, d.ieqnr, d.mrow, d.nobs);
        sum.bytes(d.jvec.data(), sizeof(int) * d.nr);
    }
    return sum.value();
}

// Pedigrees, and the elements of supplied inverses.
digest relationships_sum() {
    digest_maker sum;
    // as numbered: parents before their offspring
    for (int irun = 1; irun <= pedigreelist.nrunno; ++irun)
        for (const auto* parents : {&pedigreelist.sire(irun), &pedigreelist.dam(irun)}) sum.add(*parents);
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (mudmap.kovrnd(irand) != covariance_kind::gin) continue;
        inverse_stream inverse(irand);
        for (inverse_element e; inverse.next(e);) {
            sum.add(e.col);
            sum.add(e.row);
            sum.add(e.value);
        }
    }
    return sum.value();
}

} // namespace

void sum_model() {
    modelsums = {};
    modelsums.analysis = analysis_sum();
    modelsums.traits = traits_sum();
    modelsums.effects = effects_sum();
    modelsums.blocks = blocks_sum();
}

void sum_inputs() {
    modelsums.data = data_sum();
    modelsums.pedigree = relationships_sum();
}

} // namespace tarvex
