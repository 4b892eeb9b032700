#include "sparse/column_counts.h"

#include <utility>

namespace tarvex {

namespace {

// Places in postorder of the tree: children before their parents, subtrees without gaps.
std::vector<int> postorder(const std::vector<int>& parent) {
    const int n = static_cast<int>(parent.size());
    std::vector<int> child(parent.size(), -1), brother(parent.size(), -1), order, path;
    order.reserve(parent.size());
    // from the last to the first, so that children stand in ascending order
    for (int k = n - 1; k >= 0; --k)
        if (parent[k] >= 0) brother[k] = std::exchange(child[parent[k]], k);
    for (int root = 0; root < n; ++root) {
        if (parent[root] >= 0) continue;
        // path: from the root to the node in hand; a child leaves its list when it is entered
        for (path.push_back(root); !path.empty();) {
            const int k = path.back();
            if (child[k] >= 0) {
                path.push_back(child[k]);
                child[k] = brother[child[k]];
            } else {
                order.push_back(k);
                path.pop_back();
            }
        }
    }
    return order;
}

// Root of the set of k, with the path to it halved.
int find_root(std::vector<int>& ancestor, int k) {
    while (ancestor[k] != ancestor[ancestor[k]]) k = ancestor[k] = ancestor[ancestor[k]];
    return ancestor[k];
}

} // namespace

std::vector<int> elimination_tree(const order_graph& g, const std::vector<int>& node, const std::vector<int>& place) {
    std::vector<int> parent(node.size(), -1), ancestor(node.size(), -1);
    // From each neighbour in front of k up to the root of its tree so far, which becomes a child of k. ancestor cuts
    // the climb short: it leads to the highest node that any climb has reached.
    for (int k = 0; k < g.n; ++k)
        for (int at = g.start[node[k]]; at < g.start[node[k] + 1]; ++at)
            for (int i = place[g.adjacent[at]]; i >= 0 && i < k;) {
                const int next = std::exchange(ancestor[i], k);
                if (next < 0) parent[i] = k;
                i = next;
            }
    return parent;
}

// A column has as many off-diagonals as there are row subtrees through its place. Row i's subtree is spanned by its
// leaves among the neighbours of i; weights +1 at each leaf and -1 where two paths meet, summed up the tree.
std::vector<int> column_counts(const order_graph& g, const std::vector<int>& node, const std::vector<int>& place) {
    const auto n = node.size();
    const std::vector<int> parent = elimination_tree(g, node, place), post = postorder(parent);
    std::vector<int> first(n, -1), count(n), last_first(n, -1), last_leaf(n, -1), ancestor(n);
    for (std::size_t at = 0; at < n; ++at) { // first descendant in postorder; a leaf of the tree starts with 1
        int k = post[at];
        count[k] = first[k] < 0 ? 1 : 0;
        for (; k >= 0 && first[k] < 0; k = parent[k]) first[k] = static_cast<int>(at);
    }
    for (std::size_t k = 0; k < n; ++k) ancestor[k] = static_cast<int>(k);
    for (const int j : post) {
        // the diagonal of j is no element of its parent's column
        if (parent[j] >= 0) --count[parent[j]];
        for (int at = g.start[node[j]]; at < g.start[node[j] + 1]; ++at) {
            const int i = place[g.adjacent[at]];
            if (i <= j || first[j] <= last_first[i]) continue; // j is no leaf of the subtree of row i
            last_first[i] = first[j];
            ++count[j];
            // the new path adds its nodes up to i; from where it meets that of the last leaf on they are counted
            // already
            const int before = std::exchange(last_leaf[i], j);
            if (before >= 0) --count[find_root(ancestor, before)];
        }
        // from here on the root of what lies under j is looked for at its parent
        if (parent[j] >= 0) ancestor[j] = parent[j];
    }
    for (const int j : post)
        if (parent[j] >= 0) count[parent[j]] += count[j];
    for (int& c : count) --c; // the diagonal was counted
    return count;
}

factor_counts count_factor(const order_graph& g, const std::vector<int>& node, const std::vector<int>& place) {
    factor_counts sum;
    for (const int c : column_counts(g, node, place)) {
        const double d = c + 1.0;
        sum.elements += c + 1;
        sum.operations += 0.5 * d * (d + 3.0);
    }
    return sum;
}

} // namespace tarvex
