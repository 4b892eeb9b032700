// What a user at a terminal sees and does: progress, and Ctrl-C at any moment.
#include "tvx/companion.h"
#include "tvx/progress.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <nlohmann/json.hpp>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace tvx_tests;
using nlohmann::json;
using tarvex::read_file;
using tarvex::write_file;
namespace fs = std::filesystem;

[[noreturn]] void execute(const std::string& binary, std::vector<std::string> args) {
    args.insert(args.begin(), binary);
    std::vector<char*> list;
    for (auto& a : args) list.push_back(a.data());
    list.push_back(nullptr);
    execv(list[0], list.data());
    _exit(127);
}

// What a child writes to a terminal of its own.
std::string on_terminal(const std::function<void()>& child) {
    const int own = posix_openpt(O_RDWR | O_NOCTTY);
    if (own < 0 || grantpt(own) != 0 || unlockpt(own) != 0) return "no terminal";
    const std::string name = ptsname(own);
    std::fflush(stdout); // or the child shows what the test has not yet shown
    const pid_t pid = fork();
    if (pid == 0) {
        setsid();
        const int other = open(name.c_str(), O_RDWR);
        for (int i = 0; i < 3; ++i) dup2(other, i);
        close(own);
        child();
        _exit(0);
    }
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = read(own, buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<std::size_t>(n));
    close(own);
    waitpid(pid, nullptr, 0);
    return text;
}

class tvx_terminal : public tarvex::tarvex_test {
protected:
    void TearDown() override {
        unsetenv("TVX_TARVEX");
        tarvex_test::TearDown();
    }
    static void write_small() {
        write_file("a.par",
                   "ANA UNI\nDAT a.dat\n animal 9\n herd 3\n y\nEND\nPED a.ped\nMOD\n FIX herd\n RAN animal NRM\n"
                   " TRAIT y 1 -999\nEND\nVAR animal 1\n 3\nVAR residual 1\n 7\n");
        write_file("a.dat", "3 1 5\n4 2 6\n5 1 7\n6 2 8\n");
        write_file("a.ped", "3 1 2\n4 1 2\n5 3 4\n6 3 4\n");
    }
};

TEST_F(tvx_terminal, bars_show_how_far_long_work_is) {
    const std::string text = on_terminal([] {
        tvx::progress p("markers", 200);
        p.at(1); // within two seconds: nothing
        usleep(2100000);
        p.at(100);
        p.at(120); // not twice in half a second
    });
    EXPECT_TRUE(text.starts_with("\rmarkers [###############...............] 100/200")) << text;
    EXPECT_FALSE(holds(text, "120/200"));
    EXPECT_TRUE(text.ends_with(std::string(78, ' ') + "\r")) << text; // wiped out
}

TEST_F(tvx_terminal, rounds_of_long_runs_are_shown_on_a_terminal_only) {
    write_small();
    fs::create_directory("bin"); // without the program beside it
    fs::copy_file(TVX_COMPANION, "bin/tvx");
    write_file("slow", "#!/bin/sh\necho '***AI iterate     4  log L =  -12.500000      D =   1.0'\nsleep 3\nexit 7\n");
    fs::permissions("slow", fs::perms::owner_all);
    setenv("TVX_TARVEX", fs::absolute("slow").c_str(), 1);
    const std::string tvx = fs::absolute("bin/tvx").string();
    const auto text = on_terminal([&] { execute(tvx, {"run", "a.par"}); });
    EXPECT_TRUE(holds(text, "\rAI iterate     4  log L =  -12.500000")) << text;
    const auto quiet = on_terminal([&] { execute(tvx, {"--quiet", "run", "a.par"}); });
    EXPECT_FALSE(holds(quiet, "\rAI iterate")) << quiet;
    const auto pipe = tarvex::run_binary(tvx, {"run", "a.par"});
    EXPECT_EQ(pipe.status, 4);
    EXPECT_FALSE(holds(pipe.output, "\rAI iterate")) << pipe.output;
}

struct stopped_child {
    int status = -1;
    std::string output;
};

// Starts tvx, sends SIGINT when `ready` holds, and waits for its end.
stopped_child interrupt_when(const std::vector<std::string>& args, const std::function<bool()>& ready) {
    write_file("output.txt", "");
    const pid_t pid = fork();
    if (pid == 0) {
        const int out = open("output.txt", O_WRONLY | O_TRUNC);
        dup2(out, 1);
        dup2(out, 2);
        execute(TVX_COMPANION, args);
    }
    int state = 0;
    for (int i = 0; i < 60000 && !ready() && waitpid(pid, &state, WNOHANG) == 0; ++i) usleep(1000);
    kill(pid, SIGINT);
    waitpid(pid, &state, 0);
    return {WIFEXITED(state) ? WEXITSTATUS(state) : 128 + WTERMSIG(state), read_file("output.txt")};
}

