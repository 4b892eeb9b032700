#include "tvx/program.h"

#include "support/digest.h"
#include "tvx/children.h"
#include "tvx/commands.h"
#include "tvx/parfile_edit.h"
#include "tvx/progress.h"
#include "tvx/study.h"
#include "tvx/tables.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/prctl.h>
#include <unistd.h>

namespace tvx {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void child(const std::string& folder, const std::vector<std::string>& args, const std::string& log) {
    std::vector<std::string> all{program_path()};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    setpgid(0, 0); // Ctrl-C comes to this program alone, which passes it on
    // a search does not outlive the command that was to read its results
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const int in = open("/dev/null", O_RDONLY);
    const bool there = chdir(folder.c_str()) == 0;
    const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    // 126, 127: as a shell says that a command cannot be started, is not there
    if (!there || in < 0 || out < 0) _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    dup2(out, 2);
    // interrupts may have been ignored here
    signal(SIGINT, SIG_DFL);
    execvp(argv[0], argv.data());
    _exit(127);
}

// The last line of rounds in a log, for the terminal.
std::string last_round(const std::string& file) {
    std::ifstream in(file);
    std::string last = "setting up";
    for (std::string line; std::getline(in, line);)
        // rounds and iterates begin so
        if (line.starts_with("***") && line.find("log L =") != std::string::npos) last = line.substr(3, 55);
    return last;
}

} // namespace

std::string parameter_file(const std::string& place) {
    std::string name = place;
    while (name.size() > 1 && name.back() == '/') name.pop_back();
    if (fs::is_regular_file(name)) return name;
    if (fs::is_regular_file(name + ".par")) return name + ".par";
    if (fs::is_directory(name)) {
        if (has_study(name)) return name + "/" + read_study(name, false).name + ".par";
        const std::string same = name + "/" + fs::path(name).filename().string() + ".par";
        if (fs::is_regular_file(same)) return same;
    }
    throw fault{"no parameter file \"" + place + "\": give NAME.par or the folder of a study"};
}

std::vector<std::string> files_of_analysis(const std::string& parameter_file) {
    const fs::path folder = fs::path(parameter_file).parent_path();
    std::vector<std::string> files{fs::path(parameter_file).filename().string()};
    const auto add = [&](const std::string& name) {
        if (fs::path(name).is_absolute() || name.find('/') != std::string::npos)
            throw fault{"\"" + name +
                        "\" lies in another folder: put all files of the analysis beside the parameter file"};
        if (fs::is_regular_file(folder / name) && std::find(files.begin(), files.end(), name) == files.end())
            files.push_back(name);
    };
    std::istringstream in(read_text(parameter_file));
    for (std::string line; std::getline(in, line);) {
        const auto w = words_of(line);
        if (w.size() < 2) continue;
        const std::string key = key_of(w[0]);
        if (key == "DAT" || key == "PED" || key == "STA") add(w[1]);
        if (key == "RAN" && w.size() > 2 && key_of(w[2]) == "GIN") {
            const std::string effect = w[1].substr(0, w[1].find('('));
            add(effect + ".gin");
            add(effect + ".codes");
        }
        if (key == "VAR" && w.size() > 3 && key_of(w[3]) == "IND") {
            // classes of residual variances: the usual name, and one that is given
            add("MEVariances");
            if (w.size() > 5) add(w[5]);
        }
        // tables of basis functions that the user gives
        if (key == "RAN" && w[1].find("USR") != std::string::npos)
            for (const auto& entry : fs::directory_iterator(folder.empty() ? "." : folder))
                if (entry.path().extension() == ".baf") add(entry.path().filename().string());
    }
    return files;
}

std::string program_path() {
    std::error_code ec;
    const fs::path own = fs::read_symlink("/proc/self/exe", ec);
    // beside this program; else by name, else on the path
    if (!ec && fs::is_regular_file(own.parent_path() / "tarvex")) return (own.parent_path() / "tarvex").string();
    if (const char* named = std::getenv("TVX_TARVEX")) return named;
    return "tarvex";
}

std::string own_path() {
    std::error_code ec;
    const fs::path own = fs::read_symlink("/proc/self/exe", ec);
    return ec ? "tvx" : own.string();
}

std::string sum_of_analysis(const std::string& parameter_file, const std::vector<std::string>& options) {
    tarvex::digest_maker sum;
    const fs::path folder = fs::path(parameter_file).parent_path();
    for (const auto& name : files_of_analysis(parameter_file)) {
        sum.add(name);
        sum.add(read_text((folder / name).string()));
    }
    for (const auto& o : options) sum.add(o);
    // another version of the program is another run
    if (const std::string program = program_path(); fs::is_regular_file(program)) sum.add(read_text(program));
    return tarvex::hex(sum.value());
}

program_run run_program(const std::string& folder, const std::vector<std::string>& args, const std::string& log) {
    const auto start = std::chrono::steady_clock::now();
    stop_watch watch;
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) child(folder, args, log);
    if (pid < 0) throw fault{"cannot start the program", program_stopped};
    program_run run;
    {
        progress told("");
        double next = 2.0; // the log is read twice a second
        run.status = wait_for(pid, watch, [&] {
            run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            if (!told.wanted() || run.seconds < next) return;
            next = run.seconds + 0.5;
            told.note(last_round(folder + "/" + log));
        });
    }
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (run.status == 127 || run.status == 126)
        throw fault{"cannot start the program \"" + program_path() + "\": install tarvex beside tvx", program_stopped};
    if (watch.asked() || run.status == 128 + SIGINT) throw interrupted{};
    return run;
}

std::string last_lines(const std::string& file, int n) {
    std::ifstream in(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) lines.push_back(line);
    std::string text;
    const std::size_t most = n, from = lines.size() > most ? lines.size() - most : 0;
    for (std::size_t i = from; i < lines.size(); ++i) text += "  " + lines[i] + "\n";
    return text;
}

} // namespace tvx
