// Traits, effects, blocks, estimates and solutions for Results.json.
#include "basis/phimatrix.h"
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "data/levels.h"
#include "data/recodedata.h"
#include "data/units.h"
#include "dense/numroutines.h"
#include "equations/mmequations.h"
#include "equations/orders.h"
#include "estimation/bestpoint.h"
#include "estimation/estimates.h"
#include "likelihood/solutions.h"
#include "parameters/parunits.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "reports/apprxaicovs.h"
#include "reports/covblocks.h"
#include "reports/levelcounts.h"
#include "reports/results_parts.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>

namespace tarvex {

namespace {

using json = nlohmann::ordered_json;

// The scan of the data has not been made for a report of the stored best point.
bool scanned() { return means.nrec.upper() >= numbers.nq; }

json terms_of(const cov_function& f) {
    auto list = json::array();
    for (const auto& t : f) list.push_back({t.number, t.factor});
    return list;
}

// a negative error says that the approximation failed
json error_or_null(double se) { return se >= 0.0 ? json(se) : json(); }

// ---- blocks

// Trait, effect and coefficient that row i of a block stands for.
json row_of(int irand, int i) {
    if (irand == 0) return {{"trait", options.randreg ? 1 : i}, {"effect", "residual"}, {"coefficient", 0}};
    const std::string& name = model.krandom(irand);
    // rows of a regression are its coefficients, of other blocks traits and effects
    if (options.randreg) return {{"trait", 1}, {"effect", name}, {"coefficient", i}};
    // two effects of one block: "direct+maternal"
    const auto plus = name.find('+');
    const bool second = mudmap.rn_which(i, irand) == 2;
    return {{"trait", mudmap.rn_trait(i, irand)},
            {"effect", plus == std::string::npos ? name
                       : second                  ? name.substr(plus + 1)
                                                 : name.substr(0, plus)},
            {"coefficient", 0}};
}

json rows_of(int irand) {
    auto list = json::array();
    for (int i = 1; i <= model.kkfit(irand); ++i) list.push_back(row_of(irand, i));
    return list;
}

// Basis of a random regression: control variable and the functions at each of its values.
json basis_of(int irand) {
    // random regression analyses have one trait
    constexpr int iq = 1;
    for (int i = 1; i <= model.nrnd(iq); ++i) {
        if (mudmap.rn_irand(i, iq) != irand) continue;
        // before the scan of the data no tables have been made: kkphi is empty
        const int table = phimat.kkphi.size() > 0 ? phimat.kkphi(i, iq) : 0;
        if (table == 0) return nullptr;
        const auto& phi = phimat.phi(table);
        const int irrc = mudmap.irmeta(i, iq);
        auto rows = json::array();
        for (int a = 1; a <= phi.upper(1); ++a) {
            auto row = json::array();
            for (int k = 1; k <= phi.upper(2); ++k) row.push_back(phi(a, k));
            rows.push_back(row);
        }
        return {{"name", phimat.phi_name(table)},
                {"control", model.rrcontrol(irrc)},
                {"values", control_codes(irrc)},
                {"functions", rows}};
    }
    return nullptr;
}

json classes_of_residual() {
    if (!options.randreg) return nullptr;
    json part = {{"type", name_of(model.me_type)}, {"classes", model.rr_resteps}};
    auto ranges = json::array();
    if (model.me_type == residual_kind::het)
        for (int s = 1; s <= model.rr_resteps; ++s) ranges.push_back({model.me_range(1, s), model.me_range(2, s)});
    part["ranges"] = ranges;
    // classes by value of the control variable, if the data have been scanned
    const bool known = model.rr_resteps > 1 && phimat.jjmeta.upper() >= 1 && model.me_run.upper() > 0;
    part["control"] = known ? json(model.rrcontrol(phimat.jjmeta(1))) : json();
    auto of = json::array();
    if (known)
        for (int c : model.me_run) of.push_back(c);
    part["class_of_value"] = of;
    return part;
}

// ---- functions of the covariances

struct matrix_label {
    int irand = -1;
    std::string effect;
    int step = 1;
};

// Place in a packed upper triangle that counts from 0.
std::size_t place(int i, int j, int n) { return ihmssf(i, j, n) - 1; }

void add_matrix(json& list, const report_matrix& m, const matrix_label& label, const std::vector<double>& cov) {
    for (int i = 1; i <= m.n; ++i)
        for (int j = i; j <= (m.diagonal ? i : m.n); ++j) {
            const cov_function &f = m.element[place(i, j, m.n)], &a = m.element[place(i, i, m.n)],
                               &b = m.element[place(j, j, m.n)];
            json e = {{"block", label.irand}, {"effect", label.effect},
                      {"step", label.step},   {"row", i},
                      {"column", j},          {"kind", i == j ? "variance" : "covariance"}};
            const double x = function_value(f, cov), va = function_value(a, cov), vb = function_value(b, cov);
            e["terms"] = terms_of(f);
            e["estimate"] = x;
            e["se"] = sampling.available ? error_or_null(error_of_sum(f)) : json();
            // beside the diagonal the correlation, on it the share of the phenotypic variance; null where there is
            // none
            json ratio, se;
            if (i != j) {
                if (va > 0.0 && vb > 0.0) ratio = x / std::sqrt(va * vb);
                if (sampling.available) se = error_or_null(error_of_correlation(f, a, b, cov));
            } else if (m.ratios) {
                const cov_function& total = m.total[i - 1];
                const double t = function_value(total, cov);
                if (t > 0.0) ratio = x / t;
                if (sampling.available) se = error_or_null(error_of_ratio(f, total, cov));
            }
            e["ratio"] = ratio;
            e["ratio_se"] = se;
            list.push_back(e);
        }
}

// ---- solutions

json error_of(int equation, double unit) {
    if (solutions.nsolerrs == 0) return nullptr;
    const int e = orders.ieqnew(equation);
    // 0 for an equation taken out: its solution is 0 by definition
    const double v = e > 0 ? solutions.solerrs(e) : 0.0;
    return v >= 0.0 ? json(std::sqrt(v) * unit) : json();
}

bool taken_out(int equation) { return orders.ieqnew(equation) <= 0; }

json level_part(int iq, const std::string& kind, const std::string& name, int start, const code_list& codes,
                const level_counts& counts) {
    json part = {{"trait", iq}, {"kind", kind}, {"effect", name}};
    part["codes"] = codes;
    part["records"] = counts.nnvec;
    part["means"] = counts.fbar;
    auto value = json::array(), se = json::array(), out = json::array();
    // levels taken out have the solution 0 and stand in a list: a 0 may also be estimated
    for (int l = 1; l <= static_cast<int>(codes.size()); ++l) {
        value.push_back(solutions.solsave(start + l) * trait_unit(iq));
        se.push_back(error_of(start + l, trait_unit(iq)));
        if (taken_out(start + l)) out.push_back(l);
    }
    part["solutions"] = value;
    part["se"] = se;
    part["taken_out"] = out;
    return part;
}

json covariable_part(int icov, int iq) {
    const code_list* codes = nest_codes(icov, iq);
    const int order = mudmap.cv_order(icov, iq), curves = codes ? static_cast<int>(codes->size()) : 1;
    json part = {{"trait", iq},
                 {"kind", "covariable"},
                 {"effect", model.covar(icov, iq)},
                 {"coefficients", order},
                 {"mean", covmeans.cv_xbar(icov, iq)}};
    part["codes"] = codes ? json(*codes) : json();
    auto value = json::array(), se = json::array();
    for (int k = 1; k <= curves * order; ++k) {
        const int equation = mmequations.cv_start(icov, iq) + k;
        value.push_back(solutions.solsave(equation) * trait_unit(iq));
        se.push_back(error_of(equation, trait_unit(iq)));
    }
    part["solutions"] = value; // the coefficients of a curve together
    part["se"] = se;
    return part;
}

json random_part(int irand) {
    const int n = nfit(irand), nlev = levels.rn_nlev(irand), start = mmequations.rn_start(irand);
    json part = {{"block", irand},
                 {"effect", model.krandom(irand)},
                 {"structure", name_of(mudmap.kovrnd(irand))},
                 {"components", n}};
    part["codes"] = levels.rn_codes(irand);
    auto value = json::array(), se = json::array();
    for (int k = 1; k <= nlev * n; ++k) {
        // scores of components have no unit
        const double unit = options.principal ? 1.0 : row_unit(irand, (k - 1) % n + 1);
        value.push_back(solutions.solsave(start + k) * unit);
        if (solutions.nsolerrs != 0) se.push_back(error_of(start + k, unit));
    }
    part["solutions"] = value; // the components of a level together
    part["se"] = se;
    return part;
}

// Traits of the records in the order of Residuals.dat.
json record_traits() {
    auto list = json::array();
    recdata_pass pass;
    setup_recdata(pass, filenames.recdatfil2);
    while (next_subject(pass))
        for (int i = 1; i <= pass.record.nobs; ++i) list.push_back(pass.record.ynq(i));
    return list;
}

// Factor of a block fitted by its components: effects are the factor times the solutions.
json factor_of(int irand) {
    // at the best point, not at the last one
    const array<double, 2> vv = covariances_at(bestpoint.parbest, irand).vv;
    auto rows = json::array();
    for (int i = 1; i <= model.kkfit(irand); ++i) {
        auto row = json::array();
        for (int k = 1; k <= model.krfit(irand); ++k) row.push_back(vv(i, k) * row_unit(irand, i));
        rows.push_back(row);
    }
    return rows;
}

} // namespace

nlohmann::ordered_json trait_list() {
    auto list = json::array();
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        json t = {{"number", iq}, {"name", model.trait(iq)}, {"column", mudmap.tr_dcolno(iq)}};
        if (scanned()) {
            t["records"] = means.nrec(iq);
            t["mean"] = means.tr_xbar(iq);
            t["standard_deviation"] = means.tr_var(iq);
            t["smallest"] = means.tr_min(iq);
            t["largest"] = means.tr_max(iq);
        }
        list.push_back(t);
    }
    return list;
}

