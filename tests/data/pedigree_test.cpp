#include "support/pedigree_model.h"
#include "support/special_files.h"

#include "data/pedcounts.h"
#include "data/pedigrees.h"
#include "data/reducepeds.h"
#include "support/edit_form.h"

#include <algorithm>
#include <ctime>
#include <numeric>
#include <random>
#include <sstream>

namespace tarvex {
namespace {

class pedigree_test : public tarvex_test {
protected:
    static std::vector<int> idvec() { return {pedigreelist.idvec.begin(), pedigreelist.idvec.end()}; }
    static std::string counted(const std::string& label, int n) { return edit("(1x,a,t45,1h=,i10)", label, n); }
    static bool reported(const std::string& line) {
        return read_file(filenames.sumpedfile).find("\n" + line) != std::string::npos;
    }
};

TEST_F(pedigree_test, list_is_sorted_and_parents_are_running_numbers) {
    animal_model("7 1.0\n9 2.0\n", "# head\n# more\n5 0 0\n6 0 0\n7 5 6\n9 5 7\n");
    options.details = options.verbose = true;
    pedigree_list();
    EXPECT_EQ(idvec(), (std::vector<int>{5, 6, 7, 9}));
    EXPECT_NE(screen_text().find("skipping first  2 lines"), std::string::npos) << screen_text();
    EXPECT_EQ(pedigreelist.jdvec(1, 3), 1);
    EXPECT_EQ(pedigreelist.jdvec(2, 3), 2);
    EXPECT_EQ(pedigreelist.jdvec(2, 4), 3);
    const std::string text = screen_text();
    EXPECT_NE(text.find("\"test.ped\" : skipping first  2 lines\n"), std::string::npos) << text;
    EXPECT_NE(text.find("No. of animal IDs in data file = 2\n"), std::string::npos);
    EXPECT_NE(text.find("No. of animal IDs in total     = 4\n"), std::string::npos);
    EXPECT_NE(text.find("Pedigree file                  =    test.ped\nTotal no. of animal IDs found  = 4\n"),
              std::string::npos);
    const std::string report = read_file(filenames.sumpedfile);
    EXPECT_NE(report.find("Summary of Pedigree Information\n"), std::string::npos) << report;
    EXPECT_NE(report.find(" Pedigree file          :   \"test.ped\"\n"), std::string::npos) << report;
    EXPECT_TRUE(reported(" No. of animal IDs in data file =           =         2\n"));
    EXPECT_TRUE(reported(" No. of animal IDs in total     =           =         4\n"));
}

TEST_F(pedigree_test, empty_line_at_the_head_is_no_comment) {
    animal_model("1 1.0\n", "\n# no comment here\n1 0 0\n");
    options.verbose = true;
    EXPECT_STOP(pedigree_list(), "***** ERROR in pedigree file 1\n");
    EXPECT_NE(screen_text().find("skipping first  0 lines"), std::string::npos) << screen_text();
}

TEST_F(pedigree_test, carriage_returns_tabs_and_unfinished_last_line_are_read) {
    animal_model("3 1.0\n", "# head\r\n1\t0 0\r\n2 0 0\r\n\r\n3 1 2");
    pedigree_list();
    EXPECT_EQ(pedigreelist.jdvec(2, 3), 2);
    EXPECT_EQ(screen_text(),
              "Pedigree file                  =    test.ped\nTotal no. of animal IDs found  = 3\n"); // no more
}

TEST_F(pedigree_test, missing_pedigree_stops) {
    animal_model("1 1.0\n", "");
    filenames.pedfile = "none.ped";
    EXPECT_STOP(pedigree_list(),
                "Looking for pedigree file : \"none.ped\" ...\n ... file doesn't seem to exist !\nexit \"Tarvex\"");
}

TEST_F(pedigree_test, pedigree_that_cannot_be_opened_stops) {
    animal_model("1 1.0\n", "");
    write_unopenable("shut.ped");
    filenames.pedfile = "shut.ped";
    EXPECT_STOP(pedigree_list(), "Trying to open pedigree file : \"shut.ped\"\n ... cannot open file as specified !\n"
                                 "exit \"Tarvex\"");
    EXPECT_NE(read_file(filenames.sumpedfile).find("Summary of Pedigree Information"), std::string::npos);
}

TEST_F(pedigree_test, faulty_records_are_told_by_the_first_broken_rule) {
    const auto fault = [&](const std::string& record, const std::string& text) {
        animal_model("1 1.0\n", "1 0 0\n" + record + "\n");
        EXPECT_STOP(pedigree_list(), text + "***** ERROR in pedigree file 2\nexit \"Tarvex\"");
    };
    fault("0 1 2", "Invalid animal ID\n");
    fault("-4 -1 2", "Invalid animal ID\n");
    fault("3 -1 -2", "Invalid sire ID  \n");
    fault("3 1 -2", "Invalid dam ID   \n");
    fault("3 4 5", "Animal ID smaller than parent ID 3 4 5\n");
    fault("3 3 2", "Animal and sire ID identical\n");
    fault("3 1 3", "Animal and dam ID identical \n");
    fault("3 1 1", "Sire and dam ID identical  \n");
    fault("3 x 1", "");
    fault("3 1", "");
    fault("3 1.5 2", "");
}

TEST_F(pedigree_test, codes_outside_the_list_stop) {
    animal_model("1 1.0\n", "399999 0 0\n400000 0 0\n");
    EXPECT_STOP(pedigree_list(), "Error reading pedigrees : invalid animal ID\n");
    animal_model("400000 1.0\n", "1 0 0\n");
    EXPECT_STOP(pedigree_list(), "Error reading pedigrees : invalid animal ID\n");
    animal_model("0 1.0\n", "1 0 0\n");
    EXPECT_STOP(pedigree_list(), "Error reading pedigrees : invalid animal ID\n");
}

TEST_F(pedigree_test, selfing_passes_only_with_its_option) {
    animal_model("3 1.0\n", "1 0 0\n3 1 1\n4 3 1\n5 1 3\n");
    options.selfing = true;
    pedigree_list();
    EXPECT_EQ(pedigreelist.jdvec(1, 2), pedigreelist.jdvec(2, 2));
}

TEST_F(pedigree_test, parent_in_both_roles_stops_but_not_a_bull_as_grandsire) {
    const char* ped = "1 0 0\n2 0 0\n3 1 2\n4 0 1\n";
    animal_model("3 1.0\n", ped);
    EXPECT_STOP(pedigree_list(), "***** ERROR in pedigree : Parent occurs as both sire & dam 1\n");
    options.siremodel = true;
    pedigree_list();
    EXPECT_EQ(pedigreelist.jdvec(2, 4), 1);
}

TEST_F(pedigree_test, sires_must_have_smaller_codes_too) {
    options.siremodel = true;
    for (const char* record : {"3 4 0", "3 1 4"}) {
        animal_model("1 1.0\n", "1 0 0\n" + std::string(record) + "\n");
        EXPECT_STOP(pedigree_list(), "Animal ID smaller than parent ID " + std::string(record) + "\n");
    }
}

TEST_F(pedigree_test, sire_that_is_its_own_parent_is_told_as_its_own_grandparent) {
    options.siremodel = true;
    for (const char* record : {"3 3 0", "3 1 3"}) {
        animal_model("3 1.0\n", "1 0 0\n" + std::string(record) + "\n");
        pedigree_list();
        EXPECT_STOP(secateurs(), "animal & grandparent identical 3\n  ... animal no.  2\n  ... parent no.  2\n"
                                 "Pedigree error ??");
    }
}

TEST_F(pedigree_test, animals_of_the_data_without_pedigree_become_founders) {
    animal_model("3 1.0\n8 1.0\n", "1 0 0\n3 1 0\n");
    pedigree_list();
    EXPECT_EQ(idvec(), (std::vector<int>{1, 3, 8}));
    EXPECT_EQ(pedigreelist.jdvec(1, 3), 0);
}

TEST_F(pedigree_test, find_anim_names_the_neighbours) {
    animal_model("3 1.0\n8 1.0\n", "1 0 0\n");
    pedigree_list();
    EXPECT_EQ(find_anim(8), 3);
    EXPECT_STOP(find_anim(5), "Error in \"find_anim\" : animal/dam code not found !\nID in data = 5\n"
                              "pedigree list 2 3\npedigree list 3 8\n");
    EXPECT_STOP(find_anim(9), "ID in data = 9\npedigree list 3 8\nexit");
    EXPECT_STOP(find_anim(2), "ID in data = 2\npedigree list 1 1\npedigree list 2 3\nexit");
    EXPECT_STOP(find_anim(0), "ID in data = 0\npedigree list 1 1\nexit");
}

TEST_F(pedigree_test, find_anim_in_lists_with_gaps) {
    for (const int step : {1, 2, 3, 7}) {
        std::string ped;
        std::vector<int> codes;
        for (int k = 0, code = 1; k < 40; ++k, code += k % step == 0 ? step : 1) { // runs and gaps
            ped += std::to_string(code + 4 * (step == 7)) + " 0 0\n";
            codes.push_back(code + 4 * (step == 7));
        }
        animal_model(std::to_string(codes.front()) + " 1.0\n", ped);
        pedigree_list();
        ASSERT_EQ(idvec(), codes);
        for (int i = 0; i < 40; ++i) EXPECT_EQ(find_anim(codes[static_cast<std::size_t>(i)]), i + 1) << step;
        for (int id = 1; id <= codes.back() + 2; ++id) {
            const auto above = std::lower_bound(codes.begin(), codes.end(), id);
            if (above != codes.end() && *above == id) continue;
            const auto place = above - codes.begin() + 1; // the neighbours are those of a search through the whole list
            const std::string told = place <= 40
                                         ? "pedigree list " + std::to_string(place) + " " + std::to_string(*above)
                                         : "pedigree list 40 " + std::to_string(codes.back());
            EXPECT_STOP(find_anim(id), told + "\n");
        }
    }
}

TEST_F(pedigree_test, progress_and_speed_of_a_large_list) {
    std::string ped;
    for (int i = 20001; i >= 1; --i) ped += std::to_string(i) + " 0 0\n";
    animal_model("1 1.0\n", ped);
    options.verbose = true;
    pedigree_list();
    EXPECT_EQ(pedigreelist.nanim, 20001);
    EXPECT_NE(screen_text().find("Pedigree file : at record 10000\nPedigree file : at record 20000\n"),
              std::string::npos);
}

// Codes in random order: the time must not grow with the square of their number.
TEST_F(pedigree_test, list_of_300000_animals_in_random_order) {
    constexpr int n = 300000;
    std::vector<int> codes(n);
    std::iota(codes.begin(), codes.end(), 1);
    std::shuffle(codes.begin(), codes.end(), std::mt19937(7));
    std::string ped, data;
    for (const int i : codes) {
        const std::string code = std::to_string(i);
        ped += code + " " + std::to_string(i / 2 & ~1) + " " + std::to_string(i > 2 ? (i - 2) / 3 | 1 : 0) + "\n";
        data += code + " 1.5\n";
    }
    animal_model(data, ped);
    const std::clock_t start = std::clock();
    reducepeds();
    pedigree_list();
    secateurs();
    EXPECT_LT(static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC, 30.0);
    EXPECT_EQ(pedigreelist.nannew(1), n);
    EXPECT_EQ(pedigreelist.idvec(n), n);
    EXPECT_EQ(pedigreelist.sire(1)[99999 - 1], 49998);
}

TEST_F(pedigree_test, reduction_keeps_ancestors_and_writes_the_new_file) {
    // 9 and 4 have no tie to the data; records stand in no order; comments stand in the first file only.
    animal_model("8 1.0\n12 1.0\n", "# c\n9 8 0\n8 6 5\n6 2 0\n5 0 0\n4 2 0\n");
    options.verbose = true;
    reducepeds();
    EXPECT_EQ(filenames.pedfile, "ReducedPedFile.dat");
    EXPECT_EQ(read_file("ReducedPedFile.dat"), "               8               6               5\n"
                                               "              12               0               0\n"
                                               "               6               2               0\n"
                                               "               5               0               0\n"
                                               "               2               0               0\n");
    EXPECT_NE(screen_text().find("No. of animal IDs in data = 2\n"), std::string::npos);
    EXPECT_NE(screen_text().find("Total no. of animal IDs  = 7\nFound redundant animals in pedigree\n"
                                 " ... wrote file \"ReducedPedFile.dat\"\n"),
              std::string::npos)
        << screen_text();
    pedigree_list();
    EXPECT_NE(screen_text().find("\"ReducedPedFile.dat\" : skipping first  0 lines"), std::string::npos)
        << screen_text();
    EXPECT_EQ(pedigreelist.nanim, 5);
}

TEST_F(pedigree_test, nothing_redundant_writes_no_file) {
    animal_model("3 1.0\n", "1 0 0\n2 0 0\n3 1 2\n");
    options.details = true;
    reducepeds();
    EXPECT_EQ(filenames.pedfile, "test.ped");
    EXPECT_FALSE(std::ifstream("ReducedPedFile.dat").good());
    EXPECT_NE(screen_text().find("ReducePeds : no. of animals = 1 3 "), std::string::npos);
    EXPECT_NE(screen_text().find("No. of animal IDs  = 3\n"), std::string::npos);
}

TEST_F(pedigree_test, reduction_leaves_faulty_pedigrees_to_the_checks) {
    animal_model("1 1.0\n", "1 0 0\n3 -5 0\n");
    reducepeds();
    EXPECT_EQ(filenames.pedfile, "test.ped");
    EXPECT_STOP(pedigree_list(), "Invalid sire ID  \n");
}

// What the reduction would throw out is checked all the same.
TEST_F(pedigree_test, faults_of_redundant_records_are_told) {
    animal_model("1 1.0\n", "1 0 0\n400000 0 0\n");
    reducepeds();
    EXPECT_STOP(pedigree_list(), "Error reading pedigrees : invalid animal ID\n");
    animal_model("1 1.0\n", "1 0 0\n9 0 0\nx 0 0\n");
    reducepeds();
    EXPECT_EQ(filenames.pedfile, "test.ped");
    EXPECT_STOP(pedigree_list(), "***** ERROR in pedigree file 3\n");
}

TEST_F(pedigree_test, reduction_counts_no_code_below_1) {
    animal_model("0 1.0\n-7 1.0\n1 1.0\n5000000000 1.0\n", "1 0 0\n");
    options.verbose = true;
    reducepeds();
    EXPECT_NE(screen_text().find("No. of animal IDs in data = 1\n"), std::string::npos) << screen_text();
    EXPECT_NE(screen_text().find("Total no. of animal IDs  = 1\n"), std::string::npos);
}

TEST_F(pedigree_test, animal_with_two_records) {
    animal_model("3 1.0\n", "1 0 0\n2 0 0\n3 1 0\n3 2 0\n");
    reducepeds();
    EXPECT_EQ(filenames.pedfile, "test.ped");
    EXPECT_STOP(pedigree_list(), "Animal is in the pedigree twice, with other parents : 3  lines 3 and 4\n"
                                 "***** ERROR in pedigree file 4\n");
    animal_model("3 1.0\n", "1 0 0\n2 0 0\n3 2 0\n3 2 0\n");
    reducepeds();
    EXPECT_EQ(read_file("ReducedPedFile.dat"), "               3               2               0\n"
                                               "               2               0               0\n");
}

TEST_F(pedigree_test, too_many_codes_stop_the_reduction) {
    std::string ped;
    for (int i = 2; i <= 524828; ++i) ped += std::to_string(i) + " 0 0\n";
    animal_model("1 1.0\n", ped);
    EXPECT_STOP(reducepeds(), "HASH : increase size");
}

class pruning_test : public pedigree_test {
protected:
    static std::vector<int> pruned(const std::string& data, const std::string& ped) {
        animal_model(data, ped);
        pedigree_list();
        secateurs();
        return pedigreelist.idwec(1);
    }
};

TEST_F(pruning_test, founder_with_one_offspring_goes_from_the_top_down) {
    EXPECT_EQ(pruned("5 1.0\n", "1 0 0\n2 1 0\n3 2 0\n4 3 0\n5 4 0\n"), (std::vector<int>{5}));
    EXPECT_EQ(pedigreelist.sire(1), std::vector<int>{0});
    EXPECT_EQ(pedigreelist.newno(1), (std::vector<int>{0, 0, 0, 0, 1}));
}

TEST_F(pruning_test, founders_are_cut_as_dams_too) {
    EXPECT_EQ(pruned("5 1.0\n", "1 0 0\n2 0 1\n5 0 2\n"), (std::vector<int>{5}));
    EXPECT_EQ(pedigreelist.dam(1), std::vector<int>{0});
}

TEST_F(pruning_test, founder_with_two_offspring_stays) {
    EXPECT_EQ(pruned("5 1.0\n6 1.0\n", "1 0 0\n5 1 0\n6 1 0\n"), (std::vector<int>{1, 5, 6}));
    EXPECT_EQ(pedigreelist.sire(1), (std::vector<int>{0, 1, 1}));
}

TEST_F(pruning_test, line_without_records_goes_from_the_bottom_up) {
    options.verbose = true;
    EXPECT_EQ(pruned("5 1.0\n6 1.0\n", "1 0 0\n5 1 0\n6 1 0\n7 6 0\n8 7 5\n9 8 0\n"), (std::vector<int>{1, 5, 6}));
    EXPECT_NE(screen_text().find("    Pruning : loop=   1      0      1\n    Pruning : loop=   2      0      1\n"
                                 "    Pruning : loop=   3      0      1\n"),
              std::string::npos)
        << screen_text();
    EXPECT_TRUE(reported(" ... proportion (%) remaining               =      50.0\n"));
    EXPECT_NE(screen_text().find("Pruned pedigree for random effect no. 1\nOriginal no. of animals = 6\n"
                                 "New no. of animals      = 3\n"),
              std::string::npos);
}

TEST_F(pruning_test, parent_with_known_parents_and_one_offspring_stays) {
    EXPECT_EQ(pruned("1 1.0\n2 1.0\n4 1.0\n", "1 0 0\n2 0 0\n3 1 2\n4 3 0\n"), (std::vector<int>{1, 2, 3, 4}));
}

TEST_F(pruning_test, some_runs_never_prune) {
    for (int run = 1; run <= 4; ++run) {
        options.nopru = run == 1;
        options.blup = run == 2;
        options.sigam = run == 3;
        options.siremodel = run == 4;
        EXPECT_EQ(pruned("5 1.0\n", "1 0 0\n5 1 0\n"), (std::vector<int>{1, 5}));
        EXPECT_TRUE(reported(" ... proportion (%) remaining               =     100.0\n"));
    }
}

TEST_F(pruning_test, each_effect_has_its_own_pedigree) {
    animal_model("5 1 1.0\n6 1 1.0\n", "1 0 0\n2 0 0\n5 2 1\n6 0 1\n", 2);
    pedigree_list();
    secateurs();
    EXPECT_EQ(pedigreelist.idwec(1), (std::vector<int>{1, 5, 6}));
    EXPECT_EQ(pedigreelist.idwec(2), (std::vector<int>{1}));
    EXPECT_TRUE(reported("*****Pedigree Structure for random effect :      2****************************\n"));
}

TEST_F(pruning_test, report_names_the_effect_and_not_its_matrix) {
    animal_model("5 6 1.0\n6 5 1.0\n", "5 0 0\n6 0 0\n", 2);
    mudmap.kovrnd(1) = covariance_kind::ide;
    mudmap.iranno(1) = 0;
    mudmap.nrunno = mudmap.iranno(2) = 1;
    pedigree_list();
    secateurs();
    EXPECT_TRUE(reported("*****Pedigree Structure for random effect :      2****************************\n"));
}

TEST_F(pruning_test, correlated_effects_count_both_columns) {
    animal_model("5 1 1.0\n6 1 1.0\n", "1 0 0\n5 0 1\n6 0 1\n", 2);
    mudmap.nrunno = numbers.krand = 1;
    mudmap.rn_irand(2, 1) = 1;
    mudmap.iranno.resize(1);
    pedigree_list();
    secateurs();
    EXPECT_TRUE(reported(counted("No. of levels with records", 3).substr(0, 55) + "  100.0%\n"));
    EXPECT_TRUE(reported(edit("(1x,a,i2,a,t45,1h=,i10,f7.1,1h%) ", " ... ", 2, " record(s) ", 1, 100.0 / 3)));
}

TEST_F(pruning_test, record_of_two_traits_counts_twice) {
    animal_model("1 5 1.0\n1 6 -999\n", "1 0 0\n");
    numbers.nq = 2;
    datafile.ndatcol[1] = mudmap.maxcol = 3;
    datafile.missvalue[2] = -999;
    model.nrnd.allocate(2);
    mudmap.tr_dcolno.allocate(2);
    mudmap.rn_irand.allocate(1, 2);
    mudmap.rn_dcolno.allocate(1, 2);
    for (int iq = 1; iq <= 2; ++iq) {
        model.nrnd(iq) = mudmap.rn_irand(1, iq) = mudmap.rn_dcolno(1, iq) = 1;
        mudmap.tr_dcolno(iq) = iq + 1;
    }
    pedigree_list();
    secateurs();
    EXPECT_TRUE(reported(edit("(1x,a,i2,a,t45,1h=,i10,f7.1,1h%) ", " ... ", 3, " record(s) ", 1, 100.0)));
}

TEST_F(pruning_test, report_on_a_small_pedigree) {
    // Founders 1 to 4; full sibs 5, 6 of 1 x 2; 7 = 5 x 4, 8 = 7 x 6. Records on 5 (twice), 7, 8.
    options.nopru = true;
    pruned("5 1.0\n5 2.0\n7 1.0\n8 1.0\n", "1 0 0\n2 0 0\n3 0 0\n4 0 0\n5 1 2\n6 1 2\n7 5 4\n8 7 6\n");
    const auto share = [](const std::string& label, int n, double x) {
        return edit("(1x,a,t45,1h=,i10,f7.1,1h%)", label, n, x);
    };
    const auto share3 = [](const std::string& a, int i, const std::string& b, int n, double x) {
        return edit("(1x,a,i2,a,t45,1h=,i10,f7.1,1h%) ", a, i, b, n, x);
    };
    const std::string text =
        "\n*****Pedigree Structure for random effect :      1****************************\n" +
        counted("Original no. of animals ", 8) + counted("No. of animals after pruning", 8) +
        " ... proportion (%) remaining               =     100.0\n\n" + counted("No. of levels w/out records", 5) +
        share("No. of levels with records", 3, 100.0) + share3(" ... ", 1, " record(s) ", 2, 66.7) +
        share3(" ... ", 2, " record(s) ", 1, 33.3) + "\n" + counted("Minimum no. of records specified", 1) +
        share3("No. of animals with at least ", 1, " records", 3, 100.0) +
        " No. of parents which have  progeny which \n" +
        "    have at least  1 records                =         6\n No. of animals with at least  1 records\n" +
        counted("   themselves or on a parent ", 3) + share("   themselves, on a parent or sib(s)", 4, 50.0) +
        share("   ... in the data", 3, 37.5) + "\n" + share("No. of animals w/out offspring", 2, 25.0) +
        share("No. of animals with offspring", 6, 75.0) + share(" ... and records ", 2, 25.0) +
        counted("No. of animals with unknown sire", 4) + counted("No. of animals with unknown dam", 4) +
        counted("No. of animals with both parents unknown", 4) + counted("No. of animals with records", 3) +
        counted(" ... and unknown sire", 0) + counted(" ... and unknown dam", 0) +
        counted(" ... and both parents unknown", 0) + counted("No. of sires", 3) +
        counted(" ... with progeny in the data", 3) + counted(" ... with records & progeny in data", 2) +
        counted("No. of dams", 3) + counted(" ... with progeny in the data", 3) +
        counted(" ... with records & progeny in data", 0) + "\n No. of animals with known/unpruned grand-parents\n" +
        counted(" ... with paternal grandsire ", 2) + counted(" ... with paternal granddam ", 2) +
        counted(" ... with maternal grandsire ", 1) + counted(" ... with maternal granddam ", 1) +
        "======== end of file ";
    EXPECT_TRUE(read_file(filenames.sumpedfile).find(text) != std::string::npos)
        << read_file(filenames.sumpedfile) << text;
}

// Each count of the report, in its order, from lists of offspring and sibs of a pedigree with gaps.
class pedigree_counts {
public:
    std::vector<int> sire, dam, nrec; // by animal, from [1]
    int n() const { return static_cast<int>(nrec.size()) - 1; }
    template <class P> int count(P&& holds) const {
        int found = 0;
        for (int i = 1; i <= n(); ++i) found += holds(i) ? 1 : 0;
        return found;
    }
    bool enough(int i, int k) const { return i > 0 && nrec[i] >= k; }
    bool has_offspring(int i, int k) const { // with at least k records
        for (int j = 1; j <= n(); ++j)
            if ((sire[j] == i || dam[j] == i) && nrec[j] >= k) return true;
        return false;
    }
    bool has_sib(int i, int k) const {
        for (int j = 1; j <= n(); ++j)
            if (j != i && nrec[j] >= k && ((sire[i] > 0 && sire[j] == sire[i]) || (dam[i] > 0 && dam[j] == dam[i])))
                return true;
        return false;
    }
    std::vector<int> expected(int k) const {
        const auto data = [&](int i) { return nrec[i] > 0; };
        const auto near = [&](int i) { return enough(i, k) || enough(sire[i], k) || enough(dam[i], k); };
        const auto told = [&](int i) { return near(i) || has_sib(i, k); };
        const int with = count(data), parents = count([&](int i) { return has_offspring(i, 0); });
        std::vector<int> list{n(), n(), n() - with, with};
        for (int m = 1; m <= 6; ++m)
            if (const int c = count([&](int i) { return nrec[i] == m; })) list.push_back(c);
        for (const int c :
             {k, count([&](int i) { return enough(i, k); }), count([&](int i) { return has_offspring(i, k); }),
              count(near), count(told), count([&](int i) { return told(i) && data(i); }), n() - parents, parents,
              count([&](int i) { return data(i) && has_offspring(i, 0); })})
            list.push_back(c);
        for (const int least : {0, 1}) { // all animals, those with records
            const auto seen = [&](int i) { return nrec[i] >= least; };
            if (least > 0) list.push_back(with);
            list.push_back(count([&](int i) { return seen(i) && sire[i] == 0; }));
            list.push_back(count([&](int i) { return seen(i) && dam[i] == 0; }));
            list.push_back(count([&](int i) { return seen(i) && sire[i] == 0 && dam[i] == 0; }));
        }
        for (const auto* parent : {&sire, &dam}) {
            const auto of = [&](int i, int least) {
                for (int j = 1; j <= n(); ++j)
                    if ((*parent)[j] == i && nrec[j] >= least) return true;
                return false;
            };
            list.push_back(count([&](int i) { return of(i, 0); }));
            list.push_back(count([&](int i) { return of(i, 1); }));
            list.push_back(count([&](int i) { return of(i, 1) && data(i); }));
        }
        for (const auto* parent : {&sire, &dam})
            for (const auto* grand : {&sire, &dam})
                list.push_back(count([&](int i) { return (*parent)[i] > 0 && (*grand)[(*parent)[i]] > 0; }));
        return list;
    }
};

TEST_F(pruning_test, counts_of_a_pedigree_with_gaps) {
    std::mt19937 rng(11);
    const auto draw = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    pedigree_counts c{{0}, {0}, {0}};
    std::string data, ped;
    for (int i = 1; i <= 60; ++i) { // sires have odd codes, dams even ones
        const bool born = i > 12;
        c.sire.push_back(born && draw(4) > 0 ? (i - 12 + draw(11)) | 1 : 0);
        c.dam.push_back(born && draw(3) > 0 ? (i - 12 + draw(11)) & ~1 : 0);
        c.nrec.push_back(std::max(0, draw(6) - 2));
        ped += std::to_string(i) + " " + std::to_string(c.sire.back()) + " " + std::to_string(c.dam.back()) + "\n";
        for (int k = 0; k < c.nrec.back(); ++k) data += std::to_string(i) + " 1.0\n";
    }
    options.nopru = options.randreg = true;
    animal_model(data, ped);
    mudmap.kfitrnd(1, 1) = 2;
    pedigree_list();
    secateurs();
    const std::string text = read_file(filenames.sumpedfile);
    std::vector<int> found;
    std::istringstream lines(text.substr(text.find("*****Pedigree Structure")));
    for (std::string line; std::getline(lines, line) && line.find("end of file") == std::string::npos;)
        if (line.size() >= 55 && line[44] == '=' && line.find("proportion") == std::string::npos)
            found.push_back(std::stoi(line.substr(45, 10)));
    EXPECT_EQ(found, c.expected(2)) << text;
}

TEST_F(pruning_test, classes_of_many_records_and_orders_of_fit) {
    std::string data;
    for (const auto& [id, n] : {std::pair{1, 7}, {2, 10}, {3, 11}, {4, 20}, {5, 21}})
        for (int i = 0; i < n; ++i) data += std::to_string(id) + " 1.0\n";
    animal_model(data, "1 0 0\n");
    options.randreg = true;
    mudmap.kfitrnd(1, 1) = 9;
    pedigree_list();
    secateurs();
    EXPECT_TRUE(reported(edit("(1x,a,t45,1h=,i10,f7.1,1h%)", " ... 7-10 record(s) ", 2, 40.0)));
    EXPECT_TRUE(reported(edit("(1x,a,t45,1h=,i10,f7.1,1h%)", " ... 11-20 record(s) ", 2, 40.0)));
    EXPECT_TRUE(reported(edit("(1x,a,t45,1h=,i10,f7.1,1h%)", " ... >20 record(s) ", 1, 20.0)));
    EXPECT_TRUE(reported(counted("Minimum no. of records specified", 9)));
    EXPECT_TRUE(
        reported(edit("(1x,a,i2,a,t45,1h=,i10,f7.1,1h%) ", "No. of animals with at least ", 9, " records", 4, 80.0)));
}

TEST_F(pruning_test, animal_as_its_own_grandparent_stops) {
    pedigree_by_hand({2, 1}, {0, 0});
    pedigreelist.nanim = 2;
    text_out out;
    ASSERT_TRUE(out.open("x.out"));
    mudmap.rn_irand.allocate(0, 0);
    EXPECT_STOP(ped_counts(out, 1, 1, {0, 0}), "animal & grandparent identical 10\n  ... animal no.  1\n"
                                               "  ... parent no.  2\nPedigree error ??");
}

} // namespace
} // namespace tarvex
