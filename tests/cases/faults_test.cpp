// The n-th read, write, rename, sync or allocation fails, or the process is killed or asked to end at its n-th write:
// the run says so and stops, or its reports are those of a run without a fault; a run that comes after it has those
// reports. TVX_FAULTS sets how many calls of a kind are tried; if it does not, all reads and some 12 of the others.
#include "support/paths.h"
#include "used_folder.h"

#include <cstdlib>
#include <iostream>

#if !defined(__SANITIZE_ADDRESS__)

using namespace tarvex;

namespace {

class failing_calls : public used_folder {
protected:
    void SetUp() override {
        used_folder::SetUp();
        const population p = make_population(60, 2, 1, 0.2, 91);
        s_ = {
            p.pedigree(), p.all_traits_lines(),
            "PED ped.dat\nANA MUV 2\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y1\n"
            " y2\nEND\nMOD EQ\n FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\nVAR animal 2\n 4.5 1.5 "
            "3.5\n"
            "VAR residual 2\n 6.0 2.0 5.5\n",
            "--aireml4"};
        truth_ = in_fresh_folder(s_);
        ASSERT_EQ(truth_.at("status"), "0") << told_;
    }
    // The run with a fault: calls of the kind where none fails.
    reports with_fault(const std::string& kind, long n) {
        setenv("TVX_FAULT", (kind + ":" + std::to_string(n)).c_str(), 1);
        setenv("TVX_FAULT_COUNT", "calls", 1);
        setenv("LD_PRELOAD", fault_library_path().c_str(), 1);
        const reports found = outcome(s_);
        for (const char* name : {"TVX_FAULT", "TVX_FAULT_COUNT", "LD_PRELOAD"}) unsetenv(name);
        return found;
    }
    static long calls() { return std::stol(read_file("calls")); }
    void clear() {
        for (const auto& entry : std::filesystem::directory_iterator(".")) std::filesystem::remove_all(entry.path());
    }
    // Some of the calls, the first among them.
    void sweep(const std::string& kind, bool fresh, int some = 12) {
        const char* wanted = std::getenv("TVX_FAULTS");
        const long most = wanted ? std::max(1, std::atoi(wanted)) : some;
        if (fresh) clear();
        with_fault(kind, 0);
        const long n = calls(), step = std::max(1L, n / most);
        EXPECT_GT(n, 0) << kind;
        int told = 0, tried = 0;
        for (long k = 1; k <= n; k += step) {
            if (fresh) clear();
            ++tried;
            const reports found = with_fault(kind, k);
            if (found.at("status") == "0") {
                EXPECT_EQ(found, truth_) << kind << " " << k << " of " << n << "\n" << told_;
            } else {
                ++told;
                EXPECT_TRUE(kind == "kill" || !lines_of(told_).empty()) << kind << " " << k;
            }
            if (kind == "term" && found.at("status") != "0") {
                EXPECT_EQ(found.at("status"), "143") << k;
                EXPECT_NE(told_.find("Stopped by SIGTERM : "), std::string::npos) << told_;
            }
            EXPECT_EQ(outcome(s_), truth_) << "the run after " << kind << " " << k << " of " << n;
        }
        if (wanted) std::cout << kind << ": " << n << " calls, " << tried << " tried, " << told << " stopped\n";
    }
    study s_;
    reports truth_;
};

// One thread that the system refuses: the run goes on with those that there are, and says so.
TEST_F(failing_calls, starts_of_threads) {
    s_.options += " --threads4";
    const reports truth = in_fresh_folder(s_);
    with_fault("thread", 0);
    const long n = calls();
    EXPECT_EQ(n, 3) << "four threads with the first, and none later";
    for (long k = 1; k <= n; ++k) {
        clear();
        EXPECT_EQ(with_fault("thread", k), truth) << k;
        EXPECT_NE(told_.find("***** WARNING : " + std::to_string(k) + " of 4 threads : the system has refused"),
                  std::string::npos)
            << told_;
    }
}

TEST_F(failing_calls, reads) { sweep("read", true, 1000); } // all: one in a hundred is another place in the program
TEST_F(failing_calls, reads_in_a_used_folder) { sweep("read", false); }
TEST_F(failing_calls, opens) { sweep("open", true, 30); }
TEST_F(failing_calls, opens_in_a_used_folder) { sweep("open", false); }
TEST_F(failing_calls, writes) { sweep("write", true); }
TEST_F(failing_calls, renames) { sweep("rename", true); }
TEST_F(failing_calls, syncs) { sweep("fsync", true); }
TEST_F(failing_calls, allocations) { sweep("alloc", true); }
TEST_F(failing_calls, kills) { sweep("kill", true); }
TEST_F(failing_calls, kills_in_a_used_folder) { sweep("kill", false); }
TEST_F(failing_calls, signals) { sweep("term", true); }

} // namespace

#endif
