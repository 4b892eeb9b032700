// The sorted list of animals and, for each relationship matrix, what pruning has left of it.
#pragma once
#include "support/array.h"

#include <vector>

namespace tarvex {

struct pedigreelist_module {
    int nanim = 0;       // animals in the list
    array<int> idvec;    // (nanim) codes, ascending
    array<int, 2> jdvec; // (2,nanim) running numbers of sire and dam, 0 unknown
    array<int> isex;     // (nanim) role in which a parent was first seen: 1 sire, 2 dam
    // One pruned pedigree for each relationship matrix irun = 1..mudmap.nrunno.
    int nrunno = 0;
    array<int> nannew;             // (nrunno) animals left
    array<std::vector<int>> idwec; // (nrunno)[j-1] original code of animal j, ascending
    array<std::vector<int>> newno; // (nrunno)[i-1] number in the pruned list of animal i of idvec, 0 if pruned
    array<std::vector<int>> sire;  // (nrunno)[j-1] sire of animal j, numbers of the pruned list, 0 unknown
    array<std::vector<int>> dam;   // (nrunno)[j-1]
};
inline pedigreelist_module pedigreelist;

// Running number of a code in idvec; not found stops with a message.
int find_anim(int id);

} // namespace tarvex
