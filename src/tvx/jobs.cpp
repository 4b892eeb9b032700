#include "tvx/jobs.h"

#include "tvx/children.h"
#include "tvx/commands.h"
#include "tvx/progress.h"
#include "tvx/tables.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>

namespace tvx {

namespace fs = std::filesystem;

extern const unsigned char job_rules[];
extern const unsigned long job_rules_size;

namespace {

using job_map = std::map<std::string, std::string>;

std::size_t jobs_done(const std::string& folder, const job_map& jobs) {
    std::error_code ec;
    return std::count_if(jobs.begin(), jobs.end(),
                         [&](const auto& job) { return fs::exists(folder + "/" + job.first + "/done", ec); });
}

[[noreturn]] void child(const std::string& folder, std::vector<std::string> args) {
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    // a group of its own, which a signal reaches as a whole; it ends with its parent
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const int out = open((folder + "/snakemake.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    // 126, 127: as a shell says that a command cannot be started, is not there
    if (out < 0 || chdir(folder.c_str()) != 0) _exit(126);
    dup2(out, 1);
    dup2(out, 2);
    execvp(argv[0], argv.data());
    _exit(127);
}

int start(const std::string& folder, const std::vector<std::string>& args, const job_map& jobs) {
    std::fflush(stdout);
    stop_watch watch;
    progress told("runs", jobs.size());
    const pid_t pid = fork();
    if (pid == 0) child(folder, args);
    if (pid < 0) return 126;
    int rounds = 0, next = 0;
    const int status = wait_for(pid, watch, [&] {
        // looking for files takes time on a cluster's disk: not each round
        if (told.wanted() && ++rounds > next) {
            next = rounds + 20;
            told.at(jobs_done(folder, jobs));
        }
    });
    if (watch.asked() > 0)
        throw fault{"stopped by Ctrl-C: the same command goes on with the runs that are missing", program_stopped};
    return status;
}

} // namespace

std::string shell_quoted(const std::string& text) {
    std::string quoted = "'";
    // a quote ends the quoted text, is written, and begins it again
    for (const char c : text) quoted += c == '\'' ? "'\\''" : std::string(1, c);
    return quoted + "'";
}

void job_is_new(const std::string& folder) {
    std::error_code ec;
    fs::remove(folder + "/done", ec);
}

std::vector<std::string> run_jobs(const std::string& folder, const std::map<std::string, std::string>& jobs,
                                  const job_settings& settings) {
    // anew each time: the folder may have rules of another version
    write_text(folder + "/Snakefile", {reinterpret_cast<const char*>(job_rules), job_rules_size});
    write_text(folder + "/jobs.json", nlohmann::json{{"jobs", jobs}}.dump(1, '\t') + "\n");
    const int n =
        settings.jobs > 0 ? settings.jobs : static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    // jobs that are done stay done, those that were cut off begin anew
    std::vector<std::string> args{"snakemake",        "-s",           "Snakefile", "-j",
                                  std::to_string(n),  "--keep-going", "--nolock",  "--rerun-incomplete",
                                  "--rerun-triggers", "mtime"};
    if (!settings.profile.empty()) args.insert(args.end(), {"--profile", settings.profile});
    if (!display.quiet && !display.json) {
        std::printf("%zu runs by Snakemake, %d at a time; %s/snakemake.log\n", jobs.size(), n, folder.c_str());
        std::fflush(stdout);
    }
    const int status = start(folder, args, jobs);
    if (status == 127) throw fault{"Snakemake is not installed: apt-get install snakemake", program_stopped};
    std::vector<std::string> done;
    std::size_t failed = 0;
    // the file "done" tells, not the status: with --keep-going one failed job makes that of the whole 1
    for (const auto& [name, command] : jobs) {
        if (fs::exists(folder + "/" + name + "/done"))
            done.push_back(name);
        else if (++failed <= 3 && !display.quiet && !display.json)
            std::printf("failed: %s/%s/job.log\n", folder.c_str(), name.c_str());
    }
    if (done.empty()) throw fault{"no job came to its end: see " + folder + "/snakemake.log", program_stopped};
    return done;
}

} // namespace tvx
