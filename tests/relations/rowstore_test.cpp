// Rows held as chains while a relationship inverse is counted and summed.
#include "support/pedigree_model.h"

#include "relations/animalnrm.h"
#include "relations/linkedlist.h"
#include "relations/nrminverse.h"

#include <numeric>
#include <random>

namespace tarvex {
namespace {

class row_store_test : public tarvex_test {
protected:
    static void store(int rows, int cap, bool values = true) {
        linked_list = {};
        linked_list.ifirst.allocate(rows);
        linked_list.ilast.allocate(rows);
        linked_list.inext.allocate(cap);
        linked_list.ivcol.allocate(cap);
        if (values) linked_list.zhz.allocate(cap);
    }
    static int merge(int irow, std::vector<int> cols, double x = 1.0, bool addval = true) {
        int ierr = 0;
        lnkzhz(irow, cols, std::vector<double>(cols.size(), x), addval, ierr);
        return ierr;
    }
    static std::vector<std::pair<int, double>> row(int irow) {
        std::vector<std::pair<int, double>> r;
        const auto& ll = linked_list;
        for (int k = ll.ifirst(irow); k > 0; k = ll.inext(k))
            r.push_back({ll.ivcol(k), ll.zhz.allocated() ? ll.zhz(k) : 0.0});
        return r;
    }
    using chain = std::vector<std::pair<int, double>>;
};

TEST_F(row_store_test, merging_keeps_chains_ascending) {
    store(3, 10);
    merge(2, {4, 7});
    EXPECT_EQ(linked_list.ifirst(2), 1);
    merge(2, {4, 5, 9}, 2.0);
    EXPECT_EQ(row(2), (chain{{4, 3.0}, {5, 2.0}, {7, 1.0}, {9, 2.0}}));
    merge(2, {1, 10}, 5.0); // in front of the first: a new head
    EXPECT_EQ(row(2), (chain{{1, 5.0}, {4, 3.0}, {5, 2.0}, {7, 1.0}, {9, 2.0}, {10, 5.0}}));
    EXPECT_EQ(linked_list.ifirst(2), 5);
    merge(2, {10, 10}, 1.0); // a column given twice adds twice
    EXPECT_EQ(row(2).back(), (std::pair{10, 7.0}));
    merge(1, {2});
    EXPECT_EQ(linked_list.nrczhz, 7);
    EXPECT_TRUE(row(3).empty());
}

TEST_F(row_store_test, random_merges_equal_a_dense_row_with_and_without_cursor) {
    std::mt19937 rng(5);
    for (const bool cursor : {true, false}) {
        store(1, 60);
        if (!cursor) linked_list.ilast.deallocate();
        std::vector<double> full(61);
        for (int k = 0; k < 200; ++k) {
            std::vector<int> cols;
            for (int c = 1; c <= 60; ++c)
                if (rng() % 7 == 0) cols.push_back(c);
            for (const int c : cols) full[c] += k;
            merge(1, cols, k);
        }
        chain expected;
        for (int c = 1; c <= 60; ++c)
            if (full[c] > 0.0) expected.push_back({c, full[c]});
        EXPECT_EQ(row(1), expected);
    }
}

TEST_F(row_store_test, counting_call_without_room_leaves_chains_intact) {
    store(1, 3, false);
    EXPECT_EQ(merge(1, {2, 4, 6}, 0.0, false), 0);
    EXPECT_EQ(merge(1, {3}, 0.0, false), 1);
    EXPECT_EQ(merge(1, {4}, 0.0, false), 0);
    EXPECT_EQ(linked_list.nrczhz, 3);
    EXPECT_EQ(row(1), (chain{{2, 0.0}, {4, 0.0}, {6, 0.0}}));
}

TEST_F(row_store_test, value_calls_without_room_stop) {
    store(1, 1);
    merge(1, {2});
    EXPECT_STOP(merge(1, {3}), "\"lnkzhz\" : dimensions exceeded !!\nexit \"Tarvex\"");
}

TEST_F(row_store_test, progress_every_200000_elements) {
    store(1, 200001, false);
    std::vector<int> cols(200001);
    std::iota(cols.begin(), cols.end(), 1);
    EXPECT_EQ(merge(1, cols, 0.0, false), 0);
    EXPECT_EQ(screen_text(), "lnkzhz 200000 200001\n");
}

TEST_F(row_store_test, count_of_elements_grows_a_small_store) {
    const auto [sire, dam] = random_pedigree(80, 3, false);
    pedigree_by_hand(sire, dam);
    int ierr = 0;
    nnrm_count(1, 80, 2000, ierr);
    EXPECT_EQ(ierr, 0);
    const int large = nrminverse.nnrm;
    nnrm_count(1, 80, 20, ierr);
    EXPECT_EQ(ierr, 1);
    nnrm_count_growing(1, 80, 3);
    EXPECT_EQ(nrminverse.nnrm, large);
}

TEST_F(row_store_test, count_beyond_the_limit_of_a_store_stops) {
    pedigree_by_hand({0, 0, 1, 1}, {0, 0, 2, 2}); // elements (2,1), (3,1), (3,2), (4,1), (4,2)
    nnrm_count_growing(1, 4, 4, 5);
    EXPECT_EQ(nrminverse.nnrm, 9);
    clear_screen();
    EXPECT_STOP(nnrm_count_growing(1, 4, 4, 4), "Reset parameter \"MAXZHZ\" & recompile ");
    EXPECT_EQ(screen_text().find("Max. no. of elements in NRM exceeded !\n"), 0U) << screen_text();
}

} // namespace
} // namespace tarvex
