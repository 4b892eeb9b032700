// The commands of tvx. Each stands in a file of its own, with one entry in the table of commands.cpp.
#pragma once
#include <functional>
#include <span>
#include <string>

namespace CLI {
class App; // files of commands include <CLI/CLI.hpp>
}

namespace tvx {

// Exit statuses of every command.
enum exit_status { fine = 0, input_fault = 1, not_at_maximum = 3, program_stopped = 4 };

// A fault that ends a command: its text, which names place and remedy, is the last line on standard output. Only
// main catches it.
struct fault {
    std::string text;
    int status = input_fault;
};

// What the command line chose: carried out by main once the whole line is read; returns the exit status.
using action = std::function<int()>;

// Adds a command to the program; its callback sets `chosen`.
using registrar = void (*)(CLI::App& app, action& chosen);

std::span<const registrar> commands();

// What is shown, for all commands: --json (one JSON object on standard output in place of text), --quiet.
struct display_choice {
    bool json = false;
    bool quiet = false;
};
inline display_choice display;

// Reads the command line, carries out its command, prints what stopped it. Returns the exit status.
int run_command_line(int argc, const char* const* argv);

void register_prep(CLI::App& app, action& chosen);
void register_fit(CLI::App& app, action& chosen);
void register_check(CLI::App& app, action& chosen);
void register_gin(CLI::App& app, action& chosen);
void register_explain(CLI::App& app, action& chosen);
void register_help(CLI::App& app, action& chosen);
void register_run(CLI::App& app, action& chosen);
void register_report(CLI::App& app, action& chosen);
void register_lrt(CLI::App& app, action& chosen);
void register_boot(CLI::App& app, action& chosen);
void register_scan(CLI::App& app, action& chosen);
void register_rank(CLI::App& app, action& chosen);

} // namespace tvx
