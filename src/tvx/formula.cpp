// Grammar of formulas. The parser collects words; what they mean is sorted out by make_term, where each function of the
// formula has a line in a table.
#include "tvx/formula.h"

#include "tvx/commands.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <tao/pegtl.hpp>

namespace tvx {

namespace {

namespace peg = tao::pegtl;

// clang-format off
struct blanks : peg::star<peg::space> {};
struct letter : peg::sor<peg::alpha, peg::one<'_', '.'>, peg::ranges<'\x80', '\xff'>> {};
struct plain_name : peg::seq<letter, peg::star<peg::sor<letter, peg::digit>>> {};
struct quoted_text : peg::plus<peg::not_one<'`', '\n'>> {};
struct close_quote : peg::one<'`'> {};
struct quoted : peg::if_must<peg::one<'`'>, quoted_text, close_quote> {};
struct name : peg::sor<quoted, plain_name> {};
struct number : peg::seq<peg::opt<peg::one<'-'>>, peg::sor<
    peg::seq<peg::plus<peg::digit>, peg::opt<peg::one<'.'>, peg::star<peg::digit>>>,
    peg::seq<peg::one<'.'>, peg::plus<peg::digit>>>> {};
template <char c> struct sign : peg::seq<blanks, peg::one<c>, blanks> {};

struct trait : name {};
struct traits : peg::list<trait, sign<'+'>> {};

struct column : name {};
struct columns : peg::list_must<column, sign<':'>> {};
struct close : peg::one<')'> {};
struct random_bar : sign<'|'> {};
struct random_term : peg::if_must<peg::seq<peg::one<'('>, blanks, peg::one<'1'>, random_bar>, columns, blanks, close> {};

struct range_from : number {};
struct range_to : number {};
struct range : peg::seq<range_from, blanks, peg::one<'-'>, blanks, range_to> {};
struct ranges : peg::list_must<range, sign<','>> {};
struct function : peg::seq<plain_name> {};
struct order : peg::plus<peg::digit> {};
struct file_text : peg::plus<peg::not_one<'"', '\n'>> {};
struct bare_file : peg::plus<peg::not_one<',', ')', '(', '"', ' ', '\t', '\n'>> {};
struct inner_function : plain_name {};
struct inner : peg::seq<inner_function, blanks, peg::one<'('>, blanks, column, blanks, peg::one<')'>> {};
struct nesting : peg::if_must<sign<'|'>, columns> {};
struct first_argument : peg::sor<inner, column> {};
struct file_argument : peg::seq<peg::one<'"'>, file_text, peg::one<'"'>> {};
struct order_argument : peg::seq<order, peg::at<blanks, peg::one<',', ')'>>> {};
struct word_argument : peg::seq<name, peg::at<blanks, peg::one<',', ')'>>> {};
struct path_argument : bare_file {};
struct argument : peg::sor<file_argument, order_argument, word_argument, path_argument> {};
struct arguments : peg::star<peg::if_must<sign<','>, argument>> {};
struct range_arguments : peg::if_must<sign<':'>, ranges> {};
struct call_open : peg::seq<function, blanks, peg::one<'('>, blanks> {};
struct call : peg::if_must<call_open, first_argument, peg::opt<peg::sor<nesting, range_arguments>>, arguments, blanks, close> {};
struct mean : peg::seq<peg::one<'1'>, peg::not_at<peg::digit>> {};
struct classes : columns {};
struct term : peg::sor<random_term, call, mean, classes> {};
struct tied_terms : peg::list_must<term, sign<'&'>> {};
struct terms : peg::list_must<tied_terms, sign<'+'>> {};
struct tilde : peg::seq<blanks, peg::one<'~'>, blanks> {};
struct model : peg::seq<peg::must<traits>, peg::must<tilde>, peg::must<terms>> {};
struct ending : peg::seq<blanks, peg::eof> {};
struct grammar : peg::seq<blanks, peg::list_must<model, sign<';'>>, peg::must<ending>> {};
// clang-format on

template <typename> inline constexpr const char* expected = nullptr;
template <> inline constexpr auto expected<traits> = "the name of a trait is expected here";
template <> inline constexpr auto expected<tilde> = "\"~\" or \"+\" is expected here";
template <> inline constexpr auto expected<terms> = "a term is expected here";
template <> inline constexpr auto expected<tied_terms> = "a term is expected behind \"+\"";
template <> inline constexpr auto expected<term> = "a term is expected behind \"&\"";
template <> inline constexpr auto expected<model> = "a model is expected behind \";\"";
template <> inline constexpr auto expected<columns> = "the name of a column is expected here";
template <> inline constexpr auto expected<column> = "the name of a column is expected here";
template <> inline constexpr auto expected<first_argument> = "the name of a column is expected here";
template <> inline constexpr auto expected<argument> = "a number, a name or a file is expected here";
template <> inline constexpr auto expected<ranges> = "ranges as in res(day: 0-6,7-14) are expected here";
template <> inline constexpr auto expected<range> = "a range as in 0-6 is expected here";
template <> inline constexpr auto expected<close> = "\")\" is expected here";
template <> inline constexpr auto expected<quoted_text> = "a name is expected between backquotes";
template <> inline constexpr auto expected<close_quote> = "the backquote is not closed";
template <>
inline constexpr auto expected<ending> =
    "\"+\", \":\", \"&\" or \";\" is expected here (herd:year are combinations of two classes)";
template <> inline constexpr auto expected<arguments> = "an argument is expected here";
template <> inline constexpr auto expected<blanks> = "a blank is expected here";
template <>
inline constexpr auto expected<peg::opt<peg::sor<nesting, range_arguments>>> = "an argument is expected here";

struct messages {
    template <typename rule> static constexpr auto message = expected<rule>;
};
template <typename rule> using control = peg::must_if<messages, peg::normal, false>::control<rule>;

// What has been read of a term.
struct words {
    std::string function, inner, first;
    std::vector<std::string> columns, arguments;
    std::vector<int> numeric; // 1: the argument is a whole number
    std::vector<term_range> ranges;
    bool random = false, mean = false;
};

struct state {
    std::vector<formula_model> models;
    words w;
    std::string last_name;
    int ties = 0;
};

struct shape {
    const char* name;
    term_kind kind;
    const char* basis;
    const char* use;
};
constexpr shape shapes[] = {
    {"lin", term_kind::covariable, "POL", "lin(age), lin(age|sex)"},
    {"pol", term_kind::covariable, "POL", "pol(age,2), pol(age|sex,2)"},
    {"leg", term_kind::covariable, "LEG", "leg(age,3)"},
    {"bsp", term_kind::covariable, "BSP", "bsp(age,5)"},
    {"nrm", term_kind::nrm, "", "nrm(animal)"},
    {"pe", term_kind::pe, "", "pe(animal)"},
    {"sire", term_kind::sire, "", "sire(ram)"},
    {"mgs", term_kind::mgs, "", "mgs(ram)"},
    {"gin", term_kind::gin, "", "gin(gen,G.csv)"},
    {"rr", term_kind::nrm, "LEG", "rr(animal,day,3), rr(pe(animal),day,3,leg)"},
    {"res", term_kind::residual, "", "res(day: 0-6,7-14)"},
};

[[noreturn]] void misused(const words& w, const shape& s) {
    throw fault{"formula: " + w.function + "() is used as in " + s.use};
}

void take_order(const words& w, const shape& s, std::size_t i, formula_term& t) {
    const std::string& text = w.arguments[i];
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), t.order);
    if (error != std::errc() || end != text.data() + text.size() || t.order < 1) misused(w, s);
    if (t.order > 99) throw fault{"formula: " + w.function + "(): a regression has at most 99 coefficients"};
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
    return text;
}

