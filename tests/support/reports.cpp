#include "support/reports.h"

#include "support/fixture.h"

#include <cmath>
#include <cstdlib>
#include <limits>
#include <utility>

namespace tarvex {

namespace {

constexpr double not_there = std::numeric_limits<double>::quiet_NaN();

bool is_real(const std::string& word) { return word.find('.') != std::string::npos && !std::isnan(number_of(word)); }

int whole(const std::string& word) { return static_cast<int>(number_of(word)); }

// Word i of a line as a number, NaN behind its end.
double at(const std::vector<std::string>& words, std::size_t i) {
    return i < words.size() ? number_of(words[i]) : not_there;
}

} // namespace

std::vector<std::string> lines_of(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const auto end = text.find('\n');
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return lines;
}

std::vector<std::string> words_of(std::string_view line) {
    std::vector<std::string> words;
    for (std::size_t i = 0; i < line.size();) {
        const auto from = line.find_first_not_of(" \t\r\n", i);
        if (from == std::string_view::npos) break;
        const auto to = std::min(line.find_first_of(" \t\r\n", from), line.size());
        words.emplace_back(line.substr(from, to - from));
        i = to;
    }
    return words;
}

double number_of(const std::string& word) {
    char* end = nullptr;
    const double x = std::strtod(word.c_str(), &end);
    return word.empty() || *end != '\0' ? not_there : x;
}

std::vector<iterate> iterates_of(std::string_view output) {
    std::vector<iterate> list;
    for (const auto& line : lines_of(output)) {
        const auto label = line.find("log L =");
        if (!line.starts_with("***") || label == std::string::npos) continue;
        const auto head = words_of(line.substr(0, label)), tail = words_of(line.substr(label + 7));
        if (head.size() < 3 || tail.empty()) continue;
        list.push_back({head[0].substr(3), whole(head[2]), number_of(tail[0])});
    }
    return list;
}

double loglike_at_start(std::string_view output) {
    const auto list = iterates_of(output);
    return !list.empty() && list[0].round == 0 ? list[0].loglike : not_there;
}

best_point read_best_point() {
    best_point best;
    const auto words = words_of([] {
        std::string text = read_file("BestPoint");
        for (char& c : text)
            if (c == '\n') c = ' ';
        return text;
    }());
    if (words.size() < 3) return best;
    best.loglike = number_of(words[0]);
    best.nparm = whole(words[1]);
    for (std::size_t i = 2; i < words.size() && words[i] != "sums"; ++i) best.values.push_back(number_of(words[i]));
    return best;
}

std::vector<estimate_line> read_estimates(const std::string& file) {
    std::vector<estimate_line> list;
    for (const auto& line : lines_of(read_file(file))) {
        const auto w = words_of(line);
        if (w.size() < 5 || w[1] != "COVS") continue;
        std::size_t first = 2;
        while (first < w.size() && !is_real(w[first])) ++first;
        estimate_line e{whole(w[0]), {}, at(w, first), at(w, first + 1), {}, not_there, not_there};
        for (std::size_t i = 2; i < first; ++i) e.name += (i > 2 ? " " : "") + w[i];
        if (first + 2 < w.size()) {
            e.what = w[first + 2];
            e.ratio = at(w, first + 3);
            e.ratio_error = at(w, first + 4);
        }
        list.push_back(e);
    }
    return list;
}

double labelled(const std::string& file, const std::string& label) {
    for (const auto& line : lines_of(read_file(file))) {
        const auto found = line.find(label);
        if (found == std::string::npos) continue;
        for (const auto& w : words_of(line.substr(found + label.size())))
            if (!std::isnan(number_of(w))) return number_of(w);
    }
    return not_there;
}

triangle read_triangle(const std::string& file) {
    triangle t;
    std::size_t n = 0;
    std::vector<std::pair<std::pair<std::size_t, std::size_t>, double>> elements;
    const auto lines = lines_of(read_file(file));
    if (!lines.empty()) t.loglike = at(words_of(lines[0]), 0);
    for (std::size_t k = 1; k < lines.size(); ++k) {
        const auto w = words_of(lines[k]);
        if (w.size() < 3) continue;
        const auto i = static_cast<std::size_t>(whole(w[0])), j = static_cast<std::size_t>(whole(w[1]));
        elements.push_back({{i - 1, j - 1}, number_of(w[2])});
        n = std::max({n, i, j});
    }
    t.rows.assign(n, std::vector<double>(n, 0.0));
    for (const auto& [place, x] : elements) t.rows[place.first][place.second] = t.rows[place.second][place.first] = x;
    return t;
}

fixed_solutions read_fixed_solutions() {
    fixed_solutions s;
    int trait = 0;
    enum { none, covariables, levels } part = none;
    std::size_t errors = 0, nested = 0;
    for (const auto& line : lines_of(read_file("FixSolutions.out"))) {
        const auto w = words_of(line);
        if (line.find(" for trait no.") != std::string::npos) {
            trait = whole(words_of(line.substr(line.find("no.") + 3)).at(0));
            part = w[0] == "Covariables" ? covariables : w[0] == "Fixed" ? levels : none;
        } else if (line.find("Solution") != std::string::npos && part != none) {
            errors = line.find("S.Error") != std::string::npos ? 1 : 0;
            nested = line.find(" Nested") != std::string::npos ? 1 : 0;
        } else if (part == covariables && w.size() == 4 + nested + errors) {
            s.covariables.push_back({trait, w[1], nested == 1 ? whole(w[2]) : 0, whole(w[2 + nested]),
                                     at(w, 3 + nested), errors == 1 ? at(w, 4 + nested) : not_there});
        } else if (part == levels && w.size() == 8 + errors && !std::isnan(number_of(w[0]))) {
            s.levels.push_back({trait, w[1], static_cast<long>(number_of(w[2])), whole(w[3]), at(w, 4),
                                errors == 1 ? at(w, 5) : not_there, whole(w[6 + errors]), at(w, 7 + errors)});
        }
    }
    return s;
}

std::vector<random_line> read_random_solutions(const std::string& effect) {
    std::vector<random_line> list;
    long code = 0;
    for (const auto& line : lines_of(read_file("RnSoln_" + effect + ".dat"))) {
        if (line.size() < 23) continue;
        const auto field = words_of(line.substr(6, 14));
        if (!field.empty()) code = static_cast<long>(number_of(field[0]));
        const auto w = words_of(line.substr(23));
        list.push_back({whole(words_of(line.substr(0, 6)).at(0)), code, whole(words_of(line.substr(20, 3)).at(0)),
                        at(w, 0), at(w, 1), at(w, 2)});
    }
    return list;
}

std::vector<residual_line> read_residuals() {
    std::vector<residual_line> list;
    for (const auto& line : lines_of(read_file("Residuals.dat"))) {
        const auto w = words_of(line);
        list.push_back({at(w, 0), at(w, 1)});
    }
    return list;
}

} // namespace tarvex
