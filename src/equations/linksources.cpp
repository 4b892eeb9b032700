// A record links the equations of its row; records of a subject are linked where the inverse of their residual
// covariance matrix is not zero. Links are kept as sets: the records of a subject fall into groups between which that
// inverse is zero, and all equations of a group are taken as linked, with weights that happen to be zero as well, since
// pivots and parameters move in the course of a run. A link too many does no harm to the numbers.
#include "equations/linksources.h"

#include "basis/phimatrix.h"
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "data/datavecs.h"
#include "data/levels.h"
#include "data/recodedata.h"
#include "dense/numroutines.h"
#include "equations/mmequations.h"
#include "equations/orders.h"
#include "parameters/parvec.h"
#include "parameters/residualvars.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "relations/inverse_stream.h"
#include "support/screen.h"
#include "support/stop.h"
#include "support/text.h"

#include <algorithm>
#include <functional>
#include <numeric>

namespace tarvex {

namespace {

bool peq_effect() {
    for (int irand = 1; irand <= numbers.krand; ++irand)
        if (mudmap.kovrnd(irand) == covariance_kind::peq) return true;
    return false;
}

// Groups of the items 0..n-1 that `linked` ties together, numbered by their first item.
std::vector<int> components(int n, const std::function<bool(int, int)>& linked) {
    std::vector<int> group(n);
    std::iota(group.begin(), group.end(), 0);
    for (int i = 1; i < n; ++i)
        for (int j = 0; j < i; ++j) {
            if (group[i] == group[j] || !linked(i, j)) continue;
            // the number of a group is that of its first item
            const int keep = std::min(group[i], group[j]), drop = std::max(group[i], group[j]);
            std::replace(group.begin(), group.end(), drop, keep);
        }
    return group;
}

// Groups of the records of each pattern, by the residual inverses in hand.
std::vector<std::vector<int>> pattern_groups() {
    std::vector<std::vector<int>> groups;
    for (const auto& w : residualvars.eei)
        groups.push_back(components(w.n, [&](int i, int j) { return w(i + 1, j + 1) != 0.0; }));
    return groups;
}

// Traits whose residuals are correlated in some class, directly or through others: group of each trait.
std::vector<int> trait_groups() {
    const auto& s = residualvars.sigres;
    const int nq = numbers.nq;
    return components(nq, [&](int i, int j) { // i > j, from 0
        if (!s.allocated()) return true;
        const int place = ihmssf(j + 1, i + 1, nq);
        for (int c = 1; c <= s.upper(2); ++c)
            if (s(place, c) != 0.0) return true;
        return false;
    });
}

int trait_of(const subject_record& d, int i) { return numbers.nq == 1 ? 1 : d.ynq(i); }

// Group of each observation of a subject.
struct record_groups {
    std::vector<std::vector<int>> patterns;
    std::vector<int> traits;
    std::vector<int> control; // row of imeta that the residuals of a trait depend on
    bool independent = false; // one trait: no covariances between records