void make_regression(const words& w, const shape& s, formula_term& t) {
    const std::size_t n = w.arguments.size();
    // rr(animal,day,3[,basis])
    if (n < 2 || n > 3 || !w.columns.empty()) misused(w, s);
    t.columns = {w.first};
    t.covariable = w.arguments[0];
    take_order(w, s, 1, t);
    // rr(x,..): related animals where there is a pedigree, else independent levels
    t.plain_regression = w.inner.empty();
    if (w.inner == "pe")
        t.kind = term_kind::pe;
    else if (!w.inner.empty() && w.inner != "nrm")
        misused(w, s);
    if (n < 3) return;
    t.basis = upper(w.arguments[2]);
    const char* known[] = {"POL", "LEG", "BSP", "BSPL", "BSPQ", "BSPC"};
    if (std::find(std::begin(known), std::end(known), t.basis) == std::end(known))
        throw fault{"formula: bases are pol, leg, bsp, bspl, bspq and bspc, not \"" + w.arguments[2] + "\""};
}

void make_covariable(const words& w, const shape& s, formula_term& t) {
    t.covariable = w.first;
    t.columns = w.columns;
    const bool linear = w.function == "lin";
    if (w.arguments.size() != (linear ? 0 : 1)) misused(w, s);
    t.order = 1;
    if (!linear) take_order(w, s, 0, t);
}

