// tvx boot: standard errors by analyses of data simulated from the estimates.
#include "tvx/commands.h"
#include "tvx/components.h"
#include "tvx/jobs.h"
#include "tvx/program.h"
#include "tvx/simulate.h"
#include "tvx/tables.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>

namespace tvx {

namespace {

struct boot_choice {
    std::string place;
    int n = 200;
    unsigned seed = 1;
    job_settings jobs;
};

struct spread {
    double mean = 0.0, sd = NAN, low = NAN, high = NAN;
};

double quantile(const std::vector<double>& sorted, double p) {
    // quantile by linear interpolation between order statistics
    const double at = p * static_cast<double>(sorted.size() - 1);
    const auto k = static_cast<std::size_t>(at);
    return k + 1 < sorted.size() ? sorted[k] + (at - std::floor(at)) * (sorted[k + 1] - sorted[k]) : sorted.back();
}

spread spread_of(std::vector<double> x) {
    // a ratio may be undefined in some replicates
    std::erase_if(x, [](double v) { return !std::isfinite(v); });
    spread s;
    if (x.empty()) return s;
    for (const double v : x) s.mean += v / static_cast<double>(x.size());
    double ss = 0.0;
    for (const double v : x) ss += (v - s.mean) * (v - s.mean);
    if (x.size() > 1) s.sd = std::sqrt(ss / static_cast<double>(x.size() - 1));
    std::sort(x.begin(), x.end());
    s.low = quantile(x, 0.025);
    s.high = quantile(x, 0.975);
    return s;
}

std::string field(double x) {
    char text[40] = "";
    if (std::isfinite(x)) std::snprintf(text, sizeof text, "\t%.10g", x);
    return std::isfinite(x) ? text : "\t";
}

// The replicates that arrived at a maximum.
std::vector<std::vector<component>> replicates(const run_results& r, const std::string& folder,
                                               const std::vector<std::string>& done) {
    std::vector<std::vector<component>> list;
    for (const auto& name : done) {
        run_results one;
        one.folder = folder + "/" + name;
        one.estimates = read_json_file(one.folder + "/Results.json");
        // names and units are those of the study
        if (r.made_by) one.made_by = std::make_unique<study>(*r.made_by);
        const std::string verdict = judge(one).verdict;
        // others would spread the estimates by failed searches
        if (verdict == "arrived" || verdict == "boundary") list.push_back(components_of(one));
    }
    return list;
}

int boot(const boot_choice& c) {
    const run_results r = read_run(c.place);
    if (judge(r).status != 0)
        throw fault{"the run is not at a maximum: its estimates are nothing to simulate from", not_at_maximum};
    // one replicate has no spread
    if (c.n < 2) throw fault{"-n takes at least 2 replicates"};
    const std::string folder = r.folder + "/boot";
    std::filesystem::create_directories(folder);
    const auto data = simulate_data(r, folder, c.n, c.seed);
    // searches start from what the data were simulated from
    const std::string par = at_estimates(r, read_text(par_file_of(r)));
    std::map<std::string, std::string> jobs;
    for (std::size_t i = 0; i < data.size(); ++i) {
        const std::string name = "rep" + std::to_string(i + 1);
        make_job(r, par, data[i], folder + "/" + name);
        std::string options = " --json";
        // options of the run: the same algorithm and scale
        for (const auto& o :
             r.run.is_object() ? r.run.value("options", std::vector<std::string>()) : std::vector<std::string>())
            options += " " + shell_quoted(o);
        jobs[name] = shell_quoted(program_path()) + options + " analysis.par";
    }
    const auto reps = replicates(r, folder, run_jobs(folder, jobs, c.jobs));
    if (reps.size() < 2) throw fault{"fewer than two replicates arrived at a maximum", not_at_maximum};
    std::string table =
        "effect\ttrait_i\ttrait_j\tkind\testimate\tse\tboot_mean\tboot_se\tlow95\thigh95\tratio\tratio_se\t"
        "boot_ratio_se\tratio_low95\tratio_high95\n";
    const auto components = components_of(r);
    for (std::size_t k = 0; k < components.size(); ++k) {
        const component& e = components[k];
        std::vector<double> x, y;
        for (const auto& rep : reps) {
            // components of one model stand in one order in all runs
            x.push_back(rep[k].estimate);
            y.push_back(rep[k].ratio);
        }
        const spread a = spread_of(x), b = spread_of(y);
        for (const auto* word : {&e.effect, &e.trait_i, &e.trait_j, &e.kind}) {
            if (word != &e.effect) table += '\t';
            put_field(table, *word);
        }
        for (const double v : {e.estimate, e.se, a.mean, a.sd, a.low, a.high, e.ratio, e.ratio_se, b.sd, b.low, b.high})
            table += field(v);
        table += '\n';
    }
    write_text(folder + "/boot.tsv", table);
    if (display.json)
        std::printf("%s\n",
                    json{{"table", folder + "/boot.tsv"}, {"replicates", reps.size()}, {"asked", c.n}}.dump().c_str());
    else if (!display.quiet)
        std::printf("%s\n%zu of %d replicates at a maximum. Table: %s/boot.tsv\n", table.c_str(), reps.size(), c.n,
                    folder.c_str());
    return fine;
}

} // namespace

void register_boot(CLI::App& app, action& chosen) {
    const auto c = std::make_shared<boot_choice>();
    CLI::App* sub = app.add_subcommand("boot", "standard errors and intervals by simulation from the estimates");
    sub->add_option("RUN", c->place, "run, or study (its last run)")->required();
    sub->add_option("-n", c->n, "replicates (200)");
    sub->add_option("--seed", c->seed, "seed of the simulation (1)");
    sub->add_option("-j,--jobs", c->jobs.jobs, "runs at a time (all processors)");
    sub->add_option("--profile", c->jobs.profile, "profile of Snakemake, for a cluster");
    sub->callback([c, &chosen] { chosen = [c] { return boot(*c); }; });
}

} // namespace tvx
