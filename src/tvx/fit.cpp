// From a table to estimates in one command: prep, check, run and report.
#include "tvx/check.h"
#include "tvx/commands.h"
#include "tvx/prep.h"
#include "tvx/report.h"
#include "tvx/run.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

namespace tvx {

namespace {

// Stops at faults; remarks are told.
void check_study(const study& s) {
    const auto findings = check_analysis(s.folder + "/" + s.name + ".par");
    const std::string text = findings_text(findings);
    if (std::any_of(findings.begin(), findings.end(), [](const auto& f) { return f.fault(); })) throw fault{text};
    if (!display.quiet && !display.json) std::cout << text;
}

int fit_command(const prep_request& request) {
    const study s = prepare(request);
    const bool speak = !display.quiet && !display.json;
    if (speak) std::cout << study_summary(s);
    // the files that prep has written are read by the program's own readers before the long part
    check_study(s);
    if (speak) std::cout << "Running the analysis ...\n" << std::flush;
    const run_outcome outcome = run_analysis(s.folder, {}, false, true);
    const run_results results = read_run(outcome.folder);
    const std::string page = write_report(results, s.folder + "/report");
    if (display.json)
        std::cout << json{{"study", s.folder},
                          {"run", outcome.folder},
                          {"page", page},
                          {"verdict", outcome.verdict.verdict},
                          {"text", outcome.verdict.text},
                          {"details", outcome.verdict.details},
                          {"status", outcome.verdict.status},
                          {"log_l", results.estimates["likelihood"]["log_l"]}}
                         .dump()
                  << "\n";
    else if (!display.quiet)
        std::cout << "\n" << text_summary(results) << "\nPage: " << page << "\n";
    return outcome.verdict.status;
}

} // namespace

void register_fit(CLI::App& app, action& chosen) {
    auto request = std::make_shared<prep_request>();
    CLI::App* command = app.add_subcommand("fit", "estimates from a table: prep, check, run and report in one");
    add_prep_options(*command, *request);
    command->callback([&chosen, request] { chosen = [request] { return fit_command(*request); }; });
}

} // namespace tvx
