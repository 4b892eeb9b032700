// One run a folder, inputs that no output replaces, reports that are not taken for those of a failed run, and signals.
#include "case_run.h"
#include "population.h"

#include <algorithm>

using namespace tarvex;

namespace {

class OneRunAFolder : public CaseRun {
protected:
    void SetUp() override {
        name_ = "model";
        p_ = make_population(40, 2, 1, 0.0, 81);
        fresh();
    }
    static constexpr const char* columns = " animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y1\n y2\n";
    static std::string uni(const std::string& model = " FIX herd\n COV age(1,POL)\n RAN animal NRM\n",
                           const std::string& head = "PED ped.dat\n", const std::string& tail = "") {
        return head + "ANA UNI\nDAT data.dat\n" + columns + "END\nMOD\n" + model +
               " TR y1 1 -999\nEND\nVAR animal 1\n 4.0\nVAR residual 1\n 6.0\n" + tail;
    }
    void fresh() {
        for (const auto& entry : std::filesystem::directory_iterator(".")) std::filesystem::remove_all(entry.path());
        write_file("ped.dat", p_.pedigree());
        write_file("data.dat", p_.all_traits_lines());
        write_file("model.par", uni());
    }
    static std::string replaced(std::string text, const std::string& what, const std::string& by) {
        const auto at = text.find(what);
        EXPECT_NE(at, std::string::npos) << what;
        return at == std::string::npos ? text : text.replace(at, what.size(), by);
    }
    population p_;
};

TEST_F(OneRunAFolder, InputsAreNotOverwritten) {
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

TEST_F(OneRunAFolder, ReportsOfAnEarlierRunDoNotStandBesideAFailedOne) {
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

TEST_F(OneRunAFolder, SecondRunInTheFolder) {
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

TEST_F(OneRunAFolder, SignalsEndTheRunAfterItsStep) {
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

TEST_F(OneRunAFolder, SecondSignalEndsTheRunAtOnce) {
    // the run waits for its pedigree, a pipe that nobody writes: no step comes to its end
    const auto result = run_binary(
        "/bin/bash",
        {"-c", "set -m; mkfifo slow.ped && sed 's/ped.dat/slow.ped/' model.par > slow.par; '" + program_path() +
                   "' slow > out 2>&1 & run=$!; for k in $(seq 1 100); do sleep 0.05; "
                   "grep -q process .tarvex.lock 2>/dev/null && break; done; kill -TERM $run; sleep 0.5; "
                   "kill -0 $run && echo lives; kill -TERM $run; wait $run; echo status $?"});
    EXPECT_NE(result.output.find("lives\n"), std::string::npos) << result.output;
    EXPECT_TRUE(result.output.ends_with("status 143\n")) << result.output;
    EXPECT_EQ(read_file("out").find("Stopped by"), std::string::npos);
}

TEST_F(OneRunAFolder, LimitToTheSizeOfFilesIsToldAsAFailedWrite) {
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
