// One pass over the data file: cells that stop the program, and what it takes in silence.
#include "control/filenames.h"
#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "tvx/check.h"
#include "tvx/check_rank.h"
#include "tvx/csv.h"
#include "tvx/tables.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <functional>
#include <map>
#include <unordered_map>
#include <unordered_set>

namespace tvx {

using tarvex::datafile;
using tarvex::model;
using tarvex::mudmap;
using tarvex::numbers;

namespace {

// A class of a trait: its columns and what it may hold.
struct class_column {
    std::string name;
    int icol, icol2;
    long long most; // levels
    int least;      // smallest code
    bool fixed, codes_limited;
    bool related = false; // by a pedigree or a matrix: such levels can be told from independent ones
    std::unordered_set<long long> levels;
    bool too_many = false;
};

struct pass {
    std::vector<finding>& findings;
    std::vector<std::vector<class_column>> classes;  // by trait
    std::vector<std::int64_t> records;               // by trait
    std::vector<std::map<double, std::int64_t>> odd; // by column: -9, -99, .. and how many
    std::vector<double> low, high;
    std::vector<double> value; // of the line, from 1
    std::vector<std::string_view> word;
    std::unordered_map<long long, std::vector<int>> subjects; // records by trait
    std::unordered_set<long long> closed;
    long long subject = 0;
    bool open = false;
    int line = 0;
};

std::string at(const pass& p, int col, int q) {
    return tarvex::filenames.datfile + ", line " + std::to_string(p.line) + ", column " + std::to_string(col) + " (" +
           datafile.colname[col][tarvex::column_set(q)] + "): " + shown(p.word[col]);
}

void add_classes(pass& p) {
    for (int q = 1; q <= numbers.nq; ++q) {
        std::vector<class_column> list;
        for (int i = 1; i <= model.nfix(q); ++i)
            list.push_back({model.fixed(i, q),
                            mudmap.fx_dcolno(i, q),
                            mudmap.fx_dcolno2(i, q),
                            mudmap.fx_mlev(i, q),
                            0,
                            true,
                            true,
                            false,
                            {}});
        for (int i = 1; i <= model.nrnd(q); ++i) {
            const auto kind = model.rnd_opt(i, q);
            // codes of a pedigree are limited by the program, those of other effects by the parameter file
            const bool nrm = kind == tarvex::covariance_kind::nrm, gin = kind == tarvex::covariance_kind::gin;
            list.push_back({model.random(i, q),
                            mudmap.rn_dcolno(i, q),
                            mudmap.rn_dcolno2(i, q),
                            nrm ? tarvex::maxan : mudmap.rn_mlev(i, q),
                            1,
                            false,
                            !nrm,
                            nrm || gin,
                            {}});
        }
        p.classes.push_back(std::move(list));
    }
}

// Parts the line at blanks, or at a comma; false if a value is no number.
bool split_line(pass& p, std::string_view text, int needed) {
    p.word.assign(1, {});
    p.value.assign(1, 0.0);
    for (std::size_t i = 0; i < text.size() && static_cast<int>(p.word.size()) <= needed;) {
        const auto blank = [&](char c) { return c == ' ' || c == '\t' || c == '\r'; };
        while (i < text.size() && blank(text[i])) ++i;
        const std::size_t from = i;
        while (i < text.size() && !blank(text[i]) && text[i] != ',') ++i;
        // two commas with nothing between them hold an empty value
        if (i > from || (i < text.size() && text[i] == ',')) p.word.push_back(text.substr(from, i - from));
        while (i < text.size() && blank(text[i])) ++i;
        if (i < text.size() && text[i] == ',') ++i;
    }
    for (std::size_t k = 1; k < p.word.size(); ++k) {
        std::string_view w = p.word[k];
        if (w.starts_with('+')) w.remove_prefix(1);
        double x = 0.0;
        const auto [end, error] = std::from_chars(w.data(), w.data() + w.size(), x);
        if (error != std::errc() || end != w.data() + w.size() || !std::isfinite(x)) {
            // such numbers are read by the program
            const bool d_exponent = w.find_first_of("dD") != std::string_view::npos &&
                                    w.find_first_not_of("0123456789+-.dDeE") == std::string_view::npos;
            if (!d_exponent) {
                add_case(p.findings, "D203", "a value is no number",
                         tarvex::filenames.datfile + ", line " + std::to_string(p.line) + ", column " +
                             std::to_string(k) + ": " + shown(p.word[k]));
                return false;
            }
        }
        p.value.push_back(x);
    }
    return true;
}

void check_class(pass& p, class_column& c, int q) {
    const double x = p.value[c.icol], y = c.icol2 > 0 ? p.value[c.icol2] : 0.0;
    if (x != std::trunc(x) || (c.icol2 > 0 && y != std::trunc(y)))
        add_case(p.findings, "W416", "a code with decimals, which are cut off", at(p, c.icol, q));
    const auto code = static_cast<long long>(x), code2 = static_cast<long long>(y);
    if (code < c.least || code2 < 0) return add_case(p.findings, "D205", "a code below the smallest", at(p, c.icol, q));
    if (c.fixed && code == 0 && c.icol2 <= 0)
        add_case(p.findings, "W402", "code 0 of a fixed effect counts as a level of its own", at(p, c.icol, q));
    if (!c.codes_limited && code > tarvex::maxan)
        return add_case(p.findings, "D204", "a code above 399999", at(p, c.icol, q));
    // two codes in one word
    c.levels.insert(code * (1LL << 31) + code2);
    if (c.codes_limited && static_cast<long long>(c.levels.size()) > c.most && !c.too_many) {
        c.too_many = true;
        add_case(p.findings, "D204", "more levels than the parameter file gives",
                 at(p, c.icol, q) + ", effect " + c.name);
    }
}

void note_value(pass& p, int col) {
    const double x = p.value[col];
    static constexpr double codes[] = {-9, -99, -999, -9999, -99999};
    if (std::find(std::begin(codes), std::end(codes), x) != std::end(codes)) {
        ++p.odd[col][x];
        return;
    }
    p.low[col] = std::min(p.low[col], x);
    p.high[col] = std::max(p.high[col], x);
}

// Without the word SUBject a subject is a run of lines with one code.
void check_subject(pass& p, int q) {
    const int col = mudmap.subj_dcolno(q);
    if (col < 1 || model.subject_line || !model.subject.empty()) return;
    const auto code = static_cast<long long>(p.value[col]);
    if (!p.open || code != p.subject) {
        if (p.open) p.closed.insert(p.subject);
        if (p.closed.count(code) > 0)
            add_case(p.findings, "W406", "a subject comes back: its records must stand together", at(p, col, q));
        p.subject = code;
        p.open = true;
    }
    auto& n = p.subjects[code];
    n.resize(numbers.nq + 1);
    ++n[q];
}

void check_record(pass& p, int q) {
    ++p.records[q];
    for (auto& c : p.classes[q - 1]) check_class(p, c, q);
    for (int i = 1; i <= model.ncov(q); ++i) note_value(p, mudmap.cv_dcolno(i, q));
    for (int i = 1; i <= model.nmeta(q); ++i) note_value(p, mudmap.rr_dcolno(i, q));
    note_value(p, mudmap.tr_dcolno(q));
    check_subject(p, q);
}

// Trait of a line with one trait; 0: none of the analysis.
int trait_of(pass& p, std::string_view text) {
    if (!split_line(p, text, 1) || p.value.size() < 2) return -1;
    const double x = p.value[1];
    int q = x >= 1 && x <= 99 && x == std::trunc(x) ? static_cast<int>(x) : 0;
    if (q > 0 && tarvex::options.renumbered) q = datafile.iq_newno[q];
    if (q >= 1 && q <= numbers.nq) return q;
    add_case(p.findings, "W417", "lines of a trait that is not in the analysis are passed over",
             tarvex::filenames.datfile + ", line " + std::to_string(p.line) + ": trait " + shown(p.word[1]));
    return 0;
}

void check_line(pass& p, std::string_view text) {
    int q = 0;
    // lines of one trait are split twice: the number of the trait says how many columns it has
    if (!mudmap.alltraits) q = trait_of(p, text);
    if (!mudmap.alltraits && q < 1) return;
    // columns that the trait's set has
    const int needed = datafile.ndatcol[tarvex::column_set(std::max(q, 1))];
    if (!split_line(p, text, needed)) return;
    if (static_cast<int>(p.value.size()) <= needed)
        return add_case(p.findings, "D202", "a line has too few values",
                        tarvex::filenames.datfile + ", line " + std::to_string(p.line) + ": " +
                            std::to_string(p.value.size() - 1) + " of " + std::to_string(needed));
    for (int t = q > 0 ? q : 1; t <= (q > 0 ? q : numbers.nq); ++t)
        if (p.value[mudmap.tr_dcolno(t)] != static_cast<double>(datafile.missvalue[t])) check_record(p, t);
}

void tell_odd_values(pass& p) {
    for (int q = 1; q <= numbers.nq; ++q) {
        const auto look = [&](int col, const std::string& what) {
            for (const auto& [x, n] : p.odd[col])
                // all other values are no negative ones
                if (p.low[col] >= 0)
                    add_case(p.findings, "W403", "a code for missing values is taken as a value",
                             what + ": " + std::to_string(n) + " times " + std::to_string(static_cast<int>(x)) +
                                 ", all others above or at " + std::to_string(p.low[col]));
            // a column that several traits share is told once
            p.odd[col].clear();
        };
        for (int i = 1; i <= model.ncov(q); ++i) look(mudmap.cv_dcolno(i, q), "covariable " + model.covar(i, q));
        for (int i = 1; i <= model.nmeta(q); ++i)
            look(mudmap.rr_dcolno(i, q), "control variable " + model.rricontrol(i, q));
        look(mudmap.tr_dcolno(q), "trait " + model.trait(q));
    }
}

void tell_subjects(pass& p) {
    const int nq = numbers.nq;
    for (int q = 1; q <= nq; ++q)
        if (p.records[q] == 0)
            add_case(p.findings, "D206", "a trait has no record", "trait \"" + model.trait(q) + "\"");
    // met: pairs of traits that some subject has both of
    std::int64_t repeated = 0, most = 0;
    std::vector<char> met(static_cast<std::size_t>(nq) * nq, 0);
    for (const auto& [code, n] : p.subjects) {
        std::int64_t all = 0;
        for (int q = 1; q <= nq; ++q) {
            all += n[q];
            if (n[q] > 1) ++repeated;
            for (int t = 1; t < q; ++t)
                if (n[q] > 0 && n[t] > 0) met[(q - 1) * nq + t - 1] = 1;
        }
        most = std::max(most, all);
    }
    if (most > tarvex::maxobs)
        add_case(p.findings, "D208", "a subject has more than 499 records", std::to_string(most) + " records");
    if (nq > 1 && repeated > 0 && !p.subjects.empty())
        add_case(p.findings, "W408",
                 "several traits with repeated records: residuals are joined between all records of "
                 "a subject (SUBject joins them within a record)",
                 std::to_string(repeated) + " times");
    for (int q = 2; q <= nq && !p.subjects.empty(); ++q)
        for (int t = 1; t < q; ++t)
            if (met[(q - 1) * nq + t - 1] == 0)
                add_case(p.findings, "W407",
                         "no subject has records of both traits: their residual covariance is not in the data",
                         "\"" + model.trait(t) + "\" and \"" + model.trait(q) + "\"");
}

// Two classes of a trait whose levels go together.
void check_confounding(std::vector<finding>& findings, const std::vector<std::vector<std::array<long long, 2>>>& pairs,
                       const std::vector<class_column>& classes, int q) {
    // pairs (i,j) in the order in which check_pairs makes them
    std::size_t k = 0;
    for (std::size_t i = 0; i < classes.size(); ++i)
        for (std::size_t j = i + 1; j < classes.size(); ++j, ++k) {
            std::unordered_map<long long, long long> of_i, of_j;
            bool i_tells = true, j_tells = true; // a level of i has one level of j
            for (const auto& [a, b] : pairs[k]) {
                i_tells = i_tells && of_i.emplace(a, b).first->second == b;
                // maps that never contradict: the relation is a function
                j_tells = j_tells && of_j.emplace(b, a).first->second == a;
            }
            const bool related = classes[i].related || classes[j].related;
            const bool both = i_tells && j_tells && !related, fixed = classes[i].fixed && classes[j].fixed;
            if (classes[i].levels.size() < 2 || classes[j].levels.size() < 2) continue;
            // fixed in either direction; a random effect held by a fixed one has nothing left
            const bool told =
                both || (fixed && (i_tells || j_tells)) || (classes[i].fixed && !classes[j].fixed && i_tells);
            if (told && classes[i].icol != classes[j].icol)
                add_case(findings, "W411", "the levels of one effect tell those of another: confounded",
                         "trait \"" + model.trait(q) + "\": " + classes[i].name + " and " + classes[j].name);
        }
}

using line_reader = std::function<void(std::string_view)>;

// Lines of the data file; those at the head that begin with "#" and blank ones are passed over.
void each_line(pass& p, std::string_view text, const line_reader& take) {
    bool head = true;
    p.line = 0;
    while (!text.empty()) {
        const auto end = std::min(text.find('\n'), text.size());
        const auto line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        ++p.line;
        head = head && line.starts_with('#');
        if (!head && line.find_first_not_of(" \t\r") != std::string_view::npos) take(line);
    }
}

// Is the line in hand, which is sound, one of trait q ?
bool of_trait(const pass& p, int q) {
    if (mudmap.alltraits) return true;
    const double x = p.value[1];
    const int t = x >= 1 && x <= 99 && x == std::trunc(x) ? static_cast<int>(x) : 0;
    return t > 0 && (tarvex::options.renumbered ? datafile.iq_newno[t] : t) == q;
}

long long code_at(const pass& p, int col, int col2) {
    return static_cast<long long>(p.value[col]) * (1LL << 31) + (col2 > 0 ? static_cast<long long>(p.value[col2]) : 0);
}

fixed_part fixed_part_of(int q) {
    fixed_part part{model.trait(q), model.fitmean(q) != 0, {}, {}};
    for (int i = 1; i <= model.nfix(q); ++i) part.classes.push_back({model.fixed(i, q), mudmap.fx_dcolno(i, q), {}});
    for (int i = 1; i <= model.ncov(q); ++i)
        part.covariables.push_back(
            {model.covar(i, q), mudmap.cv_type(i, q), mudmap.cv_order(i, q), mudmap.cv_degree(i, q), {}, {}});
    return part;
}

// The record in hand, of trait q.
void add_fixed(const pass& p, int q, fixed_part& part) {
    for (int i = 1; i <= model.nfix(q); ++i)
        part.classes[i - 1].code.push_back(code_at(p, mudmap.fx_dcolno(i, q), mudmap.fx_dcolno2(i, q)));
    for (int i = 1; i <= model.ncov(q); ++i) {
        auto& c = part.covariables[i - 1];
        c.value.push_back(p.value[mudmap.cv_dcolno(i, q)]);
        if (mudmap.cv_nestcolno(i, q) < 1) continue;
        // the class may be an interaction: its second column
        const int fix = mudmap.cv_nestfix(i, q);
        const int second = fix > 0 ? mudmap.fx_dcolno2(fix, q) : fix < 0 ? mudmap.ex_dcolno2(-fix, q) : 0;
        c.level.push_back(code_at(p, mudmap.cv_nestcolno(i, q), second));
    }
}

// Second pass, over sound data: pairs of levels of each trait's classes, and the rank of its fixed part.
void check_pairs(pass& p, std::string_view text) {
    for (int q = 1; q <= numbers.nq; ++q) {
        const auto& classes = p.classes[q - 1];
        std::vector<std::vector<std::array<long long, 2>>> pairs(
            classes.empty() ? 0 : classes.size() * (classes.size() - 1) / 2);
        // trait by trait over the text in memory: columns of one trait alone are held
        fixed_part part = fixed_part_of(q);
        each_line(p, text, [&](std::string_view line) {
            const int needed = datafile.ndatcol[tarvex::column_set(q)];
            if (!split_line(p, line, needed) || !of_trait(p, q)) return;
            if (p.value[mudmap.tr_dcolno(q)] == static_cast<double>(datafile.missvalue[q])) return;
            for (std::size_t i = 0, k = 0; i < classes.size(); ++i)
                for (std::size_t j = i + 1; j < classes.size(); ++j, ++k)
                    pairs[k].push_back(
                        {code_at(p, classes[i].icol, classes[i].icol2), code_at(p, classes[j].icol, classes[j].icol2)});
            add_fixed(p, q, part);
        });
        check_confounding(p.findings, pairs, classes, q);
        check_rank(p.findings, part);
    }
}

// Codes of the animals in effects with relationships, and the line that has each first.
struct strangers {
    std::unordered_map<long long, int> line;
    std::vector<long long> code; // in their order
};

void note_animals(pass& p, int q, const std::unordered_set<long long>& listed, strangers& found) {
    for (int i = 1; i <= model.nrnd(q); ++i) {
        if (model.rnd_opt(i, q) != tarvex::covariance_kind::nrm) continue;
        const auto code = static_cast<long long>(p.value[mudmap.rn_dcolno(i, q)]);
        if (code > 0 && listed.count(code) == 0 && found.line.emplace(code, p.line).second) found.code.push_back(code);
    }
}

} // namespace

void check_strangers(std::vector<finding>& findings, const std::unordered_set<long long>& listed) {
    const bool sound = std::none_of(findings.begin(), findings.end(), [](const auto& f) { return f.code[0] == 'D'; });
    // codes of a faulty file may be anything
    if (!sound) return;
    const std::string text = read_text(tarvex::filenames.datfile);
    std::vector<finding> none;
    pass p{none, {}, {}, {}, {}, {}, {}, {}, {}, {}};
    strangers found;
    each_line(p, text, [&](std::string_view line) {
        // 0: a line with all traits
        const int only = mudmap.alltraits ? 0 : trait_of(p, line);
        if (only < 0 || (only == 0 && !mudmap.alltraits)) return;
        const int needed = datafile.ndatcol[tarvex::column_set(std::max(only, 1))];
        if (!split_line(p, line, needed) || static_cast<int>(p.value.size()) <= needed) return;
        for (int q = std::max(only, 1); q <= (only > 0 ? only : numbers.nq); ++q)
            if (p.value[mudmap.tr_dcolno(q)] != static_cast<double>(datafile.missvalue[q]))
                note_animals(p, q, listed, found);
    });
    for (const long long code : found.code)
        add_case(findings, "W412",
                 "animals with records that the pedigree does not have: they count as unrelated founders",
                 tarvex::filenames.datfile + ", line " + std::to_string(found.line.at(code)) + ": animal " +
                     std::to_string(code));
}

void check_data(std::vector<finding>& findings) {
    std::string text;
    try {
        text = read_text(tarvex::filenames.datfile);
    } catch (...) {
        return add_case(findings, "D201", "the data file cannot be read", tarvex::filenames.datfile);
    }
    pass p{findings, {}, {}, {}, {}, {}, {}, {}, {}, {}};
    p.records.assign(numbers.nq + 1, 0);
    const std::size_t columns = mudmap.maxcol + 1;
    p.odd.resize(columns);
    p.low.assign(columns, INFINITY);
    p.high.assign(columns, -INFINITY);
    add_classes(p);
    each_line(p, text, [&](std::string_view line) { check_line(p, line); });
    tell_odd_values(p);
    tell_subjects(p);
    // confounding is looked for in sound data only
    const bool sound = std::none_of(findings.begin(), findings.end(), [](const auto& f) { return f.code[0] == 'D'; });
    if (sound) check_pairs(p, text);
}

} // namespace tvx
