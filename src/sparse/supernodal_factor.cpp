// Multifrontal Cholesky factorisation over the supernodes.
#include "sparse/fronts.h"

#include <atomic>
#include <exception>
#include <memory>

namespace tarvex {

namespace {

// What all that are at work on a factor share. Each supernode is written by one of them.
struct factor_state {
    sparse_store& m;
    const supernode_tree& tree;
    const dense_kernels_table& kernel;
    double limit;                      // smallest pivot
    std::vector<double> added;         // to the diagonals, by columns whose fronts take updates at once
    std::vector<const double*> update; // (ns) update matrix that waits for the parent, if any
    std::vector<work_space> held;      // (ns) its space where it waits for the top
};

// A sum for row n, or the supernode whose update matrix goes to the store: in the order of the tree, whoever came
// first.
struct piece_event {
    int s; // -1: value
    double value;
};

// What one of them has of its own.
struct factor_work {
    factor_state& all;
    kernel_space packing;
    std::vector<int> local{}, place{}, runs{}; // rows of the front by row of the system; rows of a child in it
    std::vector<int> spot{}, spot_runs{};      // rows of a child in the list of a column, counted back from its end
    work_space space{};
    double *columns = nullptr, *spare = nullptr; // panels
    double* top[2]{};                            // first free place on the stacks of the even and of the odd levels
    std::vector<piece_event>* events = nullptr;  // in a piece
};

// Adds the children's update matrices to columns first..end-1 of front s; target(c)[i] is row i of its column c.
template <class Target> void add_children(int s, factor_work& w, int first, int end, Target target) {
    const supernode_tree& tree = w.all.tree;
    for (int c = tree.child[s]; c >= 0; c = tree.sibling[c]) {
        const double* u = w.all.update[c];
        if (!u) continue;
        const int m = below_of(w.all.m, tree, c);
        const int* list = row_list(w.all.m, tree.order[tree.start[c + 1] - 1]);
        int *place = w.place.data(), *runs = w.runs.data();
        for (int i = 0; i < m; ++i) place[i] = w.local[list[i]];
        find_runs(m, place, runs);
        // places ascend: the child's rows that are columns first..end-1 of the front stand together
        const int from = static_cast<int>(std::lower_bound(place, place + m, first) - place);
        const int to = static_cast<int>(std::lower_bound(place + from, place + m, end) - place);
        by_columns(w.packing, from, to, m, [&](int j, int last) {
            for (; j < last; ++j) w.all.kernel.add_rows(j, m, place, runs, triangle_column(u, m, j), target(place[j]));
        });
    }
}

// Adds columns first..end-1 of the update matrix of front f to the stored columns that they belong to; column(k)[i] is
// row i.
template <class Column>
void absorb_columns(const front& f, int first, int end, Column column, factor_work& w, std::vector<int>& spot,
                    std::vector<int>& spot_runs) {
    const sparse_store& a = w.all.m;
    const int m = f.below;
    const int* known = nullptr; // end of the list that the spots belong to; lists that end alike have the same tail
    for (int k = first; k < end; ++k) {
        const int j = f.list[k], count = rows_below(a, j);
        const double* from = column(k);
        // every piece adds to row n: sums wait for the order of the tree, so that no digit depends on threads
        if (j == a.n && w.events)
            w.events->push_back({-1, from[k]});
        else
            w.all.added[j] += from[k];
        if (k + 1 == m) continue;
        const int *list = row_list(a, j),
                  *last = list + count; // the rows below are linked to each other: all are found
        if (last != known) find_spots(list, last, f.list, k + 1, m, spot, spot_runs);
        known = last;
        double* off = w.all.m.xspars.data() + a.ixvec1(j) - 1;
        w.all.kernel.add_rows(k + 1, m, spot.data(), spot_runs.data(), from, off + count);
    }
}
template <class Column> void absorb(const front& f, int first, int end, Column column, factor_work& w) {
    if (!w.packing.each) return absorb_columns(f, first, end, column, w, w.spot, w.spot_runs);
    by_columns(w.packing, first, end, f.below, [&](int k, int last) {
        std::vector<int> spot(f.below), spot_runs(f.below);
        absorb_columns(f, k, last, column, w, spot, spot_runs);
    });
}
// The same of the whole update matrix u.
void absorb_update(const front& f, const double* u, factor_work& w) {
    absorb(
        f, 0, f.below, [&](int k) { return triangle_column(u, f.below, k); }, w);
}

// The update matrices of the children are done with.
void drop_children(int s, factor_work& w) {
    const supernode_tree& tree = w.all.tree;
    // Children's updates lie on the stack of the other parity: those of s could be made on its own stack while they
    // were still in use.
    for (int c = tree.child[s]; c >= 0; c = tree.sibling[c]) {
        if (w.all.held[c])
            w.all.held[c].reset();
        else if (w.all.update[c])
            w.top[1 - tree.level[s] % 2] -= triangle_size(below_of(w.all.m, tree, c));
        w.all.update[c] = nullptr;
    }
}

// Where the update matrix of s is made: on the stack, or in a space of its own where it waits for the top.
double* update_space(int s, const front& f, factor_work& w) {
    const supernode_tree& tree = w.all.tree;
    // in a piece, and the parent as well: the parent's thread is this one
    if (tree.in_piece[s] && !leaves_piece(tree, s)) return w.top[tree.level[s] % 2];
    w.all.held[s] = make_space(triangle_size(f.below));
    return w.all.held[s].get();
}

// The update matrix u of s waits for the parent's turn, or is taken over now.
void leave_update(int s, const front& f, const double* u, factor_work& w) {
    const supernode_tree& tree = w.all.tree;
    // true: the parent's front takes no update matrices, they go to its columns in the store
    const bool at_once = updates_at_once(w.all.m, tree, tree.parent[s]);
    if (w.events && leaves_piece(tree, s)) {
        w.all.update[s] = u;
        if (at_once) w.events->push_back({s, 0.0});
    } else if (at_once) {
        absorb_update(f, u, w);
        w.all.held[s].reset();
    } else {
        w.all.update[s] = u;
        if (!w.all.held[s]) w.top[tree.level[s] % 2] += triangle_size(f.below);
    }
}

void save_columns(const front& f, factor_work& w, const panel& p, int first, int end) {
    for (int c = first; c < end; ++c) {
        const int j = f.col[c], count = rows_below(w.all.m, j);
        const double* from = p.column(c);
        double* off = w.all.m.xspars.data() + w.all.m.ixvec1(j) - 1;
        w.all.m.diag(j) = from[c];
        if (count == f.rows() - 1 - c) {
            std::copy_n(from + c + 1, count, off);
            continue;
        }
        const int* list = row_list(w.all.m, j);
        for (int q = 0; q < count; ++q) off[q] = from[w.local[list[q]]];
    }
}

void save_panel(const front& f, factor_work& w, const panel& p) {
    by_columns(w.packing, p.first, p.end, f.rows(), [&](int first, int end) { save_columns(f, w, p, first, end); });
}
// The assembled columns of the panel, with what descendants have left for their diagonals.
void load_panel(const front& f, factor_work& w, const panel& p) {
    by_columns(w.packing, p.first, p.end, f.rows(), [&](int first, int end) {
        for (int c = first; c < end; ++c) {
            load_column(w.all.m, f, c, w.local, p.column(c));
            p.column(c)[c] += w.all.added[f.col[c]];
        }
    });
}

// A front whose columns make one panel. Of the columns only the first `width` are wanted; returns the first that fails,
// or width. The update matrix is left on the stack if all columns are good.
int factor_narrow(int s, const front& f, int width, factor_work& w, double& pivot) {
    const dense_kernels_table& kernel = w.all.kernel;
    const panel p = make_panel(w.columns, f.rows(), 0, f.width);
    load_panel(f, w, p);
    add_children(s, w, 0, f.width, [&](int c) { return p.column(c); });
    const int good = kernel.factor_panel(w.packing, f.rows(), width, p.p, p.ld, w.all.limit, pivot);
    if (good < f.width) return good;
    save_panel(f, w, p);
    if (f.below == 0) return good;
    double* u = update_space(s, f, w);
    // U = -L21 L21', and what the children give to the rows below
    kernel.minus_square(w.packing, store_mode::set_minus, f.below, f.width, p.p + f.width, p.ld, u);
    add_children(s, w, f.width, f.rows(), [&](int c) { return triangle_column(u, f.below, c - f.width) - f.width; });
    leave_update(s, f, u, w);
    return good;
}

// Rows first.. of column c of a front from the store, zeros where the pattern has no element; first > c.
void load_rows(const front& f, int c, int first, const factor_work& w, double* to) {
    const int j = f.col[c], count = rows_below(w.all.m, j);
    const double* off = w.all.m.xspars.data() + w.all.m.ixvec1(j) - 1;
    const int *list = row_list(w.all.m, j), *end = list + count;
    const int row = first < f.width ? f.col[first] : f.list[first - f.width];
    std::fill(to + first, to + f.rows(), 0.0);
    for (const int* at = std::lower_bound(list, end, row); at < end; ++at) to[w.local[*at]] = off[at - list];
}

// Takes the products of the front's columns 0..done-1 from c (n columns), whose first row and column are row `first` of
// the front. The columns are used where they stand in the store, but for those that the pattern leaves holes in.
void subtract_columns(const front& f, int done, int first, int n, double* c, std::ptrdiff_t ldc, factor_work& w) {
    const std::ptrdiff_t ld = column_distance(f.rows() + 2 * lane);
    const double* column[wide];
    for (int from = 0; from < done; from += wide) {
        const int k = std::min(wide, done - from);
        by_columns(w.packing, 0, k, f.rows() - first, [&](int i, int end) {
            for (; i < end; ++i) {
                const int j = f.col[from + i];
                // no holes: used where it stands
                if (rows_below(w.all.m, j) == f.rows() - 1 - from - i) {
                    column[i] = w.all.m.xspars.data() + w.all.m.ixvec1(j) - 1 + (first - from - i - 1);
                } else {
                    load_rows(f, from + i, first, w, w.spare + i * ld);
                    column[i] = w.spare + i * ld + first;
                }
            }
        });
        w.all.kernel.minus_columns(w.packing, f.rows() - first, n, k, column, c, ldc);
    }
}

// A large front, factorised in pieces; the children have left their updates in the store, and its own goes there.
int factor_large(const front& f, int width, factor_work& w, double& pivot) {
    // panels from the left, each less the products of those finished
    for (int c = 0, end; c < width; c = end) {
        end = std::min(f.width, c + broad);
        const panel p = make_panel(w.columns, f.rows(), c, end);
        load_panel(f, w, p);
        subtract_columns(f, c, c, end - c, p.p, p.ld, w);
        const int want = std::min(end, width) - c;
        const int good = w.all.kernel.factor_panel(w.packing, f.rows() - c, want, p.p, p.ld, w.all.limit, pivot);
        if (good < end - c) return c + good;
        save_panel(f, w, p);
    }
    // the update matrix is never there as a whole: what is broad is made, given to the store and forgotten
    for (int first = 0, end; first < f.below; first = end) {
        end = std::min(f.below, first + broad);
        const std::ptrdiff_t ld = column_distance(f.below - first + lane);
        std::fill_n(w.columns, (end - first) * ld, 0.0);
        subtract_columns(f, f.width, f.width + first, end - first, w.columns, ld, w);
        absorb(
            f, first, end, [&](int k) { return w.columns + (k - first) * ld - first; }, w);
    }
    return width;
}

// The first row that fails, in the order of rows: 0 none, and its pivot.
struct failure {
    int row = 0;
    double pivot = 0.0;
    void meet(const failure& f) {
        if (f.row != 0 && (row == 0 || f.row < row)) *this = f;
    }
};

// Supernode s. After a failure at row `bad` only columns before it matter: none of them has a descendant that failed,
// so whatever a failed front would have added is not missed.
void factor_supernode(int s, factor_work& w, failure& bad) {
    const front f = front_of(w.all.m, w.all.tree, s);
    int width = f.width;
    // columns of the front before the failed row
    if (bad.row != 0) width = static_cast<int>(std::lower_bound(f.col, f.col + f.width, bad.row) - f.col);
    if (width > 0) {
        place_rows(f, w.local);
        double d = 0.0;
        const bool large = large_front(f.width, f.below);
        const int good = large ? factor_large(f, width, w, d) : factor_narrow(s, f, width, w, d);
        if (good < width) bad.meet({f.col[good], d});
    }
    drop_children(s, w);
}

factor_work make_work(factor_state& all, kernel_space packing, bool top) {
    const supernode_tree& tree = all.tree;
    factor_work w{all, packing};
    const int rows = top ? tree.rows : tree.piece_rows;
    w.local.assign(all.m.n + 1, 0);
    for (auto* v : {&w.place, &w.runs, &w.spot, &w.spot_runs}) v->resize(rows);
    // what is not used takes no memory
    const std::ptrdiff_t columns = panel_size(rows, wide), spare = top ? broad / wide * columns : 0;
    const std::ptrdiff_t even = top ? 0 : tree.triangles[0], odd = top ? 0 : tree.triangles[1];
    w.space = make_space(even + odd + columns + spare);
    w.top[0] = w.space.get();
    w.top[1] = w.top[0] + even;
    w.columns = w.top[1] + odd;
    w.spare = w.columns + spare;
    return w;
}

// A piece of the tree, worked on by whoever claims it first, and what it leaves for the top.
struct tree_piece {
    enum : int { free, claimed, done };
    supernode_tree::step step{};
    std::vector<piece_event> events{};
    failure bad{};
    std::exception_ptr error{};
    std::atomic<int> state{free};
};

// Works through the steps of the tree in their order; pieces ahead of it are worked on meanwhile.
class factor_walk {
public:
    factor_walk(factor_state& all, sparse_work& work)
        : all_(all), shared_(work), pieces_(all.tree.steps.size()), of_slot_(shared_.threads()),
          top_(make_work(all, shared_.packing(all.tree.steps.size() > 2), true)) {
        for (std::size_t i = 0; i < pieces_.size(); ++i) pieces_[i].step = all.tree.steps[i];
    }
    failure run(const progress& tell) {
        if (shared_.pool())
            shared_.pool()->run([&] {
                try {
                    walk(tell);
                } catch (...) {
                    stopped_ = true;
                    shared_.pool()->finish();
                    throw;
                }
                shared_.pool()->finish();
            });
        else
            walk(tell);
        return bad_;
    }

private:
    void walk(const progress& tell) {
        int done = 0;
        for (std::size_t i = 0; i < pieces_.size(); ++i) {
            tree_piece& p = pieces_[i];
            if (p.step.piece)
                take_over(i);
            else
                factor_supernode(p.step.first, top_, bad_);
            // progress is told when a step has been taken over, in the order of the tree
            for (const int end = all_.tree.start[p.step.end]; done < end;)
                if (++done % tell_every == 0 && tell) tell(done);
        }
    }
    // Piece i is needed now: what it has left goes to the top in the order of the tree.
    void take_over(std::size_t i) {
        launch(i);
        tree_piece& p = pieces_[i];
        work_on(p);
        // another thread is at it: pieces that come later are worked on meanwhile
        for (std::size_t k = i + 1; k < launched_ && p.state.load(std::memory_order_acquire) != tree_piece::done; ++k)
            if (pieces_[k].step.piece) work_on(pieces_[k]);
        task_pool::wait_for([&] { return p.state.load(std::memory_order_acquire) == tree_piece::done; });
        if (p.error) std::rethrow_exception(p.error);
        bad_.meet(p.bad);
        for (const piece_event& e : p.events) {
            if (e.s < 0) {
                all_.added[all_.m.n] += e.value;
                continue;
            }
            absorb_update(front_of(all_.m, all_.tree, e.s), all_.update[e.s], top_);
            all_.held[e.s].reset();
            all_.update[e.s] = nullptr;
        }
        p.events = {};
    }
    // Pieces that others may take: only some ahead, since what they leave takes memory.
    void launch(std::size_t i) {
        if (!shared_.pool()) return;
        const std::size_t ahead = 4 * shared_.threads();
        for (; launched_ < pieces_.size() && launched_ <= i + ahead; ++launched_)
            if (tree_piece& p = pieces_[launched_]; p.step.piece) {
                p.state.store(tree_piece::free, std::memory_order_release); // what it reads is there
                shared_.pool()->start([this, &p] {
                    if (!stopped_) work_on(p);
                });
            }
    }
    void work_on(tree_piece& p) {
        int expected = tree_piece::free;
        if (!p.state.compare_exchange_strong(expected, tree_piece::claimed, std::memory_order_acq_rel)) return;
        try {
            const int slot = shared_.slot();
            auto& mine = of_slot_[slot];
            if (!mine) mine = std::make_unique<factor_work>(make_work(all_, shared_.packing_of_slot(slot), false));
            mine->events = &p.events;
            for (int s = p.step.first; s < p.step.end; ++s) factor_supernode(s, *mine, p.bad);
            reset_stacks(*mine);
        } catch (...) {
            p.error = std::current_exception();
        }
        p.state.store(tree_piece::done, std::memory_order_release);
    }
    void reset_stacks(factor_work& w) {
        w.top[0] = w.space.get();
        w.top[1] = w.top[0] + all_.tree.triangles[0];
    }

    factor_state& all_;
    shared_work shared_;
    std::vector<tree_piece> pieces_; // all steps; those of the top are not launched
    std::vector<std::unique_ptr<factor_work>> of_slot_;
    factor_work top_;
    failure bad_;
    std::size_t launched_ = 0;
    std::atomic<bool> stopped_{false};
};

} // namespace

int factorise_supernodes(sparse_store& m, sparse_work& work, double limit, double& pivot, const progress& tell) {
    need_state(m, store_state::assembled, "factorise_supernodes");
    const supernode_tree& tree = supernodes(m, work);
    const std::size_t ns = tree.parent.size();
    // `added` instead of the diagonal itself: that must be as assembled where a pivot fails
    factor_state all{m, tree, dense_of(work), limit, {}, {}, {}};
    all.added.assign(m.n + 1, 0.0);
    all.update.assign(ns, nullptr);
    all.held.resize(ns);
    m.state = store_state::empty;
    const failure bad = factor_walk(all, work).run(tell);
    if (bad.row != 0)
        pivot = bad.pivot;
    else
        m.state = store_state::factor;
    return bad.row;
}

} // namespace tarvex