nlohmann::ordered_json effect_list() {
    auto list = json::array();
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        const auto add = [&](const char* kind, const std::string& name, json levels_of) {
            list.push_back({{"trait", iq}, {"kind", kind}, {"name", name}, {"levels", std::move(levels_of)}});
        };
        if (model.fitmean(iq)) add("mean", "Mean", 1);
        for (int i = 1; i <= model.nfix(iq); ++i)
            add("fixed", model.fixed(i, iq), scanned() ? json(levels.fx_nlev(i, iq)) : json());
        for (int i = 1; i <= model.ncov(iq); ++i) add("covariable", model.covar(i, iq), mudmap.cv_order(i, iq));
        for (int i = 1; i <= model.nrnd(iq); ++i) add("random", model.random(i, iq), nullptr);
        for (int i = 1; i <= model.nextra(iq); ++i)
            add("extra", model.extra(i, iq), scanned() ? json(levels.ex_nlev(i, iq)) : json());
    }
    return list;
}

nlohmann::ordered_json block_list() {
    auto list = json::array();
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        json b = {{"number", irand},
                  {"name", irand == 0 ? "residual" : model.krandom(irand)},
                  {"structure", irand == 0 ? "residual" : name_of(mudmap.kovrnd(irand))},
                  {"order", model.kkfit(irand)},
                  {"rank", model.krfit(irand)},
                  {"diagonal", model.diagonal(irand) != 0},
                  {"steps", steps_of(irand)},
                  {"first_estimate", cov_start(irand)}};
        // null where the levels are not known
        b["levels"] = irand > 0 && scanned() ? json(levels.rn_nlev(irand)) : json();
        b["rows"] = rows_of(irand);
        if (options.randreg && scanned()) b["basis"] = irand > 0 ? basis_of(irand) : json();
        if (irand > 0 && options.principal && mudmap.kovrnd(irand) != covariance_kind::peq)
            b["factor"] = factor_of(irand);
        if (irand == 0) b["residual_classes"] = classes_of_residual();
        list.push_back(b);
    }
    return list;
}

