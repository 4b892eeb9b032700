// tvx lrt: likelihood ratio tests.
#include "tvx/commands.h"
#include "tvx/compare.h"
#include "tvx/jobs.h"
#include "tvx/parfile_edit.h"
#include "tvx/program.h"
#include "tvx/run.h"
#include "tvx/simulate.h"
#include "tvx/tables.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <memory>

namespace tvx {

namespace {

struct lrt_choice {
    std::string small, large, drop;
    int boot = 0;
    unsigned seed = 1;
    job_settings jobs;
};

// Writes and runs the model without an effect; its parameter file stands beside that of the larger model.
std::string run_without(const run_results& large, const std::string& effect) {
    if (!study_stands(large))
        throw fault{"the study has been replaced since " + large.folder + " was run: run it again, then test"};
    std::string column = effect;
    if (large.made_by)
        for (const auto& e : large.made_by->effects)
            // the user's name, or the term as it stands in the formula
            if (e.name == effect || e.term == effect) column = e.column;
    parfile_text par(read_text(par_file_of(large)));
    par.drop_effect(column);
    std::string source = large.run.is_object() ? large.folder + "/" + large.run.value("source", ".") : large.folder;
    // files that it names are found from there
    source = std::filesystem::weakly_canonical(source).string();
    const std::string stem = std::filesystem::path(par_file_of(large)).stem().string() + "_no_" + column;
    // the program reads 30 letters of a name
    const std::string file = source + "/" + stem.substr(0, 26) + ".par";
    write_text(file, par.text());
    if (!display.quiet && !display.json) std::printf("Without %s: %s\n", effect.c_str(), file.c_str());
    const std::string folder = run_analysis(file).folder;
    json told = read_json_file(folder + "/run.json");
    told["made_for"] = "tvx lrt --drop " + effect; // the last run of a study is none of these
    write_text(folder + "/run.json", told.dump(1, '\t') + "\n");
    return folder;
}

// Share of simulated sets from the smaller model whose statistic reaches the observed one, of those (`used`) with both
// models at a maximum.
double boot_p(const run_results& small, const run_results& large, const lr_test& t, const lrt_choice& c, int& used) {
    const std::string folder = small.folder + "/lrt";
    std::filesystem::create_directories(folder);
    const auto data = simulate_data(small, folder, c.boot, c.seed);
    std::map<std::string, std::string> jobs;
    for (std::size_t i = 0; i < data.size(); ++i)
        for (const auto* r : {&small, &large}) {
            const std::string name = (r == &small ? "small" : "large") + std::to_string(i + 1);
            // both models on the same simulated set
            make_job(*r, read_text(par_file_of(*r)), data[i], folder + "/" + name);
            jobs[name] = shell_quoted(program_path()) + " --json analysis.par";
        }
    run_jobs(folder, jobs, c.jobs);
    int beyond = 0;
    used = 0;
    for (std::size_t i = 1; i <= data.size(); ++i) {
        run_results a, b;
        a.folder = folder + "/small" + std::to_string(i);
        b.folder = folder + "/large" + std::to_string(i);
        // runs that failed or did not arrive leave the sample: the user is told how many are used
        if (!std::filesystem::exists(a.folder + "/done") || !std::filesystem::exists(b.folder + "/done")) continue;
        a.estimates = read_json_file(a.folder + "/Results.json");
        b.estimates = read_json_file(b.folder + "/Results.json");
        if (judge(a).verdict == "not arrived" || judge(b).verdict == "not arrived") continue;
        const double x =
            2.0 * (number(b.estimates["likelihood"]["log_l"]) - number(a.estimates["likelihood"]["log_l"]));
        ++used;
        // equal up to the digits of a log L counts as beyond
        if (x >= t.statistic - 1e-6) ++beyond;
    }
    // the observed set counts as one of those under the smaller model
    return (beyond + 1.0) / (used + 1.0);
}

std::string distribution(const lr_test& t) {
    std::string text;
    for (const auto& [df, weight] : t.mixture) {
        char part[40];
        if (weight == 1.0)
            std::snprintf(part, sizeof part, "chi-square(%d)", df);
        else
            std::snprintf(part, sizeof part, "%s%g chi-square(%d)", text.empty() ? "" : " + ", weight, df);
        text += part;
    }
    return text;
}

int lrt(const lrt_choice& c) {
    if (c.drop.empty() == c.large.empty()) throw fault{"give two runs, SMALL LARGE, or one run and --drop EFFECT"};
    const run_results large = read_run(c.drop.empty() ? c.large : c.small);
    if (!c.drop.empty() && judge(large).status != 0)
        throw fault{"the models cannot be compared: " + large.folder + " is not at a maximum", not_at_maximum};
    const run_results small = read_run(c.drop.empty() ? c.small : run_without(large, c.drop));
    // stops where the models are not nested, or the data differ
    const lr_test t = compare_runs(small, large);
    int used = 0;
    // the mixture of chi-squares is asymptotic; simulation is not
    const double exact = c.boot > 0 ? boot_p(small, large, t, c, used) : -1.0;
    if (display.json) {
        json d = {{"statistic", t.statistic},
                  {"df", t.df},
                  {"p", t.p},
                  {"upper_bound", t.bound},
                  {"distribution", distribution(t)},
                  {"tested", t.words},
                  {"small", small.folder},
                  {"large", large.folder}};
        if (c.boot > 0) d["boot"] = {{"p", exact}, {"sets", used}};
        std::printf("%s\n", d.dump().c_str());
        return fine;
    }
    if (display.quiet) return fine;
    std::printf("Tested: %s\nlog L %.4f and %.4f; statistic %.4f on %d parameter%s\nReference: %s\np %s %.4g\n",
                t.words.c_str(), number(small.estimates["likelihood"]["log_l"]),
                number(large.estimates["likelihood"]["log_l"]), t.statistic, t.df, t.df == 1 ? "" : "s",
                distribution(t).c_str(), t.bound ? "at most" : "=", t.p);
    if (t.bound && c.boot == 0) std::printf("For the exact p of a matrix: --boot 200\n");
    if (c.boot > 0)
        std::printf("By simulation of %d sets from the smaller model%s: p = %.4g\n", used,
                    used < c.boot ? (" (of " + std::to_string(c.boot) + "; the others have no maximum)").c_str() : "",
                    exact);
    return fine;
}

} // namespace

void register_lrt(CLI::App& app, action& chosen) {
    const auto c = std::make_shared<lrt_choice>();
    CLI::App* sub = app.add_subcommand("lrt", "likelihood ratio test of two runs, or of an effect");
    sub->add_option("SMALL", c->small, "run of the smaller model; with --drop of the larger one")->required();
    sub->add_option("LARGE", c->large, "run of the larger model");
    sub->add_option("--drop", c->drop, "random effect: the model without it is written and run");
    sub->add_option("--boot", c->boot, "also by simulation of N sets from the smaller model");
    sub->add_option("--seed", c->seed, "seed of the simulation (1)");
    sub->add_option("-j,--jobs", c->jobs.jobs, "runs at a time (all processors)");
    sub->add_option("--profile", c->jobs.profile, "profile of Snakemake, for a cluster");
    sub->callback([c, &chosen] { chosen = [c] { return lrt(*c); }; });
}

} // namespace tvx
