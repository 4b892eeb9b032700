#include "tvx/report.h"

#include "tvx/commands.h"
#include "tvx/tables.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>

namespace tvx {

std::string write_report(const run_results& r, const std::string& folder) {
    std::error_code ec;
    std::filesystem::create_directories(folder, ec);
    if (ec) throw fault{"cannot make folder \"" + folder + "\": " + ec.message()};
    const auto predictions = predictions_of(r);
    const auto residuals = residuals_of(r);
    const json summary = report_summary(r, predictions, residuals);
    write_tables(r, predictions, residuals, folder);
    write_text(folder + "/report.json", summary.dump(1, '\t', false, json::error_handler_t::replace) + "\n");
    write_text(folder + "/report.html", page_of(summary));
    return folder + "/report.html";
}

namespace {

int report(const std::string& place, const std::string& out) {
    const run_results r = read_run(place);
    const std::string page = write_report(r, out.empty() ? r.folder + "/report" : out);
    const judgement j = judge(r);
    if (display.json)
        std::printf("%s\n", json{{"page", page}, {"verdict", j.verdict}, {"status", j.status}}.dump().c_str());
    else if (!display.quiet)
        std::printf("%s\nPage: %s\n", text_summary(r).c_str(), page.c_str());
    return j.status;
}

struct report_choice {
    std::string place, out;
};

} // namespace

void register_report(CLI::App& app, action& chosen) {
    const auto c = std::make_shared<report_choice>();
    CLI::App* sub = app.add_subcommand("report", "tables and a page with pictures from a run");
    sub->add_option("RUN", c->place, "folder of a run, or of a study (its last run)")->required();
    sub->add_option("-o,--out", c->out, "folder for the report (RUN/report)");
    sub->callback([c, &chosen] { chosen = [c] { return report(c->place, c->out); }; });
}

} // namespace tvx