nlohmann::ordered_json estimate_list() {
    const std::vector<double> cov = all_covariances();
    auto list = json::array();
    const auto add = [&](int number, int irand, int step, int i, int j) {
        const cov_function f{{number, 1.0}};
        list.push_back({{"number", number},
                        {"name", estimates.covnames(number)},
                        {"block", irand},
                        {"step", step},
                        {"row", i},
                        {"column", j},
                        {"estimate", function_value(f, cov)},
                        {"se", sampling.available ? error_or_null(error_of_sum(f)) : json()}});
    };
    for (int irand = 0; irand <= numbers.krand; ++irand)
        // numbers run through a triangle row by row, in a diagonal block through the diagonal
        for (int step = 1; step <= steps_of(irand); ++step) {
            int number = cov_start(irand, step);
            for (int i = 1; i <= model.kkfit(irand); ++i)
                for (int j = i; j <= (model.diagonal(irand) ? i : model.kkfit(irand)); ++j, ++number)
                    add(number, irand, step, i, j);
        }
    return list;
}

nlohmann::ordered_json function_list() {
    const std::vector<double> cov = all_covariances();
    auto list = json::array();
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        const std::string name = irand == 0 ? "residual" : model.krandom(irand);
        for (int step = 1; step <= steps_of(irand); ++step)
            add_matrix(list, block_matrix(irand, step), {irand, name, step}, cov);
        // effects that share a block (direct and maternal) also as their sum
        if (irand == 0 || options.randreg) continue;
        const report_matrix sum = tied_sum_matrix(irand);
        if (sum.n > 0) add_matrix(list, sum, {irand, "sum of " + name, 1}, cov);
    }
    if (!options.randreg) add_matrix(list, phenotypic_matrix(), {-1, "phenotype", 1}, cov);
    return list;
}

