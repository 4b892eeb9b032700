// One run a folder, inputs that no output replaces, reports that are not taken for those of a failed run, and signals.
#include "small_run.h"
#include "support/paths.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

using namespace tarvex;

namespace {

class one_run_a_folder : public small_run {};

TEST_F(one_run_a_folder, inputs_are_not_overwritten) {
    for (const char* output : {"Residuals.dat", "SumEstimates.out", "recoded1.bin", "RnSoln_animal.dat", "BestPoint"}) {
        for (const bool link : {false, true}) {
            const std::string name = link ? "records.txt" : output;
            write_file(name, p_.all_traits_lines());
            if (link) std::filesystem::create_hard_link(name, output);
            write_file("model.par", replaced(uni(), "DAT data.dat", "DAT " + name));
            const auto result = run("--aireml2");
            EXPECT_EQ(result.status, 1) << output;
            EXPECT_NE(
                result.output.find("***** ERROR : Input file \"" + name + "\" is the output file \"" + output + "\""),
                std::string::npos)
                << result.output;
            EXPECT_EQ(read_file(name), p_.all_traits_lines());
            fresh();
        }
    }
}

// Starting values and a supplied inverse are inputs too.
TEST_F(one_run_a_folder, other_inputs_are_not_overwritten) {
    const std::string gin = "0.0\n1 1 1.0\n2 2 1.0\n3 3 1.0\n4 4 1.0\n", values = "4.0\n1.0\n6.0\n";
    std::string par = uni(" RAN animal NRM\n RAN herd GIN\n MEA\n", "STA start\nPED ped.dat\n");
    par = replaced(replaced(par, "VAR animal 1\n 4.0\n", "VAR animal 1\nVAR herd 1\n"), "VAR residual 1\n 6.0\n",
                   "VAR residual 1\n");
    const auto refused = [&](const std::string& input, const std::string& output) {
        const std::string before = read_file(input);
        const auto result = run("--aireml2 --json");
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(
            result.output.find("***** ERROR : Input file \"" + input + "\" is the output file \"" + output + "\""),
            std::string::npos)
            << result.output;
        EXPECT_EQ(read_file(input), before);
    };
    for (const char* output : {"SumModel.out", "nrminvers1.bin", "Iterates", "Results.json", "OperationCounts"})
        for (const char* input : {"start", "herd.gin", "ped.dat", "data.dat"}) {
            fresh();
            write_file("start", values);
            write_file("herd.gin", gin);
            write_file("model.par", par);
            std::filesystem::create_hard_link(input, output);
            refused(input, output);
        }
    fresh();
    write_file("SumModel.out", values);
    write_file("herd.gin", gin);
    write_file("model.par", replaced(par, "STA start", "STA SumModel.out"));
    refused("SumModel.out", "SumModel.out");
}

TEST_F(one_run_a_folder, what_only_reads_needs_no_lock) {
    finish("--aireml2");
    const int file = open(".tarvex.lock", O_RDWR);
    ASSERT_GE(file, 0);
    ASSERT_EQ(flock(file, LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(run("--aireml2").status, 1);
    finish("--best");
    finish("--limit");
    close(file);
    finish("--aireml2");
}

#if !defined(__SANITIZE_ADDRESS__)
TEST_F(one_run_a_folder, file_system_without_locks) {
    setenv("TVX_FAULT", "flock:1", 1);
    setenv("LD_PRELOAD", fault_library_path().c_str(), 1);
    const auto result = finish("--aireml2");
    for (const char* name : {"TVX_FAULT", "LD_PRELOAD"}) unsetenv(name);
    EXPECT_NE(result.output.find("File system without locks ("), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("make sure that no other run works in this folder\n"), std::string::npos);
}
#endif

TEST_F(one_run_a_folder, reports_of_an_earlier_run_do_not_stand_beside_a_failed_one) {
    finish("--aireml2");
    const std::string solutions = read_file("RnSoln_animal.dat");
    write_file("data.dat", p_.all_traits_lines() + "not a record\n");
    EXPECT_EQ(run("--aireml2").status, 1);
    for (const char* report : {"RnSoln_animal.dat", "SumEstimates.out", "FixSolutions.out", "Residuals.dat"}) {
        EXPECT_FALSE(std::filesystem::exists(report)) << report;
        EXPECT_TRUE(std::filesystem::exists(std::string(report) + ".old")) << report;
    }
    EXPECT_EQ(read_file("RnSoln_animal.dat.old"), solutions);
}

TEST_F(one_run_a_folder, second_run_in_the_folder) {
    // the first run waits for its pedigree, a pipe that nobody writes
    const auto result = run_binary(
        "/bin/sh", {"-c", "mkfifo slow.ped && sed 's/ped.dat/slow.ped/' model.par > slow.par && { '" + program_path() +
                              "' slow > slow.out 2>&1 & first=$!; "
                              "for k in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do sleep 0.1; "
                              "grep -q process .tarvex.lock 2>/dev/null && break; done; cat .tarvex.lock; '" +
                              program_path() + "' model; echo status $?; kill -9 $first; wait $first; '" +
                              program_path() + "' --aireml2 model > third.out; echo status $?; }"});
    EXPECT_NE(result.output.find("***** ERROR : Another run is at work in this folder : process "), std::string::npos)
        << result.output;
    EXPECT_NE(result.output.find(", parameter file \"slow.par\"\n"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("status 1\n"), std::string::npos) << result.output;
    EXPECT_TRUE(result.output.ends_with("status 0\n")) << "the lock of a dead process is none\n" << result.output;
}

TEST_F(one_run_a_folder, signals_end_the_run_after_its_step) {
    p_ = make_population(400, 2, 2, 0.2, 82);
    fresh();
    for (const auto& [name, number] : std::vector<std::pair<std::string, int>>{{"INT", 2}, {"TERM", 15}, {"HUP", 1}}) {
        std::filesystem::remove("BestPoint");
        const auto result = run_binary(
            "/bin/bash", {"-c", "set -m; '" + program_path() +
                                    "' --emalg5000,1e-30 model > out & run=$!; for k in $(seq 1 200); do sleep 0.05; "
                                    "[ -e BestPoint ] && break; done; kill -" +
                                    name + " $run; wait $run; echo status $?"});
        EXPECT_NE(result.output.find("status " + std::to_string(128 + number) + "\n"), std::string::npos)
            << result.output;
        EXPECT_NE(read_file("out").find("Stopped by SIG" + name +
                                        " : \"BestPoint\" holds the best point so far, go on with option \"-c\"\n"),
                  std::string::npos)
            << read_file("out");
        finish("--best");
    }
}

TEST_F(one_run_a_folder, second_signal_ends_the_run_at_once) {
    // the run waits for its pedigree, a pipe that nobody writes: no step comes to its end
    for (const auto& [second, number] : std::vector<std::pair<std::string, int>>{{"TERM", 15}, {"INT", 2}}) {
        fresh();
        const auto result = run_binary(
            "/bin/bash",
            {"-c", "set -m; mkfifo slow.ped && sed 's/ped.dat/slow.ped/' model.par > slow.par; '" + program_path() +
                       "' slow > out 2>&1 & run=$!; for k in $(seq 1 100); do sleep 0.05; "
                       "grep -q process .tarvex.lock 2>/dev/null && break; done; kill -TERM $run; sleep 0.5; "
                       "kill -0 $run && echo lives; kill -" +
                       second + " $run; wait $run; echo status $?"});
        EXPECT_NE(result.output.find("lives\n"), std::string::npos) << result.output;
        EXPECT_TRUE(result.output.ends_with("status " + std::to_string(128 + number) + "\n")) << result.output;
        EXPECT_EQ(read_file("out").find("Stopped by"), std::string::npos);
    }
}

TEST_F(one_run_a_folder, signal_between_replicates_of_a_simulation) {
    p_ = make_population(400, 2, 2, 0.2, 82);
    fresh();
    const auto result = run_binary(
        "/bin/bash", {"-c", "set -m; '" + program_path() +
                                "' --simul999 model > out & run=$!; for k in $(seq 1 200); do sleep 0.02; "
                                "[ -e SimData002.dat ] && break; done; kill -INT $run; wait $run; echo status $?"});
    EXPECT_TRUE(result.output.ends_with("status 130\n")) << result.output;
    EXPECT_NE(read_file("out").find("Stopped by SIGINT : no point of this run is stored, start it again\n"),
              std::string::npos)
        << read_file("out");
    EXPECT_FALSE(std::filesystem::exists("SimData999.dat"));
}

TEST_F(one_run_a_folder, limit_to_the_size_of_files_is_told_as_a_failed_write) {
    p_ = make_population(400, 2, 2, 0.2, 82);
    fresh();
    for (const char* limit : {"1", "4", "16"}) {
        const auto result =
            run_binary("/bin/bash", {"-c", "ulimit -f " + std::string(limit) + "; '" + program_path() +
                                               "' --aireml2 model 2>&1 | cat; echo status ${PIPESTATUS[0]}"});
        EXPECT_TRUE(result.output.ends_with("status 1\n")) << limit << "\n" << result.output;
        EXPECT_TRUE(result.output.find("Error writing file \"") != std::string::npos ||
                    result.output.find("Cannot write file \"") != std::string::npos)
            << limit << "\n"
            << result.output;
    }
}

} // namespace
