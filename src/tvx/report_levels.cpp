// Predictions and residuals of a run with the user's identifiers.
#include "relations/inbreeding.h"
#include "tvx/commands.h"
#include "tvx/report.h"
#include "tvx/tables.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <iterator>
#include <limits>
#include <map>
#include <sstream>

namespace tvx {

namespace {

constexpr double none = std::numeric_limits<double>::quiet_NaN();

struct animal_row {
    std::string id, sire, dam, birth;
    double inbreeding = 0.0;
    int records = -1;
};
using animal_table = std::map<std::int64_t, animal_row>;

// Inbreeding of animals whose parents have smaller codes than they.
void add_inbreeding(animal_table& table, const std::map<std::int64_t, std::pair<std::int64_t, std::int64_t>>& parents) {
    std::map<std::int64_t, int> place;
    std::vector<int> sire, dam;
    // ascending codes: parents have their places before they are asked for
    for (const auto& [code, row] : table) {
        place[code] = static_cast<int>(place.size()) + 1;
        const auto p = parents.find(code);
        const auto find = [&](std::int64_t parent) {
            const auto at = place.find(parent);
            return parent > 0 && at != place.end() ? at->second : 0;
        };
        sire.push_back(p == parents.end() ? 0 : find(p->second.first));
        dam.push_back(p == parents.end() ? 0 : find(p->second.second));
    }
    const std::vector<double> f = tarvex::inbreeding(sire, dam);
    std::size_t k = 0;
    for (auto& [code, row] : table) row.inbreeding = f[k++];
}

animal_table animals_of_study(const study& s) {
    animal_table table;
    std::map<std::int64_t, std::pair<std::int64_t, std::int64_t>> parents;
    const auto name = [&](int code) { return code > 0 ? s.animals[code - 1].id : ""; };
    for (std::size_t i = 0; i < s.animals.size(); ++i) {
        const auto& a = s.animals[i];
        const auto code = static_cast<std::int64_t>(i + 1);
        table[code] = {a.id, name(a.sire), name(a.dam), a.birth, 0.0, a.records};
        parents[code] = {a.sire, a.dam};
    }
    if (!s.sire_model) add_inbreeding(table, parents);
    return table;
}

// Outside studies: from the pedigree file, where it can be found.
animal_table animals_of_file(const run_results& r) {
    animal_table table;
    const json& name = r.estimates["run"]["pedigree_file"];
    if (!name.is_string()) return table;
    const std::string file = r.folder + "/" + name.get<std::string>();
    if (!std::filesystem::exists(file)) return table;
    std::map<std::int64_t, std::pair<std::int64_t, std::int64_t>> parents;
    std::istringstream in(read_text(file));
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::int64_t code = 0, sire = 0, dam = 0;
        if (!(fields >> code >> sire >> dam)) continue;
        const auto text = [](std::int64_t c) { return c > 0 ? std::to_string(c) : std::string(); };
        table[code] = {std::to_string(code), text(sire), text(dam), "", 0.0, -1};
        for (const std::int64_t parent : {sire, dam})
            // a parent whose own line may follow, or be missing
            if (parent > 0) table.try_emplace(parent, animal_row{std::to_string(parent), "", "", "", 0.0, -1});
        parents[code] = {sire, dam};
    }
    if (r.estimates["run"]["sire_model"] == false) add_inbreeding(table, parents);
    return table;
}

// Solutions and errors of the rows of a level, led back from the components of a reduced-rank fit. The errors of
// several components are not independent: sums of them have none.
struct level_values {
    std::vector<double> solution, se;
};

level_values values_of(const json& block, const json& part, std::size_t level) {
    const auto components = part["components"].get<std::size_t>(), rows = block["rows"].size();
    const bool errors = part["se"].size() == part["solutions"].size();
    level_values v;
    std::vector<double> u, e;
    for (std::size_t k = 0; k < components; ++k) {
        u.push_back(number(part["solutions"][level * components + k]));
        e.push_back(errors ? number(part["se"][level * components + k]) : none);
    }
    // without a factor the components are the rows themselves
    if (!block.contains("factor")) return {u, e};
    for (std::size_t i = 0; i < rows; ++i) {
        double sum = 0.0;
        for (std::size_t k = 0; k < components; ++k) sum += number(block["factor"][i][k]) * u[k];
        v.solution.push_back(sum);
        // one component: its error times the loading
        v.se.push_back(components == 1 ? std::fabs(number(block["factor"][i][0])) * e[0] : none);
    }
    return v;
}

double accuracy(double se, double variance, double inbreeding) {
    // variance of an inbred animal
    const double all = variance * (1.0 + (std::isnan(inbreeding) ? 0.0 : inbreeding));
    if (std::isnan(se) || !(all > 0.0)) return none;
    return std::sqrt(std::max(0.0, 1.0 - se * se / all));
}

} // namespace

