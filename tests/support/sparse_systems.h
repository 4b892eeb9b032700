// Generated systems for tests and benchmarks of the sparse kernels: a symmetric pattern is factorised symbolically in
// the given order and laid into module sparse, with values that make the matrix positive definite.
#pragma once
#include "control/numbers.h"
#include "equations/mmmatrix.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <set>
#include <utility>
#include <vector>

namespace tarvex {

using sparse_pattern = std::vector<std::vector<int>>; // by row from 1: the columns above it, ascending

// Fill-in by the elimination tree; every row is linked to the last one when with_rhs. rows 1..n.
inline sparse_pattern fill_in(const sparse_pattern& given, bool with_rhs = true) {
    const int n = static_cast<int>(given.size()) - 1;
    std::vector<std::vector<int>> children(n + 1);
    sparse_pattern l(n + 1);
    std::vector<int> mark(n + 1, 0);
    for (int k = 1; k <= n; ++k) {
        auto add = [&](int i) {
            if (i > k && mark[i] != k) {
                mark[i] = k;
                l[k].push_back(i);
            }
        };
        for (int i : given[k]) add(i);
        if (with_rhs) add(n);
        for (int c : children[k])
            for (int i : l[c]) add(i);
        std::sort(l[k].begin(), l[k].end());
        if (!l[k].empty()) children[l[k].front()].push_back(k);
    }
    return l;
}

// Lays a pattern closed under elimination into module sparse; lists that end the list before are shared.
inline void store_structure(const sparse_pattern& l) {
    const int n = static_cast<int>(l.size()) - 1;
    numbers.nsrow = sparse.n = n;
    sparse.ixvec1.allocate(n + 1);
    sparse.ixvec2.allocate(n);
    std::vector<int> sub;
    sparse.ixvec1(1) = 1;
    for (int k = 1; k <= n; ++k) {
        const auto& list = l[k];
        sparse.ixvec1(k + 1) = sparse.ixvec1(k) + static_cast<int>(list.size());
        const bool shared = list.size() <= sub.size() && std::equal(list.begin(), list.end(), sub.end() - list.size());
        if (!shared) sub.insert(sub.end(), list.begin(), list.end());
        sparse.ixvec2(k) = static_cast<int>(sub.size() - list.size()) + 1;
    }
    sparse.maxsub = static_cast<int>(sub.size());
    sparse.ixsub.allocate(sparse.maxsub);
    std::copy(sub.begin(), sub.end(), sparse.ixsub.begin());
    sparse.maxlnz = sparse.ixvec1(n + 1) - 1;
    sparse.diag.allocate(n);
    sparse.xspars.allocate(sparse.maxlnz);
}

// Values: random off-diagonals where `given` has an element (0 in the fill-in), diagonals that dominate.
inline void store_values(const sparse_pattern& given, unsigned seed, double dominance = 1.1) {
    const int n = numbers.nsrow;
    std::mt19937 gen(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    sparse.diag.fill(0.0);
    sparse.xspars.fill(0.0);
    for (int i = 1; i <= n; ++i)
        for (int q = sparse.ixvec1(i); q < sparse.ixvec1(i + 1); ++q) {
            const int j = sparse.ixsub(sparse.ixvec2(i) + q - sparse.ixvec1(i));
            if (j != n && !std::binary_search(given[i].begin(), given[i].end(), j)) continue;
            const double v = u(gen);
            sparse.xspars(q) = v;
            sparse.diag(i) += std::fabs(v);
            sparse.diag(j) += std::fabs(v);
        }
    for (int i = 1; i <= n; ++i) sparse.diag(i) = dominance * sparse.diag(i) + 0.01;
    sparse.state = store_state::assembled;
}

} // namespace tarvex
