#include "tvx/results.h"

#include "support/digest.h"
#include "tvx/commands.h"
#include "tvx/tables.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>

namespace tvx {

namespace fs = std::filesystem;

namespace {

constexpr double arrived_below = 0.001; // gain in log L that is still promised

std::string bare(const std::string& name) { return name.substr(0, name.find('(')); }

std::string shown(double x, int digits) {
    char text[40];
    std::snprintf(text, sizeof text, "%.*g", digits, x);
    return text;
}

// Last finished run of a study or folder of an analysis: the highest number among runs/. Runs that were made for a test
// are passed over, and those of a study that has been replaced; runs that tell nothing of theirs are judged by their
// data.
std::string last_run(const std::string& folder) {
    const std::string sum = has_study(folder) ? sum_of_study(read_study(folder)) : "";
    std::string best;
    bool earlier = false;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(folder + "/runs", none)) {
        const std::string name = entry.path().string();
        // names begin with a number of three digits: the last in order is the newest
        if (!fs::exists(name + "/estimates.json", none) || name <= best) continue;
        const json told = fs::exists(name + "/run.json", none) ? read_json_file(name + "/run.json") : json::object();
        if (told.contains("made_for")) continue;
        if (!sum.empty() && told.contains("study") && told["study"] != sum)
            earlier = true;
        else
            best = name;
    }
    if (best.empty() && earlier)
        throw fault{"the runs in \"" + folder +
                    "/runs\" are of the study that stood here before: tvx run makes one of " +
                    "this study, or name a run"};
    return best;
}

// Are the inputs of the results still those that stand in the folder ? Then the study beside them has their names.
bool same_inputs(const json& results, const std::string& folder) {
    if (!results.contains("inputs")) return true;
    for (const auto& input : results["inputs"]) {
        const std::string role = input["role"], file = folder + "/" + input["name"].get<std::string>();
        // names of levels depend on these two
        if (role != "data" && role != "pedigree") continue;
        std::error_code ec;
        if (!fs::is_regular_file(file, ec)) return false;
        tarvex::digest_maker sum;
        const std::string bytes = read_text(file);
        sum.bytes(bytes.data(), bytes.size());
        if (tarvex::hex(sum.value()) != input["xxh3_128"].get<std::string>()) return false;
    }
    return true;
}

// The study that a run has kept; where it has none, that beside its inputs.
std::unique_ptr<study> study_of(const run_results& r, const std::string& source) {
    if (has_study(r.folder + "/study/study.json")) return std::make_unique<study>(read_study(r.folder + "/study"));
    if (source.empty() || !has_study(source)) return nullptr;
    if (!same_inputs(r.estimates, source))
        throw fault{"the results in \"" + r.folder + "\" are not of the study that now stands in \"" + source +
                    "\": run the analysis again"};
    return std::make_unique<study>(read_study(source));
}

// Folder with the inputs that a run was made from; blank: not known.
std::string source_of(const run_results& r) {
    if (!r.run.is_object()) return r.folder;
    const std::string source = r.run.value("source", "");
    return source.empty() || source[0] == '/' ? source : r.folder + "/" + source;
}

std::string folder_of_run(const std::string& place) {
    std::string folder = place;
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    if (fs::is_regular_file(folder)) folder = fs::path(folder).parent_path().string();
    if (folder.empty()) folder = ".";
    // a run by tvx, or by the program itself
    if (fs::exists(folder + "/estimates.json") || fs::exists(folder + "/Results.json")) return folder;
    const std::string last = last_run(folder);
    if (!last.empty()) return last;
    throw fault{"\"" + place + "\" is no run: it holds neither estimates.json nor Results.json (tvx run makes one)"};
}

std::string border_words(const run_results& r, const json& b) {
    const int block = b["block"], row = b["row"], column = b["column"];
    const double x = number(b["value"]);
    const std::string kind = b["kind"];
    if (kind == "variance")
        return "variance of " + row_words(r, block, row) + ": " + shown(std::max(0.0, x), 2) + " of the phenotypic one";
    if (kind == "correlation")
        return "correlation of " + row_words(r, block, row) + " and " + row_words(r, block, column) + ": " +
               shown(x, 5);
    const std::string name = r.estimates["blocks"][block]["name"];
    return "matrix of " + name + ": an eigenvalue of its correlations is " + shown(x, 2) + "; fit a lower rank";
}

// A combination without information by the names of its estimates.
std::string flat_words(const run_results& r, const json& items) {
    std::string text;
    for (const auto& item : items) {
        const double w = number(item["weight"]);
        std::string name = item["name"];
        for (const auto& e : r.estimates["estimates"])
            if (e["name"] == item["name"]) {
                name = row_words(r, e["block"], e["row"]);
                if (e["row"] != e["column"]) name += " with " + row_words(r, e["block"], e["column"]);
            }
        text += (text.empty() ? (w < 0 ? "- " : "")
                 : w < 0      ? " - "
                              : " + ") +
                shown(std::fabs(w), 2) + " (" + name + ")";
    }
    return text;
}

} // namespace

json read_json_file(const std::string& file) {
    try {
        return json::parse(read_text(file));
    } catch (const json::exception&) {
        throw fault{"\"" + file + "\" is no complete JSON file: run the analysis again"};
    }
}

double number(const json& value) {
    return value.is_number() ? value.get<double>() : std::numeric_limits<double>::quiet_NaN();
}

