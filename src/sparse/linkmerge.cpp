// Each row gathers the columns in front of it from the sets in which it stands and from the levels linked with its own,
// marking what it has seen.
#include "sparse/linkmerge.h"

#include <algorithm>

namespace tarvex {

link_merge::link_merge(int n, const clique_lists& data, const std::vector<level_links>& blocks)
    : n_(n), data_(data), blocks_(blocks), set_start_(n + 2, 0), set_(data.member.size()),
      block_of_row_(n + 1, nullptr), mark_(n + 1) {
    // the sets of each row: counts, starts, then the sets themselves
    for (int r : data.member) ++set_start_[r + 1];
    for (int r = 1; r <= n; ++r) set_start_[r + 1] += set_start_[r];
    auto next = set_start_;
    for (std::size_t c = 0; c + 1 < data.start.size(); ++c)
        for (std::size_t k = data.start[c]; k < data.start[c + 1]; ++k)
            set_[next[data.member[k]]++] = static_cast<int>(c);
    for (const auto& b : blocks)
        std::fill_n(block_of_row_.begin() + b.first, static_cast<long long>(b.nlev) * b.ncoef, &b);
}

void link_merge::take(int row, int col) {
    if (mark_[col] == row) return;
    mark_[col] = row;
    cols_.push_back(col);
}

void link_merge::from_data(int row) {
    for (std::size_t k = set_start_[row]; k < set_start_[row + 1]; ++k) {
        const int* m = data_.member.data() + data_.start[set_[k]];
        for (; *m < row; ++m) take(row, *m); // members ascend, and the row is one of them
    }
}

void link_merge::from_block(int row, const level_links& b) {
    // level and coefficient of the row
    const int l = (row - b.first) / b.ncoef, r = (row - b.first) % b.ncoef;
    if (!b.start.empty())
        for (std::size_t k = b.start[l]; k < b.start[l + 1]; ++k) {
            const int base = b.first + (b.lower[k] - 1) * b.ncoef;
            // covariances 0 between coefficients: each level block has a diagonal alone
            if (b.diagonal)
                take(row, base + r);
            else
                for (int s = 0; s < b.ncoef; ++s) take(row, base + s);
        }
    // coefficients in front within the level
    if (!b.diagonal || b.within)
        for (int s = 0; s < r; ++s) take(row, row - r + s);
}

// Visits the rows in order: visit(row, how many of the columns in hand are from the data, block or null).
template <class Visit> void link_merge::each_row(Visit visit) {
    std::fill(mark_.begin(), mark_.end(), 0);
    for (int row = 1; row <= n_; ++row) {
        cols_.clear();
        from_data(row);
        // what the data bring is counted for the data, even where a block links the same
        const std::size_t of_data = cols_.size();
        const level_links* b = block_of_row_[row];
        if (b) from_block(row, *b);
        visit(row, of_data, b);
    }
}

link_merge::counts link_merge::count() {
    counts c;
    c.from_block.assign(blocks_.size(), 0);
    each_row([&](int, std::size_t of_data, const level_links* b) {
        c.from_data += static_cast<long long>(of_data);
        if (b) c.from_block[b - blocks_.data()] += static_cast<long long>(cols_.size() - of_data);
    });
    c.total = c.from_data;
    for (long long added : c.from_block) c.total += added;
    return c;
}

void link_merge::fill(row_store& list) {
    int at = 0;
    each_row([&](int row, std::size_t, const level_links*) {
        std::sort(cols_.begin(), cols_.end());
        list.ifirst(row) = cols_.empty() ? 0 : at + 1;
        for (int c : cols_) {
            list.ivcol(++at) = c;
            list.inext(at) = at + 1;
        }
        if (!cols_.empty()) list.inext(at) = 0;
    });
    list.nrczhz = at;
}

} // namespace tarvex
