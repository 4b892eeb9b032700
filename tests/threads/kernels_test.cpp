// Factor, inverse, derivatives and solutions are the same to the last bit, however many threads take part and in
// however many pieces the tree is cut. This program links the numerical core alone, so that it is quickly built under
// ThreadSanitizer.
#include "sparse/supernodal_solve.h"
#include "sparse/supernodes.h"
#include "sparse/takahashi.h"
#include "sparse/workspace.h"
#include "support/sparse_systems.h"
#include "support/tasks.h"

#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <numeric>
#include <stdexcept>

namespace tarvex {
namespace {

// A tree of blocks of equations: 2^depth blocks at its leaves, each linked with the first equations of all blocks above
// it on its way to the root.
sparse_pattern nested_blocks(int depth, int leaf, int wider, int links) {
    struct range {
        int first, end;
    };
    sparse_pattern p(1);
    std::vector<range> ranges;
    auto add_block = [&](auto&& self, int level) -> std::vector<int> { // blocks below, children first
        std::vector<int> under;
        if (level > 0)
            for (int child = 0; child < 2; ++child)
                for (int b : self(self, level - 1)) under.push_back(b);
        const int first = static_cast<int>(p.size()), end = first + leaf + level * level * wider;
        p.resize(static_cast<std::size_t>(end));
        for (int i = first; i < end; ++i)
            for (int j = i + 1; j < end; ++j) p[static_cast<std::size_t>(i)].push_back(j);
        for (int b : under)
            for (int k = 0; k < links; ++k)
                p[static_cast<std::size_t>(ranges[static_cast<std::size_t>(b)].first + k % 5)].push_back(
                    first + (3 * k + 7 * b) % (end - first));
        under.push_back(static_cast<int>(ranges.size()));
        ranges.push_back({first, end});
        return under;
    };
    add_block(add_block, depth);
    p.emplace_back();
    for (auto& row : p) {
        std::sort(row.begin(), row.end());
        row.erase(std::unique(row.begin(), row.end()), row.end());
    }
    return p;
}

struct outcome {
    std::vector<double> numbers;
    int failed = 0;
    double pivot = 0.0;
};

struct threads_test : testing::Test {
    threads_test() {
        sparse = {};
        work.few_operations = 0.0;
    }
    sparse_pattern pattern;
    sparse_work work;
    void lay_out(const sparse_pattern& p) {
        pattern = p;
        store_structure(fill_in(p));
    }
    outcome work_through(int threads, int bad_row = 0, int other = 0) {
        if (threads != (work.pool ? work.pool->threads() : 1)) {
            work.pool.reset();
            if (threads > 1) work.pool = std::make_unique<task_pool>(threads);
        }
        outcome o;
        auto keep = [&](const array<double>& a) { o.numbers.insert(o.numbers.end(), a.begin(), a.end()); };
        store_values(pattern, 3);
        for (int row : {bad_row, other})
            if (row > 0) sparse.diag(row) = -1.0;
        o.failed = factorise_supernodes(sparse, work, 1.0e-8, o.pivot, {});
        if (o.failed != 0) return o;
        keep(sparse.diag);
        keep(sparse.xspars);
        array<double> x, y;
        solve_back_supernodes(sparse, work, x);
        keep(x);
        solve_back(sparse, y);
        EXPECT_EQ(std::memcmp(x.data(), y.data(), static_cast<std::size_t>(x.size()) * sizeof(double)), 0);
        array<double> fdiag, foff;
        fdiag.allocate(sparse.n);
        foff.allocate(sparse.maxlnz);
        inverse_supernodes(sparse, work, fdiag, foff, x.data(), {});
        keep(fdiag);
        keep(foff);
        inverse_supernodes(sparse, work, sparse.diag, sparse.xspars, nullptr, {});
        keep(sparse.diag);
        keep(sparse.xspars);
        return o;
    }
    void expect_same(int bad_row = 0, int other = 0) {
        const outcome one = work_through(1, bad_row, other);
        for (int threads : {2, 8}) {
            SCOPED_TRACE(std::to_string(threads) + " threads");
            const outcome o = work_through(threads, bad_row, other);
            EXPECT_EQ(o.failed, one.failed);
            EXPECT_EQ(o.pivot, one.pivot);
            ASSERT_EQ(o.numbers.size(), one.numbers.size());
            if (one.failed == 0) {
                EXPECT_EQ(std::memcmp(o.numbers.data(), one.numbers.data(), one.numbers.size() * sizeof(double)), 0);
            }
        }
    }
    std::size_t pieces() const {
        return static_cast<std::size_t>(
            std::count_if(work.tree.steps.begin(), work.tree.steps.end(), [](const auto& s) { return s.piece; }));
    }
};

TEST_F(threads_test, many_small_fronts) {
    lay_out(nested_blocks(7, 6, 1, 3));
    expect_same();
    EXPECT_GT(pieces(), 20u);
}

TEST_F(threads_test, fronts_that_are_cut_into_pieces) {
    lay_out(nested_blocks(5, 4, 6, 12));
    expect_same();
    EXPECT_GT(pieces(), 2u);
}

TEST_F(threads_test, large_fronts_that_take_updates_at_once) {
    lay_out(nested_blocks(5, 4, 11, 12)); // 279 columns at the root
    expect_same();
    EXPECT_GT(work.tree.width, wide);
    EXPECT_GT(pieces(), 1u);
}

TEST_F(threads_test, separate_systems_that_meet_in_the_right_hand_side) {
    sparse_pattern p(601); // 60 blocks of ten equations
    for (int i = 1; i < 600; ++i)
        for (int j = i + 1; j <= (i + 9) / 10 * 10; ++j) p[static_cast<std::size_t>(i)].push_back(j);
    p.emplace_back();
    lay_out(p);
    expect_same();
}

// One piece in place of many: the sums of an element have the same order.
TEST_F(threads_test, the_cut_of_the_tree_changes_no_digit) {
    for (const auto& p : {nested_blocks(6, 8, 1, 4), nested_blocks(5, 4, 11, 12)}) {
        lay_out(p);
        work.tree = {};
        work.few_operations = 0.0;
        const outcome cut = work_through(1);
        EXPECT_GT(pieces(), 1u);
        work.tree = {};
        work.few_operations = 1e30;
        const outcome whole = work_through(1);
        ASSERT_EQ(cut.numbers.size(), whole.numbers.size());
        EXPECT_TRUE(cut.numbers == whole.numbers);
    }
}

TEST_F(threads_test, failing_pivots_are_told_alike) {
    lay_out(nested_blocks(5, 10, 2, 5));
    const int n = sparse.n;
    for (int bad : {1, 40, n / 2, n - 1}) expect_same(bad);
    expect_same(n / 2, n / 4);
    EXPECT_EQ(work_through(3, n / 2, n / 4).failed, n / 4);
}

TEST_F(threads_test, pool_gives_each_piece_once_and_hands_an_exception_on) {
    for (int threads : {1, 2, 8}) {
        task_pool pool(threads);
        struct state {
            std::vector<std::atomic<int>> met;
            std::atomic<int> wrong{0};
            int threads;
        } s{std::vector<std::atomic<int>>(1000), {}, threads};
        pool.run([&] {
            pool.each(
                1000,
                [](const void* arg, int i, int slot) {
                    auto& t = *static_cast<state*>(const_cast<void*>(arg));
                    t.met[static_cast<std::size_t>(i)].fetch_add(1);
                    if (slot < 0 || slot >= t.threads) t.wrong.fetch_add(1);
                },
                &s);
        });
        for (const auto& m : s.met) EXPECT_EQ(m.load(), 1);
        EXPECT_EQ(s.wrong.load(), 0);
        EXPECT_THROW(pool.run([&] {
            pool.each(
                50,
                [](const void*, int i, int) {
                    if (i == 17) throw std::runtime_error("17");
                },
                nullptr);
        }),
                     std::runtime_error);
    }
}

} // namespace
} // namespace tarvex
