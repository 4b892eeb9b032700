#include "tvx/parfile_edit.h"

#include "tvx/commands.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <sstream>

namespace tvx {

namespace {

bool holds_numbers(const std::string& line) {
    const auto at = line.find_first_not_of(" \t");
    return at != std::string::npos && (std::isdigit(static_cast<unsigned char>(line[at])) || line[at] == '-' ||
                                       line[at] == '.' || line[at] == '+');
}

std::string bare(const std::string& name) { return name.substr(0, name.find('(')); }

// Left and right name of a block of two correlated effects, or the one name.
std::vector<std::string> parts_of(const std::string& block) {
    const auto plus = block.find('+');
    if (plus == std::string::npos) return {block};
    return {block.substr(0, plus), block.substr(plus + 1)};
}

bool is_residual(const std::string& name) {
    const std::string key = key_of(name);
    return key == "RES" || key == "ERR";
}

// First line of a random block with a rank, its full one where it has none.
std::string with_rank(const std::string& line) {
    auto w = words_of(line);
    if (w.size() < 3 || is_residual(w[1])) return line;
    if (w.size() > 3 && std::isdigit(static_cast<unsigned char>(w[3][0])) != 0) return line;
    // full rank
    w.insert(w.begin() + 3, w[2]);
    std::string text = w[0];
    for (std::size_t i = 1; i < w.size(); ++i) text += " " + w[i];
    return text;
}

} // namespace

std::vector<std::string> words_of(const std::string& line) {
    if (line.starts_with('#')) return {};
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), {}};
}

std::string key_of(const std::string& line) {
    const auto w = words_of(line);
    if (w.empty()) return "";
    std::string key = w[0].substr(0, 3);
    for (char& c : key) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return key;
}

parfile_text::parfile_text(std::string_view text) {
    std::istringstream in{std::string(text)};
    for (std::string line; std::getline(in, line);) lines_.push_back(line);
}

std::string parfile_text::text() const {
    std::string all;
    for (const auto& line : lines_) all += line + "\n";
    return all;
}

parfile_text::extent parfile_text::var_block(const std::string& name) const {
    for (std::size_t i = 0; i < lines_.size(); ++i) {
        if (key_of(lines_[i]) != "VAR") continue;
        const auto w = words_of(lines_[i]);
        if (w.size() < 2 || (w[1] != name && !(is_residual(name) && is_residual(w[1])))) continue;
        std::size_t to = i + 1;
        // remarks and blank lines within a block belong to it
        while (to < lines_.size() && (holds_numbers(lines_[to]) || words_of(lines_[to]).empty())) ++to;
        return {i, to};
    }
    return {};
}

std::vector<std::string> parfile_text::random_blocks() const {
    std::vector<std::string> names;
    for (const auto& line : lines_) {
        const auto w = words_of(line);
        if (key_of(line) == "VAR" && w.size() > 1 && !is_residual(w[1])) names.push_back(w[1]);
    }
    return names;
}

int parfile_text::order_of(const std::string& block) const {
    const extent e = var_block(block);
    const auto w = e.to > e.from ? words_of(lines_[e.from]) : std::vector<std::string>();
    return w.size() > 2 ? std::atoi(w[2].c_str()) : 0;
}

void parfile_text::drop_functions() {
    // all of them: the program takes the last one
    for (std::size_t i = 0; i < lines_.size();) {
        if (key_of(lines_[i]) != "SE+") {
            ++i;
            continue;
        }
        std::size_t to = i;
        while (to < lines_.size() && key_of(lines_[to]) != "END") ++to;
        lines_.erase(lines_.begin() + static_cast<std::ptrdiff_t>(i),
                     lines_.begin() + static_cast<std::ptrdiff_t>(std::min(to + 1, lines_.size())));
    }
}

