// prep --start: starting values from a file or from the estimates of a run, in place of those from the data.
#include "tvx/commands.h"
#include "tvx/draft.h"
#include "tvx/startfrom.h"
#include "tvx/tables.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <iterator>
#include <sstream>

namespace tvx {

namespace {

std::vector<double> read_values(const std::string& file) {
    std::vector<double> values;
    std::istringstream in(read_text(file));
    int line = 0;
    for (std::string text; std::getline(in, text);) {
        ++line;
        std::istringstream words(text);
        for (std::string word; words >> word && word[0] != '#';) {
            // the old sign that a list goes on in the next line
            if (word == "+") continue;
            double x = 0.0;
            const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), x);
            if (error != std::errc() || end != word.data() + word.size() || !std::isfinite(x))
                throw fault{"\"" + file + "\", line " + std::to_string(line) + ": " + shown(word) + " is no number"};
            values.push_back(x);
        }
    }
    return values;
}

std::size_t size_of(const draft& d, const start_block& b) {
    const std::size_t n = b.order;
    // a variance for each class
    return b.name == "residual" && d.randreg ? std::max<std::size_t>(1, d.s.residuals.size()) : n * (n + 1) / 2;
}

[[noreturn]] void other_number(const draft& d, const std::vector<start_block>& blocks, std::size_t found) {
    std::string text;
    for (const auto& b : blocks) text += (text.empty() ? "" : ", ") + b.name + " " + std::to_string(size_of(d, b));
    throw fault{"\"" + d.request.start + "\" has " + std::to_string(found) +
                " values; the upper triangles of the blocks, in this order, have: " + text};
}

// Classes of residual variances may have their bounds in front, as in a parameter file.
void take_file(const draft& d, std::vector<start_block>& blocks) {
    const auto values = read_values(d.request.start);
    std::size_t need = 0, classes = d.randreg ? d.s.residuals.size() : 0;
    for (const auto& b : blocks) need += size_of(d, b);
    // two bounds in front of each variance
    const bool bounds = classes > 0 && values.size() == need + 2 * classes;
    if (values.size() != need && !bounds) other_number(d, blocks, values.size());
    std::size_t at = 0;
    for (auto& b : blocks) {
        const bool skip = bounds && b.name == "residual";
        const std::size_t n = size_of(d, b);
        b.values.clear();
        for (std::size_t k = 0; k < n; ++k) {
            if (skip) at += 2;
            b.values.push_back(values[at++]);
        }
        b.exact = true;
    }
}

double unit_of(const study_trait& t) { return std::pow(10.0, t.power); }

std::vector<start_row> rows_of(const draft& d, const std::string& block) {
    std::vector<start_row> rows;
    if (block == "residual") {
        for (const auto& t : d.s.traits) rows.push_back({"residual", t.name, 0, unit_of(t)});
        return rows;
    }
    for (const auto& f : d.effects) {
        if (f.e.block != block) continue;
        // coefficients count from 1; 0 where there are none
        for (const int q : f.e.traits) {
            const auto& t = d.s.traits[q - 1];
            for (int k = d.randreg ? 1 : 0; k <= (d.randreg ? f.e.order : 0); ++k)
                rows.push_back({f.e.name, t.name, k, unit_of(t)});
        }
    }
    return rows;
}

// Coefficients of random regressions mean the same only on the same functions of the same control variable.
bool same_functions(const draft& d, const run_results& r, const std::string& block) {
    if (!d.randreg || block == "residual") return true;
    if (!r.made_by || r.made_by->control_power != d.s.control_power || r.made_by->control_shift != d.s.control_shift)
        return false;
    return std::all_of(d.effects.begin(), d.effects.end(), [&](const auto& f) {
        return f.e.block != block ||
               std::any_of(r.made_by->effects.begin(), r.made_by->effects.end(), [&](const auto& e) {
                   return e.name == f.e.name && e.basis == f.e.basis && e.covariable == f.e.covariable &&
                          // the first functions are the same at every order, but not those of splines
                          (e.order == f.e.order || !e.basis.starts_with("BS"));
               });
    });
}

void take_run(draft& d, std::vector<start_block>& blocks) {
    const run_results r = read_run(d.request.start);
    known_covariances known;
    known.add(r);
    int taken = 0, all = 0;
    for (auto& b : blocks) {
        if (!same_functions(d, r, b.name)) continue;
        const auto rows = rows_of(d, b.name);
        all += static_cast<int>(size_of(d, b));
        if (b.name == "residual" && d.randreg) {
            // one starting value for all classes
            b.values.resize(size_of(d, b), b.values[0]);
            for (std::size_t k = 0; k < b.values.size(); ++k) {
                std::vector<double> one{b.values[k]};
                taken += take_known(known, rows, one, static_cast<int>(k) + 1);
                b.values[k] = one[0];
            }
        } else {
            taken += take_known(known, rows, b.values);
        }
        b.exact = true;
    }
    if (taken == 0) throw fault{"--start: the run in \"" + r.folder + "\" has no effect and trait of this formula"};
    d.s.remarks.push_back("starting values: " + std::to_string(taken) + " of " + std::to_string(all) +
                          " covariances from the run in " + r.folder);
}

} // namespace

void take_given_values(draft& d, std::vector<start_block>& blocks) {
    if (d.request.start.empty()) return;
    // Results.json, a folder or a study name a run; any other file holds numbers
    if (std::filesystem::is_regular_file(d.request.start) && d.request.start.find(".json") == std::string::npos)
        return take_file(d, blocks);
    take_run(d, blocks);
}

} // namespace tvx