std::vector<prediction_list> predictions_of(const run_results& r) {
    std::vector<prediction_list> list;
    // solutions of the run with accuracies where there is one
    const json& results = r.solutions.is_object() ? r.solutions : r.estimates;
    if (!results["solutions"].is_object()) return list;
    const animal_table animals =
        r.made_by && !r.made_by->animals.empty() ? animals_of_study(*r.made_by) : animals_of_file(r);
    const estimate_set all(r.estimates);
    for (const auto& part : results["solutions"]["random"]) {
        const int block = part["block"];
        const json& b = results["blocks"][block];
        const bool related = part["structure"] == "NRM";
        const auto rows = b["rows"].size(), levels = part["codes"].size();
        const std::size_t first = list.size();
        for (std::size_t i = 0; i < rows; ++i) {
            const json& row = b["rows"][i];
            const int trait = row["trait"], coefficient = row["coefficient"];
            prediction_list p{effect_name(r, row["effect"], trait), trait_name(r, trait), related, {}};
            if (coefficient > 0) p.trait += "[" + std::to_string(coefficient) + "]";
            p.levels.resize(levels);
            list.push_back(p);
        }
        for (std::size_t l = 0; l < levels; ++l) {
            const level_values v = values_of(b, part, l);
            const std::int64_t code = part["codes"][l];
            // levels without relationships have identifiers of their class
            const auto a = related ? animals.find(code) : animals.end();
            for (std::size_t i = 0; i < rows; ++i) {
                const json& row = b["rows"][i];
                const int trait = row["trait"];
                const double unit = trait_unit(r, trait);
                prediction& p = list[first + i].levels[l];
                p.code = code;
                p.inbreeding = none;
                if (a != animals.end()) {
                    p.id = a->second.id;
                    p.sire = a->second.sire;
                    p.dam = a->second.dam;
                    p.birth = a->second.birth;
                    p.records = a->second.records;
                    p.inbreeding = a->second.inbreeding;
                } else {
                    p.id = level_id(r, row["effect"], trait, code);
                }
                p.solution = v.solution[i] * unit;
                p.se = v.se[i] * unit;
                // both in the units of the analysis: the ratio has none
                const auto at = static_cast<int>(i + 1);
                p.accuracy = accuracy(v.se[i], all.value(all.element(block, 1, at, at)), p.inbreeding);
            }
        }
    }
    return list;
}

namespace {

// For each trait the lines of the user's table that hold its records, in the order of the data file.
std::vector<std::vector<std::int64_t>> lines_by_trait(const run_results& r, std::size_t traits) {
    std::vector<std::vector<std::int64_t>> lines(traits + 1);
    const study& s = *r.made_by;
    if (!s.one_line) {
        for (std::size_t k = 0; k < s.lines.size(); ++k) {
            const int t = s.lines[k].trait;
            if (t >= 1 && static_cast<std::size_t>(t) <= traits) lines[t].push_back(s.lines[k].line);
        }
        return lines;
    }
    // all traits in a line: who has a record there is told by the data file
    std::vector<std::size_t> column(traits + 1);
    for (std::size_t t = 1; t <= traits; ++t) {
        const study_trait* trait = find_trait(s, static_cast<int>(t));
        const auto at = std::find(s.columns.begin(), s.columns.end(), trait ? trait->column : "");
        column[t] = static_cast<std::size_t>(at - s.columns.begin());
    }
    std::istringstream in(read_text(r.folder + "/" + r.estimates["run"]["data_file"].get<std::string>()));
    std::size_t k = 0;
    for (std::string line; std::getline(in, line);) {
        // lines of the data file and of lines.tsv go together, one for one
        if (line.empty() || line[0] == '#' || k >= s.lines.size()) continue;
        std::istringstream fields(line);
        std::vector<std::string> f{std::istream_iterator<std::string>(fields), {}};
        for (std::size_t t = 1; t <= traits; ++t) {
            const study_trait* trait = find_trait(s, static_cast<int>(t));
            if (!trait || column[t] >= f.size()) continue;
            if (std::stod(f[column[t]]) != trait->missing) lines[t].push_back(s.lines[k].line);
        }
        ++k;
    }
    return lines;
}

} // namespace

std::vector<residual_record> residuals_of(const run_results& r) {
    std::vector<residual_record> list;
    const std::string file = r.folder + "/Residuals.dat";
    if (!std::filesystem::exists(file)) return list;
    const json& results = r.solutions.is_object() ? r.solutions : r.estimates;
    const json& traits = results["solutions"].is_object() ? results["solutions"]["traits_of_residuals"] : json();
    std::istringstream in(read_text(file));
    residual_record x;
    // as the program writes them: subject by subject
    while (in >> x.observed >> x.residual) {
        x.trait = traits.is_array() && list.size() < traits.size() ? traits[list.size()].get<int>() : 1;
        x.line = static_cast<std::int64_t>(list.size() + 1);
        list.push_back(x);
    }
    std::vector<std::vector<std::int64_t>> lines;
    if (r.made_by) lines = lines_by_trait(r, r.estimates["traits"].size());
    // next[t]: how many records of trait t have been met
    std::vector<std::size_t> next(r.estimates["traits"].size() + 1);
    for (auto& p : list) {
        const auto t = static_cast<std::size_t>(p.trait);
        // records of a trait come in the order of the data file
        if (!lines.empty()) p.line = next[t] < lines[t].size() ? lines[t][next[t]++] : 0;
        const double unit = trait_unit(r, p.trait);
        p.observed *= unit;
        p.residual *= unit;
    }
    return list;
}

} // namespace tvx
