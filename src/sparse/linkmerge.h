// Sorting of links between equations into the row store.
#pragma once
#include "sparse/rowstore.h"

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

// Merges the sets and the levels into the chains of a row store: one pass counts, one fills. `data` and `blocks` must
// stay as they are between the two; of blocks each row belongs to one at most.
class link_merge {
public:
    link_merge(int n, const clique_lists& data, const std::vector<level_links>& blocks);

    // Elements below the diagonals.
    struct counts {
        long long from_data = 0;
        std::vector<long long> from_block; // those that a block adds to the data
        long long total = 0;
    };
    [[nodiscard]] counts count();

    // Fills the store: chains ascending, each element once. ifirst has n rows, inext and ivcol room for all elements.
    void fill(row_store& list);

private:
    template <class Visit> void each_row(Visit visit);
    void from_data(int row);
    void from_block(int row, const level_links& b);
    void take(int row, int col);

    int n_;
    const clique_lists& data_;
    const std::vector<level_links>& blocks_;
    std::vector<std::size_t> set_start_; // (n+2) of the sets in which each row stands
    std::vector<int> set_;
    std::vector<const level_links*> block_of_row_; // (n+1)
    std::vector<int> mark_;                        // (n+1) row that last took the column up
    std::vector<int> cols_;                        // of the row in hand, distinct, below the diagonal
};

} // namespace tarvex
