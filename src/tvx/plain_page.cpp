#include "tvx/plain_page.h"

#include <algorithm>
#include <vector>

namespace tvx {

namespace {

constexpr std::size_t width = 100;

// Cells of a row of a table; a bar behind a backslash is part of a cell.
std::vector<std::string> cells_of(std::string_view row) {
    std::vector<std::string> cells;
    for (std::size_t k = 0; k < row.size(); ++k)
        if (row[k] == '\\' && k + 1 < row.size() && row[k + 1] == '|')
            cells.back() += row[++k];
        else if (row[k] == '|')
            cells.emplace_back();
        else
            cells.back() += row[k];
    if (!cells.empty()) cells.pop_back(); // behind the last bar
    for (auto& c : cells) {
        c.erase(0, c.find_first_not_of(' '));
        c.erase(c.find_last_not_of(' ') + 1);
    }
    return cells;
}

// A row as its first cell, and the others below it, set in and broken at blanks.
void add_row(std::string_view row, std::string& text) {
    const auto cells = cells_of(row);
    if (cells.empty() || cells[0].find_first_not_of("-:") == std::string::npos) return; // line below the head
    text += cells[0] + "\n";
    for (std::size_t k = 1; k < cells.size(); ++k)
        for (std::string_view rest = cells[k]; !rest.empty();) {
            const auto blank = rest.size() <= width ? rest.size() : rest.rfind(' ', width);
            const auto n = std::min(blank, rest.size());
            text += "    " + std::string(rest.substr(0, n)) + "\n";
            rest.remove_prefix(std::min(n + 1, rest.size()));
        }
}

} // namespace

std::string plain_page(std::string_view page) {
    std::string text;
    // tables become lists, blocks are set in, remarks of the page's writers go; everything else stays as it is
    bool block = false, comment = false;
    while (!page.empty()) {
        const auto line = page.substr(0, page.find('\n'));
        page.remove_prefix(std::min(line.size() + 1, page.size()));
        if (comment || line.starts_with("<!--")) {
            comment = line.find("-->") == std::string_view::npos;
        } else if (line.starts_with("```")) {
            block = !block;
        } else if (!block && line.starts_with("|")) {
            add_row(line, text);
        } else {
            if (block && !line.empty()) text += "    ";
            text += line;
            text += '\n';
        }
    }
    return text;
}

} // namespace tvx
