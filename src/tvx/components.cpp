#include "tvx/components.h"

#include <Eigen/Eigenvalues>

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

namespace tvx {

namespace {

constexpr double none = std::numeric_limits<double>::quiet_NaN();

linear terms_of(const json& list) {
    linear f;
    for (const auto& t : list) f.terms.emplace_back(t[0].get<int>(), t[1].get<double>());
    return f;
}

const json& block_of(const run_results& r, int block) { return r.estimates["blocks"][block]; }

// Traits of the rows of a function: those of its block, or the traits themselves.
struct row_label {
    std::string effect, trait;
    int number = 1;
};

row_label label_of(const run_results& r, const json& f, int row) {
    const int block = f["block"];
    const std::string effect = f["effect"];
    if (block < 0) return {"phenotype", trait_name(r, row), row};
    if (effect.starts_with("sum of ")) {
        std::vector<int> traits;
        // rows of a sum are the traits of the block, each once
        for (const auto& x : block_of(r, block)["rows"])
            if (const int t = x["trait"]; std::find(traits.begin(), traits.end(), t) == traits.end())
                traits.push_back(t);
        std::sort(traits.begin(), traits.end());
        const int t = traits.at(row - 1);
        return {effect, trait_name(r, t), t};
    }
    const json& x = block_of(r, block)["rows"][row - 1];
    const int trait = x["trait"], coefficient = x["coefficient"];
    row_label label{block == 0 ? "residual" : effect_name(r, x["effect"], trait), trait_name(r, trait), trait};
    if (coefficient > 0) label.trait += "[" + std::to_string(coefficient) + "]";
    if (const json& c = block_of(r, 0)["residual_classes"]; block == 0 && c.is_object() && c["classes"] > 1) {
        const auto step = f["step"].get<std::size_t>();
        const bool ranges = c["ranges"].size() >= step;
        label.effect += " " + (ranges ? c["ranges"][step - 1][0].dump() + "-" + c["ranges"][step - 1][1].dump()
                                      : "class " + std::to_string(step));
    }
    return label;
}

// Rows of blocks whose estimates lie at the boundary; a pair (row, 0) stands for all elements of the row, (0, 0) for
// those of the block.
using border_set = std::set<std::array<int, 4>>;

border_set border_of(const run_results& r) {
    border_set set;
    const json& end = r.estimates["end"];
    if (!end.is_object()) return set;
    for (const auto& b : end["border"]) {
        const bool variance = b["kind"] == "variance";
        set.insert(
            {b["block"].get<int>(), b["step"].get<int>(), b["row"].get<int>(), variance ? 0 : b["column"].get<int>()});
    }
    return set;
}

bool at_border(const border_set& set, int block, int step, int i, int j) {
    return set.contains({block, step, i, j}) || set.contains({block, step, i, 0}) ||
           set.contains({block, step, j, 0}) || set.contains({block, step, 0, 0});
}

// Names of the estimates that take part in a combination without information.
std::set<std::string> flat_names(const run_results& r) {
    std::set<std::string> names;
    const json& end = r.estimates["end"];
    if (!end.is_object() || !end.contains("flat")) return names;
    for (const auto& direction : end["flat"])
        for (const auto& item : direction) names.insert(item["name"].get<std::string>());
    return names;
}

// "animal / (animal + litter + residual)"
std::string denominator(const run_results& r, int trait) {
    std::string text;
    for (const auto& b : r.estimates["blocks"])
        for (std::size_t k = 0; k < b["rows"].size(); ++k) {
            const json& x = b["rows"][k];
            if (x["trait"] != trait) continue;
            if (b["number"] == 0) continue; // stands last
            text += (text.empty() ? "" : " + ") + effect_name(r, x["effect"], trait);
        }
    return text + (text.empty() ? "" : " + ") + "residual";
}

std::string ratio_words(const run_results& r, const json& f, const row_label& a, const row_label& b) {
    if (f["kind"] == "covariance")
        return "correlation of " + a.effect + " " + a.trait + " and " +
               (a.effect == b.effect ? b.trait : b.effect + " " + b.trait);
    const int block = f["block"];
    if (block < 0 || r.estimates["run"]["random_regression"] == true) return "";
    // the first genetic effect of animals, in a model without sires
    const bool animals = block > 0 && block_of(r, block)["structure"] == "NRM" &&
                         r.estimates["run"]["sire_model"] == false && !a.effect.starts_with("sum of ");
    const study_effect* e = block > 0 ? effect_of(r, block_of(r, block)["rows"][0]["effect"], a.number) : nullptr;
    const bool direct = animals && (!e || e->place <= 1) && block == 1;
    return (direct ? "heritability: " : "") + a.effect + " / (" + denominator(r, a.number) + ")";
}

} // namespace

void linear::add(const linear& other, double factor) {
    for (const auto& [number, x] : other.terms) terms.emplace_back(number, factor * x);
}

estimate_set::estimate_set(const json& results) {
    for (const auto& e : results["estimates"]) {
        value_.push_back(number(e["estimate"]));
        place_.push_back({e["block"].get<int>(), e["step"].get<int>(), e["row"].get<int>(), e["column"].get<int>(),
                          e["number"].get<int>()});
    }
    if (results["covariance_of_estimates"].is_array())
        for (const auto& row : results["covariance_of_estimates"]) {
            cov_.emplace_back();
            for (const auto& x : row) cov_.back().push_back(number(x));
        }
}

double estimate_set::value(const linear& f) const {
    double s = 0.0;
    for (const auto& [k, x] : f.terms) s += x * value_[k - 1];
    return s;
}

double estimate_set::covariance(const linear& f, const linear& g) const {
    if (cov_.empty()) return none;
    double s = 0.0;
    for (const auto& [k, x] : f.terms)
        for (const auto& [l, y] : g.terms) s += x * y * cov_[std::max(k, l) - 1][std::min(k, l) - 1];
    return s;
}

double estimate_set::se(const linear& f) const {
    const double v = covariance(f, f);
    return v > 0.0 ? std::sqrt(v) : none;
}

double estimate_set::ratio_se(const linear& a, const linear& b) const {
    const double x = value(a), y = value(b);
    if (!(y > 0.0)) return none;
    // var(a/b), first order
    const double v = covariance(a, a) / (y * y) + x * x * covariance(b, b) / (y * y * y * y) -
                     2.0 * x * covariance(a, b) / (y * y * y);
    return v > 0.0 ? std::sqrt(v) : none;
}

linear estimate_set::element(int block, int step, int i, int j) const {
    for (const auto& p : place_)
        if (p[0] == block && p[1] == step && p[2] == std::min(i, j) && p[3] == std::max(i, j)) return {{{p[4], 1.0}}};
    return {};
}

std::vector<component> components_of(const run_results& r) {
    std::vector<component> list;
    const border_set border = border_of(r);
    const std::set<std::string> flat = flat_names(r);
    for (const auto& f : r.estimates["functions"]) {
        const int block = f["block"], i = f["row"], j = f["column"], step = f["step"];
        const row_label a = label_of(r, f, i), b = label_of(r, f, j);
        component c;
        c.effect = a.effect == b.effect ? a.effect : a.effect + "&" + b.effect;
        c.trait_i = a.trait;
        c.trait_j = b.trait;
        c.kind = f["kind"];
        // covariances: product of both units
        const double unit = trait_unit(r, a.number) * trait_unit(r, b.number);
        c.estimate = number(f["estimate"]) * unit;
        c.se = number(f["se"]) * unit;
        c.ratio = number(f["ratio"]);
        c.ratio_se = number(f["ratio_se"]);
        c.words = ratio_words(r, f, a, b);
        // sums and the phenotype have no border of their own: one element on it does not fix them
        const bool own = block >= 0 && !f["effect"].get<std::string>().starts_with("sum of ");
        const bool errors = r.estimates["covariance_of_estimates"].is_array();
        bool unknown = false;
        for (const auto& t : f["terms"])
            unknown = unknown || flat.contains(r.estimates["estimates"][t[0].get<std::size_t>() - 1]["name"]);
        if (own && at_border(border, block, step, i, j))
            c.mark = "boundary";
        else if (own && unknown)
            c.mark = "not identified";
        else if (errors && std::isnan(c.se))
            c.mark = "failed";
        // errors there would be those of a point inside
        if (c.mark == "boundary" || c.mark == "not identified") c.se = c.ratio_se = none;
        list.push_back(c);
    }
    return list;
}

std::vector<curve> curves_of(const run_results& r) {
    std::vector<curve> list;
    if (r.estimates["run"]["random_regression"] != true) return list;
    const estimate_set all(r.estimates);
    const auto& blocks = r.estimates["blocks"];
    const double unit = trait_unit(r, 1) * trait_unit(r, 1);
    const json& classes = blocks[0]["residual_classes"];
    std::string control;
    std::vector<std::pair<std::string, std::vector<linear>>> parts;
    std::vector<double> x;
    for (std::size_t k = 1; k < blocks.size(); ++k) {
        const json& basis = blocks[k]["basis"];
        if (!basis.is_object()) continue;
        const std::string name = basis["control"];
        if (control.empty()) {
            control = name;
            for (const auto& v : basis["values"]) x.push_back(number(v));
        }
        if (name != control) continue; // one control variable is shown
        std::vector<linear> f(x.size());
        const auto n = basis["functions"][0].size();
        // phi' K phi as a combination of the elements of K
        for (std::size_t a = 0; a < x.size(); ++a)
            for (std::size_t i = 0; i < n; ++i)
                for (std::size_t j = i; j < n; ++j)
                    f[a].add(all.element(static_cast<int>(k), 1, static_cast<int>(i + 1), static_cast<int>(j + 1)),
                             number(basis["functions"][a][i]) * number(basis["functions"][a][j]) *
                                 (i == j ? 1.0 : 2.0));
        parts.emplace_back(effect_name(r, blocks[k]["name"], 1), f);
    }
    if (x.empty()) return list;
    std::vector<linear> residual(x.size()), total(x.size());
    for (std::size_t a = 0; a < x.size(); ++a) {
        const bool by_class = classes.is_object() && classes["class_of_value"].size() == x.size();
        residual[a] = all.element(0, by_class ? classes["class_of_value"][a].get<int>() : 1, 1, 1);
    }
    parts.emplace_back("residual", residual);
    // effects are independent of each other: their variances add up
    for (const auto& part : parts)
        for (std::size_t a = 0; a < x.size(); ++a) total[a].add(part.second[a]);
    parts.emplace_back("phenotype", total);
    const std::string shown = r.made_by && !r.made_by->control.empty() ? r.made_by->control : control;
    for (const auto& [name, f] : parts) {
        curve c{shown, name, {}};
        for (std::size_t a = 0; a < x.size(); ++a) {
            curve_point p{x[a], all.value(f[a]) * unit, all.se(f[a]) * unit};
            p.ratio = name == "phenotype" ? none : all.value(f[a]) / all.value(total[a]);
            p.ratio_se = name == "phenotype" ? none : all.ratio_se(f[a], total[a]);
            c.points.push_back(p);
        }
        list.push_back(c);
    }
    return list;
}

std::vector<eigen_part> eigen_parts(const run_results& r) {
    std::vector<eigen_part> list;
    const estimate_set all(r.estimates);
    for (const auto& b : r.estimates["blocks"]) {
        const int n = b["order"], block = b["number"];
        if (n < 2 || b["diagonal"] == true || b["steps"] > 1) continue;
        // eigenvalues of the matrix in phenotypic standard deviations, where there are any
        Eigen::VectorXd sd = Eigen::VectorXd::Ones(n);
        eigen_part part{block == 0 ? "residual" : b["name"].get<std::string>(), n, b["rank"], {}, {}, {}};
        for (int i = 1; i <= n; ++i) {
            const json& row = b["rows"][i - 1];
            part.rows.push_back(row_words(r, block, i));
            for (const auto& p : r.estimates["phenotype"])
                if (p["trait_i"] == row["trait"] && p["trait_j"] == row["trait"])
                    sd(i - 1) = std::sqrt(all.value(terms_of(p["terms"])));
        }
        if (block > 0) part.effect = effect_name(r, b["rows"][0]["effect"], b["rows"][0]["trait"]);
        Eigen::MatrixXd k(n, n);
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= n; ++j)
                k(i - 1, j - 1) = all.value(all.element(block, 1, i, j)) / (sd(i - 1) * sd(j - 1));
        const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> own(k);
        part.loadings.resize(n);
        // ascending eigenvalues: the last ones, as many as the rank
        for (int c = n - 1; c >= n - part.rank; --c) {
            // rounding makes a zero of a matrix at the boundary negative
            const double value = std::max(0.0, own.eigenvalues()(c));
            part.values.push_back(value);
            // signs of eigenvectors mean nothing: the sum is made positive
            const double sign = own.eigenvectors().col(c).sum() < 0.0 ? -1.0 : 1.0;
            for (int i = 0; i < n; ++i) part.loadings[i].push_back(sign * std::sqrt(value) * own.eigenvectors()(i, c));
        }
        list.push_back(part);
    }
    return list;
}

} // namespace tvx
