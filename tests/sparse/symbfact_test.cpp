#include "equations/symfacfile.h"
#include "sparse/symbfact.h"

#include "control/numbers.h"
#include "control/options.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "sparse/genmmd.h"
#include "sparse/graphs.h"
#include "support/fixture.h"
#include "support/record_file.h"

#include <climits>

namespace tarvex {
namespace {
using namespace graphs; // NOLINT: test helpers

struct structure {
    array<int> ixvec1, ixvec2, ixsub;
    int maxlnz = 0, maxsub = 0, flag = 0;
};
structure factor_structure(const graph& g, const array<int>& perm, const array<int>& invp) {
    structure s;
    array<int> xadj, adjncy;
    compress(g, xadj, adjncy);
    ssmbfct(nodes(g), xadj, adjncy, perm, invp, s.ixvec1, s.maxlnz, s.ixvec2, s.ixsub, s.maxsub, s.flag);
    return s;
}
void expect_pattern(const structure& s, const graph& l) {
    ASSERT_EQ(s.flag, 0);
    for (int k = 1; k <= nodes(l); ++k) {
        const int c = s.ixvec1(k + 1) - s.ixvec1(k);
        std::vector<int> row;
        for (int q = 0; q < c; ++q) row.push_back(s.ixsub(s.ixvec2(k) + q));
        ASSERT_EQ(row, std::vector<int>(l[k].begin(), l[k].end())) << "row " << k;
    }
    EXPECT_EQ(s.maxlnz, elements(l));
}
// One more node, linked to all others: the right-hand side.
graph with_rhs(graph g) {
    g.emplace_back();
    const int n = nodes(g);
    for (int i = 1; i < n; ++i) connect(g, i, n);
    return g;
}
double simulated_operations(const graph& l) {
    double nnops = 0.0;
    for (int j = 1; j <= nodes(l); ++j) {
        for (int k = 1; k < j; ++k)
            if (l[k].contains(j)) nnops += 1.0 + static_cast<double>(std::distance(l[k].upper_bound(j), l[k].end()));
        nnops += static_cast<double>(l[j].size());
    }
    return nnops;
}

class symbfact : public tarvex_test {
protected:
    // A small system in the modules, as the ordering leaves it.
    void layout(const graph& g) {
        const graph full = with_rhs(g);
        const int nbase = nodes(g);
        numbers.nsrow = nbase + 1;
        mmequations.neqns = nbase;
        orders.ieqnew = identity(nbase + 1);
        orders.ivperm = identity(nbase);
        auto s = factor_structure(full, {}, {});
        sparse.n = nbase + 1;
        sparse.ixvec1 = s.ixvec1;
        sparse.ixvec2 = s.ixvec2;
        sparse.ixsub = s.ixsub;
        sparse.maxlnz = s.maxlnz;
        sparse.maxsub = s.maxsub;
    }
};

TEST_F(symbfact, patterns_equal_brute_force_elimination) {
    for (const auto& g : zoo()) {
        const array<int> id = identity(nodes(g));
        expect_pattern(factor_structure(g, {}, {}), eliminate(g, id));
        array<int> xadj, adjncy, invp, perm;
        compress(g, xadj, adjncy);
        int nofsub = 0;
        ggenmmd(nodes(g), xadj, adjncy, invp, perm, 0, INT_MAX, nofsub);
        const auto s = factor_structure(g, perm, invp);
        expect_pattern(s, eliminate(g, perm));
        EXPECT_LE(s.maxsub, nofsub);
        const auto rhs = factor_structure(with_rhs(g), {}, {});
        const graph l = eliminate(with_rhs(g), identity(nodes(g) + 1));
        expect_pattern(rhs, l);
        EXPECT_EQ(count_operations(nodes(l), rhs.ixvec1), simulated_operations(l));
    }
}

TEST_F(symbfact, a_diagonal_system_stores_nothing) {
    const auto s = factor_structure(graph(8), {}, {});
    EXPECT_EQ(s.maxlnz, 0);
    EXPECT_EQ(s.maxsub, 0);
}

TEST_F(symbfact, a_dense_block_shares_one_list) {
    std::mt19937 gen(1);
    const auto s = factor_structure(random_graph(12, 1.0, gen), {}, {});
    EXPECT_EQ(s.maxlnz, 66);
    EXPECT_EQ(s.maxsub, 11);
}

TEST_F(symbfact, the_file_gives_the_structure_back) {
    layout(grid(9));
    const auto before = sparse;
    write_symfac();
    sparse = {};
    options.werbose = true;
    bool found = false;
    read_symfac(found);
    ASSERT_TRUE(found);
    EXPECT_NE(screen_text().find(" Read previous symbolic factorisation  info successfully \n"), std::string::npos);
    EXPECT_EQ(sparse.maxlnz, before.maxlnz);
    EXPECT_EQ(sparse.maxsub, before.maxsub);
    EXPECT_TRUE(std::equal(sparse.ixvec1.begin(), sparse.ixvec1.end(), before.ixvec1.begin()));
    EXPECT_TRUE(std::equal(sparse.ixvec2.begin(), sparse.ixvec2.end(), before.ixvec2.begin()));
    EXPECT_TRUE(std::equal(sparse.ixsub.begin(), sparse.ixsub.begin() + before.maxsub, before.ixsub.begin()));
}

// 100000 rows with one list of 100001 nodes behind them: exactly one whole chunk, and no rest.
TEST_F(symbfact, whole_chunks_leave_no_rest_record) {
    const int n = 100001;
    numbers.nsrow = n;
    mmequations.neqns = n - 1;
    orders.ieqnew = identity(n);
    orders.ivperm = identity(n - 1);
    sparse.ixvec1.allocate(n + 1);
    sparse.ixvec2.allocate(n);
    sparse.ixsub.allocate(100000);
    for (int i = 1; i < n; ++i) { // a path: row i holds i+1
        sparse.ixvec1(i) = i;
        sparse.ixvec2(i) = i;
        sparse.ixsub(i) = i + 1;
    }
    sparse.ixvec1(n) = sparse.ixvec1(n + 1) = n;
    sparse.maxlnz = sparse.maxsub = n - 1;
    write_symfac();
    record_reader in;
    ASSERT_TRUE(in.open("symbfact.bin"));
    int records = 0;
    while (in.next()) ++records;
    EXPECT_EQ(records, 6);
    bool found = false;
    read_symfac(found);
    EXPECT_TRUE(found);
}

TEST_F(symbfact, files_of_another_system_or_order_are_no_match) {
    bool found = true;
    layout(grid(4));
    read_symfac(found);
    EXPECT_FALSE(found); // no file
    layout(grid(4));
    write_symfac();
    orders.ivperm(1) = 2;
    orders.ivperm(2) = 1;
    read_symfac(found);
    EXPECT_FALSE(found);
    layout(grid(4));
    numbers.nsrow = 16;
    read_symfac(found);
    EXPECT_FALSE(found);
    layout(grid(4));
    read_symfac(found);
    EXPECT_TRUE(found);
}

TEST_F(symbfact, torn_and_foreign_files_are_no_match) {
    layout(grid(4));
    write_symfac();
    const std::string whole = read_file("symbfact.bin");
    bool found = true;
    for (std::size_t cut = 0; cut < whole.size(); cut += 13) {
        write_file("symbfact.bin", whole.substr(0, cut));
        read_symfac(found);
        ASSERT_FALSE(found) << cut;
    }
    for (std::size_t at = 0; at < whole.size(); at += 5) { // no flip may harm
        std::string bad = whole;
        bad[at] = static_cast<char>(bad[at] ^ 0x55);
        write_file("symbfact.bin", bad);
        read_symfac(found);
        if (!found) continue;
        for (int i = 1; i < numbers.nsrow; ++i)
            for (int q = sparse.ixvec1(i); q < sparse.ixvec1(i + 1); ++q)
                ASSERT_GT(sparse.ixsub(sparse.ixvec2(i) + q - sparse.ixvec1(i)), i);
    }
    write_file("symbfact.bin", "something else");
    read_symfac(found);
    EXPECT_FALSE(found);
}

} // namespace
} // namespace tarvex
