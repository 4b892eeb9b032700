#include "tvx/commands.h"

#include "control/tvxroutines.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

namespace tvx {

namespace {

constexpr registrar table[] = {
    register_fit,  register_prep, register_check, register_run, register_report,  register_lrt,
    register_boot, register_scan, register_rank,  register_gin, register_explain, register_help,
};

int tell(const std::string& text, int status) {
    std::fflush(stdout);
    std::printf("%s\n", text.c_str());
    return status;
}

// CLI11 has its own exit codes; here a command line that cannot be read is a fault in the input.
int parse(CLI::App& app, int argc, const char* const* argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e, std::cout, std::cout) == 0 ? fine : input_fault;
    }
    return -1;
}

} // namespace

std::span<const registrar> commands() { return table; }

int run_command_line(int argc, const char* const* argv) {
    CLI::App app{"From a table of records to genetic parameters that one can believe.", "tvx"};
    action chosen;
    app.set_version_flag("--version", "Tarvex " + tarvex::version_number());
    app.add_flag("--json", display.json, "results for machines: one JSON object on standard output");
    app.add_flag("--quiet", display.quiet, "no progress and no remarks");
    app.require_subcommand(1);
    app.fallthrough();
    for (const registrar add : commands()) add(app, chosen);
    if (const int status = parse(app, argc, argv); status >= 0) return status;
    try {
        return chosen ? chosen() : static_cast<int>(fine);
    } catch (const fault& f) {
        return tell(f.text, f.status);
    } catch (const std::bad_alloc&) {
        return tell("not enough memory", program_stopped);
    } catch (const std::exception& e) {
        return tell(e.what(), program_stopped);
    }
}

} // namespace tvx
