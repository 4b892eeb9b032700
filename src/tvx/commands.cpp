#include "tvx/commands.h"

#include "control/tvxroutines.h"
#include "tvx/children.h"
#include "tvx/csv.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace tvx {

namespace {

constexpr registrar table[] = {
    register_fit,  register_prep, register_check, register_run, register_report,  register_lrt,
    register_boot, register_scan, register_rank,  register_gin, register_explain, register_help,
};

int tell(const std::string& text, int status) {
    std::fflush(stdout);
    // faults come on standard output, as those of the program do
    const nlohmann::json object{{"fault", text}, {"status", status}};
    const std::string shown =
        display.json ? object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) : text;
    std::printf("%s\n", shown.c_str());
    return status;
}

// The command line has none of the commands.
std::string no_command(const CLI::App& app, int argc, const char* const* argv) {
    std::vector<std::string> names;
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(sub->get_name());
    std::string text = "a command is needed", list;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word.starts_with('-')) continue;
        const std::string near = nearest_name(word, names);
        text = "there is no command \"" + word + "\"" + (near.empty() ? "" : "; did you mean \"" + near + "\"?");
        break;
    }
    for (const auto& name : names) list += (list.empty() ? "" : ", ") + name;
    return text + "\nCommands: " + list + " (tvx COMMAND --help tells of each)";
}

// CLI11 has its own exit codes; here a command line that cannot be read is a fault in the input.
int parse(CLI::App& app, int argc, const char* const* argv) {
    try {
        app.parse(argc, argv);
        // no command, or a command without one of its arguments
    } catch (const CLI::RequiredError& e) {
        if (!app.get_subcommands().empty()) return app.exit(e, std::cout, std::cout) == 0 ? fine : input_fault;
        return tell(no_command(app, argc, argv), input_fault);
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
    // options of all commands may stand behind the command too
    app.fallthrough();
    for (const registrar add : commands()) add(app, chosen);
    if (const int status = parse(app, argc, argv); status >= 0) return status;
    tell_stops();
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
