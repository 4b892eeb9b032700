#include "reports/results_json.h"

#include "control/filenames.h"
#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/levels.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "estimation/aireml.h"
#include "estimation/bestpoint.h"
#include "estimation/estimates.h"
#include "estimation/iteratelog.h"
#include "estimation/lastpoint.h"
#include "estimation/searchstate.h"
#include "likelihood/derivatives.h"
#include "likelihood/likelihood.h"
#include "parameters/parunits.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "reports/apprxaicovs.h"
#include "reports/finalpoint.h"
#include "reports/results_parts.h"
#include "reports/summary.h"
#include "sparse/symbfact.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sys/resource.h>

namespace tarvex {

namespace {

using json = nlohmann::ordered_json;

// when the process began
const auto started = std::chrono::steady_clock::now();

const char* kind_name(run_kind kind) {
    return kind == run_kind::search ? "estimates" : kind == run_kind::best_point ? "best point" : "blup";
}

// The pedigree as it was given: a reduced one has taken its place in filenames.
json pedigree_given() {
    for (const auto& input : input_sums())
        if (input["role"] == "pedigree") return input["name"];
    return nullptr;
}

json run_part(run_kind kind) {
    return {{"kind", kind_name(kind)},
            {"analysis", model.analysis},
            {"comment", options.comment ? model.commentline : std::string()},
            {"parameter_file", filenames.parfile},
            {"data_file", filenames.datfile},
            {"pedigree_file", pedigree_given()},
            {"one_line", mudmap.alltraits},
            {"random_regression", options.randreg},
            {"reduced_rank", options.principal},
            {"sire_model", options.siremodel},
            {"continued", options.continew}};
}

json likelihood_part(run_kind kind) {
    json part = {{"records", records_used()},
                 {"rank_of_fixed_part", numbers.nrankx},
                 {"parameters", estimates.nparm},
                 {"estimated", derivs.nparm2 > 0 ? derivs.nparm2 : estimates.nparm}};
    // BLUP evaluates no likelihood
    part["log_l"] = kind == run_kind::blup_run ? json() : json(bestpoint.xbest);
    return part;
}

json iterate_part() {
    auto list = json::array();
    for (const auto& r : iterate_log.records)
        list.push_back({{"method", r.method},
                        {"round", r.round},
                        {"log_l", r.log_l},
                        {"change", r.change},
                        {"gradient_norm", r.gradient_norm},
                        {"parameter_change", r.parameter_change},
                        {"half_slope", r.promised},
                        {"step", r.step},
                        {"tau", r.tau},
                        {"seconds", r.seconds},
                        {"evaluations", r.evaluations}});
    return list;
}

json parameter_list() {
    auto list = json::array();
    const std::vector<parameter_unit> units = parameter_units();
    for (int i = 1; i <= estimates.nparm; ++i) {
        const parameter_unit& u = units[i - 1];
        json p = {{"number", i}, {"name", estimates.parnames(i)}, {"value", bestpoint.parbest(i) * u.factor + u.shift}};
        // a negative variance: the approximation failed
        const bool has = sampling.available && sampling.varpar(i) >= 0.0;
        p["se"] = has ? json(std::sqrt(sampling.varpar(i))) : json();
        list.push_back(p);
    }
    return list;
}

json border_part() {
    auto list = json::array();
    for (const auto& b : final_point.border)
        list.push_back({{"block", b.irand},
                        {"step", b.step},
                        {"kind", b.kind},
                        {"row", b.row},
                        {"column", b.column},
                        {"value", b.value}});
    return list;
}

// The program's own verdict, with kinds in words of their own.
json verdict_part() {
    // words for programs: they stay when the texts of the report change
    const auto& v = verdict.last;
    const char* kind = v.kind == search_end::maximum  ? "maximum"
                       : v.kind == search_end::border ? "border"
                       : v.kind == search_end::flat   ? "flat"
                                                      : "not a maximum";
    auto eigenvalues = json::array();
    for (const auto& [name, values] : v.eigenvalues) eigenvalues.push_back({{"block", name}, {"values", values}});
    return {{"kind", kind},
            {"promised", v.promised},
            {"border", v.border},
            {"flat", v.flat},
            {"resumed", verdict.resumed},
            {"void_errors", v.void_names},
            {"eigenvalues", eigenvalues},
            {"least_information", v.least},
            {"largest_information", v.largest}};
}

const char* search_name() {
    switch (maximise.search_type) {
    case 1:
        return "AI-REML";
    case 3:
        return "Powell";
    case 5:
        return "rounds of EM";
    case 6:
        return "EM and AI-REML";
    case 7:
        return "AI-REML in a trust region";
    default:
        return "none";
    }
}

json end_part() {
    const auto& f = final_point;
    json part = {{"reason", iterate_log.ended}, {"converged", maximise.converged}, {"derivatives", f.available}};
    part["search"] = search_name();
    part["resumed"] = verdict.resumed;
    part["border"] = border_part();
    if (verdict.last.kind != search_end::none) part["verdict"] = verdict_part();
    if (!f.available) return part;
    part["half_decrement"] = f.half_decrement;
    part["gradient_norm"] = f.gradient_norm;
    part["informed"] = f.estimated;
    part["rank_of_information"] = f.rank;
    auto flat = json::array();
    for (const auto& direction : f.flat) {
        auto items = json::array();
        for (const auto& i : direction) items.push_back({{"name", i.name}, {"weight", i.weight}});
        flat.push_back(items);
    }
    part["flat"] = flat;
    part["derivative_names"] = f.names;
    part["gradient"] = f.gradient;
    auto rows = json::array();
    const std::size_t n = f.gradient.size();
    // rows of the full matrix up to the diagonal
    for (std::size_t i = 0; i < n; ++i)
        rows.push_back(std::vector<double>(f.information.begin() + static_cast<std::ptrdiff_t>(i * n),
                                           f.information.begin() + static_cast<std::ptrdiff_t>(i * n + i + 1)));
    part["information"] = rows; // lower triangle
    return part;
}

json sampling_part() {
    if (!sampling.available) return nullptr;
    auto rows = json::array();
    for (int i = 1; i <= estimates.ncovall; ++i) {
        auto row = json::array();
        for (int j = 1; j <= i; ++j) {
            // covariances of what only occurs as a sum are withheld, as their errors are
            const bool told = estimable({{i, 1.0}}) && estimable({{j, 1.0}});
            row.push_back(told ? json(sampling.vcov(i, j)) : json());
        }
        rows.push_back(row);
    }
    return rows;
}

json equation_part() {
    return {{"equations", mmequations.neqns},
            {"taken_out", mmequations.ieqzero.size()},
            {"covariables", mmequations.neq_cov},
            {"fixed", mmequations.neq_fix},
            {"random", mmequations.neq_rnd},
            {"subjects", numbers.nsubject},
            {"order_type", orders.order_type},
            {"off_diagonals", sparse.maxlnz},
            {"operations", sparse.ixvec1.size() > 0 ? count_operations(numbers.nsrow, sparse.ixvec1) : 0.0}};
}

json resource_part() {
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - started;
    return {{"processor_seconds", cpu_time()},
            {"wall_seconds", wall.count()},
            // the system counts in kibibytes
            {"peak_memory_bytes", static_cast<long long>(used.ru_maxrss) * 1024},
            {"evaluations", likelihoods.ncall},
            {"factorisations", likelihoods.nfact}};
}

void put(const json& document) {
    const std::string name = filenames.resultsfile, temporary = name + ".tmp";
    text_out out;
    if (!out.open(temporary)) stop_with("Error opening file \"" + name + "\"");
    // bytes of names that are not UTF-8 are replaced, not refused
    out.line(document.dump(1, '\t', false, json::error_handler_t::replace));
    // complete, or not there
    if (out.close()) std::rename(temporary.c_str(), name.c_str());
}

} // namespace

void write_results(run_kind kind) {
    if (!options.json) return;
    json d = {{"format", "tarvex-results"}, {"format_version", 1}};
    d["program"] = {{"name", "Tarvex"}, {"version", program_version()}};
    d["run"] = run_part(kind);
    d["inputs"] = input_sums();
    d["traits"] = trait_list();
    d["effects"] = effect_list();
    d["blocks"] = block_list();
    d["estimates"] = estimate_list();
    d["covariance_of_estimates"] = sampling_part();
    d["functions"] = function_list();
    d["phenotype"] = phenotype_list();
    d["user_functions"] = user_function_list();
    d["likelihood"] = likelihood_part(kind);
    d["parameters"] = parameter_list();
    d["iterates"] = iterate_part();
    // a report of the stored best point has not set up equations
    d["equations"] = kind == run_kind::best_point ? json() : equation_part();
    d["solutions"] = kind == run_kind::best_point ? json() : solution_list();
    // a search alone has derivatives at its end
    final_point = {};
    if (kind == run_kind::search) look_at_final_point();
    d["end"] = kind == run_kind::search ? end_part() : json();
    d["resources"] = resource_part();
    put(d);
}

} // namespace tarvex
