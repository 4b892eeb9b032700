#include "sparse/genmmd.h"

#include "sparse/graphs.h"

#include <climits>
#include <gtest/gtest.h>
#include <queue>

namespace tarvex {
namespace {
using namespace graphs; // NOLINT: test helpers

struct order_result {
    array<int> invp, perm;
    int nofsub = 0;
};
order_result mmd(const graph& g, int maxint = INT_MAX) {
    order_result r;
    array<int> xadj, adjncy;
    compress(g, xadj, adjncy);
    ggenmmd(nodes(g), xadj, adjncy, r.invp, r.perm, 0, maxint, r.nofsub);
    return r;
}
// Fill of one-at-a-time minimum degree.
long long greedy_fill(graph g) {
    const int n = nodes(g);
    std::vector<int> out(n + 1);
    long long fill = 0;
    for (int step = 0; step < n; ++step) {
        int best = 0;
        for (int v = 1; v <= n; ++v)
            if (!out[v] && (best == 0 || g[v].size() < g[best].size())) best = v;
        out[best] = 1;
        fill += static_cast<long long>(g[best].size());
        for (int a : g[best]) {
            g[a].erase(best);
            for (int b : g[best]) connect(g, a, b);
        }
    }
    return fill;
}

TEST(genmmd, orders_every_graph_and_stays_near_minimum_degree) {
    long long fill = 0, greedy = 0;
    for (const auto& g : zoo()) {
        const auto r = mmd(g);
        ASSERT_TRUE(is_permutation(r.perm, r.invp)) << nodes(g);
        const long long f = elements(eliminate(g, r.perm));
        EXPECT_LE(r.nofsub, f + nodes(g));
        fill += f;
        greedy += greedy_fill(g);
    }
    EXPECT_LT(static_cast<double>(fill), 1.01 * static_cast<double>(greedy));
}

TEST(genmmd, isolated_nodes_come_first_in_descending_order) {
    graph g(6);
    connect(g, 2, 4);
    const auto r = mmd(g);
    EXPECT_EQ(r.perm(1), 5);
    EXPECT_EQ(r.perm(2), 3);
    EXPECT_EQ(r.perm(3), 1);
}

TEST(genmmd, trees_are_eliminated_without_fill) {
    graph g(64);
    for (int i = 2; i <= 63; ++i) connect(g, i, i / 2);
    EXPECT_EQ(elements(eliminate(g, mmd(g).perm)), 62);
}

// Marks of nodes that are out survive when the tags run over; the order does not depend on where that happens.
TEST(genmmd, tags_that_run_over_do_not_revive_nodes) {
    for (const auto& g : zoo()) {
        const auto r = mmd(g, 2 * nodes(g) + 3);
        ASSERT_TRUE(is_permutation(r.perm, r.invp));
        const auto free = mmd(g);
        EXPECT_TRUE(std::equal(r.perm.begin(), r.perm.end(), free.perm.begin()));
    }
}

} // namespace
} // namespace tarvex