void parfile_text::drop_effect(const std::string& effect) {
    const std::size_t before = lines_.size();
    const auto blocks = random_blocks();
    if (blocks.size() == 1 && bare(blocks[0]) == effect)
        throw fault{"\"" + effect + "\" is the only random effect: the program fits no model without one"};
    std::erase_if(lines_, [&](const std::string& line) {
        const auto w = words_of(line);
        return key_of(line) == "RAN" && w.size() > 1 && bare(w[1]) == effect;
    });
    if (lines_.size() == before) throw fault{"\"" + effect + "\" is no random effect of this analysis"};
    for (const auto& block : random_blocks()) {
        const auto parts = parts_of(block);
        const auto part = std::find_if(parts.begin(), parts.end(), [&](auto& p) { return bare(p) == effect; });
        if (part == parts.end()) continue;
        const extent e = var_block(block);
        std::vector<std::string> keep;
        if (parts.size() == 2) { // the rows of the other effect
            // both effects have half of the rows
            const int n = order_of(block), half = n / 2, from = part == parts.begin() ? half : 0;
            std::vector<double> values;
            for (std::size_t i = e.from + 1; i < e.to; ++i) {
                std::istringstream in(lines_[i]);
                for (double x; in >> x;) values.push_back(x);
            }
            keep.push_back("VAR " + parts[part == parts.begin() ? 1 : 0] + " " + std::to_string(half));
            for (int i = 0; i < half; ++i) {
                std::string row;
                for (int j = i; j < half; ++j) {
                    const int a = from + i, b = from + j;
                    std::ostringstream x;
                    x.precision(17);
                    // packed upper triangle by rows, from 0
                    x << values.at(static_cast<std::size_t>(n * a - a * (a - 1) / 2 + b - a));
                    row += " " + x.str();
                }
                keep.push_back(row);
            }
        }
        lines_.erase(lines_.begin() + static_cast<std::ptrdiff_t>(e.from),
                     lines_.begin() + static_cast<std::ptrdiff_t>(e.to));
        lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(e.from), keep.begin(), keep.end());
        break;
    }
    const bool related = std::any_of(lines_.begin(), lines_.end(), [](const std::string& line) {
        const auto w = words_of(line);
        return key_of(line) == "RAN" && w.size() > 2 && key_of(w[2]) == "NRM";
    });
    // the program refuses a pedigree that no effect uses
    if (!related) std::erase_if(lines_, [](const std::string& line) { return key_of(line) == "PED"; });
    // their numbers count the covariances that were there
    drop_functions();
}

void parfile_text::set_rank(const std::string& block, int rank) {
    const extent e = var_block(block);
    if (e.to == e.from) throw fault{"no covariance block \"" + block + "\" in this analysis"};
    auto w = words_of(lines_[e.from]);
    const int order = order_of(block);
    if (rank < 1 || rank > order)
        throw fault{"rank " + std::to_string(rank) + " of \"" + block + "\": it has order " + std::to_string(order)};
    if (w.size() > 3 && key_of(w[3]) == "DIA") throw fault{"\"" + block + "\" is a diagonal matrix: it has no rank"};
    lines_[e.from] = w[0] + " " + w[1] + " " + w[2] + " " + std::to_string(rank);
    // with PC every random block has a rank
    for (auto& line : lines_) {
        if (key_of(line) == "VAR") line = with_rank(line);
        if (key_of(line) != "ANA") continue;
        auto a = words_of(line);
        if (a.size() < 2) continue;
        if (a.size() > 2 && key_of(a[2]) == "PC") continue;
        if (key_of(a[1]) == "UNI") throw fault{"an analysis of one trait has no rank to be reduced"};
        std::string rest;
        for (std::size_t i = 2; i < a.size(); ++i) rest += " " + a[i];
        line = a[0] + " " + a[1] + " PC" + rest;
    }
}

std::vector<double> parfile_text::values(const std::string& block) const {
    const extent e = var_block(block);
    std::vector<double> values;
    for (std::size_t i = e.from + 1; i < e.to; ++i)
        for (const auto& word : words_of(lines_[i]))
            if (word != "+") values.push_back(std::strtod(word.c_str(), nullptr));
    return values;
}

void parfile_text::set_values(const std::string& block, const std::vector<double>& values) {
    const extent e = var_block(block);
    if (e.to == e.from) throw fault{"no covariance block \"" + block + "\" in the parameter file"};
    std::vector<std::vector<std::string>> rows;
    std::size_t count = 0;
    for (std::size_t i = e.from + 1; i < e.to; ++i) {
        rows.push_back(words_of(lines_[i]));
        std::erase(rows.back(), "+");
        count += rows.back().size();
    }
    const auto head = words_of(lines_[e.from]);
    // classes by ranges: two bounds in front of each value
    const bool ranges = head.size() > 3 && key_of(head[3]) == "HET" && count == 3 * values.size();
    if (!ranges && count != values.size())
        throw fault{"block \"" + block + "\" of the parameter file has " + std::to_string(count) +
                    " values, the estimates " + std::to_string(values.size())};
    // values one by one into the places of the old ones: layout and bounds stay
    std::size_t at = 0, place = 0;
    for (std::size_t k = 0; k < rows.size(); ++k) {
        std::string line;
        for (auto& word : rows[k]) {
            if (!ranges || place % 3 == 2) {
                std::ostringstream x;
                x.precision(17);
                x << values[at++];
                word = x.str();
            }
            ++place;
            if (line.size() + word.size() > 74) { // a line is read up to 78 columns
                line += "\n";
                line += " " + word;
            } else {
                line += " " + word;
            }
        }
        lines_[e.from + 1 + k] = line;
    }
}

} // namespace tvx
