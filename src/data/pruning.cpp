// Pruning of the pedigree: animals without records that tie no others together are cut, founders from the top down and
// animals without offspring from the bottom up, until nothing more can go. What is left does not depend on the order.
#include "control/filenames.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/nrmcodes.h"
#include "data/pedcounts.h"
#include "data/pedigrees.h"
#include "parfile/mudmap.h"
#include "parfile/randasfix.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <algorithm>

namespace tarvex {

namespace {

// Working pedigree, by animal of the full list (element 0 is the unknown parent).
struct prune_work {
    std::vector<int> sire, dam, nprog, mark;
    std::vector<char> left; // still in the list
};

prune_work full_pedigree() {
    const std::size_t n = pedigreelist.nanim + 1;
    prune_work w{std::vector<int>(n), std::vector<int>(n), std::vector<int>(n), std::vector<int>(n),
                 std::vector<char>(n, 1)};
    w.left[0] = 0;
    for (int i = 1; i <= pedigreelist.nanim; ++i) {
        w.sire[i] = pedigreelist.jdvec(1, i);
        w.dam[i] = pedigreelist.jdvec(2, i);
    }
    return w;
}

void count_offspring(prune_work& w) {
    std::fill(w.nprog.begin(), w.nprog.end(), 0);
    for (std::size_t i = 1; i < w.sire.size(); ++i) {
        if (w.left[i] == 0) continue;
        if (w.sire[i] > 0) ++w.nprog[w.sire[i]];
        if (w.dam[i] > 0) ++w.nprog[w.dam[i]];
    }
}

// Animals that are not pruned: those with records, and those that the user treats as fixed.
std::vector<int> kept_animals(const std::vector<int>& nrec) {
    std::vector<int> kept = nrec;
    const auto ids = pedigreelist.idvec.prefix(pedigreelist.nanim);
    for (const int code : randasfix.psfixcode) {
        const auto at = std::lower_bound(ids.begin(), ids.end(), code);
        if (at != ids.end() && *at == code) kept[at - ids.begin() + 1] = 1;
    }
    return kept;
}

void prune(prune_work& w, const std::vector<int>& nrec) {
    const std::size_t n = w.sire.size();
    for (int nloop = 1;; ++nloop) {
        int nmark[3] = {};
        std::fill(w.mark.begin(), w.mark.end(), 0);
        for (std::size_t i = 1; i < n; ++i) {
            if (w.left[i] == 0 || nrec[i] > 0) continue;
            // a founder with one offspring ties it to nobody; without any it tells nothing at all
            if (w.nprog[i] <= 1 && w.sire[i] == 0 && w.dam[i] == 0)
                w.mark[i] = 1;
            else if (w.nprog[i] == 0)
                w.mark[i] = 2;
            // nmark[0] counts those that stay
            ++nmark[w.mark[i]];
        }
        if (nmark[1] + nmark[2] == 0) break;
        if (options.verbose) write(screen(), "(4x,a,i4,2i7)   ", "Pruning : loop=", nloop, nmark[1], nmark[2]);
        // founders become unknown parents; animals without offspring are nobody's parents
        for (std::size_t i = 1; i < n; ++i) {
            if (w.mark[w.sire[i]] == 1) w.sire[i] = 0;
            if (w.mark[w.dam[i]] == 1) w.dam[i] = 0;
            if (w.mark[i] > 0) w.left[i] = 0;
        }
        count_offspring(w);
    }
}

// Numbers the animals left in the order of the list; returns their records.
std::vector<int> renumber(const prune_work& w, int irun, const std::vector<int>& nrec) {
    auto& newno = pedigreelist.newno(irun);
    auto& idwec = pedigreelist.idwec(irun);
    auto& sire = pedigreelist.sire(irun);
    auto& dam = pedigreelist.dam(irun);
    newno.assign(w.sire.size() - 1, 0);
    idwec.clear();
    std::vector<int> nrecnew;
    for (std::size_t i = 1; i < w.sire.size(); ++i) {
        if (w.left[i] == 0) continue;
        idwec.push_back(pedigreelist.idvec(i));
        nrecnew.push_back(nrec[i]);
        newno[i - 1] = static_cast<int>(idwec.size());
    }
    // parents that have gone are unknown
    const auto number = [&](int i) { return i > 0 ? newno[i - 1] : 0; };
    sire.clear();
    dam.clear();
    for (std::size_t i = 1; i < w.sire.size(); ++i) {
        if (w.left[i] == 0) continue;
        sire.push_back(number(w.sire[i]));
        dam.push_back(number(w.dam[i]));
    }
    pedigreelist.nannew(irun) = static_cast<int>(idwec.size());
    return nrecnew;
}

// First random effect with relationship matrix irun.
int effect_of_run(int irun) {
    for (int irand = 1; irand <= mudmap.iranno.upper(); ++irand)
        if (mudmap.iranno(irand) == irun) return irand;
    return irun;
}

} // namespace

void secateurs() {
    const int nrun = mudmap.nrunno;
    pedigreelist.nrunno = nrun;
    allocate("alloc idwec", pedigreelist.nannew, nrun);
    allocate("alloc idwec", pedigreelist.idwec, nrun);
    allocate("alloc idwec", pedigreelist.newno, nrun);
    allocate("alloc prune", pedigreelist.sire, nrun);
    allocate("alloc prune", pedigreelist.dam, nrun);
    text_out out;
    if (!out.open_append(filenames.sumpedfile)) stop_with("Cannot open file \"" + filenames.sumpedfile + "\"");
    std::vector<std::vector<int>> nrec(nrun, std::vector<int>(pedigreelist.nanim + 1));
    // records of each animal, by relationship matrix
    visit_nrm_codes([&](int irun, std::int64_t icode) {
        if (icode != 0) ++nrec[irun - 1][find_anim(static_cast<int>(icode))];
    });
    for (int irun = 1; irun <= nrun; ++irun) {
        prune_work w = full_pedigree();
        count_offspring(w);
        // solutions and simulation are for all animals
        if (!(options.sigam || options.siremodel || options.blup || options.nopru))
            prune(w, kept_animals(nrec[irun - 1]));
        const std::vector<int> nrecnew = renumber(w, irun, nrec[irun - 1]);
        const int irand = effect_of_run(irun);
        if (options.verbose) {
            print_list(screen(), "Pruned pedigree for random effect no.", irand);
            print_list(screen(), "Original no. of animals =", pedigreelist.nanim);
            print_list(screen(), "New no. of animals      =", pedigreelist.nannew(irun));
        }
        ped_counts(out, irand, irun, nrecnew);
    }
    write_tvxbottom(out, options.wide);
}

} // namespace tarvex