// Meaning of a call of a function.
void make_call(const words& w, formula_term& t) {
    const auto* s =
        std::find_if(std::begin(shapes), std::end(shapes), [&](const shape& x) { return w.function == x.name; });
    if (s == std::end(shapes)) {
        std::string text = "formula: there is no function \"" + w.function + "\"; there are";
        for (const auto& x : shapes) text += std::string(" ") + x.name;
        throw fault{text};
    }
    t.kind = s->kind;
    t.basis = s->basis;
    // what has been written of a term, against what its function takes
    const bool rr = w.function == "rr";
    if (!w.inner.empty() && !rr) misused(w, *s);
    // ranges belong to res() and to nothing else
    if (w.ranges.empty() != (t.kind != term_kind::residual)) misused(w, *s);
    if (rr) return make_regression(w, *s, t);
    if (t.kind == term_kind::covariable) return make_covariable(w, *s, t);
    if (!w.columns.empty() || w.arguments.size() != (t.kind == term_kind::gin ? 1 : 0)) misused(w, *s);
    if (t.kind == term_kind::residual) {
        t.covariable = w.first;
        t.ranges = w.ranges;
        return;
    }
    t.columns = {w.first};
    if (t.kind == term_kind::gin) t.file = w.arguments[0];
}

formula_term make_term(const words& w) {
    formula_term t;
    if (w.mean) {
        t.kind = term_kind::mean;
    } else if (!w.function.empty()) {
        make_call(w, t);
    } else {
        t.kind = w.random ? term_kind::random : term_kind::fixed;
        t.columns = w.columns;
    }
    return t;
}

