// MOD block: the model of analysis.
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "parfile/model.h"
#include "parfile/parblocks.h"
#include "support/edit_form.h"
#include "support/stop.h"
#include "support/text.h"

#include <algorithm>
#include <set>

namespace tarvex {

std::vector<int> get_traitnos(par_lines& p) {
    std::vector<int> itrvec;
    while (next_var(p)) {
        if (static_cast<int>(itrvec.size()) == numbers.nq) rdpar_err(p, "Invalid no. of traits");
        const int iq = this_digit(p);
        if (iq < 1 || iq > numbers.nq || std::count(itrvec.begin(), itrvec.end(), iq) > 0)
            rdpar_err(p, "Invalid trait no. specified");
        itrvec.push_back(iq);
    }
    // no number: all traits
    if (itrvec.empty())
        for (int iq = 1; iq <= numbers.nq; ++iq) itrvec.push_back(iq);
    return itrvec;
}

namespace {

// Traits of a model line: those behind its last token, or all.
std::vector<int> line_traits(par_lines& p) {
    // one model for all: numbers behind a name are not looked at
    if (options.equal_model) p.i2 = plinelen + 1;
    return get_traitnos(p);
}

std::string effect_token(par_lines& p) {
    if (!next_var(p)) rdpar_err(p, "Name of effect is missing !");
    return token(p);
}

// Adds a name to the effects of the traits of the line.
void add_effect(par_lines& p, array<std::string, 2>& names, array<int>& count, int most, const char* what,
                const std::string& name) {
    for (int iq : line_traits(p)) {
        if (count(iq) == most) rdpar_err(p, std::string("Max. no. of ") + what + " exceeded !");
        names(++count(iq), iq) = name;
    }
}

void add_covar(par_lines& p, const std::string& name) {
    add_effect(p, model.covar, model.ncov, maxcov, "covariables", name);
}

void read_fixed(par_state& s) {
    const std::string t = effect_token(s.lines);
    const std::string name = t.substr(0, name_length);
    // a bracket makes it a covariable, whatever the key word
    if (t.find('(') != std::string::npos)
        add_covar(s.lines, name);
    else
        add_effect(s.lines, model.fixed, model.nfix, maxfix, "fixed effects", name);
}

void read_covar(par_state& s) {
    const std::string t = effect_token(s.lines);
    if (t.find('(') == std::string::npos) rdpar_err(s.lines, "Missing \"(\" in covariable");
    add_covar(s.lines, t.substr(0, name_length));
}

void read_extra(par_state& s) {
    const std::string name = effect_token(s.lines).substr(0, name_length);
    add_effect(s.lines, model.extra, model.nextra, maxext, "extra effects", name);
}

// Random effect in a random regression analysis: name(order,...
void check_rrname(const par_lines& p, const std::string& t) {
    const auto open = t.find('('), comma = t.find(',');
    if (open == std::string::npos) rdpar_err(p, "RR analysis - no \"(\" in name");
    if (comma == std::string::npos) rdpar_err(p, "RR analysis - no \",\" in name");
    int order = 0;
    if (comma < open || !read_integer(std::string_view(t).substr(open + 1, comma - open - 1), order) || order < 1)
        rdpar_err(p, "Failed reading order of RR");
}

// The option behind a random effect, if there is one; otherwise the line is left at the effect.
covariance_kind read_covoption(par_lines& p) {
    const int i1 = p.i1, i2 = p.i2;
    // no word: identity
    if (!next_var(p) || is_digit(token(p).front())) {
        p.i1 = i1;
        p.i2 = i2;
        return covariance_kind::ide;
    }
    const std::string t = token(p);
    if (t.size() < 3) rdpar_err(p, "cov. option too short");
    const covariance_kind kind = kind_named(upper3(t));
    if (kind == covariance_kind::none) rdpar_err(p, "Invalid covariance structure");
    return kind;
}

void read_random(par_state& s) {
    auto& p = s.lines;
    const std::string t = effect_token(p);
    if (options.randreg)
        check_rrname(p, t);
    else if (t.find('(') != std::string::npos)
        rdpar_err(p, "\"(\" in name only allowed with RR analyses");
    // where no word follows the line is left at the effect: line_traits goes on from there
    const covariance_kind opt = read_covoption(p);
    // asked for when the file has ended: a pedigree without such an effect is an error
    if (opt == covariance_kind::nrm) s.nrm_set = true;
    for (int iq : line_traits(p)) {
        int& n = model.nrnd(iq);
        if (n == maxrand) rdpar_err(p, "Max. no. of random effects exceeded !");
        ++n;
        model.random(n, iq) = t.substr(0, name_length);
        model.rnd_opt(n, iq) = opt;
    }
}

void read_control(par_state& s) {
    auto& p = s.lines;
    if (model.anal_type != 3 && model.anal_type != 4) rdpar_err(p, "Code only valid with RR analysis !");
    const std::string name = effect_token(p).substr(0, name_length);
    for (int iq : line_traits(p)) {
        if (model.nmeta(iq) == maxmeta) rdpar_err(p, "Max. no. of RR control variables exceeded !");
        model.rricontrol(++model.nmeta(iq), iq) = name;
    }
    // numbered once over all traits
    if (std::count(model.rrcontrol.begin(), model.rrcontrol.end(), name) > 0) return;
    model.rrcontrol.push_back(name);
    ++model.nrrc;
}

void read_mean(par_state& s) {
    for (int iq : line_traits(s.lines)) model.fitmean(iq) = 1;
}

int check_trait(const par_lines& p, int iq) {
    if (iq < 1 || iq > numbers.nq) rdpar_err(p, "Invalid trait no. specified");
    return iq;
}

// Column of the trait number. Every reader takes it from column 1.
void read_position(par_state& s) {
    auto& p = s.lines;
    if (options.equal_model) rdpar_err(p, "Invalid for \"equal model\" opt.");
    int ii = 0, iq = 0;
    const bool more = next_var(p);
    list_reader numbers_of(std::string_view(p.pline).substr(p.i1 - 1));
    const bool good = more && numbers_of.next(ii) == list_read::value && numbers_of.next(iq) == list_read::value;
    if (!good) rdpar_err(p, "Something wrong parsing line !");
    // set for each trait; the lines themselves are not rearranged
    datafile.trno_pos[check_trait(p, iq)] = ii;
    if (ii != 1) tvx_notyet();
}

// Renumbering "jq"->iq: trait jq of the data is trait iq of the analysis.
int get_iqnew(const par_lines& p) {
    const std::string t = token(p);
    const auto close = t.find('"', 1);
    int jq = 0, iq = 0;
    // one or two digits between the quotes
    bool good = close != std::string::npos && (close == 2 || close == 3) && t.compare(close + 1, 2, "->") == 0;
    good = good && is_digit(t[1]) && is_digit(t[close - 1]) && t.size() > close + 3 && is_digit(t[close + 3]);
    good = good && read_integer(std::string_view(t).substr(1, close - 1), jq) && jq > 0;
    good = good && read_integer(std::string_view(t).substr(close + 3), iq);
    if (!good) {
        print_list(screen(), "Invalid syntax for renumbering of traits ", trim(p.pline), p.i1, p.i2, t);
        stoptarvex();
    }
    datafile.iq_newno[jq] = check_trait(p, iq);
    options.renumbered = true;
    return iq;
}

// Trait number on a TR line; leaves `more` on if the current token is the missing value.
int trait_number(par_lines& p, bool& more) {
    int iq = 1;
    more = next_var(p);
    const char first = more ? token(p).front() : ' ';
    if (first == '"') {
        // renumbered: the missing value may follow
        iq = get_iqnew(p);
        more = next_var(p);
        return iq;
    }
    // the only trait: a number in front of the missing value must be its own
    if (numbers.nq == 1) {
        if (is_digit(first)) {
            int number = 0;
            if (!read_integer(token(p), number) || number != 1)
                rdpar_err(p, "The only trait has number 1 (code of missing records : \"TRAIT name 1 code\") !");
            more = next_var(p);
        }
    } else {
        if (!more) rdpar_err(p, "Trait no. missing ?");
        if (!read_integer(token(p), iq)) rdpar_err(p, "Something wrong parsing line !");
        more = next_var(p);
    }
    datafile.iq_newno[check_trait(p, iq)] = iq;
    return iq;
}

void read_trait(par_state& s) {
    auto& p = s.lines;
    const std::string name = effect_token(p).substr(0, name_length);
    bool more = false;
    const int iq = trait_number(p, more);
    if (more) {
        // codes are compared as whole numbers
        if (find_char(p, '.') > 0) rdpar_err(p, "Decimal point in missing value code ?");
        if (!read_integer(token(p), datafile.missvalue[iq])) rdpar_err(p, "Something wrong parsing line !");
    }
    model.trait(iq) = name;
    ++s.ntraits;
    if (options.verbose)
        write(screen(), "(2x,a,i3,3a,i12)", "Trait no.", iq, "  \"", name, "\"  Missing value", datafile.missvalue[iq]);
}

// Which records have correlated residuals: those of a line, or those that agree in one or two columns.
void read_subject(par_state& s) {
    auto& p = s.lines;
    if (model.subject_line || !model.subject.empty()) rdpar_err(p, "More than one line \"SUBject\" !");
    if (!next_var(p)) rdpar_err(p, "\"LINE\" or name of column is missing !");
    std::string word = token(p, name_length);
    capitalise(word, static_cast<int>(word.size()));
    model.subject_line = word == "LINE";
    if (!model.subject_line) model.subject.push_back(token(p, name_length));
    while (next_var(p)) {
        if (model.subject_line || model.subject.size() == 2) rdpar_err(p, "Too many columns for a subject !");
        model.subject.push_back(token(p, name_length));
    }
}

struct model_line {
    const char* code; // letters that count
    void (*read)(par_state&);
};
constexpr model_line model_lines[] = {
    {"FIX", read_fixed},    {"COV", read_covar}, {"RAN", read_random}, {"TR", read_trait},  {"RRC", read_control},
    {"NUM", read_position}, {"MEA", read_mean},  {"MU", read_mean},    {"EXT", read_extra}, {"SUB", read_subject},
};

void clear_model(par_state& s) {
    auto& m = model;
    for (auto* a : {&m.nfix, &m.ncov, &m.nrnd, &m.nextra, &m.nmeta, &m.fitmean}) a->fill(0);
    // a second MOD block replaces the first
    m.trait.fill("");
    m.subject_line = false;
    m.subject.clear();
    m.rrcontrol.clear();
    m.nrrc = 0;
    m.rr_resteps = 1;
    m.me_type = residual_kind::none;
    m.me_control.clear();
    std::fill(std::begin(datafile.trno_pos), std::end(datafile.trno_pos), -1);
    std::fill(std::begin(datafile.iq_newno), std::end(datafile.iq_newno), -1);
    options.renumbered = false;
    s.ntraits = 0;
    s.nrm_set = s.model_set = s.traits_set = false;
}

// Arrays of the covariance blocks: at most one for each name of a random effect.
void allocate_blocks(par_state& s) {
    std::set<std::string> names;
    for (int iq = 1; iq <= numbers.nq; ++iq)
        for (int i = 1; i <= model.nrnd(iq); ++i) {
            const std::string& name = model.random(i, iq);
            names.insert(name.substr(0, name.find('(')));
        }
    // a name counts once over the traits; an upper bound, as correlated effects share a block
    s.maxblocks = std::min(static_cast<int>(names.size()), maxrand);
    allocate("alloc krandom", model.krandom, s.maxblocks);
    for (auto* a : {&model.kkfit, &model.krfit, &model.diagonal, &model.correlated})
        allocate("alloc kkfit", *a, s.maxblocks);
    s.values.allocate(s.maxblocks);
    numbers.krand = 0;
}

} // namespace

void read_model(par_state& s) {
    auto& p = s.lines;
    if (!s.analysis_set) rdpar_err(p, "Specify analysis type before model !");
    // a single trait is "all traits in a line": its data have no trait number
    options.equal_model = numbers.nq == 1;
    if (!options.equal_model && next_var(p)) {
        const std::string t = token(p).substr(0, 2);
        options.equal_model = t == "EQ" || t == "eq" || t == "Eq";
    }
    clear_model(s);
    while (true) {
        get_pline(p);
        if (p.iend != 0) return;
        const std::string code = p.pline.substr(0, 3);
        if (code == "END") break;
        // two letters do for TR and MU
        const auto* k = std::find_if(std::begin(model_lines), std::end(model_lines),
                                     [&](const model_line& x) { return code.starts_with(x.code); });
        if (k == std::end(model_lines)) rdpar_err(p, "Invalid code in model specification");
        k->read(s);
    }
    s.model_set = true;
    s.traits_set = s.ntraits == numbers.nq &&
                   std::none_of(model.trait.begin(), model.trait.end(), [](const std::string& t) { return t.empty(); });
    allocate_blocks(s);
}

} // namespace tarvex