run_results read_run(const std::string& place) {
    run_results r;
    r.folder = folder_of_run(place);
    const auto has = [&](const char* name) { return fs::exists(r.folder + "/" + name); };
    r.estimates = read_json_file(r.folder + (has("estimates.json") ? "/estimates.json" : "/Results.json"));
    if (r.estimates.value("format", "") != "tarvex-results")
        throw fault{"\"" + r.folder + "\": Results.json is not one of the program"};
    if (has("blup.json")) r.solutions = read_json_file(r.folder + "/blup.json");
    if (has("run.json")) r.run = read_json_file(r.folder + "/run.json");
    r.made_by = study_of(r, source_of(r));
    return r;
}

bool study_stands(const run_results& r) {
    if (!r.made_by) return true;
    const std::string source = source_of(r);
    return has_study(source) && sum_of_study(read_study(source)) == sum_of_study(*r.made_by);
}

std::string trait_name(const run_results& r, int trait) {
    if (r.made_by)
        if (const study_trait* t = find_trait(*r.made_by, trait)) return t->name;
    for (const auto& t : r.estimates["traits"])
        if (t["number"] == trait) return t["name"];
    return std::to_string(trait);
}

double trait_unit(const run_results& r, int trait) {
    const study_trait* t = r.made_by ? find_trait(*r.made_by, trait) : nullptr;
    return t ? std::pow(10.0, t->power) : 1.0;
}

const study_effect* effect_of(const run_results& r, const std::string& column, int trait) {
    if (!r.made_by) return nullptr;
    const study_effect* any = nullptr;
    for (const auto& e : r.made_by->effects) {
        if (e.column != bare(column)) continue;
        // one column may serve two effects of different traits
        if (std::find(e.traits.begin(), e.traits.end(), trait) != e.traits.end()) return &e;
        // for a trait without the effect: it has a name all the same
        any = &e;
    }
    return any;
}

std::string effect_name(const run_results& r, const std::string& column, int trait) {
    const study_effect* e = effect_of(r, column, trait);
    return e ? e->name : bare(column);
}

std::string level_id(const run_results& r, const std::string& column, int trait, std::int64_t code) {
    const study_effect* e = effect_of(r, column, trait);
    if (!e || code < 1) return std::to_string(code);
    const std::size_t at = code - 1;
    if (const study_class* c = find_class(*r.made_by, e->key); c && at < c->ids.size()) return c->ids[at];
    // the identifiers of animals stand in the pedigree, those of other levels in the key of their class
    const bool animals = by_pedigree(e->kind);
    if (animals && at < r.made_by->animals.size()) return r.made_by->animals[at].id;
    return std::to_string(code);
}

std::string row_words(const run_results& r, int block, int row) {
    const json& b = r.estimates["blocks"][block];
    if (row < 1 || static_cast<std::size_t>(row) > b["rows"].size()) return b["name"];
    const json& x = b["rows"][row - 1];
    const int trait = x["trait"], coefficient = x["coefficient"];
    const std::string effect = block == 0 ? "residual" : effect_name(r, x["effect"], trait);
    // coefficients of a regression count from 1; 0: rows are traits
    if (coefficient > 0) return effect + ", coefficient " + std::to_string(coefficient);
    return effect + ", " + trait_name(r, trait);
}

judgement judge(const run_results& r) {
    judgement j;
    const json& end = r.estimates.contains("end") ? r.estimates["end"] : json();
    if (!end.is_object()) return {"given", "Covariances as they were given: no search was made.", {}, 0};
    const std::string reason = end.value("reason", "");
    for (const auto& b : end["border"]) j.details.push_back(border_words(r, b));
    // nothing shows a maximum without a gradient
    if (!end.value("derivatives", false)) {
        j.verdict = "not arrived";
        j.text = end.value("converged", false)
                     ? "The search says that it has converged, but the derivatives that would show it cannot be had."
                     : "The search ended without a maximum: " + reason + ".";
        j.status = not_at_maximum;
        return j;
    }
    const double promised = number(end["half_decrement"]);
    // results of an older program have no verdict: the figures tell it
    const std::string own = end.contains("verdict") ? end["verdict"].value("kind", "") : "";
    const bool short_of = own.empty() ? !(promised < arrived_below) : own == "not a maximum";
    const bool flat = own.empty() ? end["rank_of_information"] < end["informed"] : own == "flat";
    const bool border = own.empty() ? !end["border"].empty() : own == "border";
    const auto words_of_program = [&](const char* list) {
        if (j.details.empty() && end.contains("verdict"))
            for (const auto& w : end["verdict"][list]) j.details.push_back(w);
    };
    // in this order: an information matrix away from a maximum says nothing of flatness or borders
    if (short_of) {
        j.verdict = "not arrived";
        const std::string rise = promised < 1e4 ? "by about " + shown(promised, 2) : "far"; // or there is no figure
        j.text = "The estimates are not at a maximum of the likelihood: log L would still rise " + rise + " (" +
                 reason + ").";
        j.status = 3;
    } else if (flat) {
        j.verdict = "unidentified";
        j.text = "The likelihood is flat: some combination of estimates is not identified by these records.";
        j.details.clear();
        for (const auto& items : end["flat"]) j.details.push_back("no information on " + flat_words(r, items));
        words_of_program("flat");
        j.status = 3;
    } else if (border) {
        j.verdict = "boundary";
        j.text = "Arrived at a maximum at the boundary of the parameter space: what is marked has no standard error.";
        words_of_program("border");
    } else {
        j.verdict = "arrived";
        j.text = "Arrived at a maximum of the likelihood.";
    }
    return j;
}

} // namespace tvx
