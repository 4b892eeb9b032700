#include "tvx/compare.h"

#include "tvx/commands.h"

#include <boost/math/distributions/chi_squared.hpp>

#include <algorithm>
#include <cmath>
#include <map>

namespace tvx {

namespace {

[[noreturn]] void refuse(const std::string& why) { throw fault{"the models cannot be compared: " + why}; }

std::string bare(const std::string& name) { return name.substr(0, name.find('(')); }

void check_maximum(const run_results& r, const char* which) {
    const judgement j = judge(r);
    if (j.verdict != "arrived" && j.verdict != "boundary")
        throw fault{std::string("the models cannot be compared: the ") + which + " one is not at a maximum (" +
                        j.verdict + "; " + r.folder + ")",
                    not_at_maximum};
}

void check_records(const json& a, const json& b) {
    if (a["traits"].size() != b["traits"].size()) refuse("they have other traits");
    for (std::size_t t = 0; t < a["traits"].size(); ++t)
        for (const char* what : {"records", "mean", "standard_deviation", "smallest", "largest"})
            // the same records give the same moments to the last digit
            if (a["traits"][t][what] != b["traits"][t][what])
                refuse("trait " + a["traits"][t]["name"].get<std::string>() + " has other records");
    const auto sum = [](const json& r) {
        for (const auto& input : r["inputs"])
            if (input["role"] == "data") return input["xxh3_128"];
        return json();
    };
    if (sum(a) != sum(b)) refuse("they were fitted to other data files");
}

json fixed_part(const json& r) {
    auto list = json::array();
    for (const auto& e : r["effects"])
        if (e["kind"] == "mean" || e["kind"] == "fixed" || e["kind"] == "covariable") list.push_back(e);
    // the order of effects in the formula does not matter
    std::sort(list.begin(), list.end());
    return list;
}

void check_fixed(const json& a, const json& b) {
    if (fixed_part(a) == fixed_part(b) &&
        a["likelihood"]["rank_of_fixed_part"] == b["likelihood"]["rank_of_fixed_part"])
        return;
    refuse("they have other fixed effects or covariables, and REML likelihoods of different fixed parts have no ratio");
}

// Rows of a block: trait and effect of each.
std::vector<std::string> rows_of(const json& block) {
    std::vector<std::string> rows;
    for (const auto& x : block["rows"])
        rows.push_back(x["trait"].dump() + " " + bare(x["effect"]) + " " + x["coefficient"].dump());
    std::sort(rows.begin(), rows.end());
    return rows;
}

int parameters_of(const json& block) {
    const int n = block["order"], r = block["rank"], steps = block["steps"];
    // r columns of n, n-1, .. elements
    return steps * (block["diagonal"] == true ? n : r * (2 * n - r + 1) / 2);
}

// How the larger model goes beyond the smaller one.
struct growth {
    std::vector<std::string> words;
    std::vector<std::pair<int, double>> mixture; // of the only step; empty: only a bound is known
    int steps = 0;
    bool interior = true; // all steps lie inside the parameter space
};

void grow(growth& g, const std::string& words, std::vector<std::pair<int, double>> mixture, bool interior) {
    g.words.push_back(words);
    // two steps at a time: their mixture is not known
    g.mixture = ++g.steps == 1 ? std::move(mixture) : std::vector<std::pair<int, double>>();
    g.interior = g.interior && interior;
}

std::string basis_of(const json& block) {
    return block.contains("basis") && block["basis"].is_object() ? block["basis"]["name"].get<std::string>() : "";
}

// A block of both models.
void grow_block(growth& g, const json& a, const json& b) {
    const std::string name = bare(b["name"]);
    const int pa = parameters_of(a), pb = parameters_of(b), na = a["order"], nb = b["order"];
    if (a["structure"] != b["structure"]) refuse("\"" + name + "\" has another covariance structure");
    const auto ra = rows_of(a), rb = rows_of(b);
    // both lists are sorted
    if (!std::includes(rb.begin(), rb.end(), ra.begin(), ra.end()))
        refuse("\"" + name + "\" of the smaller model is no part of that of the larger one");
    std::string ba = basis_of(a), bb = basis_of(b);
    // orders stand at the end of a basis's name: a lower order is part of a higher one
    while (!ba.empty() && std::isdigit(static_cast<unsigned char>(ba.back()))) ba.pop_back();
    while (!bb.empty() && std::isdigit(static_cast<unsigned char>(bb.back()))) bb.pop_back();
    // but spline functions of another number are other functions
    if (ba != bb || (ba.find("_BS") != std::string::npos && na != nb))
        refuse("the functions of \"" + name + "\" in the smaller model are no part of those in the larger one");
    if (pa == pb && na == nb && a["diagonal"] == b["diagonal"] && a["rank"] == b["rank"] && a["steps"] == b["steps"])
        return;
    if (pb <= pa) refuse("\"" + name + "\" has no more parameters in the larger model");
    const bool full_a = a["diagonal"] == false && a["rank"] == na, full_b = b["diagonal"] == false && b["rank"] == nb;
    if (na == nb && b["number"] == 0 && a["steps"] == 1)
        // inside the parameter space: chi-squared
        return grow(g, "several classes of residual variances for one", {{pb - pa, 1.0}}, true);
    if (na == nb && a["diagonal"] == true && full_b)
        return grow(g, "covariances of \"" + name + "\"", {{pb - pa, 1.0}}, true);
    if (nb == na + 1 && full_a && full_b && a["steps"] == b["steps"])
        return grow(g, "one more row of \"" + name + "\": a variance and " + std::to_string(na) + " covariances",
                    // a variance at its border: half of the mass has a parameter less (Self and Liang 1987, Stram and
                    // Lee 1994)
                    {{na, 0.5}, {na + 1, 0.5}}, false);
    grow(g, "\"" + name + "\" of higher order or rank", {}, false);
}

std::map<std::string, const json*> random_blocks(const json& r) {
    std::map<std::string, const json*> blocks;
    for (const auto& b : r["blocks"])
        if (b["number"] != 0) blocks[bare(b["name"])] = &b;
    return blocks;
}

growth growth_of(const json& small, const json& large) {
    growth g;
    // block 0: the residual
    grow_block(g, small["blocks"][0], large["blocks"][0]);
    const auto a = random_blocks(small), b = random_blocks(large);
    for (const auto& [name, block] : a) {
        auto at = b.find(name);
        if (at != b.end()) {
            grow_block(g, *block, *at->second);
            continue;
        }
        const auto mine = rows_of(*block);
        at = std::find_if(b.begin(), b.end(), [&](const auto& x) { // a part of a block of two correlated effects
            const auto whole = rows_of(*x.second);
            return std::includes(whole.begin(), whole.end(), mine.begin(), mine.end());
        });
        if (at == b.end()) refuse("the larger one has no effect \"" + name + "\"");
        grow_block(g, *block, *at->second);
    }
    for (const auto& [name, block] : b) {
        if (a.contains(name)) continue;
        const auto whole = rows_of(*block);
        if (std::any_of(a.begin(), a.end(), [&](const auto& x) {
                const auto mine = rows_of(*x.second);
                return std::includes(whole.begin(), whole.end(), mine.begin(), mine.end());
            }))
            continue;
        if (large["run"]["sire_model"] == true && (*block)["structure"] == "NRM")
            refuse("log L of a sire model leaves out the relationships, so that \"" + name + "\" cannot be tested");
        if ((*block)["order"] == 1)
            grow(g, "the variance of \"" + name + "\"", {{0, 0.5}, {1, 0.5}}, false);
        else
            grow(g, "all variances and covariances of \"" + name + "\"", {}, false);
    }
    return g;
}

} // namespace

double mixture_tail(const std::vector<std::pair<int, double>>& mixture, double x) {
    // df 0: all mass at 0
    double p = 0.0;
    for (const auto& [df, weight] : mixture)
        p += weight * (x <= 0.0  ? 1.0
                       : df == 0 ? 0.0
                                 : boost::math::cdf(boost::math::complement(boost::math::chi_squared(df), x)));
    return p;
}

lr_test compare_runs(const run_results& small, const run_results& large) {
    const json &a = small.estimates, &b = large.estimates;
    check_maximum(small, "smaller");
    check_maximum(large, "larger");
    check_records(a, b);
    check_fixed(a, b);
    const growth g = growth_of(a, b);
    lr_test t;
    t.df = b["likelihood"]["parameters"].get<int>() - a["likelihood"]["parameters"].get<int>();
    if (g.steps == 0 || t.df < 1) refuse("the larger one has no more parameters than the smaller one");
    const double gain = number(b["likelihood"]["log_l"]) - number(a["likelihood"]["log_l"]);
    // less than that is rounding between two searches
    if (gain < -0.01)
        throw fault{"the models cannot be compared: the larger one has the lower log L, so it is not at its maximum",
                    not_at_maximum};
    t.statistic = std::max(0.0, 2.0 * gain);
    t.mixture = g.mixture;
    if (t.mixture.empty()) {
        t.bound = !g.interior;
        t.mixture = g.interior ? std::vector<std::pair<int, double>>{{t.df, 1.0}}
                               : std::vector<std::pair<int, double>>{{t.df - 1, 0.5}, {t.df, 0.5}};
    }
    t.p = mixture_tail(t.mixture, t.statistic);
    for (const auto& w : g.words) t.words += (t.words.empty() ? "" : "; ") + w;
    return t;
}

} // namespace tvx