// A search by many rounds of EM is stopped; the same command goes on in the folder and ends where a free run ends.
TEST_F(tvx_terminal, runs_that_are_stopped_go_on) {
    auto p = make_population(60, 400, 3);
    std::string data, pedigree = hand_pedigree(p);
    for (std::size_t k = 61; k <= p.animals.size(); ++k)
        data += std::to_string(k) + " " + std::to_string(p.animals[k - 1].herd) + " " +
                number_text(p.animals[k - 1].genetic + p.animals[k - 1].herd + 4.0 * p.normal()) + "\n";
    write_small();
    std::string par = read_file("a.par");
    par.replace(par.find("animal 9"), 8, "animal 9999");
    par.replace(par.find("herd 3"), 6, "herd 6");
    write_file("a.par", par);
    write_file("a.dat", data);
    write_file("a.ped", pedigree);
    const std::vector<std::string> args{"run", "a.par", "--option=--emalg150,1e-14"};
    std::string folder;
    const auto rounds = [&] {
        if (folder.empty() && fs::exists("runs"))
            for (const auto& e : fs::directory_iterator("runs")) folder = e.path().string();
        return !folder.empty() && fs::exists(folder + "/BestPoint") && fs::exists(folder + "/tarvex.log") &&
               read_file(folder + "/tarvex.log").find("round       5") != std::string::npos;
    };
    const auto stopped = interrupt_when(args, rounds);
    EXPECT_EQ(stopped.status, 4) << stopped.output;
    EXPECT_TRUE(holds(stopped.output, "stopped by Ctrl-C: the same command goes on in ./runs/001-")) << stopped.output;
    ASSERT_FALSE(folder.empty());
    EXPECT_TRUE(holds(read_file(folder + "/tarvex.log"), "Stopped by SIGINT")) << "the program was not asked to end";
    EXPECT_FALSE(fs::exists(folder + "/estimates.json"));
    const auto on = run_tvx(args);
    EXPECT_EQ(on.status, 0) << on.output;
    EXPECT_TRUE(holds(on.output, "Going on in ./runs/001-")) << on.output;
    const double after = json::parse(read_file(folder + "/estimates.json"))["likelihood"]["log_l"];
    const auto free = run_tvx({"--json", "run", "a.par"});
    ASSERT_EQ(free.status, 0) << free.output;
    EXPECT_NEAR(after, json::parse(free.output)["log_l"].get<double>(), 2e-3);
}

// prep that is stopped leaves a whole study or none, and what was there before.
TEST_F(tvx_terminal, prep_that_is_stopped_leaves_no_halves) {
    std::string table = "id,herd,weight\n";
    for (int i = 0; i < 60000; ++i)
        table +=
            "a" + std::to_string(i) + ",h" + std::to_string(i % 97) + "," + std::to_string(i * 7919LL % 1000) + "\n";
    write_file("t.csv", table);
    write_file("p.csv", "animal,sire,dam\na1,s,d\n");
    int whole = 0, none = 0, told = 0;
    for (int wait = 0; wait < 24; ++wait) {
        fs::remove_all("t");
        const auto start = std::chrono::steady_clock::now();
        const auto over = [&] {
            return std::chrono::steady_clock::now() - start > std::chrono::milliseconds(wait * wait);
        };
        const auto r = interrupt_when({"prep", "t.csv", "weight ~ herd + nrm(id)", "-p", "p.csv"}, over);
        if (!fs::exists("t")) {
            ++none;
            if (r.output.empty()) continue; // the program had not begun
            ++told;
            EXPECT_EQ(r.status, 1) << r.output;
            EXPECT_EQ(r.output,
                      "stopped by Ctrl-C: what stood there before is as it was; the same command begins anew\n");
            continue;
        }
        ++whole;
        for (const char* file : {"t.par", "t.dat", "t.ped", "lines.tsv", "pedigree.tsv", "study.json"})
            EXPECT_TRUE(fs::exists(std::string("t/") + file)) << file;
    }
    EXPECT_GT(none, 0);
    EXPECT_GT(told, 0);
    ASSERT_EQ(run_tvx({"--quiet", "prep", "t.csv", "weight ~ herd + nrm(id)", "-p", "p.csv", "--force"}).status, 0);
    EXPECT_FALSE(fs::exists("t.part"));
    EXPECT_EQ(tarvex::lines_of(read_file("t/t.dat")).size(), 60000u) << whole;
}

} // namespace
