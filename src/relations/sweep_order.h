// Order in which the animals of a pedigree are swept, and the places where their columns stand.
#pragma once
#include <vector>

namespace tarvex {

// An animal with its place in memory, those of its parents, and where these stand in the order; 0: none or unknown.
struct swept {
    int slot = 0, sire_slot = 0, dam_slot = 0;
    int sire = 0, dam = 0;
};

// The ancestors of a stretch of the list, then the stretch. Both fall into runs, in which nobody is a parent of
// another, so that the animals of a run may be taken in any order: they stand by sires, dams behind the others, so that
// most of what is read lies side by side. Places count from 1; 0 stands for an unknown parent. A column needs its slot
// from the animal's own place to the run of its last offspring; then it is given on, the lowest first, so that what is
// in use stays close together.
struct sweep_order {
    std::vector<int> animal; // by place
    std::vector<int> place;  // by animal; 0: not in the order
    std::vector<swept> at;   // by place
    std::vector<int> run;    // first place of each run; the last element is the number of places + 1
    // By run: first place of those whose relationships are needed, behind the last of those, behind the last of those
    // whose shares are needed. Of parents whose offspring all are without offspring, relationships are needed of dams
    // and shares of sires; those without offspring have no slot and stand last.
    std::vector<int> related, childless, sharing;
    std::size_t young = 0;   // first run of the stretch
    std::vector<int> border; // places of the older parents of the stretch, ascending
    int slots = 0;
};

// The order for the stretch from animal `first` to `last`: older ancestors of the stretch, and of the stretch itself
// those who are parents in it or have two known parents. Arguments as of inbreeding().
sweep_order order_stretch(const std::vector<int>& sire, const std::vector<int>& dam, int first, int last);

} // namespace tarvex
