#include "sparse/supernodes.h"

#include "sparse/dense_kernels.h"
#include "sparse/symbfact.h"
#include "sparse/workspace.h"

#include <algorithm>
#include <cstdint>
#include <numeric>

namespace tarvex {

namespace {

std::uint64_t fingerprint(const sparse_store& s) {
    // FNV-1a by words; the shift carries high bits down
    std::uint64_t h = 1469598103934665603u;
    auto mix = [&](std::uint64_t v) { h = (h ^ v) * 1099511628211u + (h >> 29); };
    mix(static_cast<std::uint64_t>(s.n));
    for (int i = 1; i <= s.n; ++i) {
        mix(static_cast<std::uint64_t>(s.ixvec1(i + 1)));
        mix(static_cast<std::uint64_t>(s.ixvec2(i)));
    }
    for (int q = 1; q <= s.maxsub; ++q) mix(static_cast<std::uint64_t>(s.ixsub(q)));
    // 0 stands for no structure
    return h | 1u;
}

// A supernode while the partition is made.
struct cluster {
    int width, below; // columns and rows below them
    int parent;       // -1: root
    int into;         // cluster that this one has been merged into, itself if none
    double gain;      // work space of the merging
};

// Time of a panel in nanoseconds: a share for each panel and its elements, the update matrix (stored once, added once
// to the parent's), and multiplications.
double panel_time(double width, double below) {
    constexpr double panel = 400.0, element = 1.5, update = 0.6; // measured
    constexpr double per_nanosecond = 14.0;                      // multiplications
    const double m = width + below;
    return panel + element * m * width + update * below * below +
           (m * m * m - below * below * below) / 6.0 / per_nanosecond;
}

// Columns whose patterns are nested without a gap. Returns the cluster of each column (from 1).
std::vector<int> nested_columns(const sparse_store& s, std::vector<cluster>& clusters) {
    const int n = s.n;
    std::vector<int> of(n + 1, -1), continued(n + 1, 0);
    for (int j = 1; j <= n; ++j) {
        if (of[j] < 0) {
            of[j] = static_cast<int>(clusters.size());
            clusters.push_back({0, 0, -1, of[j], 0.0});
        }
        cluster& c = clusters[of[j]];
        ++c.width;
        c.below = rows_below(s, j);
        if (c.below == 0) continue;
        const int p = *row_list(s, j);
        // a column goes on with one of its children alone; row n with none
        if (p == n || continued[p] || rows_below(s, p) + 1 != c.below) continue;
        continued[p] = 1;
        of[p] = of[j];
    }
    for (int j = 1; j <= n; ++j) // the last column of a cluster has its first row in the parent
        if (rows_below(s, j) > 0 && of[*row_list(s, j)] != of[j]) clusters[of[j]].parent = of[*row_list(s, j)];
    return of;
}

// Children of each cluster as lists, by the clusters' last columns ascending.
struct child_lists {
    std::vector<int> first, next;
};
child_lists list_children(const std::vector<cluster>& clusters) {
    child_lists c;
    c.first.assign(clusters.size(), -1);
    c.next.assign(clusters.size(), -1);
    for (int s = static_cast<int>(clusters.size()) - 1; s >= 0; --s)
        if (clusters[s].parent >= 0) {
            c.next[s] = c.first[clusters[s].parent];
            c.first[clusters[s].parent] = s;
        }
    return c;
}

// Merges children into parents where that saves time; `bottom_up` has children before parents.
void merge_clusters(std::vector<cluster>& clusters, const std::vector<int>& bottom_up, int last) {
    const child_lists lists = list_children(clusters);
    std::vector<int> children;
    for (int p : bottom_up) {
        if (p == last) continue;
        children.clear();
        // the child with most rows below first: it takes in the fewest zeros
        for (int c = lists.first[p]; c >= 0; c = lists.next[c]) children.push_back(c);
        std::sort(children.begin(), children.end(), [&](int a, int b) {
            return clusters[a].below != clusters[b].below ? clusters[a].below > clusters[b].below : a > b;
        });
        cluster& to = clusters[p];
        for (int c : children) {
            const cluster& of = clusters[c];
            const double apart = panel_time(of.width, of.below) + panel_time(to.width, to.below);
            // the rows below are those of the parent: what the child lacks becomes zeros
            if (panel_time(of.width + to.width, to.below) > apart) continue;
            to.width += of.width;
            clusters[c].into = p;
        }
    }
}

int final_cluster(std::vector<cluster>& clusters, int s) {
    int root = s;
    while (clusters[root].into != root) root = clusters[root].into;
    for (int next; s != root; s = next) {
        next = clusters[s].into;
        clusters[s].into = root;
    }
    return root;
}

// Postorder of the tree of clusters, the child that needs most space above what it leaves coming first.
std::vector<int> postorder(const std::vector<cluster>& clusters, const std::vector<int>& bottom_up) {
    const std::size_t ns = clusters.size();
    child_lists lists = list_children(clusters);
    std::vector<double> need(ns, 0.0), left(ns, 0.0);
    std::vector<int> children, roots, result, stack;
    for (int s : bottom_up) {
        // merged: its children belong to the root of the merging by now
        if (clusters[s].into != s) continue;
        left[s] = static_cast<double>(triangle_size(clusters[s].below));
        children.clear();
        for (int c = lists.first[s]; c >= 0; c = lists.next[c]) children.push_back(c);
        // least space: by need less what is left (J. W. H. Liu, ACM TOMS 12:249, 1986)
        std::sort(children.begin(), children.end(), [&](int a, int b) {
            const double da = need[a] - left[a], db = need[b] - left[b];
            return da != db ? da > db : a < b;
        });
        double held = 0.0;
        lists.first[s] = children.empty() ? -1 : children.front();
        for (std::size_t i = 0; i < children.size(); ++i) {
            // while child i is worked on the updates of those before it are held
            lists.next[children[i]] = i + 1 < children.size() ? children[i + 1] : -1;
            need[s] = std::max(need[s], held + need[children[i]]);
            held += left[children[i]];
        }
        need[s] = std::max(need[s], held + left[s]);
        if (clusters[s].parent < 0) roots.push_back(s);
    }
    std::vector<int> next = lists.first; // child to be visited next
    for (int root : roots) {
        stack.push_back(root);
        while (!stack.empty()) {
            const int s = stack.back(), c = next[s];
            if (c >= 0) {
                next[s] = lists.next[c];
                stack.push_back(c);
            } else {
                result.push_back(s);
                stack.pop_back();
            }
        }
    }
    return result;
}

// A place of kernel_space_size elements as the space of the kernels.
kernel_space space_at(double* p) {
    kernel_space k;
    k.scratch = p;
    k.packed_b = k.scratch + scratch_size;
    k.corner = k.packed_b + broad * packed_depth;
    return k;
}

// Multiplications of the front of a supernode.
double front_operations(double width, double below) {
    const double m = width + below;
    return (m * m * m - below * below * below) / 6.0;
}

constexpr double pieces_wanted = 256; // of all operations below the top

// Cuts the tree: supernodes at the top, one by one, and pieces of whole subtrees below them, in the order of the tree.
// It follows from the structure alone, so that the result does not depend on who does what.
void find_steps(const sparse_store& m, double few_operations, supernode_tree& tree) {
    const int ns = static_cast<int>(tree.parent.size()), last = ns - 1; // the last is that of row n
    std::vector<double> under(ns, 0.0), own(ns, 0.0);
    std::vector<char> top(ns, 0);
    double total = 0.0;
    for (int s = 0; s < ns; ++s) {
        own[s] = front_operations(tree.start[s + 1] - tree.start[s], below_of(m, tree, s));
        total += own[s];
    }
    // a small tree is one piece: threads would not repay their start
    const double grain = total < few_operations ? total + 1.0 : total / pieces_wanted;
    for (int s = 0; s < ns; ++s) {
        under[s] += own[s];
        // large fronts share their own work, and are not parts of pieces
        const bool large = large_front(tree.start[s + 1] - tree.start[s], below_of(m, tree, s));
        if (s == last || large || under[s] > grain) top[s] = 1;
        if (const int p = tree.parent[s]; p >= 0) {
            under[p] += under[s];
            // whatever is above the top is top
            top[p] = static_cast<char>(top[p] | top[s]);
        }
    }
    int first = -1; // of the piece that is open
    double sum = 0.0;
    for (int s = 0; s < ns; ++s) {
        if (top[s]) {
            if (first >= 0) tree.steps.push_back({first, s, true});
            tree.steps.push_back({s, s + 1, false});
            first = -1;
            continue;
        }
        if (first < 0) {
            first = s;
            sum = 0.0;
        }
        // small subtrees side by side make a piece together
        if (tree.parent[s] >= 0 && !top[tree.parent[s]]) continue; // not the root of a subtree
        sum += under[s];
        if (sum > 0.5 * grain) {
            tree.steps.push_back({first, s + 1, true});
            first = -1;
        }
    }
    tree.in_piece.assign(ns, 0);
    for (const auto& step : tree.steps)
        if (step.piece) std::fill(tree.in_piece.begin() + step.first, tree.in_piece.begin() + step.end, char{1});
}

// Space that the work on the fronts takes: of all, and of those in pieces.
void find_space(const sparse_store& m, supernode_tree& tree) {
    const int ns = static_cast<int>(tree.parent.size());
    std::ptrdiff_t held[2]{}; // on the stacks of a piece
    for (int s = 0; s < ns; ++s) {
        const int width = tree.start[s + 1] - tree.start[s], below = below_of(m, tree, s), odd = tree.level[s] % 2;
        tree.rows = std::max(tree.rows, width + below);
        tree.width = std::max(tree.width, width);
        tree.inverse = std::max(tree.inverse, triangle_size(below));
        if (!tree.in_piece[s]) continue;
        tree.piece_rows = std::max(tree.piece_rows, width + below);
        tree.piece_width = std::max(tree.piece_width, width);
        // the stacks as they are filled and emptied, front by front: their heights are the most ever held
        tree.piece_inverse = std::max(tree.piece_inverse, triangle_size(below));
        const std::ptrdiff_t update = leaves_piece(tree, s) ? 0 : triangle_size(below);
        tree.triangles[odd] = std::max(tree.triangles[odd], held[odd] + update);
        if (!updates_at_once(m, tree, s))
            for (int c = tree.child[s]; c >= 0; c = tree.sibling[c])
                held[1 - odd] -= triangle_size(below_of(m, tree, c));
        if (tree.parent[s] >= 0 && tree.in_piece[tree.parent[s]] && !updates_at_once(m, tree, tree.parent[s]))
            held[odd] += update;
    }
}

void make_tree(const sparse_store& m, double few_operations, supernode_tree& tree) {
    tree = {};
    const int n = m.n;
    if (n == 0) return;
    tree.operations = count_operations(n, m.ixvec1);
    std::vector<cluster> clusters;
    const std::vector<int> of = nested_columns(m, clusters);
    const int nc = static_cast<int>(clusters.size());
    std::vector<int> last(nc, 0), bottom_up(nc);
    // children end in front of their parents: last columns give an order from the bottom up
    for (int j = 1; j <= n; ++j) last[of[j]] = j;
    std::iota(bottom_up.begin(), bottom_up.end(), 0);
    std::sort(bottom_up.begin(), bottom_up.end(), [&](int a, int b) { return last[a] < last[b]; });
    merge_clusters(clusters, bottom_up, of[n]);
    for (int s = 0; s < nc; ++s)
        if (clusters[s].into == s && clusters[s].parent >= 0)
            clusters[s].parent = final_cluster(clusters, clusters[s].parent);
    for (int s = 0; s < nc; ++s)
        if (final_cluster(clusters, s) != s) clusters[s].parent = -1;
    const std::vector<int> post = postorder(clusters, bottom_up);
    const int ns = static_cast<int>(post.size());
    std::vector<int> number(nc, -1);
    tree.start.assign(ns + 1, 0);
    for (int k = 0; k < ns; ++k) {
        number[post[k]] = k;
        tree.start[k + 1] = tree.start[k] + clusters[post[k]].width;
    }
    tree.order.resize(n);
    // next place of each supernode; columns come ascending
    std::vector<int> at(tree.start.begin(), tree.start.end() - 1);
    for (int j = 1; j <= n; ++j) tree.order[at[number[final_cluster(clusters, of[j])]]++] = j;
    tree.parent.assign(ns, -1);
    tree.child.assign(ns, -1);
    tree.sibling.assign(ns, -1);
    tree.level.assign(ns, 0);
    for (int k = ns - 1; k >= 0; --k) {
        const int p = clusters[post[k]].parent;
        if (p < 0) continue;
        tree.parent[k] = number[p];
        tree.level[k] = tree.level[number[p]] + 1;
        tree.sibling[k] = tree.child[number[p]];
        tree.child[number[p]] = k;
    }
    find_steps(m, few_operations, tree);
    find_space(m, tree);
}

} // namespace

const supernode_tree& supernodes(const sparse_store& s, sparse_work& w) {
    const std::uint64_t now = fingerprint(s);
    if (now != w.tree.structure) {
        make_tree(s, w.few_operations, w.tree);
        w.tree.structure = now;
    }
    return w.tree;
}

const dense_kernels_table& dense_of(sparse_work& w) {
    if (!w.dense) w.dense = find_kernels("");
    return *w.dense;
}

kernel_space packing_of(sparse_work& w) {
    if (!w.packing) w.packing = make_space(kernel_space_size);
    return space_at(w.packing.get());
}

shared_work::shared_work(sparse_work& w) : w_(w), pool_(w.pool && w.pool->threads() > 1 ? w.pool.get() : nullptr) {
    if (!pool_) return;
    w.of_thread.resize(pool_->threads());
    for (auto& space : w.of_thread)
        if (!space) space = make_space(kernel_space_size);
}

kernel_space shared_work::packing(bool shared) {
    kernel_space k = packing_of(w_);
    if (!shared || !pool_) return k;
    k.each = share;
    k.pool = this;
    return k;
}

kernel_space shared_work::packing_of_slot(int slot) {
    return pool_ ? space_at(w_.of_thread[slot].get()) : packing_of(w_);
}

void shared_work::share(void* self, int count, kernel_space::piece body, const void* arg) {
    auto* work = static_cast<shared_work*>(self);
    const auto f = [&](int i, int slot) { body(arg, i, work->w_.of_thread[slot].get()); };
    work->pool_->each(
        count, [](const void* g, int i, int slot) { (*static_cast<const decltype(f)*>(g))(i, slot); }, &f);
}

} // namespace tarvex
