// Reverse sweep over the supernodes: rows of the top of the tree first, then the pieces, which need nothing of each
// other. Each solution is the same sum as without the tree.
#include "sparse/supernodal_solve.h"

#include "sparse/takahashi.h"

namespace tarvex {

namespace {

void solve_columns_of(const sparse_store& m, const supernode_tree& tree, const supernode_tree::step& step,
                      array<double>& solns) {
    // a solution needs those of its rows below: columns from the last to the first
    for (int k = tree.start[step.end]; k-- > tree.start[step.first];)
        if (const int i = tree.order[k]; i < m.n) solns(i) = solve_row(m, i, solns);
}

} // namespace

double solve_row(const sparse_store& s, int i, const array<double>& solns) {
    const auto &ixvec1 = s.ixvec1, &ixvec2 = s.ixvec2, &ixsub = s.ixsub;
    double b = 0.0, t = 0.0;
    const int shift = ixvec2(i) - ixvec1(i);
    for (int q = ixvec1(i); q < ixvec1(i + 1); ++q) {
        const int r = ixsub(q + shift);
        if (r == s.n)
            b = s.xspars(q);
        else
            t += s.xspars(q) * solns(r);
    }
    return (b - t) / s.diag(i);
}

void solve_back_supernodes(const sparse_store& m, sparse_work& w, array<double>& solns) {
    need_state(m, store_state::factor, "solve_back_supernodes");
    task_pool* pool = w.pool.get();
    if (!pool || pool->threads() < 2) return solve_back(m, solns);
    const supernode_tree& tree = supernodes(m, w);
    if (solns.size() < m.n) solns.allocate(m.n);
    solns.fill(0.0);
    std::vector<supernode_tree::step> pieces;
    // the top is above all pieces: it comes first though steps are interleaved
    for (std::size_t i = tree.steps.size(); i-- > 0;)
        if (tree.steps[i].piece)
            pieces.push_back(tree.steps[i]);
        else
            solve_columns_of(m, tree, tree.steps[i], solns);
    const auto work = [&](int i) { solve_columns_of(m, tree, pieces[i], solns); };
    pool->run([&] {
        pool->each(
            static_cast<int>(pieces.size()),
            [](const void* f, int i, int) { (*static_cast<const decltype(work)*>(f))(i); }, &work);
    });
}

} // namespace tarvex
