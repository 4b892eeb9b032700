// The page of a report: the figures for its pictures, and the file with script, style and D3 put in whole.
#include "tvx/report.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <map>
#include <string_view>

namespace tvx {

extern const unsigned char page_style[], page_script[], page_d3[];
extern const unsigned long page_style_size, page_script_size, page_d3_size;

namespace {

// What a page holds at most: points of a picture of residuals, animals of a list, effects; the tables have all.
constexpr std::size_t most_points = 1500, most_best = 15, most_effects = 24;

std::string_view embedded(const unsigned char* bytes, unsigned long size) {
    return {reinterpret_cast<const char*>(bytes), size};
}

// NaN has no form in JSON; the script leaves a gap there.
json number_or_null(double x) { return std::isfinite(x) ? json(x) : json(); }

json component_list(const run_results& r) {
    auto list = json::array();
    for (const auto& c : components_of(r))
        list.push_back({{"effect", c.effect},
                        {"trait_i", c.trait_i},
                        {"trait_j", c.trait_j},
                        {"kind", c.kind},
                        {"estimate", number_or_null(c.estimate)},
                        {"se", number_or_null(c.se)},
                        {"ratio", number_or_null(c.ratio)},
                        {"ratio_se", number_or_null(c.ratio_se)},
                        {"mark", c.mark},
                        {"words", c.words}});
    return list;
}

// Counts in classes of equal width; values that are not finite are passed over.
json histogram(const std::vector<double>& values) {
    json h = {{"from", 0.0}, {"to", 1.0}, {"counts", json::array()}};
    double low = INFINITY, high = -INFINITY;
    std::size_t n = 0;
    for (const double x : values)
        if (std::isfinite(x)) {
            low = std::min(low, x);
            high = std::max(high, x);
            ++n;
        }
    if (n == 0) return h;
    // equal values: one bar in the middle
    if (!(high > low)) {
        low -= 0.5;
        high += 0.5;
    }
    // 2 n^(1/3) classes (Rice's rule)
    const auto classes = static_cast<std::size_t>(std::clamp(2.0 * std::cbrt(static_cast<double>(n)), 5.0, 40.0));
    std::vector<int> counts(classes);
    for (const double x : values)
        if (std::isfinite(x)) {
            const double at = (x - low) / (high - low) * static_cast<double>(classes);
            // the largest value belongs to the last class
            ++counts[std::min(classes - 1, static_cast<std::size_t>(at))];
        }
    return {{"from", low}, {"to", high}, {"counts", counts}};
}

// Year of a birth: the first four digits in a row, else a whole number. 0: none.
int year_of(const std::string& birth) {
    std::size_t run = 0;
    for (std::size_t i = 0; i <= birth.size(); ++i) {
        if (i < birth.size() && std::isdigit(static_cast<unsigned char>(birth[i]))) {
            ++run;
            continue;
        }
        // a date with a year, or the whole text a number
        if (run == 4 || (run > 0 && run == birth.size() && run < 9)) return std::stoi(birth.substr(i - run, run));
        run = 0;
    }
    return 0;
}

// Means of solutions by year of birth: the genetic trend.
json trend_of(const prediction_list& p) {
    std::map<int, std::pair<double, int>> years;
    for (const auto& l : p.levels)
        if (const int year = year_of(l.birth); year != 0) {
            years[year].first += l.solution;
            ++years[year].second;
        }
    auto list = json::array();
    for (const auto& [year, sum] : years)
        list.push_back({{"year", year}, {"mean", sum.first / sum.second}, {"animals", sum.second}});
    return list;
}

json best_of(const prediction_list& p) {
    auto list = json::array();
    if (!p.animals) return list;
    std::vector<const prediction*> order;
    for (const auto& l : p.levels) order.push_back(&l);
    // the best only, without sorting the many others
    const std::size_t n = std::min(most_best, order.size());
    std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(n), order.end(),
                      [](auto* a, auto* b) { return a->solution > b->solution; });
    for (std::size_t i = 0; i < n; ++i) {
        const prediction& l = *order[i];
        list.push_back({{"id", l.id},
                        {"solution", l.solution},
                        {"se", number_or_null(l.se)},
                        {"accuracy", number_or_null(l.accuracy)},
                        {"inbreeding", number_or_null(l.inbreeding)},
                        {"records", l.records},
                        {"sire", l.sire},
                        {"dam", l.dam}});
    }
    return list;
}

json effect_part(const prediction_list& p) {
    std::vector<double> values, accuracies;
    for (const auto& l : p.levels) {
        values.push_back(l.solution);
        accuracies.push_back(l.accuracy);
    }
    return {{"effect", p.effect},
            {"trait", p.trait},
            {"animals", p.animals},
            {"count", p.levels.size()},
            {"solutions", histogram(values)},
            {"accuracies", histogram(accuracies)},
            {"trend", p.animals ? trend_of(p) : json::array()},
            {"best", best_of(p)}};
}

json residual_part(const run_results& r, const std::vector<residual_record>& residuals) {
    auto list = json::array();
    for (std::size_t t = 1; t <= r.estimates["traits"].size(); ++t) {
        std::vector<const residual_record*> own;
        for (const auto& x : residuals)
            if (x.trait == static_cast<int>(t)) own.push_back(&x);
        if (own.empty()) continue;
        auto points = json::array();
        const std::size_t n = std::min(most_points, own.size());
        for (std::size_t k = 0; k < n; ++k) {
            // evenly through the records: a picture needs no more
            const residual_record& x = *own[k * own.size() / n];
            points.push_back({x.observed - x.residual, x.residual});
        }
        list.push_back({{"trait", trait_name(r, static_cast<int>(t))}, {"count", own.size()}, {"points", points}});
    }
    return list;
}

json curve_part(const run_results& r) {
    auto list = json::array();
    for (const auto& c : curves_of(r)) {
        auto points = json::array();
        for (const auto& p : c.points)
            points.push_back({{"x", p.x},
                              {"variance", number_or_null(p.variance)},
                              {"se", number_or_null(p.se)},
                              {"ratio", number_or_null(p.ratio)},
                              {"ratio_se", number_or_null(p.ratio_se)}});
        list.push_back({{"control", c.control}, {"effect", c.effect}, {"points", points}});
    }
    return list;
}

json eigen_list(const run_results& r) {
    auto list = json::array();
    for (const auto& e : eigen_parts(r))
        list.push_back({{"effect", e.effect},
                        {"order", e.order},
                        {"rank", e.rank},
                        {"rows", e.rows},
                        {"values", e.values},
                        {"loadings", e.loadings}});
    return list;
}

json fact_list(const run_results& r) {
    auto list = json::array();
    char text[60];
    const auto add = [&](const char* name, const char* form, auto value) {
        std::snprintf(text, sizeof text, form, value);
        list.push_back({name, text});
    };
    add("Records", "%d", r.estimates["likelihood"]["records"].get<int>());
    add("Traits", "%d", static_cast<int>(r.estimates["traits"].size()));
    if (r.estimates["likelihood"]["log_l"].is_number())
        add("log L", "%.4f", number(r.estimates["likelihood"]["log_l"]));
    add("Parameters", "%d", r.estimates["likelihood"]["parameters"].get<int>());
    // results of a stored best point have no equations
    if (r.estimates["equations"].is_object())
        add("Equations", "%lld", r.estimates["equations"]["equations"].get<long long>());
    add("Seconds", "%.1f", number(r.estimates["resources"]["wall_seconds"]));
    add("Memory, MB", "%.0f", number(r.estimates["resources"]["peak_memory_bytes"]) / 1048576.0);
    return list;
}

json note_list(const run_results& r) {
    auto list = json::array();
    if (!r.made_by) return list;
    for (const auto& d : r.made_by->dropped)
        list.push_back(std::to_string(d.records) + " records left out: " + d.reason);
    for (const auto& remark : r.made_by->remarks) list.push_back(remark);
    for (const auto& t : r.made_by->traits)
        if (t.power != 0)
            list.push_back(t.name + " was divided by 10^" + std::to_string(t.power) +
                           " for the analysis; all figures here are in your units.");
    return list;
}

} // namespace

