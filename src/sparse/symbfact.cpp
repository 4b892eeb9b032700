#include "sparse/symbfact.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <span>
#include <vector>

namespace tarvex {

namespace {

// Rows in order; mrglnk chains the rows that hand their patterns on to a later one; marker(i) names the row whose
// stored list last took up subscript i. ixsub(nzbeg..nzend) is the list stored last.
struct symbolic {
    int n;
    array<int>& ixvec1;
    array<int>& ixvec2;
    array<int>& ixsub;
    std::vector<int> mrglnk, marker;
    std::vector<int> seen;        // row in hand when the subscript was last met
    std::vector<int> list, extra; // pattern of the row in hand, and what its longest child does not have
    int nzbeg = 1, nzend = 0;
};

// What row i hands on: its subscripts behind the first.
std::span<const int> handed_on(const symbolic& s, int i) {
    const int c = s.ixvec1(i + 1) - s.ixvec1(i);
    return std::span(s.ixsub.data() + s.ixvec2(i), c - 1);
}

// Subscripts that row k has not met go into s.extra.
void meet(symbolic& s, int k, std::span<const int> subscripts) {
    for (const int i : subscripts) {
        if (s.seen[i] == k) continue;
        s.seen[i] = k;
        s.extra.push_back(i);
    }
}

// Looks for the list of row k in the list stored last. True if it is the tail of that one. If that one ends where the
// list begins, its tail is given up, to be stored again as the head of the list.
bool overlaps(symbolic& s, int k) {
    if (s.nzbeg > s.nzend || s.list.empty()) return false;
    const int* stored = s.ixsub.data();
    const int* end = stored + s.nzend;
    const int* first = std::lower_bound(stored + s.nzbeg - 1, end, s.list.front());
    const auto [j, i] = std::mismatch(first, end, s.list.begin(), s.list.end());
    const int js = static_cast<int>(first - stored) + 1;
    if (i == s.list.end() && j == end) {
        s.ixvec2(k) = js;
        return true;
    }
    if (j == end && first != end) s.nzend = js - 1;
    return false;
}

// Stores the list of row k. False where 32 bits do not do.
bool store_list(symbolic& s, int k) {
    const int knz = static_cast<int>(s.list.size());
    s.nzbeg = s.nzend + 1;
    if (knz > INT_MAX - 1 - s.nzend) return false;
    s.nzend += knz;
    if (s.nzend > s.ixsub.size())
        s.ixsub.resize(std::min<long long>(INT_MAX, std::max<long long>(s.nzend, s.ixsub.size() * 3LL / 2 + 1000)));
    std::copy(s.list.begin(), s.list.end(), s.ixsub.data() + s.nzbeg - 1);
    for (const int i : s.list) s.marker[i] = k;
    s.marker[k] = k;
    s.ixvec2(k) = s.nzbeg;
    return true;
}

// Pattern of row k from its neighbours and the rows that hand on to it. Returns its length, -1: too long.
int row_pattern(symbolic& s, int k, const std::vector<int>& nbs) {
    const int m = s.mrglnk[k];
    s.marker[k] = m > 0 ? s.marker[m] : k;
    // of no meaning for an empty row
    s.ixvec2(k) = s.nzend;
    // One child, and every neighbour was in the list it took part in last: the pattern is the child's without its first
    // row, and nothing is stored (mass elimination).
    const bool outside = std::any_of(nbs.begin(), nbs.end(), [&](int nb) { return s.marker[nb] != s.marker[k]; });
    if (!outside && m > 0 && s.mrglnk[m] == 0) {
        s.ixvec2(k) = s.ixvec2(m) + 1;
        return s.ixvec1(m + 1) - s.ixvec1(m) - 1;
    }
    // what the longest child hands on is sorted: only the rest has to be collected, sorted and merged in
    std::span<const int> longest;
    for (int i = m; i > 0; i = s.mrglnk[i])
        if (const auto part = handed_on(s, i); part.size() > longest.size()) {
            longest = part;
            s.ixvec2(k) = s.ixvec2(i) + 1;
        }
    for (const int i : longest) s.seen[i] = k;
    s.extra.clear();
    meet(s, k, nbs);
    for (int i = m; i > 0; i = s.mrglnk[i])
        if (const auto part = handed_on(s, i); part.data() != longest.data()) meet(s, k, part);
    const auto knz = static_cast<int>(longest.size() + s.extra.size());
    // the tail of the longest child's list serves
    if (s.extra.empty()) return knz;
    std::sort(s.extra.begin(), s.extra.end());
    s.list.resize(longest.size() + s.extra.size());
    std::merge(longest.begin(), longest.end(), s.extra.begin(), s.extra.end(), s.list.begin());
    if (!overlaps(s, k) && !store_list(s, k)) return -1;
    return knz;
}

} // namespace

void ssmbfct(int nsrow, const array<int>& xadj, const array<int>& adjncy, const array<int>& perm,
             const array<int>& invp, array<int>& ixvec1, int& maxlnz, array<int>& ixvec2, array<int>& ixsub,
             int& maxsub, int& flag) {
    const std::size_t n = nsrow;
    ixvec1.allocate(nsrow + 1);
    ixvec2.allocate(nsrow);
    symbolic s{nsrow, ixvec1, ixvec2, ixsub, std::vector<int>(n + 1), std::vector<int>(n + 1), std::vector<int>(n + 1),
               {},    {}};
    const bool renumber = perm.allocated();
    std::vector<int> nbs;
    flag = 0;
    ixvec1(1) = 1;
    for (int k = 1; k <= nsrow; ++k) {
        const int node = renumber ? perm(k) : k;
        nbs.clear();
        for (int j = xadj(node); j < xadj(node + 1); ++j)
            if (const int nb = renumber ? invp(adjncy(j)) : adjncy(j); nb > k) nbs.push_back(nb);
        const int knz = row_pattern(s, k, nbs);
        if (knz < 0 || knz > INT_MAX - 1 - ixvec1(k)) {
            flag = 1;
            break;
        }
        ixvec1(k + 1) = ixvec1(k) + knz;
        // row k hands on to the first row of its pattern, its parent in the elimination tree
        if (knz > 1) {
            const int heir = ixsub(ixvec2(k));
            s.mrglnk[k] = s.mrglnk[heir];
            s.mrglnk[heir] = k;
        }
    }
    maxsub = s.nzend;
    maxlnz = flag == 0 ? ixvec1(nsrow + 1) - 1 : 0;
}

double count_operations(int nsrow, const array<int>& ixvec1) {
    double nnops = 0.0;
    for (int k = 1; k <= nsrow; ++k) {
        const double c = ixvec1(k + 1) - ixvec1(k);
        nnops += 0.5 * c * (c + 3.0);
    }
    return nnops;
}

} // namespace tarvex
