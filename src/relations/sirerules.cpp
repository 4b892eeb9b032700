// Inverse relationship matrix of sires from their sires s and maternal grandsires m.
//   Henderson, J. Dairy Sci. 58 (1975) 1727.
#include "control/tvxroutines.h"
#include "data/pedigreelist.h"
#include "parfile/randasfix.h"
#include "relations/animalnrm.h"
#include "relations/linkedlist.h"
#include "relations/nrminverse.h"
#include "support/stop.h"

#include <array>
#include <cmath>
#include <utility>

namespace tarvex {

namespace {

// Factor of each case: sire and grandsire known, sire only, grandsire only, none, one bull as both, pseudo-fixed.
// 1 - 1/4 - 1/16 with both known; 7/16 with one bull as sire and grandsire
constexpr std::array<double, 7> factor{0.0, 0.6875, 0.75, 0.9375, 1.0, 0.4375, -1.0};

int sire_case(int s, int m, bool fixed) {
    if (fixed) return 6;
    if (s > 0 && m > 0) return s == m ? 5 : 1;
    if (s > 0 && m == 0) return 2;
    if (s == 0 && m > 0) return 3;
    return 4;
}

// Parents need not have smaller numbers: an element lies in the row of the larger number.
void put(std::vector<nrm_term>& terms, int i, int j, double value) {
    terms.push_back({std::max(i, j), std::min(i, j), value});
}

void sire_terms(std::vector<nrm_term>& terms, int icase, int ian, int s, int m) {
    switch (icase) {
    // 1/D times (1, -1/2, -1/4) (1, -1/2, -1/4)' for bull, sire and grandsire
    case 1:
        put(terms, m, m, 1.0 / 11.0);
        put(terms, s, m, 2.0 / 11.0);
        put(terms, s, s, 4.0 / 11.0);
        put(terms, ian, m, -4.0 / 11.0);
        put(terms, ian, s, -8.0 / 11.0);
        put(terms, ian, ian, 16.0 / 11.0);
        break;
    case 2:
        put(terms, s, s, 1.0 / 3.0);
        put(terms, ian, s, -2.0 / 3.0);
        put(terms, ian, ian, 4.0 / 3.0);
        break;
    case 3:
        put(terms, m, m, 1.0 / 15.0);
        put(terms, ian, m, -4.0 / 15.0);
        put(terms, ian, ian, 16.0 / 15.0);
        break;
    case 4:
        put(terms, ian, ian, 1.0);
        break;
    case 5:
        put(terms, s, s, 4.0 / 7.0);
        put(terms, ian, s, -8.0 / 7.0);
        put(terms, ian, ian, 16.0 / 7.0);
        break;
    default:
        put(terms, ian, ian, randasfix.psfixfact);
    }
}

} // namespace

pedigree_rule sire_rule(int s, int m) {
    const int icase = sire_case(s, m, false);
    const bool grandsire = icase == 1 || icase == 3;
    return {factor[icase], s > 0 ? 0.5 : 0.0, grandsire ? 0.25 : 0.0};
}

void sire_nrm(int jj, int nanim) {
    std::vector<nrm_term> terms;
    nrminverse.detl = 0.0;
    for (int ian = 1; ian <= nanim; ++ian) {
        const int s = pedigreelist.sire(jj)[ian - 1], m = pedigreelist.dam(jj)[ian - 1];
        const int icase = sire_case(s, m, randasfix.asfix(ian) != 0);
        sire_terms(terms, icase, ian, s, m);
        nrminverse.nrmdiag(ian) = factor[icase];
        if (icase != 6) nrminverse.detl += std::log(factor[icase]);
    }
    auto& ll = linked_list;
    const int cap = static_cast<int>(terms.size());
    allocate("alloc nrm", ll.ifirst, nanim);
    allocate("alloc nrm", ll.ilast, nanim);
    allocate("alloc nrm", ll.inext, cap);
    allocate("alloc nrm", ll.ivcol, cap);
    allocate("alloc nrm", ll.zhz, cap);
    ll.nrczhz = 0;
    int ierr = 0;
    link_terms(terms, nanim, true, ierr);
    nrminverse.nnrm = ll.nrczhz;
}

} // namespace tarvex
