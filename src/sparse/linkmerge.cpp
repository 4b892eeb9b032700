// Each row gathers the columns in front of it from the sets in which it stands and from the levels linked with its own,
// marking what it has seen: one pass counts, one fills.
#include "sparse/linkmerge.h"

#include "control/limits.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "sparse/linkedlist.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <algorithm>

namespace tarvex {

namespace {

// Rows in which each row stands as a member: compressed lists of set numbers by row.
struct membership {
    std::vector<std::size_t> start;
    std::vector<int> set;
};
membership invert(int n, const clique_lists& data) {
    membership m;
    m.start.assign(static_cast<std::size_t>(n) + 2, 0);
    for (int r : data.member) ++m.start[static_cast<std::size_t>(r) + 1];
    for (int r = 1; r <= n; ++r) m.start[r + 1] += m.start[r];
    m.set.resize(data.member.size());
    auto next = m.start;
    for (std::size_t c = 0; c + 1 < data.start.size(); ++c)
        for (std::size_t k = data.start[c]; k < data.start[c + 1]; ++k)
            m.set[next[data.member[k]]++] = static_cast<int>(c);
    return m;
}

// Distinct columns below the diagonal, row by row.
struct row_gatherer {
    const clique_lists& data;
    const membership& sets;
    std::vector<int> mark; // row that last took the column up
    std::vector<int> cols; // of the row in hand

    void take(int row, int col) {
        if (mark[col] == row) return;
        mark[col] = row;
        cols.push_back(col);
    }
    void from_data(int row) {
        for (std::size_t k = sets.start[row]; k < sets.start[row + 1]; ++k) {
            const int* m = data.member.data() + data.start[sets.set[k]];
            for (; *m < row; ++m) take(row, *m);
        }
    }
    void from_block(int row, const level_links& b) {
        const int l = (row - b.first) / b.ncoef, r = (row - b.first) % b.ncoef;
        if (!b.start.empty())
            for (std::size_t k = b.start[l]; k < b.start[l + 1]; ++k) {
                const int base = b.first + (b.lower[k] - 1) * b.ncoef;
                if (b.diagonal)
                    take(row, base + r);
                else
                    for (int s = 0; s < b.ncoef; ++s) take(row, base + s);
            }
        if (!b.diagonal || b.within)
            for (int s = 0; s < r; ++s) take(row, row - r + s);
    }
};

// Visits the rows in order with their distinct columns: visit(row, columns from the data, all columns, block or null).
template <class Visit>
void each_row(int n, row_gatherer& g, const std::vector<const level_links*>& block_of_row, Visit visit) {
    std::fill(g.mark.begin(), g.mark.end(), 0);
    for (int row = 1; row <= n; ++row) {
        g.cols.clear();
        g.from_data(row);
        const std::size_t from_data = g.cols.size();
        const level_links* b = block_of_row[row];
        if (b) g.from_block(row, *b);
        visit(row, from_data, b);
    }
}

} // namespace

// One line for every 200000 elements of the store, as it grows.
void tell_growth(long long before, long long now, long long capacity) {
    constexpr long long stride = 200000;
    for (long long k = (before / stride + 1) * stride; k <= now; k += stride)
        print_list(screen(), "lnkzhz", k, capacity);
}

void merge_links(int n, const clique_lists& data, const std::vector<level_links>& blocks) {
    const membership sets = invert(n, data);
    std::vector<const level_links*> block_of_row(static_cast<std::size_t>(n) + 1, nullptr);
    std::vector<long long> added(blocks.size(), 0);
    for (const auto& b : blocks)
        std::fill_n(block_of_row.begin() + b.first, static_cast<long long>(b.nlev) * b.ncoef, &b);
    row_gatherer g{data, sets, std::vector<int>(static_cast<std::size_t>(n) + 1), {}};
    auto& list = linked_list;
    allocate("alloc ivcol", list.ifirst, n);
    long long from_data = 0;
    each_row(n, g, block_of_row, [&](int row, std::size_t nd, const level_links* b) {
        from_data += static_cast<long long>(nd);
        if (b) added[b - blocks.data()] += static_cast<long long>(g.cols.size() - nd);
        list.ifirst(row) = static_cast<int>(g.cols.size()); // the count for now
    });
    long long total = from_data;
    for (long long a : added) total += a;
    const long long capacity = total + n; // room for the right-hand side
    if (capacity > maxelements) tvx_noalloc("IVCOL", capacity);
    allocate_large("INEXT", list.inext, capacity);
    allocate_large("IVCOL", list.ivcol, capacity);
    list.zhz.deallocate();
    list.nrczhz = static_cast<int>(total);
    int at = 0;
    each_row(n, g, block_of_row, [&](int row, std::size_t, const level_links*) {
        std::sort(g.cols.begin(), g.cols.end());
        list.ifirst(row) = g.cols.empty() ? 0 : at + 1;
        for (int c : g.cols) {
            list.ivcol(++at) = c;
            list.inext(at) = at + 1;
        }
        if (!g.cols.empty()) list.inext(at) = 0;
    });
    tell_growth(0, from_data, capacity);
    if (options.werbose) write(screen(), "(1x,a,t36,i14)", "Elements in MMM - after data ", from_data);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        tell_growth(from_data, from_data + added[i], capacity);
        from_data += added[i];
        if (options.werbose)
            write(screen(), "(1x,a,i4,t36,i14)", "Elements in MMM - after RE ", blocks[i].irand, from_data);
    }
}

} // namespace tarvex
