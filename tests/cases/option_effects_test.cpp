// What options do to the real program: width of reports, what it tells, values out of all range, pauses, and what it
// does where files cannot be written.
#include "case_run.h"
#include "population.h"

#include <algorithm>

using namespace tarvex;

namespace {

class option_effects : public case_run {
protected:
    void SetUp() override { ASSERT_TRUE(bring("textbook_uni")); }

    // Through a shell, so that redirections can be told; no run may need more than some seconds of processor time.
    program_result in_shell(const std::string& redirection, std::vector<std::string> options) const {
        options.insert(options.begin(), {"-c", "ulimit -t 10; exec \"$0\" \"$@\" " + redirection, program_path()});
        options.push_back(name_);
        return run_binary("/bin/sh", options);
    }
    static std::size_t count(const std::string& text, const std::string& words) {
        std::size_t n = 0;
        for (auto at = text.find(words); at != std::string::npos; at = text.find(words, at + 1)) ++n;
        return n;
    }
    static bool is_row_of_signs(const std::string& line) {
        return line.find_first_not_of('=') == std::string::npos && !line.empty();
    }
};

// ---- frame of the reports

TEST_F(option_effects, head_of_a_report) {
    finish("--setup -t");
    const std::string head = read_file("SumModel.out");
    const auto from = head.find('\n') + 1; // behind the version
    EXPECT_TRUE(head.starts_with("======= Version "));
    EXPECT_EQ(head.substr(from, head.find("Parameter file") - from),
              "\n        Program Tarvex : Summary of information from Set-up step\n" + std::string(78, '=') +
                  "\n\n Pre-weaning gain of five calves, animal model\n\n Analysis type          :   \"UNI\"\n"
                  " Data file              :   \"data.dat\"\n Pedigree file          :   \"ped.dat\"\n ");
    EXPECT_NE(head.find(" Parameter file         :   \"textbook_uni.par\"\n\n\n"), std::string::npos);
}

TEST_F(option_effects, width_of_the_reports) {
    for (const std::size_t width : {78u, 112u}) {
        finish(width == 78 ? "--aireml2" : "--wide --aireml2");
        for (const char* report : {"SumEstimates.out", "SumModel.out", "SumPedigree.out"}) {
            const auto lines = lines_of(read_file(report));
            ASSERT_GT(lines.size(), 6u);
            EXPECT_EQ(lines[0].size(), width) << report;
            EXPECT_EQ(lines[3], std::string(width, '=')) << report;
            EXPECT_EQ(lines.back().size(), width) << report;
            EXPECT_TRUE(lines.back().starts_with("======== end of file ====")) << report;
        }
        EXPECT_EQ(lines_of(read_file("FixSolutions.out"))[3], std::string(78, '=')); // solutions are always narrow
        // the row below the title stands once
        const auto lines = lines_of(read_file("SumEstimates.out"));
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(), is_row_of_signs), 1);
    }
}

// ---- what the program tells

TEST_F(option_effects, more_and_less_talk) {
    const auto fresh = [&](const std::string& options) {
        for (const char* file : {"adjacency.bin", "eqnsorder.bin", "symbfact.bin", "nrminvers1.bin", "BestPoint"})
            std::filesystem::remove(file);
        return finish(options + " --aireml2").output;
    };
    const std::string terse = fresh("-t"), usual = fresh(""), verbose = fresh("-v"), more = fresh("-v2"),
                      all = fresh("-d");
    EXPECT_LT(terse.size(), usual.size());
    EXPECT_LT(usual.size(), verbose.size());
    EXPECT_LT(verbose.size(), more.size());
    EXPECT_LT(more.size(), all.size());
    EXPECT_EQ(terse.find("AI iterate"), std::string::npos);
    EXPECT_NE(usual.find("AI iterate"), std::string::npos);
    EXPECT_EQ(usual.find("***Time:"), std::string::npos);
    EXPECT_EQ(verbose.find("Elements in MMM - after data"), std::string::npos);
    EXPECT_NE(more.find(" Elements in MMM - after data      "), std::string::npos);
    EXPECT_EQ(more.find("***Time: Log L"), std::string::npos);
    EXPECT_NE(all.find("***Time: Log L"), std::string::npos);
    EXPECT_NE(fresh("--times").find("***Time: Log L"), std::string::npos);
    EXPECT_NE(fresh("-v -t --times").find("***Time: Log L"), std::string::npos);
}

