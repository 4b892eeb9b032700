// Parts of the user's guide on the screen.
#include "tvx/commands.h"
#include "tvx/guide_text.h"
#include "tvx/plain_page.h"

#include <CLI/CLI.hpp>
#include <iostream>

namespace tvx {

namespace {

constexpr struct {
    const char* word;
    const char* heading;
} topics[] = {
    {"par", "## The parameter file"},
    {"files", "## Output files"},
    {"input", "## Input files"},
    {"options", "## Options"},
};

// Section of the guide from its heading to the next of the same rank.
std::string_view section(std::string_view heading) {
    const auto text = guide_text();
    const auto from = text.find("\n" + std::string(heading) + "\n");
    if (from == std::string_view::npos) return {};
    const auto to = text.find("\n## ", from + 1);
    return text.substr(from + 1, to - from);
}

int help_command(const std::string& word) {
    for (const auto& t : topics)
        if (word == t.word) {
            std::cout << plain_page(section(t.heading));
            return fine;
        }
    std::string text = "tvx help TOPIC, where TOPIC is one of";
    for (const auto& t : topics) text += std::string(" ") + t.word;
    throw fault{text + "; tvx COMMAND --help tells the options of a command"};
}

} // namespace

void register_help(CLI::App& app, action& chosen) {
    auto word = std::make_shared<std::string>();
    CLI::App* command = app.add_subcommand("help", "a part of the guide: par, files, input or options");
    command->add_option("TOPIC", *word, "par, files, input, options");
    command->callback([&chosen, word] { chosen = [word] { return help_command(*word); }; });
}

} // namespace tvx
