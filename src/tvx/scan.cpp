// tvx scan --pairs: all pairs of traits of a study, and from them a start for the analysis of all traits.
#include "tvx/commands.h"
#include "tvx/components.h"
#include "tvx/jobs.h"
#include "tvx/parfile_edit.h"
#include "tvx/program.h"
#include "tvx/startfrom.h"
#include "tvx/substudy.h"
#include "tvx/tables.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <sstream>

namespace tvx {

namespace fs = std::filesystem;

namespace {

struct scan_choice {
    std::string place;
    bool pairs = false;
    job_settings jobs;
};

struct trait_pair {
    int a = 0, b = 0; // numbers
    std::string name; // of its folder
    bool done = false;
    std::string verdict = "stopped";
    std::vector<component> components;
};

std::vector<trait_pair> pairs_of(const study& s) {
    std::vector<trait_pair> pairs;
    for (const auto& a : s.traits)
        for (const auto& b : s.traits)
            if (a.number < b.number)
                pairs.push_back({a.number, b.number, a.column + "-" + b.column, false, "stopped", {}});
    return pairs;
}

// Analyses all pairs; what has a maximum goes into `known`.
void run_pairs(const study& s, const std::string& folder, std::vector<trait_pair>& pairs, const job_settings& settings,
               known_covariances& known) {
    std::map<std::string, std::string> jobs;
    for (const auto& p : pairs) {
        write_part(s, {p.a, p.b}, folder + "/" + p.name);
        // a search without a maximum is a result too
        jobs[p.name] = "( " + shell_quoted(own_path()) + " run analysis.par || [ $? -eq 3 ] )";
    }
    const auto done = run_jobs(folder, jobs, settings);
    for (auto& p : pairs) {
        p.done = std::find(done.begin(), done.end(), p.name) != done.end();
        if (!p.done) continue;
        const run_results r = read_run(folder + "/" + p.name);
        const judgement j = judge(r);
        p.verdict = j.verdict;
        p.components = components_of(r);
        // estimates without a maximum are no start
        if (j.status == 0) known.add(r);
    }
}

std::vector<start_row> rows_of(const study& s, const std::string& block) {
    std::vector<start_row> rows;
    // rows as the VAR block has them: effect after effect, in each the traits that it is fitted for
    const auto row = [&](const std::string& effect, int q) {
        if (const study_trait* t = find_trait(s, q)) rows.push_back({effect, t->name, 0, std::pow(10.0, t->power)});
    };
    if (block == "residual")
        for (const auto& t : s.traits) row("residual", t.number);
    else
        for (const auto& e : s.effects)
            if (e.block == block)
                for (const int q : e.traits) row(e.name, q);
    return rows;
}

std::size_t elements(std::size_t n) { return n * (n + 1) / 2; }

// The study's parameter file with starting values from the pairs.
std::string write_joint(const study& s, const known_covariances& known) {
    const std::string file = s.folder + "/" + s.name + ".par";
    parfile_text par(read_text(file));
    auto blocks = par.random_blocks();
    blocks.emplace_back("residual");
    for (const auto& block : blocks) {
        const auto rows = rows_of(s, block);
        std::vector<double> values = par.values(block);
        // values are put in by place: a block that was edited by hand has other places
        if (values.size() != elements(rows.size()))
            throw fault{"block \"" + block + "\" of \"" + file + "\" is not as tvx prep wrote it"};
        take_known(known, rows, values);
        par.set_values(block, values);
    }
    // another file beside the study's own: the names of the data stay good, and nothing of the user's is written over
    // 15 letters and the ending: names of parameter files are read to 30
    const std::string joint = s.folder + "/" + s.name.substr(0, 15) + "_joint.par";
    write_text(joint, par.text());
    return joint;
}

std::string number_field(double x, const char* form) {
    char text[40];
    std::snprintf(text, sizeof text, form, x);
    return std::isfinite(x) ? text : "";
}

std::string pairs_table(const std::vector<trait_pair>& pairs, const study& s) {
    std::string table = "effect\ttrait_i\ttrait_j\tcorrelation\tse\tmark\tverdict\n";
    for (const auto& p : pairs) {
        for (const auto& c : p.components) {
            if (c.kind != "covariance") continue;
            for (const auto* word : {&c.effect, &c.trait_i, &c.trait_j}) {
                put_field(table, *word);
                table += '\t';
            }
            table += number_field(c.ratio, "%.10g") + '\t' + number_field(c.ratio_se, "%.10g") + '\t' + c.mark + '\t' +
                     p.verdict + '\n';
        }
        // a pair that stopped: a line without figures
        if (p.done) continue;
        table += '\t';
        put_field(table, find_trait(s, p.a)->name);
        table += '\t';
        put_field(table, find_trait(s, p.b)->name);
        table += "\t\t\t\tstopped\n";
    }
    return table;
}

std::string pairs_text(const std::vector<trait_pair>& pairs) {
    std::string text;
    char line[200];
    std::snprintf(line, sizeof line, "%-20s %-12s %-12s %11s %8s\n", "effect", "trait", "with", "correlation", "s.e.");
    text += line;
    for (const auto& p : pairs)
        for (const auto& c : p.components) {
            if (c.kind != "covariance") continue;
            std::snprintf(
                line, sizeof line, "%-20s %-12s %-12s %11s %8s  %s\n", c.effect.c_str(), c.trait_i.c_str(),
                c.trait_j.c_str(), number_field(c.ratio, "%.3f").c_str(), number_field(c.ratio_se, "%.3f").c_str(),
                (c.mark.empty() && p.verdict != "arrived" && p.verdict != "boundary" ? p.verdict : c.mark).c_str());
            text += line;
        }
    return text;
}

int scan(const scan_choice& c) {
    if (!c.pairs) throw fault{"what is to be scanned? --pairs analyses all pairs of traits"};
    if (!has_study(c.place)) throw fault{"no study in \"" + c.place + "\": tvx prep makes one"};
    const study s = read_study(c.place);
    if (s.traits.size() < 2) throw fault{"the study has one trait: there are no pairs"};
    auto pairs = pairs_of(s);
    const std::string folder = s.folder + "/scan";
    fs::create_directories(folder);
    known_covariances known;
    run_pairs(s, folder, pairs, c.jobs, known);
    write_text(folder + "/pairs.tsv", pairs_table(pairs, s));
    const std::string joint = write_joint(s, known);
    std::vector<std::string> short_of;
    for (const auto& p : pairs)
        if (p.verdict != "arrived" && p.verdict != "boundary") short_of.push_back(p.name + ": " + p.verdict);
    if (display.json) {
        std::printf("%s\n", json{{"table", folder + "/pairs.tsv"},
                                 {"pairs", pairs.size()},
                                 {"start", joint},
                                 {"without_maximum", short_of}}
                                .dump()
                                .c_str());
    } else if (!display.quiet) {
        std::printf("%s\n", pairs_text(pairs).c_str());
        for (const auto& text : short_of) std::printf("No maximum for %s\n", text.c_str());
        std::printf("Table: %s/pairs.tsv\nAll traits from here: tvx run %s\n", folder.c_str(), joint.c_str());
    }
    // pairs without a maximum leave the values that the study began with
    return short_of.empty() ? fine : not_at_maximum;
}

} // namespace

void register_scan(CLI::App& app, action& chosen) {
    const auto c = std::make_shared<scan_choice>();
    CLI::App* sub = app.add_subcommand("scan", "analyses of all pairs of traits, and a start for that of all traits");
    sub->add_option("STUDY", c->place, "study of several traits")->required();
    sub->add_flag("--pairs", c->pairs, "all pairs of traits");
    sub->add_option("-j,--jobs", c->jobs.jobs, "runs at a time (all processors)");
    sub->add_option("--profile", c->jobs.profile, "profile of Snakemake, for a cluster");
    sub->callback([c, &chosen] { chosen = [c] { return scan(*c); }; });
}

} // namespace tvx