// Actions: what a rule has matched goes into the words of the term in hand.
template <typename rule> struct act : peg::nothing<rule> {};
template <> struct act<plain_name> {
    template <class in> static void apply(const in& i, state& s) { s.last_name = i.string(); }
};
template <> struct act<quoted_text> {
    template <class in> static void apply(const in& i, state& s) { s.last_name = i.string(); }
};
template <> struct act<trait> {
    template <class in> static void apply(const in&, state& s) {
        // a trait behind terms begins the next model
        if (s.models.empty() || !s.models.back().terms.empty()) s.models.emplace_back();
        s.models.back().traits.push_back(s.last_name);
    }
};
template <> struct act<column> {
    template <class in> static void apply(const in&, state& s) { s.w.columns.push_back(s.last_name); }
};
template <> struct act<first_argument> {
    template <class in> static void apply(const in&, state& s) {
        // columns that follow are those of nesting
        s.w.first = s.w.columns.back();
        s.w.columns.clear();
    }
};
template <> struct act<random_bar> {
    template <class in> static void apply(const in&, state& s) { s.w.random = true; }
};
template <> struct act<mean> {
    template <class in> static void apply(const in&, state& s) { s.w.mean = true; }
};
template <> struct act<call_open> {
    template <class in> static void apply(const in&, state& s) { s.w.function = s.last_name; }
};
template <> struct act<inner_function> {
    template <class in> static void apply(const in& i, state& s) { s.w.inner = i.string(); }
};
// An inner call that was none leaves its word behind.
template <> struct act<inner> {
    template <class in> static void apply(const in&, state& s) { s.last_name = s.w.columns.back(); }
};
template <> struct act<order_argument> {
    template <class in> static void apply(const in& i, state& s) { s.w.arguments.push_back(i.string()); }
};
template <> struct act<word_argument> {
    template <class in> static void apply(const in&, state& s) { s.w.arguments.push_back(s.last_name); }
};
template <> struct act<path_argument> {
    template <class in> static void apply(const in& i, state& s) { s.w.arguments.push_back(i.string()); }
};
template <> struct act<file_text> {
    template <class in> static void apply(const in& i, state& s) { s.w.arguments.push_back(i.string()); }
};
template <> struct act<range_from> {
    template <class in> static void apply(const in& i, state& s) { s.w.ranges.push_back({std::stod(i.string()), 0.0}); }
};
template <> struct act<range_to> {
    template <class in> static void apply(const in& i, state& s) { s.w.ranges.back().to = std::stod(i.string()); }
};
template <> struct act<term> {
    template <class in> static void apply(const in& i, state& s) {
        formula_term t = make_term(s.w);
        t.text = i.string();
        t.tied = -1;
        s.models.back().terms.push_back(t);
        // the next term begins with nothing
        s.w = {};
    }
};
// Terms since the last complete list of tied ones.
template <> struct act<tied_terms> {
    template <class in> static void apply(const in&, state& s) {
        auto& terms = s.models.back().terms;
        const auto first = std::find_if(terms.begin(), terms.end(), [](const auto& t) { return t.tied < 0; });
        // one term alone is tied to nothing
        const int tie = terms.end() - first > 1 ? ++s.ties : 0;
        std::for_each(first, terms.end(), [&](auto& t) { t.tied = tie; });
    }
};

// A word in front of a bracket that turned out to be no inner call is forgotten when the rule fails.
template <typename rule> struct watch : control<rule> {};
template <> struct watch<inner> : control<inner> {
    template <class in> static void failure(const in&, state& s) { s.w.inner.clear(); }
};

std::string show_place(const std::string& text, std::size_t column, const std::string& message) {
    return "formula, column " + std::to_string(column) + ": " + message + "\n  " + text + "\n  " +
           std::string(column - 1, ' ') + "^";
}

void check_terms(const formula_model& m) {
    for (const auto& t : m.terms) {
        if (t.tied > 0 && t.kind != term_kind::nrm && t.kind != term_kind::sire && t.kind != term_kind::mgs)
            throw fault{"formula: \"&\" ties effects with a pedigree, as in nrm(animal)&nrm(dam); " + t.text +
                        " has none"};
        for (std::size_t i = 0; i < t.ranges.size(); ++i) {
            const bool ascending =
                t.ranges[i].to >= t.ranges[i].from && (i == 0 || t.ranges[i].from > t.ranges[i - 1].to);
            if (!ascending) throw fault{"formula: the ranges of " + t.text + " must ascend without overlap"};
        }
    }
    // the same effect twice cannot be told apart, whatever its basis
    for (auto a = m.terms.begin(); a != m.terms.end(); ++a)
        for (auto b = m.terms.begin(); b != a; ++b)
            if (a->kind == b->kind && a->columns == b->columns && a->covariable == b->covariable &&
                a->kind != term_kind::residual)
                throw fault{"formula: " + a->text + " stands twice in a model"};
}

} // namespace

std::vector<formula_model> read_formula(const std::string& text) {
    state s;
    peg::memory_input<> in(text, "formula");
    try {
        if (!peg::parse<grammar, act, watch>(in, s)) throw fault{"formula: \"" + text + "\" cannot be read"};
    } catch (const peg::parse_error& e) {
        throw fault{show_place(text, e.positions().front().column, std::string(e.message()))};
    }
    // over all models: a trait may stand in one only
    std::vector<std::string> seen;
    for (const auto& m : s.models) {
        for (const auto& y : m.traits) {
            if (std::find(seen.begin(), seen.end(), y) != seen.end())
                throw fault{"formula: trait \"" + y + "\" has two models"};
            seen.push_back(y);
        }
        check_terms(m);
    }
    return s.models;
}

} // namespace tvx
