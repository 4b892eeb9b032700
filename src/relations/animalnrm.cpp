//   Henderson, Biometrics 32 (1976) 69; with inbreeding Quaas, Biometrics 32 (1976) 949.
#include "relations/animalnrm.h"
#include "parfile/randasfix.h"

#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/pedigreelist.h"
#include "relations/linkedlist.h"
#include "relations/nrminverse.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace tarvex {

namespace {

// Terms of a matrix by row; within a row in the order in which they were formed.
struct term_rows {
    std::vector<std::size_t> start; // [row-1]
    std::vector<std::pair<int, double>> term;
};

term_rows sort_by_row(const std::vector<nrm_term>& terms, int nan) {
    term_rows rows;
    rows.start.assign(nan + 1, 0);
    for (const nrm_term& t : terms) ++rows.start[t.row];
    for (std::size_t i = 1; i < rows.start.size(); ++i) rows.start[i] += rows.start[i - 1];
    // next place of each row
    std::vector<std::size_t> at(rows.start.begin(), rows.start.end());
    rows.term.resize(terms.size());
    for (const nrm_term& t : terms) rows.term[at[t.row - 1]++] = {t.col, t.value};
    return rows;
}

void setup_store(int nan, int cap, bool values) {
    auto& ll = linked_list;
    allocate("alloc nrm", ll.ifirst, nan);
    allocate("alloc nrm", ll.ilast, nan);
    allocate(values ? "alloc nrm" : "alloc nrm 2", ll.inext, cap);
    allocate(values ? "alloc nrm" : "alloc nrm 2", ll.ivcol, cap);
    if (values) allocate("alloc nrm", ll.zhz, cap);
    ll.nrczhz = 0;
}

// Adds the terms of an animal with parents lo <= hi and weight w. With both parents the same the two halves fall on one
// element, and the off-diagonal of the parents falls on the diagonal, where it counts twice.
void henderson_terms(std::vector<nrm_term>& terms, int ian, int lo, int hi, double w) {
    if (lo > 0 && lo == hi) {
        terms.push_back({lo, lo, w});
        terms.push_back({ian, lo, -w});
    } else {
        if (lo > 0) {
            terms.push_back({lo, lo, 0.25 * w});
            terms.push_back({hi, lo, 0.25 * w});
        }
        if (hi > 0) terms.push_back({hi, hi, 0.25 * w});
        if (lo > 0) terms.push_back({ian, lo, -0.5 * w});
        if (hi > 0) terms.push_back({ian, hi, -0.5 * w});
    }
    terms.push_back({ian, ian, w});
}

} // namespace

void link_terms(const std::vector<nrm_term>& terms, int nan, bool addval, int& ierr) {
    ierr = 0;
    term_rows rows = sort_by_row(terms, nan);
    std::vector<int> cols;
    std::vector<double> vals;
    for (int irow = 1; irow <= nan && ierr == 0; ++irow) {
        const auto from = rows.term.begin() + static_cast<std::ptrdiff_t>(rows.start[irow - 1]);
        const auto to = rows.term.begin() + static_cast<std::ptrdiff_t>(rows.start[irow]);
        const auto less = [](const auto& a, const auto& b) { return a.first < b.first; };
        // terms of a row come sorted but where an animal has older offspring
        if (!std::is_sorted(from, to, less)) std::stable_sort(from, to, less);
        cols.clear();
        vals.clear();
        for (auto t = from; t != to; ++t) {
            if (!cols.empty() && cols.back() == t->first) {
                vals.back() += t->second;
                continue;
            }
            cols.push_back(t->first);
            vals.push_back(t->second);
        }
        lnkzhz(irow, cols, vals, addval, ierr);
    }
}

void nnrm_count(int jj, int nanim, int cap, int& ierr) {
    setup_store(nanim, cap, false);
    std::vector<nrm_term> terms;
    for (int ian = 1; ian <= nanim; ++ian) {
        const auto [lo, hi] = std::minmax(pedigreelist.sire(jj)[ian - 1], pedigreelist.dam(jj)[ian - 1]);
        // the elements that the terms of the inverse will have, without values
        if (lo > 0 && lo < hi) terms.push_back({hi, lo, 0.0});
        if (lo > 0 && lo < hi) terms.push_back({ian, lo, 0.0});
        if (hi > 0) terms.push_back({ian, hi, 0.0});
    }
    link_terms(terms, nanim, false, ierr);
    // diagonals are not counted by the terms above
    nrminverse.nnrm = linked_list.nrczhz += nanim;
}

void nnrm_count_growing(int jj, int nanim, int cap, int limit) {
    int ierr = 0;
    nnrm_count(jj, nanim, cap, ierr);
    while (ierr != 0) {
        // a quarter more, as a real: it may pass what 32 bits hold
        const float more = std::max(1.25F * static_cast<float>(cap), static_cast<float>(cap) + 1.0F);
        if (more > static_cast<float>(limit)) {
            screen().line("Max. no. of elements in NRM exceeded !");
            stop_with("Reset parameter \"MAXZHZ\" & recompile ");
        }
        cap = static_cast<int>(more);
        nnrm_count(jj, nanim, cap, ierr);
    }
}

void animal_nrm(int jj, int nanim) {
    auto& nrmdiag = nrminverse.nrmdiag;
    std::vector<nrm_term> terms;
    terms.reserve(std::size_t{6} * nanim);
    nrminverse.detl = 0.0;
    for (int ian = 1; ian <= nanim; ++ian) {
        if (!options.terse && ian % 20000 == 0) write(screen(), "(a,i10,a,i10)", "  NRM : at", ian, "  of", nanim);
        // D(i), Mendelian sampling variance: log|A| is the sum of its logarithms
        const double ddd = nrmdiag(ian);
        // a level treated as fixed: no terms to its parents, no part in log|A|
        if (randasfix.asfix(ian) != 0) {
            nrmdiag(ian) = fixed_level_weight;
            terms.push_back({ian, ian, randasfix.psfixfact});
            continue;
        }
        nrminverse.detl += std::log(ddd);
        nrmdiag(ian) = 1.0 / ddd;
        const auto [lo, hi] = std::minmax(pedigreelist.sire(jj)[ian - 1], pedigreelist.dam(jj)[ian - 1]);
        henderson_terms(terms, ian, lo, hi, 1.0 / ddd);
    }
    setup_store(nanim, nrminverse.nnrm + 1, true);
    int ierr = 0;
    link_terms(terms, nanim, true, ierr);
    nrminverse.nnrm = linked_list.nrczhz;
}

void deall_store() { linked_list = {}; }

} // namespace tarvex
