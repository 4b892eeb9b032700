#include "reports/levelcounts.h"

#include "control/limits.h"
#include "control/numbers.h"
#include "data/data.h"
#include "data/levels.h"
#include "data/recodedata.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"

#include <algorithm>

namespace tarvex {

namespace {

// Levels that the lists do not have are passed over.
void add(level_counts& c, std::ptrdiff_t level, double y) {
    if (level < 1 || level > c.nnvec.size()) return;
    ++c.nnvec(level);
    c.fbar(level) += y;
}

void size(level_counts& c, std::ptrdiff_t n) {
    c.nnvec.assign(n, 0);
    c.fbar.assign(n, 0.0);
}

int fixed_level(const array<double>& dvec, int i, int iq) {
    return find_code(effect_code(dvec, mudmap.fx_dcolno(i, iq), mudmap.fx_dcolno2(i, iq), levels.fx_base(i, iq)),
                     levels.fx_codes(i, iq));
}
int extra_level(const array<double>& dvec, int i, int iq) {
    return find_code(effect_code(dvec, mudmap.ex_dcolno(i, iq), mudmap.ex_dcolno2(i, iq), levels.ex_base(i, iq)),
                     levels.ex_codes(i, iq));
}

void count_curve(solution_counts& counts, const array<double>& dvec, int i, int iq, double y) {
    const auto& values = covmeans.cv_values(i, iq);
    const auto at = std::lower_bound(values.begin(), values.end(), dvec(mudmap.cv_dcolno(i, iq)));
    // the data have changed since the scan
    if (at == values.end()) return;
    const int nest = mudmap.cv_nestfix(i, iq);
    const int level = nest == 0 ? 1 : nest > 0 ? fixed_level(dvec, nest, iq) : extra_level(dvec, -nest, iq);
    if (level < 1) return;
    // values of a curve together, curve after curve
    add(counts.curve(i, iq), (level - 1) * static_cast<std::ptrdiff_t>(values.size()) + (at - values.begin()) + 1, y);
}

void count_record(solution_counts& counts, const array<double>& dvec, int iq) {
    const double y = dvec(mudmap.tr_dcolno(iq));
    if (is_missing(iq, y)) return;
    for (int i = 1; i <= model.nfix(iq); ++i) add(counts.fixed(i, iq), fixed_level(dvec, i, iq), y);
    for (int i = 1; i <= model.nextra(iq); ++i) add(counts.extra(i, iq), extra_level(dvec, i, iq), y);
    for (int i = 1; i <= model.ncov(iq); ++i) count_curve(counts, dvec, i, iq, y);
}

// sums become means
void to_means(array<level_counts, 2>& all) {
    for (auto& c : all)
        for (int l = 1; l <= c.nnvec.size(); ++l)
            if (c.nnvec(l) > 0) c.fbar(l) /= c.nnvec(l);
}

} // namespace

const code_list* nest_codes(int icov, int iq) {
    const int nest = mudmap.cv_nestfix(icov, iq);
    return nest > 0 ? &levels.fx_codes(nest, iq) : nest < 0 ? &levels.ex_codes(-nest, iq) : nullptr;
}

void count_levels(solution_counts& counts) {
    const int nq = numbers.nq;
    counts.fixed.allocate(maxfix, nq);
    counts.extra.allocate(maxext, nq);
    counts.curve.allocate(maxcov, nq);
    for (int iq = 1; iq <= nq; ++iq) {
        for (int i = 1; i <= model.nfix(iq); ++i) size(counts.fixed(i, iq), levels.fx_codes(i, iq).size());
        for (int i = 1; i <= model.nextra(iq); ++i) size(counts.extra(i, iq), levels.ex_codes(i, iq).size());
        for (int i = 1; i <= model.ncov(iq); ++i) {
            // a curve for each level of the effect it is nested in
            const code_list* codes = nest_codes(i, iq);
            const std::ptrdiff_t curves = codes ? codes->size() : 1;
            size(counts.curve(i, iq), curves * static_cast<std::ptrdiff_t>(covmeans.cv_values(i, iq).size()));
        }
    }
    data_reader reader;
    open_datfile(reader);
    array<double> dvec;
    dvec.allocate(mudmap.maxcol);
    int trait = 0;
    bool iskip = false;
    while (getrec_dvec(reader, dvec, trait, iskip)) {
        if (iskip) continue;
        // a record of one trait counts for that trait, one without a number of a trait for all
        for (int iq = trait > 0 ? trait : 1; iq <= (trait > 0 ? trait : nq); ++iq) count_record(counts, dvec, iq);
    }
    to_means(counts.fixed);
    to_means(counts.extra);
    to_means(counts.curve);
}

} // namespace tarvex
