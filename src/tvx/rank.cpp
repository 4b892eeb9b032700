// tvx rank: fits of reduced rank, with criteria and a picture.
#include "tvx/commands.h"
#include "tvx/jobs.h"
#include "tvx/parfile_edit.h"
#include "tvx/program.h"
#include "tvx/report.h"
#include "tvx/simulate.h"
#include "tvx/study.h"
#include "tvx/tables.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>

namespace tvx {

namespace {

struct rank_choice {
    std::string place, ranks, block;
    job_settings jobs;
};

struct rank_fit {
    int rank = 0, parameters = 0;
    double log_l = NAN, aic = NAN, bic = NAN;
    std::string verdict;
};

// "2..5" or "3".
std::pair<int, int> range_of(const std::string& text) {
    int from = 0, to = 0;
    char rest = 0;
    const int n = std::sscanf(text.c_str(), "%d..%d%c", &from, &to, &rest);
    if (n == 1 && text.find_first_not_of("0123456789") == std::string::npos)
        to = from;
    else if (n != 2)
        throw fault{"\"" + text + "\" is no range of ranks: write 1..4"};
    if (from < 1 || to < from) throw fault{"\"" + text + "\" is no range of ranks: write 1..4"};
    return {from, to};
}

// Not by read_run: the fit belongs to no study, its names are not shown.
rank_fit fit_of(const std::string& folder, int rank) {
    run_results r;
    r.folder = folder;
    r.estimates = read_json_file(folder + "/Results.json");
    rank_fit f;
    f.rank = rank;
    f.parameters = r.estimates["likelihood"]["parameters"];
    f.log_l = number(r.estimates["likelihood"]["log_l"]);
    // REML: records less the rank of the fixed part
    const double free =
        number(r.estimates["likelihood"]["records"]) - number(r.estimates["likelihood"]["rank_of_fixed_part"]);
    // of the smaller-is-better kind: -2 log L with 2 or log(n - rank X) a parameter
    f.aic = -2.0 * f.log_l + 2.0 * f.parameters;
    f.bic = -2.0 * f.log_l + f.parameters * std::log(free);
    f.verdict = judge(r).verdict;
    return f;
}

std::string ranks_page(const std::string& title, const std::vector<rank_fit>& fits) {
    json d = {{"title", title}, {"formula", ""}, {"made", ""}, {"search", ""}, {"born", ""}, {"traits", 1}};
    // the page of a report, with nothing in it but the ranks
    for (const char* list : {"facts", "components", "curves", "effects", "eigen", "residuals", "iterates", "notes"})
        d[list] = json::array();
    d["random_regression"] = false;
    d["ranks"] = json::array();
    const rank_fit* best = nullptr;
    for (const auto& f : fits) {
        // there is at least one fit: run_jobs stops where no job came to its end
        if (!best || f.bic < best->bic) best = &f;
        d["ranks"].push_back({{"rank", f.rank},
                              {"parameters", f.parameters},
                              {"log_l", f.log_l},
                              {"aic", f.aic},
                              {"bic", f.bic},
                              {"verdict", f.verdict}});
    }
    d["verdict"] = {{"verdict", "given"},
                    {"text", "Rank " + std::to_string(best->rank) + " has the lowest BIC."},
                    {"details", json::array()}};
    return page_of(d);
}

bool same_text(const std::string& file, const std::string& text) {
    std::error_code ec;
    return std::filesystem::is_regular_file(file, ec) && read_text(file) == text;
}

// Folder of a fit. Its parameter file is written anew where any input has changed, and with that the fit is made anew.
void write_job(const std::string& par_file, const std::string& par_text, const std::string& folder) {
    std::filesystem::create_directories(folder);
    const auto source = std::filesystem::path(par_file).parent_path();
    bool changed = !same_text(folder + "/analysis.par", par_text);
    for (const auto& input : files_of_analysis(par_file)) {
        const std::string text = read_text((source / input).string());
        if (input == std::filesystem::path(par_file).filename() || same_text(folder + "/" + input, text)) continue;
        // the mark of a finished fit goes before the first file that is not the fit's
        job_is_new(folder);
        write_text(folder + "/" + input, text);
        changed = true;
    }
    if (!changed) return;
    job_is_new(folder);
    write_text(folder + "/analysis.par", par_text);
}

int rank_fits(const rank_choice& c) {
    const std::string file = parameter_file(c.place);
    std::string source = std::filesystem::path(file).parent_path().string();
    if (source.empty()) source = ".";
    const parfile_text par(read_text(file));
    const auto blocks = par.random_blocks();
    if (blocks.empty()) throw fault{"no random effect in \"" + file + "\""};
    // one block at a time: the others keep the rank that the file gives them
    const std::string block = c.block.empty() ? blocks.front() : c.block;
    const auto [from, to] = range_of(c.ranks);
    const std::string folder = source + "/rank";
    std::string command = shell_quoted(program_path()) + " --json";
    if (has_study(source))
        for (const auto& option : read_study(source, false).run_options) command += " " + shell_quoted(option);
    std::map<std::string, std::string> jobs;
    for (int rank = from; rank <= to; ++rank) {
        parfile_text one = par;
        // numbers of covariances change with the rank
        one.drop_functions();
        one.set_rank(block, rank);
        const std::string name = "rank" + std::to_string(rank);
        write_job(file, one.text(), folder + "/" + name);
        jobs[name] = command + " analysis.par";
    }
    const auto done = run_jobs(folder, jobs, c.jobs);
    std::vector<rank_fit> fits;
    for (int rank = from; rank <= to; ++rank) {
        const std::string name = "rank" + std::to_string(rank);
        if (std::find(done.begin(), done.end(), name) != done.end()) fits.push_back(fit_of(folder + "/" + name, rank));
    }
    std::string table = "rank\tparameters\tlog_l\taic\tbic\tverdict\n";
    int status = fine;
    for (const auto& f : fits) {
        char line[160];
        std::snprintf(line, sizeof line, "%d\t%d\t%.6f\t%.4f\t%.4f\t%s\n", f.rank, f.parameters, f.log_l, f.aic, f.bic,
                      f.verdict.c_str());
        table += line;
        if (f.verdict == "not arrived" || f.verdict == "unidentified") status = not_at_maximum;
    }
    write_text(folder + "/rank.tsv", table);
    write_text(folder + "/rank.html", ranks_page("Ranks of " + block, fits));
    if (display.json)
        std::printf("%s\n", json{{"table", folder + "/rank.tsv"}, {"page", folder + "/rank.html"}}.dump().c_str());
    else if (!display.quiet)
        std::printf("%s\nPage: %s/rank.html\n", table.c_str(), folder.c_str());
    return status;
}

} // namespace

void register_rank(CLI::App& app, action& chosen) {
    const auto c = std::make_shared<rank_choice>();
    CLI::App* sub = app.add_subcommand("rank", "fits of reduced rank, with criteria and a picture");
    sub->add_option("STUDY", c->place, "study, or parameter file")->required();
    sub->add_option("RANKS", c->ranks, "from..to, e.g. 1..4")->required();
    sub->add_option("--effect", c->block, "covariance block (the first random one)");
    sub->add_option("-j,--jobs", c->jobs.jobs, "runs at a time (all processors)");
    sub->add_option("--profile", c->jobs.profile, "profile of Snakemake, for a cluster");
    sub->callback([c, &chosen] { chosen = [c] { return rank_fits(*c); }; });
}

} // namespace tvx
