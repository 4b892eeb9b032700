// The pattern of the mixed model equations against one written down from records and pedigree, and its file.
#include "equations/adjacency.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "data/levels.h"
#include "equations/mmequations.h"
#include "equations/orders.h"
#include "relations/linkedlist.h"
#include "sparse/linkmerge.h"
#include "support/fixture.h"
#include "support/record_file.h"
#include "support/small_models.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>

namespace tarvex {
namespace {

using pattern = std::set<std::pair<int, int>>; // row, smaller column

class adjacency_test : public tarvex_test {
protected:
    // Pattern of the file, rows as equations that stay, the right-hand side last.
    static pattern pattern_on_file() {
        numbers.nbase = mmequations.neqns - static_cast<int>(mmequations.ieqzero.size());
        numbers.nsrow = numbers.nbase + 1;
        EXPECT_TRUE(find_adjacency());
        pattern p;
        for (int i = 1; i <= linked_list.ifirst.upper(); ++i)
            for (int k = linked_list.ifirst(i); k > 0; k = linked_list.inext(k)) p.emplace(i, linked_list.ivcol(k));
        EXPECT_EQ(static_cast<int>(p.size()), linked_list.nrczhz);
        return p;
    }
    static void link_all(pattern& p, const std::vector<int>& equations) {
        for (int i : equations)
            for (int j : equations)
                if (j < i) p.emplace(i, j);
    }
    // A system of `elements` elements below the diagonals, without any effect.
    static void full_store(int elements) {
        numbers = {};
        levels = {};
        mmequations = {};
        linked_list = {};
        const int n = 800;
        numbers.nq = 1;
        numbers.nbase = mmequations.neqns = n;
        numbers.nsrow = n + 1;
        linked_list.ifirst.allocate(n);
        linked_list.inext.allocate(elements);
        linked_list.ivcol.allocate(elements);
        for (int i = 2; i <= n && linked_list.nrczhz < elements; ++i)
            for (int j = 1; j < i && linked_list.nrczhz < elements; ++j) {
                const int k = ++linked_list.nrczhz;
                linked_list.ivcol(k) = j;
                if (j == 1)
                    linked_list.ifirst(i) = k;
                else
                    linked_list.inext(k - 1) = k;
            }
        adjacency.llxrhs = false;
        write_adjacency();
    }
    static std::vector<std::uint64_t> record_lengths() {
        std::vector<std::uint64_t> lengths;
        record_reader in;
        EXPECT_TRUE(in.open(filenames.adjacfile));
        while (in.next()) lengths.push_back(in.bytes_left());
        return lengths;
    }
};

TEST_F(adjacency_test, links_come_from_records_and_from_the_inverse_relationships) {
    small_model m;
    m.covariable = true;
    m.make_pedigree(15, 5, 11);
    m.make_rows(1, 2, 3, 0.0, 12);
    m.random = {{"animal", "NRM", 1, 0, {3.0}}, {"pe", "IDE", 1, 0, {1.0}}};
    m.residual = {4.0};
    set_up(m);
    const auto& e = mmequations;
    pattern expected;
    for (const auto& r : m.rows) // one trait: records of an animal are independent given its effects
        link_all(expected, {1, e.fx_start(1, 1) + r.herd, e.rn_start(2) + r.pe, e.rn_start(1) + r.animal});
    for (int i = 0; i < 15; ++i) {
        std::vector<int> family{e.rn_start(1) + i + 1};
        for (int p : {m.sire[i], m.dam[i]})
            if (p > 0) family.push_back(e.rn_start(1) + p);
        link_all(expected, family);
    }
    const int nbase = e.neqns;
    ASSERT_TRUE(e.ieqzero.empty());
    for (int j = 1; j <= nbase; ++j) expected.emplace(nbase + 1, j);
    EXPECT_EQ(pattern_on_file(), expected);
}

TEST_F(adjacency_test, equations_taken_out_have_no_row) {
    small_model m;
    m.mean = true; // after the herds
    m.make_pedigree(10, 4, 21);
    m.make_rows(1, 1, 2, 0.0, 22);
    m.random = {{"animal", "NRM", 1, 0, {3.0}}};
    m.residual = {4.0};
    set_up(m);
    ASSERT_EQ(mmequations.ieqzero.size(), 1u);
    const int gone = mmequations.ieqzero[0];
    EXPECT_EQ(gone, mmequations.ieq_trait(1));
    EXPECT_EQ(orders.jeq(gone), 0);
    for (const auto& [i, j] : pattern_on_file()) EXPECT_LE(i, mmequations.neqns); // the right-hand side is the last one
}

TEST_F(adjacency_test, repeats_in_the_residual_link_the_records_of_a_subject) {
    small_model m;
    m.make_pedigree(8, 4, 31);
    m.make_rows(1, 2, 1, 0.0, 32);
    for (std::size_t i = 0; i < m.rows.size(); ++i) m.rows[i].herd = static_cast<int>(i) + 1; // every record its own
    m.random = {{"animal", "NRM", 1, 0, {3.0}}};
    m.residual = {4.0};
    set_up(m);
    const auto herd = [&](std::size_t row) { return orders.jeq(mmequations.fx_start(1, 1) + m.rows[row].herd); };
    pattern p = pattern_on_file();
    EXPECT_FALSE(p.contains({herd(1), herd(0)}));
    new_analysis();
    std::filesystem::remove(filenames.adjacfile);
    std::filesystem::remove(filenames.ordersfile);
    m.random.push_back({"pe", "PEQ", 1, 0, {1.0}});
    set_up(m);
    p = pattern_on_file();
    EXPECT_TRUE(p.contains({herd(1), herd(0)}));
    EXPECT_FALSE(p.contains({herd(2), herd(1)})) << "another subject";
}

TEST_F(adjacency_test, traits_without_residual_covariance_are_not_linked_by_the_data) {
    small_model m;
    m.nq = 2;
    m.make_pedigree(8, 8, 41);
    m.make_rows(1, 1, 2, 0.0, 42);
    m.sire.clear();
    m.dam.clear();
    m.random = {{"animal", "IDE", 2, 0, {3.0, 0.5, 2.0}}};
    m.residual = {4.0, 0.0, 5.0};
    set_up(m);
    const int first = mmequations.fx_start(1, 1) + 1, second = mmequations.fx_start(1, 2) + 1;
    EXPECT_FALSE(pattern_on_file().contains({second, first}));
    new_analysis();
    std::filesystem::remove(filenames.adjacfile);
    std::filesystem::remove(filenames.ordersfile);
    m.residual[1] = 0.1;
    set_up(m);
    pattern p = pattern_on_file();
    EXPECT_TRUE(p.contains({second, first}));
    const int animal = mmequations.rn_start(1);
    EXPECT_TRUE(p.contains({animal + 2, animal + 1})) << "traits of one level";
    EXPECT_FALSE(p.contains({animal + 3, animal + 1})) << "levels of an identity effect";
}

TEST_F(adjacency_test, counts_are_told_step_by_step) {
    small_model m;
    m.make_pedigree(12, 5, 51);
    m.make_rows(2, 2, 3, 0.0, 52);
    m.random = {{"animal", "NRM", 1, 0, {3.0}}, {"pe", "IDE", 1, 0, {1.0}}};
    m.residual = {4.0};
    set_up(m, {"-v2", "--aireml"});
    const auto count = [&](const std::string& text) {
        const auto at = screen_text().find("\n" + text);
        EXPECT_NE(at, std::string::npos) << text;
        return at == std::string::npos ? 0 : std::stoi(screen_text().substr(at + 1 + text.size()));
    };
    const int data = count(" Elements in MMM - after data "), animals = count(" Elements in MMM - after RE    1"),
              pe = count(" Elements in MMM - after RE    2"), all = count("Elements in MMM - after RHS ");
    EXPECT_LT(0, data);
    EXPECT_LT(data, animals);
    EXPECT_EQ(pe, animals) << "identity, one component: nothing beside the diagonal";
    EXPECT_EQ(all - pe, mmequations.neqns - static_cast<int>(mmequations.ieqzero.size()));
    EXPECT_EQ(static_cast<int>(pattern_on_file().size()), all);
    const auto at = screen_text().find(" Elements in MMM - after data ");
    EXPECT_EQ(screen_text().find('\n', at) - at, 49u) << "count in columns 36 to 49";
}

TEST_F(adjacency_test, growth_is_told_at_every_200000_elements) {
    tell_growth(0, 199999, 500000);
    EXPECT_EQ(screen_text(), "");
    tell_growth(199999, 600001, 700000);
    EXPECT_EQ(screen_text(), "lnkzhz 200000 700000\nlnkzhz 400000 700000\nlnkzhz 600000 700000\n");
    clear_screen();
    tell_growth(600001, 800000, 900000);
    EXPECT_EQ(screen_text(), "lnkzhz 800000 900000\n");
}

TEST_F(adjacency_test, whole_chunks_leave_no_rest_records) {
    full_store(200000);
    const auto whole = record_lengths();
    ASSERT_EQ(whole.size(), 8u); // header, flag, ifirst, counts, two chunks of each list
    EXPECT_EQ(whole[0], 8 * sizeof(int));
    EXPECT_EQ(whole[1], sizeof(int));
    EXPECT_EQ(whole[2], 800 * sizeof(int));
    EXPECT_EQ(whole[3], 3 * sizeof(int));
    for (std::size_t k = 4; k < 8; ++k) EXPECT_EQ(whole[k], 100000 * sizeof(int));
    EXPECT_TRUE(find_adjacency());
    EXPECT_EQ(linked_list.nrczhz, 200000);
    full_store(200001);
    const auto rest = record_lengths();
    ASSERT_EQ(rest.size(), 10u);
    EXPECT_EQ(rest[6], sizeof(int));
    EXPECT_EQ(rest[9], sizeof(int));
    EXPECT_TRUE(find_adjacency());
    EXPECT_EQ(linked_list.nrczhz, 200001);
}

TEST_F(adjacency_test, a_file_without_the_right_hand_side_is_completed) {
    full_store(3000);
    EXPECT_TRUE(find_adjacency());
    EXPECT_FALSE(adjacency.llxrhs);
    EXPECT_TRUE(adjacency2());
    EXPECT_EQ(linked_list.nrczhz, 3800);
    write_adjacency(); // with the right-hand side: the next run takes it without
    EXPECT_TRUE(find_adjacency());
    EXPECT_TRUE(adjacency.llxrhs);
    EXPECT_EQ(linked_list.ifirst.upper(), 801);
    EXPECT_FALSE(adjacency2());
    EXPECT_EQ(linked_list.nrczhz, 3800);
}

TEST_F(adjacency_test, every_number_of_the_header_must_fit) {
    full_store(3000);
    for (int* number : {&numbers.nq, &numbers.nbase, &numbers.nrankx, &numbers.lim1, &mmequations.neqns,
                        &mmequations.neq_fix, &mmequations.neq_rnd, &mmequations.neq_cov}) {
        ++*number;
        EXPECT_FALSE(find_adjacency());
        --*number;
        EXPECT_TRUE(find_adjacency());
    }
    numbers.krand = 1; // one effect more
    levels.rn_nlev.allocate(1);
    EXPECT_FALSE(find_adjacency());
}

TEST_F(adjacency_test, chains_that_cannot_be_are_no_match) {
    full_store(3000);
    const std::string whole = read_file(filenames.adjacfile);
    const std::size_t lists = whole.size() - 2 * (8 + 3000 * sizeof(int)) + 8;
    for (const std::size_t at : {lists + 40, whole.size() - 4, whole.size() - 400}) {
        std::string file = whole;
        ASSERT_NE(file[at], '\0');
        file[at] = '\0'; // a chain that ends early, columns 0
        write_file(filenames.adjacfile, file);
        EXPECT_FALSE(find_adjacency()) << at;
    }
    for (const std::size_t length : {whole.size() - 1, whole.size() / 2, std::size_t{50}, std::size_t{0}}) {
        write_file(filenames.adjacfile, whole.substr(0, length));
        EXPECT_FALSE(find_adjacency()) << length;
    }
}

} // namespace
} // namespace tarvex
