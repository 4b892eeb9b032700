// Sorting of links between equations into the row store.
#pragma once
#include <cstddef>
#include <vector>

namespace tarvex {

// Sets of rows that are linked with one another.
struct clique_lists {
    std::vector<std::size_t> start{0};
    std::vector<int> member; // ascending within a set
    void add(const std::vector<int>& rows) {
        if (rows.size() < 2) return;
        member.insert(member.end(), rows.begin(), rows.end());
        start.push_back(member.size());
    }
};

// Rows of a random effect: row first+(l-1)*ncoef+r-1 is component r of level l. Levels are linked with those listed
// (below them) and with themselves.
struct level_links {
    int irand = 0, first = 0, nlev = 0, ncoef = 0;
    bool diagonal = false;          // components are linked with their own kind only
    bool within = false;            // ... but within a level with each other
    std::vector<std::size_t> start; // (nlev+1) or empty: no links between levels
    std::vector<int> lower;
};

// Fills linked_list for n rows: chains ascending, each element once. Counts are told on the way under werbose. `blocks`
// in the order of the random effects.
void merge_links(int n, const clique_lists& data, const std::vector<level_links>& blocks);

// A line for every 200000 elements by which the store has grown.
void tell_growth(long long before, long long now, long long capacity);

} // namespace tarvex
