// Random graphs and the brute-force elimination that orderings and structures are compared with.
#pragma once
#include "support/array.h"

#include <random>
#include <set>
#include <vector>

namespace tarvex::graphs {

using graph = std::vector<std::set<int>>; // neighbours of node 1..n, both directions; element 0 is not used

inline void connect(graph& g, int a, int b) {
    if (a == b) return;
    g[a].insert(b);
    g[b].insert(a);
}
inline graph random_graph(int n, double density, std::mt19937& gen) {
    graph g(n + 1);
    std::uniform_real_distribution<> u;
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j < i; ++j)
            if (u(gen) < density) connect(g, i, j);
    return g;
}
inline graph grid(int m) {
    graph g(m * m + 1);
    for (int i = 0; i < m; ++i)
        for (int j = 0; j < m; ++j) {
            if (i > 0) connect(g, i * m + j + 1, (i - 1) * m + j + 1);
            if (j > 0) connect(g, i * m + j + 1, i * m + j);
        }
    return g;
}
inline int nodes(const graph& g) { return static_cast<int>(g.size()) - 1; }
inline void compress(const graph& g, array<int>& xadj, array<int>& adjncy) {
    const int n = nodes(g);
    xadj.allocate(n + 1);
    xadj(1) = 1;
    for (int i = 1; i <= n; ++i) xadj(i + 1) = xadj(i) + static_cast<int>(g[i].size());
    adjncy.allocate(xadj(n + 1) - 1);
    int at = 0;
    for (int i = 1; i <= n; ++i)
        for (int j : g[i]) adjncy(++at) = j;
}
// Subscripts behind the diagonal of each column of the factor under the order perm (place to node).
inline graph eliminate(const graph& g, const array<int>& perm) {
    const int n = nodes(g);
    std::vector<int> place(n + 1);
    for (int k = 1; k <= n; ++k) place[perm(k)] = k;
    graph l(n + 1);
    for (int i = 1; i <= n; ++i)
        for (int j : g[i])
            if (place[j] > place[i]) l[place[i]].insert(place[j]);
    for (int k = 1; k <= n; ++k)
        if (!l[k].empty()) {
            const int father = *l[k].begin();
            for (int i : l[k])
                if (i != father) l[father].insert(i);
        }
    return l;
}
inline array<int> identity(int n) {
    array<int> p;
    p.allocate(n);
    for (int i = 1; i <= n; ++i) p(i) = i;
    return p;
}
inline bool is_permutation(const array<int>& p, const array<int>& inverse) {
    const int n = static_cast<int>(p.size());
    if (inverse.size() != n) return false;
    for (int i = 1; i <= n; ++i)
        if (p(i) < 1 || p(i) > n || inverse(p(i)) != i) return false;
    return true;
}
inline long long elements(const graph& l) {
    long long n = 0;
    for (const auto& s : l) n += static_cast<long long>(s.size());
    return n;
}
// Graphs of all shapes that tend to break orderings.
inline std::vector<graph> zoo() {
    std::mt19937 gen(4711);
    std::vector<graph> all{graph(1), graph(2), graph(6)}; // none, one node, isolated nodes
    for (int n : {2, 5, 9, 17, 33, 60, 90})
        for (double d : {0.02, 0.06, 0.15, 0.4, 1.0})
            for (int rep = 0; rep < 4; ++rep) all.push_back(random_graph(n, d, gen));
    graph star(31), path(41), both(41);
    for (int i = 2; i <= 30; ++i) connect(star, 1, i);
    for (int i = 2; i <= 40; ++i) connect(path, i - 1, i);
    for (int i = 2; i <= 20; ++i) connect(both, i, i - 1), connect(both, i + 20, 40);
    all.push_back(star);
    all.push_back(path);
    all.push_back(both);
    all.push_back(grid(9));
    return all;
}

} // namespace tarvex::graphs