TEST_F(option_effects, best_point_is_told_once) {
    finish("--aireml2");
    const std::string words = "\"BestPoint\" from previous run  successfully read\n maximum of log L so far = ";
    EXPECT_EQ(count(finish("-c --aireml2").output, words), 1u);
    EXPECT_EQ(count(finish("--best").output, words), 1u);
    EXPECT_EQ(count(finish("-t --best").output, words), 0u);
    EXPECT_EQ(count(finish("--aireml2").output, words), 0u);
}

TEST_F(option_effects, faults_under_verbose_name_the_stop) {
    const std::string data = read_file("data.dat"), ped = read_file("ped.dat");
    const auto expect_stop = [&](const std::string& words) {
        const auto result = run("-v --aireml2");
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.output.find(words), std::string::npos) << words << " is not in\n" << result.output;
        EXPECT_TRUE(result.output.ends_with("\nProgrammed (error) stop for \"Tarvex\" encountered\nexit\n"))
            << result.output;
        write_file("data.dat", data);
        write_file("ped.dat", ped);
    };
    write_file("ped.dat", "1 2\n");
    expect_stop("***** ERROR in pedigree file");
    write_file("ped.dat", "400000 0 0\n");
    expect_stop("Error reading pedigrees : invalid animal ID");
    write_file("data.dat", "4 1 4.5\n5 2\n");
    expect_stop("***** ERROR : reading data file *****");
    write_file("data.dat", "4 9 4.5\n5 8 2.0\n6 7 1.0\n");
    expect_stop("Max.  no. of levels allowed :  2");
    std::filesystem::remove("data.dat");
    expect_stop("***** ERROR : cannot find data file *****");
}

TEST_F(option_effects, one_parent_twice_only_with_selfing) {
    std::string ped = read_file("ped.dat");
    write_file("ped.dat", ped.replace(ped.find("4 1 0"), 5, "4 1 1"));
    EXPECT_NE(run("--blup").output.find("Sire and dam ID identical"), std::string::npos);
    finish("--self --blup");
    EXPECT_EQ(read_random_solutions("animal").size(), 8u);
}

// Few parameters: AI-REML alone, on factors, so that covariance matrices stay such up to the border.
TEST_F(option_effects, small_analyses_run_on_factors) {
    auto p = make_population(80, 2, 1, 0.0, 71);
    int k = 0;
    for (auto& r : p.records) r.y[1] = std::stod(population::text_of(0.5 * r.y[0] + 0.01 * (++k % 7)));
    write_file("ped.dat", p.pedigree());
    write_file("data.dat", p.all_traits_lines());
    write_file("textbook_uni.par",
               "PED ped.dat\nANA MUV 2\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n"
               " age 40\n y1\n y2\nEND\nMOD EQ\n FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n"
               "VAR animal 2\n 4.5 1.5 3.5\nVAR residual 2\n 6.0 0.5 5.5\n");
    const std::string output = finish("-v --nosure").output;
    for (const char* name : {"CHOL Z 1 1", "CHOL Z 1 2", "CHOL Z 2 2", "CHOL A 1 1", "CHOL A 1 2", "CHOL A 2 2"})
        EXPECT_NE(output.find(name), std::string::npos) << name;
    const auto rounds = iterates_of(output);
    ASSERT_GT(rounds.size(), 2u);
    for (const auto& round : rounds) EXPECT_EQ(round.kind, "AI");
    const auto best = read_best_point();
    ASSERT_EQ(best.values.size(), 6u);
    for (const std::size_t i : {0u, 3u}) {
        const double a = best.values[i], c = best.values[i + 1], b = best.values[i + 2];
        EXPECT_GT(a, 0.0);
        EXPECT_GT(b, 0.0);
        EXPECT_GE(a * b - c * c, -1e-12 * a * b);
    }
    EXPECT_GT(best.values[1] / std::sqrt(best.values[0] * best.values[2]), 0.99);
}

// ---- values out of all range