    void of_subject(const subject_record& d, std::vector<int>& group) const {
        const int n = d.nobs;
        group.resize(n);
        if (options.randreg) {
            // records at one place of the controls, of traits that are tied
            group = components(n, [&](int i, int j) {
                const int iq = trait_of(d, i + 1), jq = trait_of(d, j + 1);
                return d.imeta(control[iq - 1], i + 1) == d.imeta(control[jq - 1], j + 1) &&
                       (model.nrrc < 2 || same_place(d, i + 1, j + 1)) && traits[iq - 1] == traits[jq - 1];
            });
        } else if (independent) {
            std::iota(group.begin(), group.end(), 0);
        } else {
            // patterns without an inverse in hand: all records of the subject are linked
            const std::size_t k = d.icombi - 1;
            if (k < patterns.size() && static_cast<int>(patterns[k].size()) == n)
                group = patterns[k];
            else
                std::fill(group.begin(), group.end(), 0);
        }
    }
};

record_groups make_groups() {
    record_groups g;
    g.independent = numbers.nq == 1 && !peq_effect();
    if (options.randreg) {
        g.traits = trait_groups();
        for (int iq = 1; iq <= numbers.nq; ++iq) g.control.push_back(phimat.jjmeta(iq));
    } else if (!g.independent)
        g.patterns = pattern_groups();
    return g;
}

void form_residual_inverses() {
    if (!options.randreg && numbers.nq == 1 && !peq_effect()) return;
    array<double> parvec = estimates.parvec; // clamps must not touch the starting point
    int ifail = 0;
    rinverse(parvec, ifail);
    if (ifail == 0) return;
    if (!options.blup) {
        show_indefinite_pattern();
        stop("RE-inv adj");
    }
    residualvars.eei = {}; // links all records of a subject; the run will refuse the matrix in its own words
}

// Adds the equations of record i that stay to `rows`.
void record_rows(const subject_record& d, int i, std::vector<int>& rows) {
    for (int c = 1; c <= d.mcov; ++c)
        if (const int e = d.icov(c, i); e > 0 && orders.jeq(e) > 0) rows.push_back(orders.jeq(e));
    for (int j = 1; j <= d.mrow; ++j)
        if (const int p = d.ieqnr(j, i); p > 0)
            if (const int e = orders.jeq(d.jvec(p)); e > 0) rows.push_back(e);
}

void add_numbering(digest_maker& sum) {
    const auto& m = mmequations;
    for (const int n : {numbers.nq, numbers.krand, numbers.nrankx, numbers.nbase, m.neqns, m.neq_cov, m.neq_fix,
                        m.neq_rnd, options.principal ? 1 : 0, options.blup && options.principal ? 1 : 0})
        sum.add(n);
    for (const auto* start : {&m.cv_start, &m.fx_start}) sum.add(start->prefix(start->size()));
    // which equations were taken out
    const auto& jeq = orders.jeq;
    for (const auto* start : {&m.rn_start, &m.ieq_trait, &jeq}) sum.add(start->prefix(start->size()));
}

// Links between levels: those of an inverse follow from its pedigree, or are listed.
void add_blocks(digest_maker& sum) {
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        const covariance_kind kind = mudmap.kovrnd(irand);
        sum.add(name_of(kind));
        for (const int n : {levels.rn_nlev(irand), nfit(irand), model.kkfit(irand), model.diagonal(irand)}) sum.add(n);
        if (kind != covariance_kind::nrm && kind != covariance_kind::gin) continue;
        inverse_stream inverse(irand);
        for (inverse_element e; inverse.next(e);) {
            const int place[2] = {e.col, e.row};
            sum.bytes(place, sizeof place);
        }
    }
}

template <class T> void add_part(digest_maker& sum, const array<T, 2>& a, int rows, int n) {
    sum.bytes(a.data(), sizeof(T) * rows * n);
}

void add_records(digest_maker& sum) {
    const record_groups groups = make_groups();
    // in the order of the file: the same records in another order are another sum
    recdata_pass pass;
    setup_recdata(pass, filenames.recdatfil2);
    const subject_record& d = pass.record;
    sum.add(d.mcov);
    sum.add(d.mrow);
    std::vector<int> group;
    while (next_subject(pass)) {
        groups.of_subject(d, group);
        const int head[3] = {d.nobs, d.nobs, d.nr};
        sum.bytes(head, sizeof head);
        sum.bytes(group.data(), group.size() * sizeof(int));
        add_part(sum, d.icov, d.mcov, d.nobs);
        add_part(sum, d.ieqnr, d.mrow, d.nobs);
        sum.bytes(d.jvec.data(), sizeof(int) * d.nr);
    }
}

} // namespace

digest links_sum(bool lnew) {
    if (lnew) form_residual_inverses();
    digest_maker sum;
    add_numbering(sum);
    add_blocks(sum);
    add_records(sum);
    return sum.value();
}

void data2adjac(clique_lists& data) {
    const record_groups groups = make_groups();
    recdata_pass pass;
    setup_recdata(pass, filenames.recdatfil2);
    const subject_record& d = pass.record;
    std::vector<int> group, rows;
    while (next_subject(pass)) {
        groups.of_subject(d, group);
        for (int i = 1; i <= d.nobs; ++i) {
            if (group[i - 1] != i - 1) continue; // not the first of its group
            rows.clear();
            // one set for each group of records
            for (int j = i; j <= d.nobs; ++j)
                if (group[j - 1] == i - 1) record_rows(d, j, rows);
            std::sort(rows.begin(), rows.end());
            rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
            data.add(rows);
        }
    }
}

level_links covar2adjac(int irand) {
    level_links b;
    b.irand = irand;
    b.nlev = levels.rn_nlev(irand);
    b.ncoef = nfit(irand);
    // equations of random effects are never taken out: those of a block follow each other
    b.first = b.nlev > 0 ? orders.jeq(mmequations.rn_start(irand) + 1) : 1;
    b.diagonal = options.principal || model.diagonal(irand);
    b.within = options.blup && options.principal && model.diagonal(irand) == 0; // for the errors of breeding values
    if (mudmap.kovrnd(irand) == covariance_kind::ide) return b;
    std::vector<int> rows, cols;
    // by row, columns below it
    b.start.assign(b.nlev + 1, 0);
    inverse_stream inverse(irand);
    for (inverse_element e; inverse.next(e);) {
        if (e.col == e.row) continue;
        if (e.row > b.nlev || e.col < 1) stop("adjac xhx");
        rows.push_back(e.row);
        cols.push_back(e.col);
        ++b.start[e.row];
    }
    std::partial_sum(b.start.begin(), b.start.end(), b.start.begin());
    b.lower.resize(cols.size());
    auto next = b.start;
    for (std::size_t k = 0; k < cols.size(); ++k) b.lower[next[rows[k] - 1]++] = cols[k];
    return b;
}

} // namespace tarvex
