// Lines of descent between the border of a stretch and its ancestors or its young animals, followed one by one.
#pragma once
#include "relations/sweep_order.h"

#include <vector>

namespace tarvex {

// A line of descent from one of the border animals in hand: by it an animal has a share of 2**-length in another.
struct way {
    int at;                         // up: place of the ancestor; down: first heir of a family
    unsigned lane : 5, length : 27; // border animal; generations, down those of the heirs
};
inline way make_way(int at, unsigned lane, unsigned length) { return {at, lane & 31U, length & 0x7ffffffU}; }

// Ways that wait for their run. What is put in behind `count` is overwritten by the next one.
struct way_list {
    std::vector<way> list{};
    std::size_t count = 0;
    void put(way x, bool keep = true) {
        if (count == list.size()) list.resize(2 * count + 64);
        list[count] = x;
        count += keep ? 1 : 0;
    }
    const way* begin() const { return list.data(); }
    const way* end() const { return list.data() + count; }
};

struct ancestor {
    int sire = 0, dam = 0, sire_run = 0, dam_run = 0; // places of the parents, and where these stand
};

// A young animal as the ways down meet it. A family are the heirs of one parent, as sires or as dams, in one run.
struct heir {
    unsigned place : 31, last : 1; // 1: last of its family
    int dam_slot;                  // where the column of its dam stands
    int next;                      // first heir of its own first family; 0: it hands nothing on
    unsigned queue : 31, more : 1; // where that family waits; 1: it has others, which follow
};

struct way_map {
    std::vector<ancestor> up; // by place, of the animals older than the stretch
    std::vector<heir> heirs;  // from [1]: by parent, then by queue
    std::vector<int> queue;   // by heir: where its family waits, 2 run + (1 by sire, 0 by dam)
    std::vector<int> first;   // by place: its first heir; 0: none. One more than there are places
    std::vector<int> end;     // by place: behind its last heir
    // Puts the ways to all families of the animal at this place into their queues.
    void hand_on(int place, unsigned lane, unsigned length, std::vector<way_list>& queues) const {
        for (int k = first[place]; k < end[place]; ++k)
            if (k == first[place] || heirs[k - 1].last) queues[queue[k]].put(make_way(k, lane, length));
    }
};

// Young animals are heirs by their sires, and by their dams where they hand shares on.
way_map map_ways(const sweep_order& o);

} // namespace tarvex
