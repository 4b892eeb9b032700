// What the choice of an order tells, the layout of its files, and when an order of an earlier run is taken over.
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "equations/eqnorders.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "estimation/estimates.h"
#include "parfile/model.h"
#include "support/fixture.h"
#include "support/record_file.h"
#include "support/reports.h"
#include "support/resealed.h"
#include "support/small_models.h"

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>

namespace tarvex {
namespace {

class ordering_files : public tarvex_test {
protected:
    void SetUp() override {
        m.nq = 2;
        m.mean = true; // dependent, behind the random effects
        m.make_pedigree(25, 6, 3);
        m.make_rows(4, 1, 3, 0.2, 4);
        m.random = {{"animal", "NRM", 2, 0, {4.0, 1.0, 3.0}}, {"pe", "IDE", 2, 0, {1.0, 0.2, 1.0}}};
        m.residual = {6.0, 1.0, 5.0};
    }
    // A run up to the stores in the same directory. Returns log L at the starting values.
    double run(const std::vector<std::string>& given) {
        new_analysis();
        clear_screen();
        set_up(m, given);
        return program_logl(estimates.parvec);
    }
    bool told(const std::string& text) const { return screen_text().find(text) != std::string::npos; }
    static void fresh() {
        for (const auto* name : {&filenames.ordersfile, &filenames.symfacfile, &filenames.adjacfile})
            std::filesystem::remove(*name);
        std::filesystem::remove("OperationCounts");
    }
    static double operations() {
        double nnops = 0.0;
        for (int i = 1; i <= numbers.nsrow; ++i) {
            const double c = sparse.ixvec1(i + 1) - sparse.ixvec1(i);
            nnops += c * (c + 3.0) / 2.0;
        }
        return nnops;
    }
    static std::string line(const char* form, auto... x) {
        char text[200];
        std::snprintf(text, sizeof text, form, x...);
        return text;
    }
    // Replaces the operation count in eqnsorder.bin.
    static void store_count(double count) {
        std::string file = read_file(filenames.ordersfile);
        std::size_t at = 0;
        for (int record = 0; record < 2; ++record) {
            std::uint64_t length = 0;
            file.copy(reinterpret_cast<char*>(&length), sizeof length, at);
            at += sizeof length + length;
        }
        file.replace(at + sizeof(std::uint64_t) + 2 * sizeof(int), sizeof count, reinterpret_cast<const char*>(&count),
                     sizeof count);
        write_file(filenames.ordersfile, resealed(file));
    }
    small_model m;
};

TEST_F(ordering_files, every_method_tells_what_it_has_done) {
    run({"--mmd", "-v", "--aireml"});
    const int nbase = numbers.nsrow - 1;
    EXPECT_EQ(nbase, mmequations.neqns - 2);
    EXPECT_TRUE(told(line("\nNo. of equations in full rank submatrix = %d\n", nbase)));
    EXPECT_TRUE(told(line("\n End of \"GENMMD\"%9d  nofsub =", nbase)));
    EXPECT_TRUE(told(line("\n%-32s%17d\n", " End of \"SMBFCT\": maxsub", sparse.maxsub)));
    EXPECT_TRUE(told(line("\n%-32s%17d\n", "                  maxlnz", sparse.maxlnz)));
    EXPECT_TRUE(told(line("\n%-32s%17.0f.  999999999999999.\n", "                  nnops", operations())))
        << screen_text();
    EXPECT_TRUE(told("\nEND \"eqnorders\" \n"));
    fresh();
    run({"--amd", "-v", "--aireml"});
    EXPECT_TRUE(told(line("\n End of \"AMD\"%9d  nofsub =", nbase)));
    fresh();
    run({"--metis7,0,3,2", "-v", "--aireml"});
    EXPECT_TRUE(told(line("\n Start of \"METIS\"%7d\n", nbase)));
    EXPECT_TRUE(told(line("\n End of \"METIS\"%9d     Options used =    3   2   2   0   1   0   7\n", nbase)))
        << screen_text();
    fresh();
    run({"--metisall", "--aireml"});
    EXPECT_FALSE(told("Start of \"METIS\""));
    for (const char* setting :
         {"   1   2   1   0   1   0   5", "   1   2   1   0   1   0  15", "   3   2   2   0   1   0   5",
          "   3   2   2   0   1   0  15", "   1   2   1   0   1 200   5", "   3   2   2   0   1 200  15"})
        EXPECT_TRUE(told(line("\n End of \"METIS\"%9d     Options used = %s\n", nbase, setting))) << setting;
}

TEST_F(ordering_files, counts_are_appended_in_columns) {
    run({"--mmd", "--aireml"});
    std::string expected = line("MMD%18s%14d%19.0f.\n", "", sparse.maxlnz, operations());
    run({"--mmd", "--aireml"}); // taken over: told again
    expected += expected;
    fresh();
    write_file("OperationCounts", expected);
    run({"--amd", "--aireml"});
    expected += line("AMD%18s%14d%19.0f.\n", "", sparse.maxlnz, operations());
    fresh();
    write_file("OperationCounts", expected);
    run({"--metis12,200,3,2", "--aireml"});
    expected += line("Metis  12   200  3  2 %14d%19.0f.\n", sparse.maxlnz, operations());
    EXPECT_EQ(read_file("OperationCounts"), expected);
}

TEST_F(ordering_files, the_search_tries_each_setting_once_and_in_order) {
    run({"--metisall", "--aireml"});
    const auto lines = lines_of(read_file("OperationCounts"));
    ASSERT_EQ(lines.size(), 44u);
    std::size_t k = 0;
    double best = 1e300;
    for (const int pruning : {0, 200})
        for (const int matching : {1, 3})
            for (int separators = 5; separators <= 15; ++separators, ++k) {
                EXPECT_EQ(lines[k].substr(0, 21),
                          line("Metis%4d%6d%3d%3d", separators, pruning, matching, matching == 1 ? 1 : 2));
                best = std::min(best, number_of(words_of(lines[k]).back()));
            }
    EXPECT_EQ(operations(), best) << "the structure in hand is that of the best setting";
    EXPECT_EQ(orders.order_type, 3);
}

TEST_F(ordering_files, order_file_has_its_layout) {
    run({"--metis9", "--aireml"});
    record_reader in;
    ASSERT_TRUE(in.open("eqnsorder.bin"));
    int a[4];
    ASSERT_TRUE(in.next());
    EXPECT_EQ(in.bytes_left(), 4 * sizeof(int));
    ASSERT_TRUE(in.get(std::span<int>(a)));
    EXPECT_EQ((std::vector<int>(a, a + 4)),
              (std::vector<int>{mmequations.neqns, mmequations.neq_fix, mmequations.neq_rnd, mmequations.neq_cov}));
    int b[8];
    ASSERT_TRUE(in.next());
    EXPECT_EQ(in.bytes_left(), 8 * sizeof(int));
    ASSERT_TRUE(in.get(std::span<int>(b)));
    EXPECT_EQ((std::vector<int>(b, b + 8)), (std::vector<int>{2, numbers.nsrow, numbers.nrankx, numbers.lim1, 2,
                                                              model.krfit(0), model.krfit(1), model.krfit(2)}));
    int nofsub = 0, maxlnz = 0, type = 0, c[8];
    double nnops = 0.0;
    ASSERT_TRUE(in.next());
    EXPECT_EQ(in.bytes_left(), 3 * sizeof(int) + sizeof(double));
    ASSERT_TRUE(in.get(nofsub) && in.get(maxlnz) && in.get(nnops) && in.get(type));
    EXPECT_EQ(maxlnz, sparse.maxlnz);
    EXPECT_EQ(nnops, operations());
    EXPECT_EQ(type, 3);
    ASSERT_TRUE(in.record(std::span<int>(c)));
    EXPECT_EQ((std::vector<int>(c, c + 8)), (std::vector<int>{3, 1, 2, 1, 0, 1, 0, 9}));
    for (const auto* map : {&orders.invprm, &orders.ivperm}) {
        std::vector<int> v(static_cast<std::size_t>(numbers.nsrow - 1));
        ASSERT_TRUE(in.next());
        EXPECT_EQ(in.bytes_left(), v.size() * sizeof(int));
        ASSERT_TRUE(in.get(std::span<int>(v)));
        for (std::size_t i = 0; i < v.size(); ++i) EXPECT_EQ(v[i], (*map)(static_cast<int>(i) + 1));
    }
    EXPECT_FALSE(in.next());
    fresh();
    run({"--mmd", "--aireml"}); // no settings of METIS in the file
    record_reader other;
    ASSERT_TRUE(other.open("eqnsorder.bin"));
    int records = 0;
    while (other.next()) ++records;
    EXPECT_EQ(records, 5);
}

TEST_F(ordering_files, an_order_of_the_users_method_is_taken_over_and_told) {
    run({"--amd", "--aireml"});
    const double count = operations();
    for (const auto& given :
         {std::vector<std::string>{"--aireml"}, {"--amd", "--aireml"}, {"--metisall", "--aireml"}}) {
        run(given);
        EXPECT_TRUE(told(line(" Previous equation ordering found : Order type = 2  Operation count =%19.0f.\n", count)))
            << screen_text();
        EXPECT_EQ(orders.order_type, 2) << given[0];
        EXPECT_FALSE(told("Elements in MMM"));
    }
    run({"--mmd", "-v2", "--aireml"});
    EXPECT_TRUE(told("\nPrevious equation ordering found, but no match\n"));
    EXPECT_TRUE(told("GENMMD"));
    run({"--mmd", "--aireml"});
    EXPECT_FALSE(told("but no match")) << "not told without the flag";
}

TEST_F(ordering_files, settings_of_metis_belong_to_the_order) {
    run({"--metis9", "--aireml"});
    const std::array<int, 8> nine{3, 1, 2, 1, 0, 1, 0, 9};
    run({"--aireml"});
    EXPECT_EQ(orders.order_type, 3);
    EXPECT_EQ(orders.metis_opts, nine) << "taken from the file";
    run({"--metis9", "-v2", "--aireml"});
    EXPECT_TRUE(told("Previous equation ordering found : Order type = 3"));
    store_count(1.0e12); // any new order beats it
    run({"--metis10", "-v2", "--aireml"});
    EXPECT_TRUE(told("Previous equation ordering found, but no match"));
    EXPECT_TRUE(told("End of \"METIS\""));
    run({"--aireml"});
    EXPECT_EQ(orders.metis_opts[7], 10);
}

TEST_F(ordering_files, a_tie_leaves_the_files_as_they_are) {
    run({"--amd", "--aireml"});
    const double count = operations(), truth = program_logl(estimates.parvec);
    fresh();
    run({"--mmd", "--aireml"});
    store_count(count);
    const std::string order = read_file(filenames.ordersfile), structure = read_file(filenames.symfacfile);
    EXPECT_NEAR(run({"--amd", "--aireml"}), truth, 1e-9);
    EXPECT_FALSE(told("Previous ordering better"));
    EXPECT_EQ(orders.order_type, 2);
    EXPECT_EQ(read_file(filenames.ordersfile), order);
    EXPECT_EQ(read_file(filenames.symfacfile), structure);
    EXPECT_NEAR(run({"--aireml"}), truth, 1e-9); // the stored order and its structure
    EXPECT_EQ(orders.order_type, 1);
}

TEST_F(ordering_files, a_worse_order_of_the_users_method_gives_way) {
    const double truth = run({"--mmd", "--aireml"});
    store_count(10.0);
    const double count = operations();
    run({"--amd", "--aireml"});
    EXPECT_TRUE(told("\nPrevious ordering better - using that !\nNo. of operations : old =            10.  new ="));
    EXPECT_TRUE(told("\"Bad\" ordering scheme has been pre-selected !\n Continue ? (using previously best order)\n"));
    EXPECT_EQ(operations(), count);
    EXPECT_EQ(orders.order_type, 1);
    EXPECT_NEAR(program_logl(estimates.parvec), truth, 1e-9);
}

TEST_F(ordering_files, unreadable_and_foreign_files_are_told_and_replaced) {
    const double truth = run({"--mmd", "--aireml"});
    const std::string whole = read_file(filenames.ordersfile);
    for (const std::size_t length : {std::size_t{0}, std::size_t{5}, whole.size() / 2, whole.size() - 1}) {
        write_file(filenames.ordersfile, whole.substr(0, length));
        EXPECT_NEAR(run({"--mmd", "-v2", "--aireml"}), truth, 1e-9);
        EXPECT_TRUE(told("\nError reading previous ordering\n")) << length;
        EXPECT_EQ(read_file(filenames.ordersfile), whole);
    }
    m.residual[1] = 0.0; // the same numbers of equations
    m.mean = false;
    run({"--mmd", "-v2", "--aireml"});
    EXPECT_TRUE(told("\nPrevious equation ordering found, but no match\n"));
}

TEST_F(ordering_files, structure_of_an_order_is_made_anew_where_its_file_is_lost) {
    const double truth = run({"--metis", "--aireml"});
    const std::string structure = read_file(filenames.symfacfile), pattern = read_file(filenames.adjacfile);
    for (const bool keep_pattern : {true, false}) {
        std::filesystem::remove(filenames.symfacfile);
        if (!keep_pattern) std::filesystem::remove(filenames.adjacfile);
        EXPECT_NEAR(run({"-v2", "--aireml"}), truth, 1e-9);
        EXPECT_TRUE(told("Previous equation ordering found : Order type = 3"));
        EXPECT_FALSE(told("Read previous symbolic factorisation"));
        EXPECT_EQ(told("Elements in MMM - after data"), !keep_pattern);
        EXPECT_EQ(read_file(filenames.symfacfile), structure);
        EXPECT_EQ(read_file(filenames.adjacfile), pattern);
    }
}

TEST_F(ordering_files, ordering_in_mid_run_keeps_the_equations) {
    const double truth = run({"-v", "--aireml"});
    const int nsrow = numbers.nsrow, nsymb = orders.nsymb;
    const auto taken_out = mmequations.ieqzero;
    std::filesystem::remove(filenames.ordersfile);
    std::filesystem::remove(filenames.symfacfile);
    std::filesystem::remove(filenames.adjacfile);
    const auto before = lines_of(read_file("OperationCounts")).size();
    clear_screen();
    const order_made made = redo_eqnorders();
    EXPECT_FALSE(std::filesystem::exists(filenames.ordersfile)); // files are the caller's affair
    EXPECT_FALSE(std::filesystem::exists(filenames.symfacfile));
    EXPECT_EQ(lines_of(read_file("OperationCounts")).size(), before);
    EXPECT_GT(made.operations, 0.0);
    keep_order(made);
    EXPECT_EQ(screen_text().find("BEGIN \"redo_eqnorders\" \n"), 0u);
    EXPECT_TRUE(told("\nEND \"redo_eqnorders\" \n"));
    EXPECT_FALSE(told("Previous ordering better"));
    EXPECT_EQ(numbers.nsrow, nsrow);
    EXPECT_EQ(orders.nsymb, nsymb + 1);
    EXPECT_EQ(mmequations.ieqzero, taken_out);
    EXPECT_EQ(lines_of(read_file("OperationCounts")).size(), before + 1);
    array<double> p = estimates.parvec;
    p(1) += 0.01;
    program_logl(p);
    EXPECT_NEAR(program_logl(estimates.parvec, 1), truth, 1e-9);
    EXPECT_NEAR(run({"--aireml"}), truth, 1e-9);
    EXPECT_TRUE(told("Previous equation ordering found"));
}

TEST_F(ordering_files, too_many_subscripts_stop_the_run) {
    new_analysis();
    orders.maxspa = 20;
    EXPECT_STOP(set_up(m, {"--mmd", "--aireml"}), "routine \"SMBFCT\" : too many subscripts !\nmax. allowed   = 20\n"
                                                  "no. required   > ");
    EXPECT_TRUE(told("\nreset parameter \"maxspa\" !\n"));
    EXPECT_FALSE(std::filesystem::exists(filenames.ordersfile));
}

TEST_F(ordering_files, too_many_subscripts_give_way_to_a_stored_order) {
    const double truth = run({"--mmd", "--aireml"});
    new_analysis();
    clear_screen();
    orders.maxspa = 20;
    set_up(m, {"--amd", "--aireml"});
    EXPECT_TRUE(told("Previous ordering better - using that !"));
    EXPECT_FALSE(told("too many subscripts"));
    EXPECT_EQ(orders.order_type, 1);
    EXPECT_NEAR(program_logl(estimates.parvec), truth, 1e-9);
}

TEST_F(ordering_files, further_orders_are_raced_where_no_method_is_named) {
    const double truth = run({"--aireml"});
    EXPECT_EQ(lines_of(read_file("OperationCounts")).size(), 1u) << "none in a small case";
    const auto raced = [&](const std::vector<std::string>& given) {
        new_analysis();
        clear_screen();
        orders.race_from = orders.race_price = 0.0;
        set_up(m, given);
        EXPECT_NEAR(program_logl(estimates.parvec), truth, 1e-10 * std::fabs(truth));
    };
    for (const char* named : {"--mmd", "--amd", "--metis"}) {
        fresh();
        raced({named, "--aireml"});
        EXPECT_EQ(lines_of(read_file("OperationCounts")).size(), 1u) << named << " stays alone";
    }
    fresh();
    raced({"-v", "--aireml"});
    const auto lines = lines_of(read_file("OperationCounts"));
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[0].substr(0, 21), line("%-21s", "MMD"));
    EXPECT_EQ(lines[1].substr(0, 21), "Metis   0     0  0  0");
    double best = 1e300;
    int scotch = 0;
    for (const auto& l : lines) {
        best = std::min(best, number_of(words_of(l).back()));
        scotch += l.substr(0, 21) == line("%-21s", "Scotch");
    }
    EXPECT_EQ(scotch, 1);
    EXPECT_EQ(operations(), best) << "the structure in hand is that of the best order";
    const int type = orders.order_type;
    raced({"--aireml"});
    EXPECT_TRUE(told(line("Previous equation ordering found : Order type =%2d", type))) << screen_text();
    EXPECT_EQ(operations(), best);
    EXPECT_EQ(lines_of(read_file("OperationCounts")).size(), lines.size() + 1);
}

// Whatever method the file names, its order is taken over; a code that there is not makes the order anew.
TEST_F(ordering_files, orders_of_all_methods_are_taken_over) {
    const double truth = run({"--aireml"});
    for (const int code : {4, 5, 6, 0}) {
        fresh();
        run({code == 5 ? "--metis" : "--mmd", "--aireml"});
        std::string file = read_file(filenames.ordersfile);
        std::size_t at = 0;
        for (int record = 0; record < 2; ++record) {
            std::uint64_t length = 0;
            file.copy(reinterpret_cast<char*>(&length), sizeof length, at);
            at += sizeof length + length;
        }
        file.replace(at + 24, sizeof code, reinterpret_cast<const char*>(&code), sizeof code);
        write_file(filenames.ordersfile, resealed(file));
        EXPECT_NEAR(run({"--aireml"}), truth, 1e-10 * std::fabs(truth)) << code;
        const bool known = code == 4 || code == 5;
        EXPECT_EQ(orders.order_type, known ? code : 1);
        EXPECT_EQ(told(line("Previous equation ordering found : Order type =%2d", code)), known) << code;
    }
}

} // namespace
} // namespace tarvex
