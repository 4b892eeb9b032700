// What a parameter file says that the program takes in silence, and the pedigree.
#include "control/filenames.h"
#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "dense/numroutines.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "tvx/check.h"
#include "tvx/tables.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <map>
#include <sstream>
#include <unordered_map>

namespace tvx {

using tarvex::model;
using tarvex::numbers;

namespace {

void check_blocks(std::vector<finding>& findings) {
    for (int b = 0; b <= numbers.krand; ++b) {
        if (b > 0 && model.diagonal(b) != 0) continue;
        const int n = model.kkfit(b);
        const auto cov = [&](int i, int j) { return model.cov(tarvex::ihmssf(i, j, n), b); };
        const std::string name = b == 0 ? "residual" : model.krandom(b);
        for (int i = 1; i <= n; ++i)
            for (int j = i + 1; j <= n; ++j) {
                const std::string place = name + ", rows " + std::to_string(i) + " and " + std::to_string(j);
                // NaN where a variance is 0: no finding
                const double r = cov(i, j) / std::sqrt(cov(i, i) * cov(j, j));
                if (std::fabs(r) > 0.999) add_case(findings, "W410", "a starting matrix has a correlation of 1", place);
                if (b == 0 && cov(i, j) == 0.0)
                    add_case(findings, "W405", "a residual covariance that starts at 0 stays 0", place);
            }
    }
}

void check_means(std::vector<finding>& findings) {
    for (int q = 1; q <= numbers.nq; ++q)
        if (model.nfix(q) == 0 && model.fitmean(q) == 0)
            add_case(findings, "W401", "no mean is fitted and no fixed effect holds one: add MEA",
                     "trait \"" + model.trait(q) + "\"");
}

// With one trait the number behind TRAIT is that of the trait: it may have been meant as the code of a missing record.
void check_trait_lines(std::vector<finding>& findings, const std::string& parfile) {
    std::istringstream in(read_text(parfile));
    int line = 0;
    for (std::string text; std::getline(in, text);) {
        ++line;
        std::istringstream words(text);
        std::string word, name, number, missing;
        words >> word >> name >> number >> missing;
        if (word.size() < 2 || (word[0] != 'T' && word[0] != 't') || (word[1] != 'R' && word[1] != 'r')) continue;
        if (numbers.nq == 1 && missing.empty() && number != "1" && !number.empty() &&
            std::all_of(number.begin(), number.end(), [](char c) { return c >= '0' && c <= '9'; }))
            add_case(findings, "W404", "a number behind the only trait is its number, not the code of a missing record",
                     parfile + ", line " + std::to_string(line) + ": " + text);
    }
}

// Each class effect beyond the first has one dependency on the mean; more codes than that change the model.
void check_zerout(std::vector<finding>& findings) {
    for (int q = 1; q <= numbers.nq; ++q) {
        const auto n = std::count(tarvex::zerout.iaddzer2.begin(), tarvex::zerout.iaddzer2.end(), q);
        const int known = model.nfix(q) - 1 + (model.fitmean(q) != 0 ? 1 : 0);
        if (n > std::max(known, 0))
            add_case(findings, "W409",
                     "ZER takes out more levels than there are dependencies among the classes: the "
                     "model may be another",
                     "trait \"" + model.trait(q) + "\": " + std::to_string(n) + " levels");
    }
}

bool whole(std::string_view text, long long& value) {
    double x = 0.0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), x);
    if (error != std::errc() || end != text.data() + text.size() || x != std::trunc(x) || std::fabs(x) > 9e15)
        return false;
    value = static_cast<long long>(x);
    return true;
}

// Lines by animal, and by what animals are used as; the first line of each.
struct ped_state {
    std::vector<finding>& findings;
    std::unordered_map<long long, int> line_of, as_sire, as_dam;
    bool dam_is_sire = false;
};

void check_pedline(ped_state& s, int line, const std::string& text, long long a, long long f, long long m) {
    const std::string place = tarvex::filenames.pedfile + ", line " + std::to_string(line) + ": " + text;
    const auto add = [&](const char* code, const char* what) { add_case(s.findings, code, what, place); };
    const bool sires = tarvex::options.siremodel;
    if (a < 1 || f < 0 || m < 0) return add("G302", "a code below 1");
    if (std::max({a, f, m}) > tarvex::maxan) add("G305", "a code above 399999");
    if (f == a || m == a)
        add("G306", "an animal is its own parent");
    else if (f > a || m > a)
        add("G303", "a parent has a larger code than its offspring");
    if (const auto [at, fresh] = s.line_of.emplace(a, line); !fresh)
        add_case(s.findings, "G304", "an animal has two lines", place + ", and line " + std::to_string(at->second));
    if (f > 0) s.as_sire.emplace(f, line);
    if (m > 0) s.as_dam.emplace(m, line);
    // sexes are told by use; with selfing an animal may be both
    if (!sires && f > 0 && s.as_dam.count(f) > 0 && !tarvex::options.selfing) add("G307", "a sire that is also a dam");
    if (!sires && m > 0 && s.as_sire.count(m) > 0 && !tarvex::options.selfing) add("G307", "a dam that is also a sire");
    s.dam_is_sire = s.dam_is_sire || s.as_sire.count(m) > 0;
}

} // namespace

void check_model(std::vector<finding>& findings, const std::string& parfile) {
    check_means(findings);
    check_trait_lines(findings, parfile);
    check_blocks(findings);
    check_zerout(findings);
}

void check_pedigree(std::vector<finding>& findings, std::unordered_set<long long>& listed) {
    const std::string& name = tarvex::filenames.pedfile;
    std::string all;
    try {
        all = read_text(name);
    } catch (...) {
        return add_case(findings, "G301", "the pedigree cannot be read", name);
    }
    ped_state s{findings, {}, {}, {}, false};
    std::istringstream in(all);
    int line = 0;
    // lines with "#" at the head only, as the program reads them
    bool head = true;
    for (std::string text; std::getline(in, text);) {
        ++line;
        head = head && text.starts_with('#');
        std::istringstream words(text);
        std::string w[3];
        words >> w[0] >> w[1] >> w[2];
        if (head || w[0].empty()) continue;
        long long code[3] = {};
        if (!whole(w[0], code[0]) || !whole(w[1], code[1]) || !whole(w[2], code[2]))
            add_case(findings, "G308", "a line that does not hold three whole numbers",
                     name + ", line " + std::to_string(line) + ": " + text);
        else
            check_pedline(s, line, text, code[0], code[1], code[2]);
    }
    // parents without a line of their own are in the pedigree too
    for (const auto* codes : {&s.line_of, &s.as_sire, &s.as_dam})
        for (const auto& [code, at] : *codes) listed.insert(code);
    if (tarvex::options.siremodel && !s.as_dam.empty() && !s.dam_is_sire)
        add_case(findings, "W413",
                 "in a sire model the third column of the pedigree holds maternal grandsires; here none "
                 "of them is a sire: dams?",
                 name);
}

} // namespace tvx
