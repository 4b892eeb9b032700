// A model with one animal effect, or several on one pedigree file, set up by hand; and pedigrees.
#pragma once
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "data/data.h"
#include "data/levels.h"
#include "data/pedigreelist.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/dense_oracle.h"
#include "support/fixture.h"

#include <random>
#include <string>
#include <utility>
#include <vector>

namespace tarvex {

using oracle::dense;
using oracle::tabular;

// One trait; a line holds the codes of `nrun` effects with a relationship matrix each, then the observation.
inline void animal_model(const std::string& data, const std::string& ped, int nrun = 1) {
    write_file("test.dat", data);
    write_file("test.ped", ped);
    filenames.datfile = "test.dat";
    filenames.pedfile = "test.ped";
    options.pedigrees = true;
    options.terse = true;
    model.analysis = "UNI";
    numbers.nq = 1;
    numbers.krand = nrun;
    datafile.ndatcol[1] = nrun + 1;
    datafile.missvalue[1] = -999;
    mudmap.alltraits = true;
    mudmap.maxcol = nrun + 1;
    mudmap.nrunno = nrun;
    mudmap.tr_dcolno.allocate(1);
    mudmap.tr_dcolno(1) = nrun + 1;
    model.nrnd.allocate(1);
    model.nrnd(1) = nrun;
    model.krandom.allocate(nrun);
    mudmap.rn_irand.allocate(nrun, 1);
    mudmap.rn_dcolno.allocate(nrun, 1);
    mudmap.rn_dcolno2.allocate(nrun, 1);
    mudmap.kfitrnd.allocate(nrun, 1);
    mudmap.kovrnd.allocate(nrun);
    mudmap.iranno.allocate(nrun);
    levels.rn_nlev.allocate(nrun);
    levels.rn_codes.allocate(nrun);
    levels.rn_maxlev.allocate(nrun);
    for (int i = 1; i <= nrun; ++i) {
        model.krandom(i) = i == 1 ? "animal" : "effect" + std::to_string(i);
        mudmap.rn_irand(i, 1) = mudmap.iranno(i) = mudmap.rn_dcolno(i, 1) = i;
        mudmap.kovrnd(i) = covariance_kind::nrm;
    }
}

// A pruned pedigree list by hand: animals 1..n with codes 10, 20, ..; parents by number.
inline void pedigree_by_hand(const std::vector<int>& sire, const std::vector<int>& dam, int irun = 1) {
    auto& pl = pedigreelist;
    const int n = static_cast<int>(sire.size());
    if (pl.nrunno < irun) {
        pl.nrunno = irun;
        pl.nannew.resize(irun);
        pl.idwec.resize(irun);
        pl.sire.resize(irun);
        pl.dam.resize(irun);
    }
    pl.nannew(irun) = n;
    pl.sire(irun) = sire;
    pl.dam(irun) = dam;
    pl.idwec(irun).clear();
    for (int i = 1; i <= n; ++i) pl.idwec(irun).push_back(10 * i);
}

// Random pedigree of n animals with overlapping generations, some unknown parents and, if wanted, selfing.
inline std::pair<std::vector<int>, std::vector<int>> random_pedigree(int n, unsigned seed, bool selfing) {
    std::mt19937 rng(seed);
    std::vector<int> sire(n), dam(n);
    for (int i = 5; i <= n; ++i) {
        const int from = std::max(0, i - 15);
        const auto draw = [&] { return from + static_cast<int>(rng() % static_cast<unsigned>(i - from)); };
        sire[i - 1] = draw();
        dam[i - 1] = draw();
        if (selfing && rng() % 4 == 0) dam[i - 1] = sire[i - 1];
        if (!selfing && dam[i - 1] == sire[i - 1]) dam[i - 1] = 0;
    }
    return {sire, dam};
}

} // namespace tarvex
