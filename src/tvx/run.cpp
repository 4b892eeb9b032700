#include "tvx/run.h"

#include "tvx/check.h"
#include "tvx/commands.h"
#include "tvx/program.h"
#include "tvx/report.h"
#include "tvx/tables.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <optional>

namespace tvx {

namespace fs = std::filesystem;

namespace {

constexpr const char* log_name = "tarvex.log";

// What is tried in turn while the search has not arrived.
struct attempt {
    std::vector<std::string> options;
    const char* what;
};
// EM cannot lower log L and does not leave the parameter space: slow, but sure where Newton steps fail.
const attempt further[] = {
    {{"-c", "--pxai20"}, "20 rounds of PX-EM from the best point, then average information"},
    {{"-c", "--emai60"}, "60 rounds of EM, then average information"},
};

struct run_place {
    std::string source, file, folder, sum;
    std::vector<std::string> options;
    std::optional<study> made_by;
    std::string study_sum; // blank: no study
};

bool finished(const std::string& folder) {
    if (!fs::exists(folder + "/run.json") || !fs::exists(folder + "/estimates.json")) return false;
    return read_json_file(folder + "/run.json").value("finished", false);
}

// Folder of these inputs: that of an earlier run with the same sum, or the next number.
void choose_folder(run_place& p, bool again) {
    const std::string runs = p.source + "/runs", tail = "-" + p.sum.substr(0, 12);
    int last = 0;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(runs, ec)) {
        const std::string name = entry.path().filename().string();
        if (name.size() > 3) last = std::max(last, std::atoi(name.substr(0, 3).c_str()));
        // the same inputs: that folder, unless it is finished and shall be run again
        if (name.ends_with(tail) && !(again && finished(entry.path().string()))) p.folder = entry.path().string();
    }
    if (!p.folder.empty()) return;
    char number[16];
    std::snprintf(number, sizeof number, "%03d", last + 1);
    p.folder = runs + "/" + number + tail;
}

void copy_inputs(const run_place& p) {
    std::error_code ec;
    fs::create_directories(p.folder, ec);
    const auto files = files_of_analysis(p.file);
    for (const auto& name : files) {
        if (ec) break;
        fs::copy_file(fs::path(p.file).parent_path() / name, fs::path(p.folder) / name,
                      fs::copy_options::overwrite_existing, ec);
    }
    if (ec) throw fault{"cannot copy the inputs to \"" + p.folder + "\": " + ec.message()};
    if (p.made_by) copy_study(*p.made_by, p.folder + "/study");
}

// run.json: what was done in the folder, written anew after each step, so that a run that is cut off can go on.
class run_log {
public:
    explicit run_log(const run_place& p) : file_(p.folder + "/run.json") {
        d_ = {{"format", "tvx-run"}, {"sum", p.sum}, {"source", "../.."}, {"finished", false}};
        d_["options"] = p.options;
        if (!p.study_sum.empty()) d_["study"] = p.study_sum;
        // a run that goes on keeps what was tried
        if (fs::exists(file_)) {
            const json earlier = read_json_file(file_);
            if (earlier.contains("attempts")) d_["attempts"] = earlier["attempts"];
        }
        if (!d_.contains("attempts")) d_["attempts"] = json::array();
        write();
    }
    void add(const json& entry) {
        d_["attempts"].push_back(entry);
        write();
    }
    void finish(const judgement& j) {
        d_["verdict"] = j.verdict;
        d_["text"] = j.text;
        d_["details"] = j.details;
        d_["finished"] = true;
        write();
    }

private:
    void write() const { write_text(file_, d_.dump(1, '\t') + "\n"); }
    std::string file_;
    json d_;
};

void say(const std::string& text) {
    if (!display.quiet && !display.json) std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

[[noreturn]] void stopped(const run_place& p, const program_run& run) {
    throw fault{"the program stopped (status " + std::to_string(run.status) + "):\n" +
                    last_lines(p.folder + "/" + log_name, 6) + "all it said stands in " + p.folder + "/" + log_name,
                program_stopped};
}

// One run of the program with Results.json; false where it did not come to its end.
bool one_run(const run_place& p, std::vector<std::string> options, const char* keep, run_log& log, program_run& run) {
    options.push_back("--json");
    const std::string name = fs::path(p.file).filename().string();
    // options of the study, then those of the user, then those of the attempt: the last one wins
    std::vector<std::string> args = p.options;
    args.insert(args.end(), options.begin(), options.end());
    args.push_back(name);
    run = run_program(p.folder, args, log_name);
    const std::string results = p.folder + "/Results.json";
    const bool good = run.status == 0 && fs::exists(results);
    json entry = {{"options", args}, {"status", run.status}, {"seconds", run.seconds}};
    if (good) {
        std::error_code ec;
        // a name that the next run of the program does not write over
        fs::rename(results, p.folder + "/" + keep, ec);
        if (ec) throw fault{"cannot write \"" + p.folder + "/" + keep + "\": " + ec.message()};
    }
    if (good && std::string(keep) == "estimates.json") {
        const run_results r = read_run(p.folder);
        entry["verdict"] = judge(r).verdict;
        entry["log_l"] = r.estimates["likelihood"]["log_l"];
    }
    log.add(entry);
    return good;
}

// All faults of the inputs end the run; what is only doubtful is told.
void check_inputs(const run_place& p) {
    const auto findings = check_analysis(p.file);
    if (findings.empty()) return;
    if (std::any_of(findings.begin(), findings.end(), [](const finding& f) { return f.fault(); }))
        throw fault{findings_text(findings) + "nothing was run: \"" + p.file + "\" has faults"};
    say(findings_text(findings));
}

judgement search(const run_place& p, run_log& log) {
    program_run run;
    // stopped before: its best point is kept by the program
    const bool go_on = fs::exists(p.folder + "/BestPoint");
    if (go_on) say("Going on in " + p.folder);
    if (!one_run(p, go_on ? std::vector<std::string>{"-c"} : std::vector<std::string>{}, "estimates.json", log, run))
        stopped(p, run);
    judgement j = judge(read_run(p.folder));
    for (const attempt& a : further) {
        if (j.verdict != "not arrived") break;
        say(j.text + " Trying " + a.what + ".");
        if (one_run(p, a.options, "estimates.json", log, run)) j = judge(read_run(p.folder));
    }
    if (j.verdict == "not arrived")
        j.details.push_back("tried: the search, PX-EM rounds, EM rounds. Fit a lower rank (tvx rank), leave an effect "
                            "out (tvx lrt --drop), or bring the traits to like scales.");
    return j;
}

} // namespace

run_outcome run_analysis(const std::string& place, const std::vector<std::string>& options, bool again, bool checked) {
    run_place p;
    p.file = parameter_file(place);
    p.source = fs::path(p.file).parent_path().string();
    if (p.source.empty()) p.source = ".";
    if (has_study(p.source)) {
        p.made_by = read_study(p.source);
        p.study_sum = sum_of_study(*p.made_by);
        p.options = p.made_by->run_options;
    }
    p.options.insert(p.options.end(), options.begin(), options.end());
    std::vector<std::string> summed = p.options; // the same codes may have other names
    if (p.made_by) summed.push_back(p.study_sum);
    p.sum = sum_of_analysis(p.file, summed);
    choose_folder(p, again);
    run_outcome outcome{p.folder, finished(p.folder), {}};
    // the same inputs give the same results: nothing is computed twice
    if (outcome.known) {
        outcome.verdict = judge(read_run(p.folder));
        return outcome;
    }
    // faults end here, before a folder is made
    if (!checked) check_inputs(p);
    try {
        copy_inputs(p);
        run_log log(p);
        outcome.verdict = search(p, log);
        program_run run;
        // solutions with error variances at the estimates
        // the search has no inverse at its end, which accuracies need
        if (!one_run(p, {"-c", "--blup"}, "blup.json", log, run))
            outcome.verdict.details.push_back("no accuracies: the program refused the solutions at these estimates; " +
                                              p.folder + "/" + log_name + " says why");
        log.finish(outcome.verdict);
    } catch (const interrupted&) {
        throw fault{"stopped by Ctrl-C: the same command goes on in " + p.folder, program_stopped};
    }
    return outcome;
}

namespace {

struct run_choice {
    std::string place;
    std::vector<std::string> options;
    bool again = false;
};

int run_command(const run_choice& c) {
    const run_outcome o = run_analysis(c.place, c.options, c.again);
    const run_results r = read_run(o.folder);
    if (display.json) {
        std::printf("%s\n", json{{"folder", o.folder},
                                 {"known", o.known},
                                 {"verdict", o.verdict.verdict},
                                 {"text", o.verdict.text},
                                 {"details", o.verdict.details},
                                 {"log_l", r.estimates["likelihood"]["log_l"]},
                                 {"status", o.verdict.status}}
                                .dump()
                                .c_str());
    } else if (!display.quiet) {
        if (o.known) std::printf("The same inputs have been run before: nothing was computed anew.\n");
        std::printf("%s\nRun: %s\n", text_summary(r).c_str(), o.folder.c_str());
        for (const auto& d : o.verdict.details)
            // details that the verdict in the table does not have yet
            if (text_summary(r).find(d) == std::string::npos) std::printf("  %s\n", d.c_str());
    }
    return o.verdict.status;
}

} // namespace

void register_run(CLI::App& app, action& chosen) {
    const auto c = std::make_shared<run_choice>();
    CLI::App* sub = app.add_subcommand("run", "run an analysis in a fresh folder, to a verdict on its estimates");
    sub->add_option("NAME.par", c->place, "parameter file, or folder of a study")->required();
    sub->add_option("--option", c->options, "option for the program, e.g. --option=--nopru");
    sub->add_flag("--again", c->again, "also if the same inputs have been run before");
    sub->callback([c, &chosen] { chosen = [c] { return run_command(*c); }; });
}

} // namespace tvx