TEST_F(option_effects, any_number_is_survived) {
    for (const char* option : {"--zero-400",
                               "--zero400",
                               "--zero0",
                               "--zero2147483647",
                               "--zero-2147483648",
                               "--cycle0",
                               "--cycle-1",
                               "--cycle3",
                               "--emalg0",
                               "--emalg-5",
                               "--emalg3,-1",
                               "--pxem-1",
                               "--pxem3,nan",
                               "--aireml-1",
                               "--aireml3,-1",
                               "--aireml3,nan",
                               "--aireml3,inf",
                               "--aireml,1e400",
                               "--pxai0,0",
                               "--pxai-3,-3,-3",
                               "--emai2,2147483647,1",
                               "--metis-5",
                               "--metis0",
                               "--metis,-1",
                               "--metis5,2000000000",
                               "--metis5,60,9,-4",
                               "--metis2000000000",
                               "--metis5,60,1,9",
                               "--metisall,-1,-1,-1,-1",
                               "--modaim-2147483648",
                               "--powell-4,-4",
                               "--powell2,0",
                               "--simplex-1,-1,-1",
                               "--simul0",
                               "--simul-3",
                               "--bad",
                               "--aireml-2147483648"}) {
        for (const char* file : {"eqnsorder.bin", "symbfact.bin", "BestPoint"}) std::filesystem::remove(file);
        const auto result = in_shell("", {option});
        ASSERT_TRUE(result.status == 0 || result.status == 1) << option << " " << result.status << "\n"
                                                              << result.output;
        EXPECT_TRUE(result.output.ends_with(result.status == 0 ? "\"Tarvex\" done\n" : "exit \"Tarvex\"\n") ||
                    result.output == "invalid number in option " + std::string(option) + "\n")
            << option << "\n"
            << result.output;
    }
    for (const char* option :
         {"--zero99999999999", "--cycle1.5", "--simul*", "--metis5;x", "--modaim2,3x5", "--powell1,1,1"}) {
        const auto result = in_shell("", {option});
        ASSERT_TRUE(result.status == 0 || result.output == "invalid number in option " + std::string(option) + "\n")
            << result.output;
    }
}

TEST_F(option_effects, more_replicates_than_file_names) {
    const auto result = run("--simul1000");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("Max. no. of replicates (999) exceeded !"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists("SimData001.dat"));
}

TEST_F(option_effects, simulation_computes_the_inbreeding_of_an_inverse_that_it_takes_over) {
    finish("--aireml2"); // leaves an inverse, but no coefficients
    const auto result = finish("--simul");
    EXPECT_NE(result.output.find("NRM inverse found"), std::string::npos) << result.output;
    EXPECT_TRUE(std::filesystem::exists("SimData001.dat"));
}

TEST_F(option_effects, names_of_files_are_cut_at_thirty_characters) {
    const std::string name = "a_name_of_thirty_characters.data"; // and two more
    std::filesystem::rename("data.dat", name);
    std::string par = read_file("textbook_uni.par");
    write_file("textbook_uni.par", par.replace(par.find("data.dat"), 8, name));
    EXPECT_NE(run("--blup").output.find("***** ERROR : cannot find data file *****"), std::string::npos);
    std::filesystem::rename(name, name.substr(0, 30));
    finish("--blup");
}

TEST_F(option_effects, values_of_a_control_variable_are_limited) {
    ASSERT_TRUE(bring("rr_chick"));
    std::string par = read_file("rr_chick.par");
    for (const char* line : {"  FIX dietday\n", "  0 6 0.2\n", "  7 14 1.0\n", "  15 21 2.0\n"})
        par.erase(par.find(line), std::string(line).size());
    par.replace(par.find("HET 3 day"), 9, "HOM\n 1.0");
    par.replace(par.find("day 30"), 6, "day 20000");
    for (const int values : {9999, 10000}) {
        write_file("rr_chick.par", par);
        std::string data;
        for (int i = 1; i <= values; ++i)
            data += std::to_string(i % 50 + 1) + " 1 " + std::to_string(i) + " 1 " + std::to_string(i % 7) + "\n";
        // records of a chick together
        auto lines = lines_of(data);
        std::stable_sort(lines.begin(), lines.end(),
                         [](const auto& a, const auto& b) { return std::atoi(a.c_str()) < std::atoi(b.c_str()); });
        data.clear();
        for (const auto& line : lines) data += line + "\n";
        write_file("data.dat", data);
        const auto result = run("--setup -t");
        EXPECT_EQ(result.status, values == 9999 ? 0 : 1) << result.output;
        EXPECT_EQ(result.output.find("Max. no. of values of a control variable exceeded !") != std::string::npos,
                  values == 10000)
            << result.output;
    }
}

// ---- pauses

