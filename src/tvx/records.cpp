// Subjects and the order of records in the data file, which does not depend on that of the user's table.
#include "control/limits.h"
#include "tvx/commands.h"
#include "tvx/draft.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace tvx {

namespace {

bool is_random(const draft_effect& f) { return !f.e.block.empty(); }

int different_codes(const draft& d, int cls) {
    std::vector<char> met(d.classes[cls].levels + 1, 0);
    int n = 0;
    for (const std::size_t row : d.order) {
        // code 0: the row lacks the class
        char& m = met[d.classes[cls].code[row]];
        n += m == 0 ? 1 : 0;
        m = 1;
    }
    return n;
}

// The program takes as subject the code of the first effect with a pedigree, or of the only random effect.
int subject_class(const draft& d) {
    int best = -1, most = 0, random = 0, only = -1;
    for (const auto& f : d.effects) {
        if (!is_random(f)) continue;
        ++random;
        only = f.cls;
        const bool nrm = by_pedigree(f.e.kind);
        if (!nrm) continue;
        if (const int n = different_codes(d, f.cls); n > most) {
            most = n;
            best = f.cls;
        }
    }
    return best >= 0 ? best : random == 1 ? only : -1;
}

// Most records of a subject, and whether one has several of a trait.
int count_records(draft& d) {
    if (d.subject < 0) return 1;
    const auto& c = d.classes[d.subject];
    std::vector<int> all(c.levels + 1, 0);
    for (const auto& y : d.y) {
        std::vector<int> n(all.size(), 0);
        for (const std::size_t row : d.order)
            if (!std::isnan(y[row])) {
                ++all[c.code[row]];
                if (++n[c.code[row]] > 1) d.repeated = true;
            }
    }
    return *std::max_element(all.begin(), all.end());
}

// -1, 0, 1: order of two rows by subject, then by all that the data file holds of them.
int compare_rows(const draft& d, std::size_t a, std::size_t b) {
    const auto order = [](auto x, auto y) { return x < y ? -1 : y < x ? 1 : 0; };
    // what is missing comes last
    const auto value = [](double x) { return std::isnan(x) ? INFINITY : x; };
    if (d.subject >= 0)
        if (const int o = order(d.classes[d.subject].code[a], d.classes[d.subject].code[b])) return o;
    for (const auto& c : d.classes)
        if (const int o = order(c.code[a], c.code[b])) return o;
    for (const auto& n : d.numbers)
        if (const int o = order(value(n.value[a]), value(n.value[b]))) return o;
    for (const auto& y : d.y)
        if (const int o = order(value(y[a]), value(y[b]))) return o;
    return 0;
}

void choose_subject_word(draft& d, int most) {
    if (d.randreg) {
        if (most > tarvex::maxobs)
            throw fault{"a subject has " + std::to_string(most) + " records; the program takes " +
                        std::to_string(tarvex::maxobs)};
        return;
    }
    if (d.s.traits.size() == 1) {
        // one trait: residuals are independent, and lines may be subjects
        if (most > tarvex::maxobs && !d.s.sire_model) d.s.subject = "LINE";
        return;
    }
    // the program takes lines as subjects by itself, or
    const bool own_lines = d.s.one_line && (d.s.sire_model || d.subject < 0);
    // records of a subject are one record of each trait
    const bool joined = !d.repeated && d.subject >= 0 && !d.s.sire_model;
    if (own_lines || joined) return;
    d.s.subject = d.s.one_line ? "LINE" : column_name(d, "record", 12);
    d.s.remarks.push_back(std::string(d.s.sire_model ? "sire model" : "repeated records") +
                          " of several traits: residuals are correlated within a record");
}

void tell_same_rows(draft& d) {
    std::vector<std::string> same;
    for (std::size_t i = 1; i < d.order.size(); ++i)
        if (compare_rows(d, d.order[i - 1], d.order[i]) == 0)
            same.push_back("lines " + std::to_string(d.table.lines[d.order[i - 1]]) + " and " +
                           std::to_string(d.table.lines[d.order[i]]));
    if (!same.empty())
        d.s.remarks.push_back(std::to_string(same.size()) + " records are the same as another in all that is used:\n" +
                              few_lines(same, 3));
}

// Two records of a subject at one value of the control variable have a singular residual matrix.
void check_control(const draft& d) {
    if (!d.randreg || d.subject < 0) return;
    const auto n = std::find_if(d.numbers.begin(), d.numbers.end(), [](const auto& x) { return x.control; });
    std::vector<std::string> twice;
    std::map<double, std::size_t> seen;
    int subject = 0;
    for (const std::size_t row : d.order) {
        // rows stand by subject: each begins with an empty table
        const int code = d.classes[d.subject].code[row];
        if (code != subject) seen.clear();
        subject = code;
        const auto [at, fresh] = seen.emplace(n->value[row], row);
        if (!fresh)
            twice.push_back("lines " + std::to_string(d.table.lines[at->second]) + " and " +
                            std::to_string(d.table.lines[row]));
    }
    if (!twice.empty())
        throw fault{"two records of a subject at one value of \"" + n->from + "\", which this model cannot have:\n" +
                    few_lines(twice, 10)};
}

void count_animals(draft& d) {
    for (const auto& c : d.classes) {
        if (!c.animals) continue;
        // the first column with animals: whose records they are
        for (const std::size_t row : d.order)
            if (c.code[row] > 0) ++d.s.animals[c.code[row] - 1].records;
        return;
    }
}

void warn_of_models(draft& d) {
    for (const auto& f : d.effects) {
        if (f.cls < 0 || f.e.kind == term_kind::covariable) continue;
        const auto& c = d.classes[f.cls];
        const int n = c.animals ? different_codes(d, f.cls) : c.levels;
        const auto rows = static_cast<int>(d.order.size());
        // hardly a class
        if (f.e.kind == term_kind::fixed && 2 * n > rows)
            d.s.remarks.push_back("\"" + f.e.name + "\" has " + std::to_string(n) + " levels in " +
                                  std::to_string(rows) + " records: was lin(" + f.e.name + ") or (1|" + f.e.name +
                                  ") meant?");
        if (n == 1) d.s.remarks.push_back("\"" + f.e.name + "\" has a single level");
        const bool own = f.e.kind == term_kind::pe || f.e.kind == term_kind::random;
        if (own && n == rows && d.s.traits.size() == 1)
            throw fault{f.e.term + " has a level for each record and cannot be told from the residual"};
    }
}

} // namespace

void order_records(draft& d) {
    for (std::size_t row = 0; row < d.table.rows; ++row)
        if (std::any_of(d.y.begin(), d.y.end(), [&](const auto& y) { return !std::isnan(y[row]); }))
            d.order.push_back(row);
    d.subject = subject_class(d);
    const int most = count_records(d);
    // rows that are equal in all stay as in the table: nothing can tell them apart
    std::stable_sort(d.order.begin(), d.order.end(),
                     [&](std::size_t a, std::size_t b) { return compare_rows(d, a, b) < 0; });
    choose_subject_word(d, most);
    tell_same_rows(d);
    check_control(d);
    count_animals(d);
    warn_of_models(d);
}

} // namespace tvx