nlohmann::ordered_json phenotype_list() {
    auto list = json::array();
    for (int iq = 1; iq <= numbers.nq && !options.randreg; ++iq)
        for (int jq = iq; jq <= numbers.nq; ++jq)
            list.push_back({{"trait_i", iq}, {"trait_j", jq}, {"terms", terms_of(phenotypic_covariance(iq, jq))}});
    return list;
}

nlohmann::ordered_json user_function_list() {
    auto list = json::array();
    const std::vector<double> cov = all_covariances();
    for (int i = 1; i <= usrdefcovs.ncovadd; ++i) {
        cov_function f;
        for (const auto& t : usrdefcovs.addcov(i)) f.push_back({t.isig, t.factor});
        list.push_back({{"kind", "sum"},
                        {"number", estimates.ncov + i},
                        {"name", usrdefcovs.addcovname(i)},
                        {"estimate", function_value(f, cov)},
                        {"se", sampling.available ? error_or_null(error_of_sum(f)) : json()}});
    }
    for (int i = 1; i <= usrdefcovs.naddgps; ++i) {
        const auto& gp = usrdefcovs.igpadd(i);
        // a correlation has three numbers (covariance, two variances), a ratio two: the second stands for both
        const bool ratio = gp[0] == 1;
        const cov_function c{{gp[1], 1.0}}, a{{gp[2], 1.0}}, b{{ratio ? gp[2] : gp[3], 1.0}};
        const double vc = function_value(c, cov), va = function_value(a, cov), vb = function_value(b, cov);
        json e = {{"kind", ratio ? "ratio" : "correlation"}, {"number", i}, {"name", usrdefcovs.addgpname(i)}};
        const bool valid = va > 0.0 && vb > 0.0;
        e["estimate"] = !valid ? json() : json(ratio ? vc / va : vc / std::sqrt(va * vb));
        e["se"] = !valid || !sampling.available
                      ? json()
                      : error_or_null(ratio ? error_of_ratio(c, a, cov) : error_of_correlation(c, a, b, cov));
        list.push_back(e);
    }
    return list;
}

nlohmann::ordered_json solution_list() {
    solution_counts counts;
    count_levels(counts);
    auto fixed = json::array(), random = json::array();
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        for (int i = 1; i <= model.ncov(iq); ++i) fixed.push_back(covariable_part(i, iq));
        // the mean as an effect of one level, with code 0
        if (const int mean = mmequations.ieq_trait(iq); mean > 0)
            fixed.push_back(level_part(iq, "mean", "Mean", mean - 1, {0}, {{means.nrec(iq)}, {means.tr_xbar(iq)}}));
        for (int i = 1; i <= model.nfix(iq); ++i)
            fixed.push_back(level_part(iq, "fixed", model.fixed(i, iq), mmequations.fx_start(i, iq),
                                       levels.fx_codes(i, iq), counts.fixed(i, iq)));
    }
    for (int irand = 1; irand <= numbers.krand; ++irand)
        if (mudmap.kovrnd(irand) != covariance_kind::peq) random.push_back(random_part(irand));
    return {{"scale", options.principal ? "components" : "covariances"},
            {"fixed", fixed},
            {"random", random},
            {"traits_of_residuals", numbers.nq > 1 ? record_traits() : json()}};
}

} // namespace tarvex
