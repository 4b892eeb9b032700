// Effects of the formula and the columns that they need.
#include "control/limits.h"
#include "tvx/commands.h"
#include "tvx/draft.h"

#include <algorithm>

namespace tvx {

namespace {

std::string joined(const std::vector<std::string>& parts, const char* by) {
    std::string text;
    for (const auto& p : parts) text += (text.empty() ? "" : by) + p;
    return text;
}

// Column of the table that holds the animals of the pedigree.
int animal_column(const draft& d) {
    if (const int at = csv_find(d.table, d.ped.animal_name); at >= 0) return at;
    for (const auto& m : d.models)
        for (const auto& t : m.terms)
            if (t.kind == term_kind::nrm || t.kind == term_kind::pe)
                if (const int at = csv_find(d.table, t.columns[0]); at >= 0) return at;
    return -1;
}

// A class that the table lacks may be a parent, which the pedigree knows.
bool take_parent(draft& d, draft_class& c, const std::string& name) {
    if (!d.has_ped || csv_find(d.table, name) >= 0 || d.ped.grandsires) return false;
    const int parent = name == d.ped.sire_name || name == "sire" ? 1 : name == d.ped.dam_name || name == "dam" ? 2 : 0;
    const int at = animal_column(d);
    if (parent == 0 || at < 0) return false;
    // the animal's column is read, its parent taken
    c.cols = {static_cast<std::size_t>(at)};
    c.parent = parent;
    d.s.remarks.push_back("\"" + name + "\" is no column of the table: taken from the pedigree by \"" +
                          d.table.names[c.cols[0]] + "\"");
    return true;
}

// Longest name of a class column: the program reads 20 letters of an effect with all that is tied to it.
std::size_t class_length(const draft& d, const std::vector<std::string>& from) {
    // With all that is tied to them names reach 20 letters at most: 5*6(99,BSP), 9+9, 10(99,BSPQ), 12(99,BSP).
    std::size_t length = 12;
    for (const auto& m : d.models)
        for (const auto& t : m.terms) {
            if (t.columns != from) continue;
            // name*class(order,BASIS) in 20 letters
            if (t.kind == term_kind::covariable) length = std::min<std::size_t>(length, 6);
            if (t.tied > 0) length = std::min<std::size_t>(length, 9);
            if (!t.basis.empty()) length = std::min<std::size_t>(length, 10);
        }
    return length;
}

std::size_t number_length(const draft& d, const std::string& from) {
    for (const auto& m : d.models)
        for (const auto& t : m.terms)
            if (t.kind == term_kind::covariable && t.covariable == from && !t.columns.empty()) return 5;
    return 12;
}

// Class column for these columns of the table.
int class_column(draft& d, const std::vector<std::string>& from, bool animals, const std::string& prefix,
                 const std::string& file) {
    for (std::size_t i = 0; i < d.classes.size(); ++i)
        // the same columns in the same role share a column
        if (d.classes[i].from == from && d.classes[i].animals == animals && d.classes[i].prefix == prefix &&
            d.classes[i].file == file)
            return static_cast<int>(i);
    draft_class c;
    c.from = from;
    c.animals = animals;
    c.prefix = prefix;
    c.file = file;
    if (!(from.size() == 1 && take_parent(d, c, from[0])))
        for (const auto& name : from) c.cols.push_back(csv_column(d.table, name, "formula"));
    c.name = column_name(d, prefix + joined(from, "_"), class_length(d, from));
    c.key = c.name;
    d.classes.push_back(c);
    return static_cast<int>(d.classes.size()) - 1;
}

int number_column(draft& d, const std::string& from, bool control) {
    for (std::size_t i = 0; i < d.numbers.size(); ++i)
        if (d.numbers[i].from == from && d.numbers[i].control == control) return static_cast<int>(i);
    draft_number n;
    n.from = from;
    n.control = control;
    n.col = csv_column(d.table, from, "formula");
    n.name = column_name(d, from, number_length(d, from));
    d.numbers.push_back(n);
    return static_cast<int>(d.numbers.size()) - 1;
}

std::string effect_name(const formula_term& t) {
    const std::string classes = joined(t.columns, ":");
    switch (t.kind) {
    case term_kind::pe:
        return "pe(" + classes + ")";
    case term_kind::covariable:
        return classes.empty() ? t.covariable : t.covariable + "|" + classes;
    default:
        return classes;
    }
}

// Columns with the animals of the pedigree: those of related effects, and permanent effects of the same animals.
bool has_animals(const draft& d, const formula_term& t) {
    if (by_pedigree(t.kind)) return true;
    if (t.kind != term_kind::pe || !d.has_ped) return false;
    for (const auto& m : d.models)
        for (const auto& other : m.terms)
            if (by_pedigree(other.kind) && other.columns == t.columns) return true;
    return false;
}

void classes_of(draft& d, const formula_term& t, draft_effect& f) {
    if (t.columns.empty()) return;
    // a permanent effect has a column of its own, though its codes are those of the animals: one column, one effect
    const std::string prefix = t.kind == term_kind::pe ? "pe_" : "";
    f.cls = class_column(d, t.columns, has_animals(d, t), prefix, t.file);
    f.e.column = d.classes[f.cls].name;
}

draft_effect make_effect(draft& d, const formula_term& t) {
    draft_effect f;
    f.e.term = t.text;
    f.e.name = effect_name(t);
    f.e.kind = t.kind;
    f.e.order = t.order;
    f.e.basis = t.basis;
    f.e.covariable = t.covariable;
    f.tied = t.tied;
    classes_of(d, t, f);
    if (!t.covariable.empty()) {
        const bool control = t.kind != term_kind::covariable;
        f.number = number_column(d, t.covariable, control);
        (control ? f.e.control : f.e.column) = d.numbers[f.number].name;
    }
    return f;
}

bool same_effect(const draft_effect& a, const draft_effect& b) {
    return a.e.kind == b.e.kind && a.e.name == b.e.name && a.e.covariable == b.e.covariable && a.e.basis == b.e.basis &&
           a.e.order == b.e.order;
}

void take_residual(draft& d, const formula_term& t) {
    d.s.control = t.covariable;
    for (const auto& r : t.ranges) d.s.residuals.push_back({r.from, r.to});
}

void take_term(draft& d, const formula_term& term, const std::vector<int>& traits) {
    formula_term t = term;
    if (t.kind == term_kind::residual) return take_residual(d, t);
    if (t.kind == term_kind::mean) return;
    // rr(a,..) of animals is a genetic effect; without a pedigree its levels are independent
    if (t.plain_regression && !d.has_ped) t.kind = term_kind::random;
    if (by_pedigree(t.kind) && !d.has_ped) throw fault{"formula: " + t.text + " needs a pedigree: give it with -p"};
    draft_effect f = make_effect(d, t);
    const auto known =
        std::find_if(d.effects.begin(), d.effects.end(), [&](const auto& x) { return same_effect(x, f); });
    // the same term in two models is one effect of more traits
    if (known == d.effects.end()) {
        f.e.traits = traits;
        d.effects.push_back(f);
    } else {
        known->e.traits.insert(known->e.traits.end(), traits.begin(), traits.end());
    }
}

void take_traits(draft& d) {
    int number = 0;
    for (const auto& m : d.models) {
        std::vector<int> numbers;
        for (const auto& name : m.traits) {
            csv_column(d.table, name, "formula");
            study_trait t;
            t.name = name;
            t.number = ++number;
            t.column = column_name(d, name, 12);
            numbers.push_back(number);
            d.s.traits.push_back(t);
        }
        for (const auto& t : m.terms) take_term(d, t, numbers);
    }
    if (number > tarvex::maxnq)
        throw fault{"formula: " + std::to_string(number) + " traits; the program takes " +
                    std::to_string(tarvex::maxnq)};
}

bool is_random(const study_effect& e) {
    return e.kind != term_kind::fixed && e.kind != term_kind::covariable && e.kind != term_kind::mean;
}

// Random regressions: all random effects are regressions, on one control variable, of one trait.
void check_regressions(draft& d) {
    for (const auto& f : d.effects)
        // one regression makes it an analysis of regressions
        if (is_random(f.e) && !f.e.basis.empty()) d.randreg = true;
    if (!d.randreg) {
        if (!d.s.control.empty()) throw fault{"formula: res() goes with random regressions, rr()"};
        return;
    }
    if (d.s.traits.size() > 1) throw fault{"formula: random regression, rr(), is for one trait"};
    for (auto& f : d.effects) {
        if (!is_random(f.e)) continue;
        if (f.tied > 0) throw fault{"formula: \"&\" cannot tie random regressions"};
        if (f.e.basis.empty())
            throw fault{"formula: with rr() all random effects are regressions: write rr(" + f.e.name + ",x,1) for " +
                        f.e.term};
        // the first regression names the control variable, the others must agree
        if (d.s.control.empty()) d.s.control = f.e.covariable;
        if (f.e.covariable != d.s.control)
            throw fault{"formula: regressions on one control variable only, not on \"" + d.s.control + "\" and \"" +
                        f.e.covariable + "\""};
        d.s.control_column = f.e.control;
    }
}

void check_kinds(draft& d) {
    bool nrm = false, sire = false;
    int random = 0;
    for (const auto& f : d.effects) {
        nrm = nrm || f.e.kind == term_kind::nrm;
        sire = sire || f.e.kind == term_kind::sire || f.e.kind == term_kind::mgs;
        random += is_random(f.e) ? 1 : 0;
    }
    // a pedigree file holds animals or sires, not both
    if (nrm && sire) throw fault{"formula: nrm() and sire() or mgs() do not go together"};
    if (random == 0)
        throw fault{"formula: no random effect: add (1|litter), nrm(animal) or another for classes of the table"};
    d.s.sire_model = sire;
}

// Names of VAR blocks: correlated effects share one.
void name_blocks(draft& d) {
    for (auto& f : d.effects) {
        if (!is_random(f.e)) continue;
        f.e.block = f.e.column;
        f.e.place = 1;
        if (f.tied == 0) continue;
        f.e.block.clear();
        for (const auto& g : d.effects) {
            if (g.tied != f.tied) continue;
            f.e.block += (f.e.block.empty() ? "" : "+") + g.e.column;
            // place within the pair: by their order in the formula
            if (&g < &f) ++f.e.place;
        }
        if (f.e.place > 2) throw fault{"formula: \"&\" ties two effects"};
    }
}

void check_limits(const draft& d) {
    for (const auto& t : d.s.traits) {
        const auto count = [&](auto&& test) {
            return std::count_if(d.effects.begin(), d.effects.end(), [&](const auto& f) {
                return test(f.e) && std::count(f.e.traits.begin(), f.e.traits.end(), t.number) > 0;
            });
        };
        const struct {
            std::ptrdiff_t n;
            int most;
            const char* what;
        } limits[] = {
            {count([](const auto& e) { return e.kind == term_kind::fixed; }), tarvex::maxfix, "fixed effects"},
            {count([](const auto& e) { return e.kind == term_kind::covariable; }), tarvex::maxcov, "covariables"},
            {count(is_random), tarvex::maxrand, "random effects"}};
        for (const auto& l : limits)
            if (l.n > l.most)
                throw fault{"formula: trait \"" + t.name + "\" has " + std::to_string(l.n) + " " + l.what +
                            "; the program takes " + std::to_string(l.most)};
    }
    // trait number and subject may be added
    const std::size_t columns = d.classes.size() + d.numbers.size() + d.s.traits.size() + 2;
    if (columns > tarvex::maxcols)
        throw fault{"formula: " + std::to_string(columns) + " columns are needed; the program takes " +
                    std::to_string(tarvex::maxcols)};
}

} // namespace

std::string column_name(draft& d, const std::string& name, std::size_t length) {
    std::string plain;
    for (const char c : name) {
        // letters beyond ASCII become underscores
        const bool good = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
        if (good)
            plain += c;
        else if (plain.empty() || plain.back() != '_')
            plain += '_';
    }
    const auto starts = [&](std::string_view word) {
        for (std::size_t i = 0; i < word.size(); ++i)
            if (i >= plain.size() || std::tolower(static_cast<unsigned char>(plain[i])) != word[i]) return false;
        return true;
    };
    const bool letter = !plain.empty() && std::isalpha(static_cast<unsigned char>(plain[0])) != 0;
    bool keyword = !letter;
    // what the parameter file would take for a key word
    for (const char* word : {"tr", "col", "end", "err", "res", "nam", "qno"}) keyword = keyword || starts(word);
    if (keyword) plain = "x_" + plain;
    plain = plain.substr(0, length);
    std::string unique = plain;
    for (int i = 2; std::count(d.used_names.begin(), d.used_names.end(), unique) > 0; ++i) {
        const std::string tail = "_" + std::to_string(i);
        // the number fits into the length
        unique = plain.substr(0, length - std::min(length, tail.size())) + tail;
    }
    d.used_names.push_back(unique);
    return unique;
}

void lay_out(draft& d) {
    // one model for all traits: all of them in one line of data, with MOD EQ
    d.s.one_line = d.models.size() == 1;
    take_traits(d);
    check_kinds(d);
    check_regressions(d);
    name_blocks(d);
    check_limits(d);
    if (d.s.traits.size() == 1)
        d.s.analysis = d.randreg ? "RR" : "UNI";
    else
        d.s.analysis = "MUV";
    d.s.rank = d.request.rank;
    if (d.s.rank > 0 && d.s.analysis == "UNI") throw fault{"--rank needs several traits or a random regression"};
}

} // namespace tvx
