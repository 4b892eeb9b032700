#include "tvx/pages.h"

#include <cstdlib>
#include <fstream>

namespace tvx_tests {

namespace {

using tarvex::lines_of;
using tarvex::words_of;

page_block opened(const std::string& head, int line) {
    const auto words = words_of(head);
    return {words.empty() ? "" : words[0], words.size() > 1 ? words[1] : "", "", line};
}

bool known(const std::string& kind) { return kind == "sh" || kind == "file" || kind == "output" || kind == "show"; }

std::string at(int line, const std::string& text) { return "line " + std::to_string(line) + ": " + text; }

std::string file_text(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

bool same_words(const std::vector<std::string>& quoted, const std::vector<std::string>& found) {
    std::size_t i = 0, j = 0;
    while (i < quoted.size()) {
        if (quoted[i] == "...") {
            if (++i == quoted.size()) return true;
            while (j < found.size() && !same_figure(quoted[i], found[j])) ++j;
        }
        if (j == found.size() || !same_figure(quoted[i], found[j])) return false;
        ++i, ++j;
    }
    return j == found.size();
}

struct run_state {
    std::string folder, output; // where the next commands begin; what the last ones printed
};

std::string in_folder(const run_state& s, const std::string& name) { return s.folder + "/" + name; }

std::string run_commands(const page_block& b, run_state& s) {
    const std::string top = std::filesystem::current_path().string();
    tarvex::write_file(top + "/.commands",
                       "set -e\ncd '" + s.folder + "'\n" + b.text + "pwd > '" + top + "/.folder'\n");
    const auto r = tarvex::run_binary("/bin/bash", {top + "/.commands"});
    s.output = r.output;
    std::ifstream(top + "/.folder") >> s.folder;
    const int wanted = b.name.empty() ? 0 : std::stoi(b.name);
    if (r.status == wanted) return {};
    return "status " + std::to_string(r.status) + " in place of " + std::to_string(wanted) + " from\n" + b.text +
           r.output;
}

std::string run_block(const page_block& b, run_state& s) {
    if (b.kind == "sh") return run_commands(b, s);
    if (b.kind == "file") tarvex::write_file(in_folder(s, b.name), b.text);
    if (b.kind == "output") return missing_line(b.text, b.name.empty() ? s.output : file_text(in_folder(s, b.name)));
    return {};
}

} // namespace

page_blocks blocks_of(const std::string& page) {
    page_blocks found;
    bool open = false;
    std::string end;
    int line = 0;
    for (const std::string& text : lines_of(page)) {
        ++line;
        if (open && text == end) {
            open = false;
        } else if (open) {
            found.blocks.back().text += text + "\n";
        } else if (text.starts_with("```") || text == "<!-- sh") {
            open = true;
            end = text[0] == '`' ? "```" : "-->";
            found.blocks.push_back(opened(text.substr(text[0] == '`' ? 3 : 5), line));
            if (!known(found.blocks.back().kind)) found.faults.push_back(at(line, "a block of no kind"));
        } else if (text.starts_with("    ") && words_of(text).size() > 0) {
            found.faults.push_back(at(line, "a block that is only indented"));
        }
    }
    if (open) found.faults.push_back(at(line, "a block is left open"));
    return found;
}

bool same_figure(const std::string& quoted, const std::string& word) {
    if (quoted == word) return true;
    const double a = tarvex::number_of(quoted), b = tarvex::number_of(word);
    const auto point = quoted.find('.');
    if (std::isnan(a) || std::isnan(b) || point == std::string::npos) return false;
    const auto exponent = quoted.find_first_of("Ee");
    const auto places = std::min(exponent, quoted.size()) - point - 1;
    const int scale = exponent == std::string::npos ? 0 : std::atoi(quoted.c_str() + exponent + 1);
    const double unit = std::pow(10.0, scale - static_cast<double>(places));
    return std::fabs(a - b) <= std::max(1.5 * unit, 2e-4 * std::fabs(a));
}

std::string missing_line(const std::string& quoted, const std::string& text) {
    const auto lines = lines_of(text);
    std::size_t next = 0;
    for (const std::string& q : lines_of(quoted)) {
        const auto words = words_of(q);
        if (words.empty() || q == "...") continue;
        while (next < lines.size() && !same_words(words, words_of(lines[next]))) ++next;
        if (next++ >= lines.size()) return "no line\n" + q + "\nin (or not behind the lines before it)\n" + text;
    }
    return {};
}

std::vector<std::string> faults_of(const std::string& page) {
    auto [blocks, faults] = blocks_of(page);
    run_state s{std::filesystem::current_path().string(), {}};
    for (const page_block& b : blocks) {
        const std::string fault = run_block(b, s);
        if (!fault.empty()) faults.push_back(at(b.line, fault));
    }
    return faults;
}

} // namespace tvx_tests