json report_summary(const run_results& r, const std::vector<prediction_list>& predictions,
                    const std::vector<residual_record>& residuals) {
    const judgement verdict = judge(r);
    json d = {{"format", "tvx-report"}, {"format_version", 1}};
    d["title"] = r.made_by ? r.made_by->name : r.estimates["run"]["parameter_file"].get<std::string>();
    d["formula"] = r.made_by ? r.made_by->formula : std::string();
    d["verdict"] = {
        {"verdict", verdict.verdict}, {"text", verdict.text}, {"details", verdict.details}, {"status", verdict.status}};
    d["facts"] = fact_list(r);
    d["traits"] = r.estimates["traits"].size();
    d["random_regression"] = r.estimates["run"]["random_regression"];
    d["components"] = component_list(r);
    d["curves"] = curve_part(r);
    d["effects"] = json::array();
    for (std::size_t i = 0; i < std::min(most_effects, predictions.size()); ++i)
        d["effects"].push_back(effect_part(predictions[i]));
    d["born"] = r.made_by ? r.made_by->born : std::string();
    d["eigen"] = eigen_list(r);
    d["residuals"] = residual_part(r, residuals);
    d["iterates"] = json::array();
    for (const auto& i : r.estimates["iterates"])
        d["iterates"].push_back({{"method", i["method"]}, {"round", i["round"]}, {"log_l", i["log_l"]}});
    const json& end = r.estimates["end"];
    d["search"] = end.is_object() ? "The search ended: " + end.value("reason", "") + "." : std::string();
    d["notes"] = note_list(r);
    d["made"] = "Tarvex " + r.estimates["program"]["version"].get<std::string>() +
                "; tables with all digits stand beside "
                "this page.";
    return d;
}

std::string page_of(const json& summary) {
    // names of a parameter file may hold any bytes: the dump replaces what is no UTF-8
    std::string data = summary.dump(-1, ' ', false, json::error_handler_t::replace);
    // neither may end the element that holds the data
    for (std::size_t at = 0; (at = data.find("</", at)) != std::string::npos;) data.replace(at, 2, "<\\/");
    for (std::size_t at = 0; (at = data.find("<!--", at)) != std::string::npos;) data.replace(at, 4, "<\\u0021--");
    std::string title;
    for (const char c : summary["title"].get<std::string>())
        title += c == '<' ? "&lt;" : c == '&' ? "&amp;" : std::string(1, c);
    // one file that needs nothing else: it can be sent, and opened without a network
    std::string page = "<!doctype html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
                       "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
                       "<meta name=\"color-scheme\" content=\"light dark\">\n"
                       "<link rel=\"icon\" href=\"data:,\">\n<title>" +
                       title + "</title>\n<style>\n";
    page += embedded(page_style, page_style_size);
    page += "</style>\n</head>\n<body>\n<main><noscript>The pictures need JavaScript; the tables beside this page do "
            "not.</noscript></main>\n<script id=\"data\" type=\"application/json\">";
    page += data;
    page += "</script>\n<script>";
    page += embedded(page_d3, page_d3_size);
    page += "</script>\n<script>\n";
    page += embedded(page_script, page_script_size);
    page += "</script>\n</body>\n</html>\n";
    return page;
}

} // namespace tvx