TEST_F(option_effects, no_operator_is_needed) {
    const auto p = make_population(60, 1, 2, 0.0, 61);
    write_file("ped.dat", p.pedigree());
    write_file("data.dat", p.all_traits_lines());
    write_file("textbook_uni.par",
               "PED ped.dat\nANA UNI\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n"
               " age 40\n y1\nEND\nMOD\n FIX herd\n FIX parity\n COV age*parity(3,BSP)\n RAN animal NRM\n TR y1\nEND\n"
               "VAR animal 1\n 4.0\nVAR residual 1\n 6.0\n");
    const std::string caution =
        "*** Tarvex is work in progress !\n    The combination of features selected has not \n"
        "    been fully tested/fault trapped & may cause\n    problems - Proceed with CAUTION ! \n";
    for (const char* input : {"< /dev/null", "<&-"}) {
        const auto result = in_shell(input, {"--blup"});
        EXPECT_EQ(result.status, 0) << result.output;
        EXPECT_NE(result.output.find(caution), std::string::npos) << result.output;
        EXPECT_EQ(read_random_solutions("animal").size(), 60u) << input;
    }
}

// ---- files that cannot be read or written

// A file may be opened and then fail: that is no end of the records.
TEST_F(option_effects, files_that_fail_while_they_are_read) {
    const std::string failing = "/proc/self/mem";
    if (!std::filesystem::exists(failing)) GTEST_SKIP();
    for (const char* file : {"data.dat", "ped.dat", "textbook_uni.par"}) {
        ASSERT_TRUE(bring("textbook_uni"));
        std::filesystem::remove(file);
        std::filesystem::create_symlink(failing, file);
        const auto result = run("--blup");
        std::filesystem::remove(file);
        EXPECT_EQ(result.status, 1) << file;
        const std::string words = file[0] == 'd'   ? "***** ERROR : reading data file *****\n"
                                  : file[0] == 'p' ? " ... cannot open file as specified !"
                                                   : "Can not open parameter file !";
        EXPECT_NE(result.output.find(words), std::string::npos) << file << "\n" << result.output;
    }
}

TEST_F(option_effects, reports_on_a_full_disk) {
    for (const char* report : {"SumEstimates.out", "RnSoln_animal.dat", "Iterates", "Residuals.dat"}) {
        std::filesystem::remove(report);
        std::filesystem::create_symlink("/dev/full", report);
        const auto result = run("--aireml2");
        EXPECT_EQ(result.status, 1) << report;
        EXPECT_TRUE(result.output.ends_with("Error writing file \"" + std::string(report) + "\"\nexit \"Tarvex\"\n"))
            << result.output;
        std::filesystem::remove(report);
    }
    finish("--aireml2");
    EXPECT_EQ(in_shell("> /dev/full", {"--aireml2"}).status, 1);
    EXPECT_EQ(in_shell("> /dev/full", {"--limit"}).status, 1);
}

#if !defined(__SANITIZE_ADDRESS__)
// With less and less memory the run stops where it is, and says so.
TEST_F(option_effects, lack_of_memory) {
    ASSERT_TRUE(bring("mt3")); // enough equations to need more than the program itself
    int refused = 0;
    for (int kilobytes = 60000; kilobytes > 12000; kilobytes -= 4000) {
        for (const char* file : {"nrminvers1.bin", "eqnsorder.bin", "symbfact.bin"}) std::filesystem::remove(file);
        const auto result =
            run_binary("/bin/sh", {"-c", "ulimit -v " + std::to_string(kilobytes) + "; exec \"$0\" \"$@\"",
                                   program_path(), "--aireml1", name_});
        if (result.status == 127) break; // the program itself does not fit
        ASSERT_TRUE(result.status == 0 || result.status == 1) << kilobytes << " " << result.status << "\n"
                                                              << result.output;
        if (result.status == 0) continue;
        ++refused;
        const auto lines = lines_of(result.output);
        ASSERT_FALSE(lines.empty());
        EXPECT_FALSE(lines.back().empty());
    }
    EXPECT_GT(refused, 0);
}
#endif

TEST_F(option_effects, best_point_is_not_replaced_by_a_part_of_one) {
    finish("--aireml1");
    const std::string before = read_file("BestPoint");
    std::filesystem::create_symlink("/dev/full", "BestPoint.tmp");
    EXPECT_EQ(run("-c --aireml5").status, 1);
    EXPECT_EQ(read_file("BestPoint"), before);
}

TEST_F(option_effects, report_that_is_a_directory) {
    std::filesystem::create_directory("RnSoln_animal.dat");
    const auto result = run("--aireml2");
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.output.ends_with("Error opening file \"RnSoln_animal.dat\"\nexit \"Tarvex\"\n"))
        << result.output;
}

} // namespace
