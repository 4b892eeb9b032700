// Tables of a report: text with tabs, one heading line, empty fields for what does not exist.
#include "tvx/report.h"
#include "tvx/tables.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <map>
#include <set>

namespace tvx {

namespace {

std::string exact(double x) {
    if (!std::isfinite(x)) return "";
    char text[40];
    // shortest text that reads back equal
    return {text, std::to_chars(text, text + sizeof text, x).ptr};
}

// One line of a table; an empty first field stays one.
class row {
public:
    row& operator()(std::string_view text) {
        if (!first_) line_ += '\t';
        put_field(line_, text);
        first_ = false;
        return *this;
    }
    row& operator()(double x) { return (*this)(std::string_view(exact(x))); }
    // below 0: not known
    row& count(long long n) { return (*this)(std::string_view(n < 0 ? std::string() : std::to_string(n))); }
    void end(std::string& table) const { table += line_ + '\n'; }

private:
    std::string line_;
    bool first_ = true;
};

std::string file_word(const std::string& name) {
    std::string word;
    for (const char c : name) word += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    while (word.size() > 1 && word.back() == '_') word.pop_back();
    return word;
}

std::string estimates_table(const run_results& r) {
    std::string table = "effect\ttrait_i\ttrait_j\tkind\testimate\tse\tratio\tratio_se\tmark\n";
    for (const auto& c : components_of(r))
        row()(c.effect)(c.trait_i)(c.trait_j)(c.kind)(c.estimate)(c.se)(c.ratio)(c.ratio_se)(c.mark).end(table);
    return table;
}

std::map<std::string, std::string> solution_tables(const std::vector<prediction_list>& predictions) {
    std::map<std::string, std::string> tables; // by effect
    for (const auto& p : predictions) {
        auto [at, fresh] = tables.try_emplace(p.effect);
        if (fresh)
            at->second = p.animals ? "id\ttrait\tsolution\tse\taccuracy\tinbreeding\trecords\tsire\tdam\tbirth\n"
                                   : "id\ttrait\tsolution\tse\taccuracy\n";
        for (const auto& l : p.levels) {
            row x;
            x(l.id)(p.trait)(l.solution)(l.se)(l.accuracy);
            if (p.animals) x(l.inbreeding).count(l.records)(l.sire)(l.dam)(l.birth);
            x.end(at->second);
        }
    }
    return tables;
}

std::string fixed_table(const run_results& r) {
    std::string table = "effect\ttrait\tkind\tlevel\tcoefficient\tsolution\tse\trecords\tmean\tmark\n";
    const json& results = r.solutions.is_object() ? r.solutions : r.estimates;
    if (!results["solutions"].is_object()) return table;
    for (const auto& part : results["solutions"]["fixed"]) {
        const int trait = part["trait"];
        const double unit = trait_unit(r, trait);
        const std::string column = part["effect"], kind = part["kind"], name = effect_name(r, column, trait);
        const bool covariable = kind == "covariable";
        // coefficients of a curve stand together
        const std::size_t order = covariable ? part["coefficients"].get<std::size_t>() : 1;
        std::set<std::size_t> out;
        if (!covariable)
            for (const auto& l : part["taken_out"]) out.insert(l.get<std::size_t>());
        for (std::size_t k = 0; k < part["solutions"].size(); ++k) {
            const std::size_t level = k / order;
            const bool has_level = part["codes"].is_array() && kind != "mean";
            row x;
            x(name)(trait_name(r, trait))(kind);
            x(has_level ? level_id(r, column, trait, part["codes"][level].get<std::int64_t>()) : std::string());
            x(covariable ? std::to_string(k % order + 1) : std::string());
            x(number(part["solutions"][k]) * unit)(number(part["se"][k]) * unit);
            x(covariable ? std::string() : part["records"][level].dump());
            x(covariable ? std::string() : exact(number(part["means"][level]) * unit));
            x(out.contains(level + 1) ? "dependent" : "");
            x.end(table);
        }
    }
    return table;
}

std::string residuals_table(const run_results& r, const std::vector<residual_record>& residuals) {
    std::string table = "line\ttrait\tobserved\tfitted\tresidual\n";
    std::vector<std::string> names{""};
    for (std::size_t t = 1; t <= r.estimates["traits"].size(); ++t) names.push_back(trait_name(r, static_cast<int>(t)));
    for (const auto& x : residuals)
        row().count(x.line)(names[x.trait])(x.observed)(x.observed - x.residual)(x.residual).end(table);
    return table;
}

std::string curves_table(const std::vector<curve>& curves) {
    std::string table = "control\tvalue\teffect\tvariance\tse\tratio\tratio_se\n";
    for (const auto& c : curves)
        for (const auto& p : c.points)
            row()(c.control)(p.x)(c.effect)(p.variance)(p.se)(p.ratio)(p.ratio_se).end(table);
    return table;
}

} // namespace

void write_tables(const run_results& r, const std::vector<prediction_list>& predictions,
                  const std::vector<residual_record>& residuals, const std::string& folder) {
    write_text(folder + "/estimates.tsv", estimates_table(r));
    std::set<std::string> used;
    for (const auto& [effect, table] : solution_tables(predictions)) {
        std::string word = file_word(effect);
        // names that differ in signs alone
        while (!used.insert(word).second) word += "_";
        write_text(folder + "/solutions_" + word + ".tsv", table);
    }
    write_text(folder + "/fixed.tsv", fixed_table(r));
    write_text(folder + "/residuals.tsv", residuals_table(r, residuals));
    if (const auto curves = curves_of(r); !curves.empty()) write_text(folder + "/curves.tsv", curves_table(curves));
}

std::string text_summary(const run_results& r) {
    // figures that are not finite (errors of what is at the border) are left blank
    const judgement j = judge(r);
    std::string text;
    char line[200];
    const auto figure = [](double x, const char* form) {
        char t[40] = "";
        if (std::isfinite(x)) std::snprintf(t, sizeof t, form, x);
        return std::string(t);
    };
    std::snprintf(line, sizeof line, "%-20s %-12s %-12s %12s %10s %8s %8s\n", "effect", "trait", "with", "estimate",
                  "s.e.", "ratio", "s.e.");
    text += line;
    for (const auto& c : components_of(r)) {
        std::snprintf(line, sizeof line, "%-20s %-12s %-12s %12s %10s %8s %8s %s\n", c.effect.c_str(),
                      c.trait_i.c_str(), c.kind == "covariance" ? c.trait_j.c_str() : "",
                      figure(c.estimate, "%.5g").c_str(), figure(c.se, "%.3g").c_str(), figure(c.ratio, "%.3f").c_str(),
                      figure(c.ratio_se, "%.3f").c_str(), c.mark.c_str());
        text += line;
    }
    text += "\nVerdict: " + j.verdict + ". " + j.text + "\n";
    for (const auto& d : j.details) text += "  " + d + "\n";
    return text;
}

} // namespace tvx
