#include "parfile/mudmap_build.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "control/warnings.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "parfile/parlines.h"
#include "support/edit_form.h"
#include "support/stop.h"
#include "support/text.h"

#include <algorithm>

namespace tarvex {

namespace {

constexpr int maxfitorder = 99; // coefficients of a regression

[[noreturn]] void name_err(std::string_view text, std::string_view name) {
    model_err(std::string(text) + std::string(name) + "\"");
}

// A line of grouped data that holds all traits: its columns become those of trait 1.
void all_traits_line() {
    auto& d = datafile;
    if (d.grpline.size() > maxcols) stop_with("Max. no. of data columns exceeded !");
    d.ndatcol[1] = static_cast<int>(d.grpline.size());
    for (int j = 1; j <= d.ndatcol[1]; ++j) {
        const auto& column = d.grpline(j);
        d.colname[j][1] = column.name;
        d.mlevels[j][1] = column.mlev;
    }
}

void find_lines() {
    // one model for all traits: a line of data holds all of them, without a trait number
    mudmap.alltraits = options.equal_model && !options.renumbered;
    if (mudmap.alltraits && datafile.grouped) all_traits_line();
    mudmap.maxcol = 0;
    for (int iq = 1; iq <= numbers.nq; ++iq) mudmap.maxcol = std::max(mudmap.maxcol, datafile.ndatcol[column_set(iq)]);
}

void allocate_map() {
    auto& m = mudmap;
    const int nq = numbers.nq;
    for (auto* a : {&m.fx_dcolno, &m.fx_dcolno2}) allocate("alloc fx_dcolno", *a, maxfix, nq);
    for (auto* a : {&m.cv_dcolno, &m.cv_nestcolno, &m.cv_nestfix, &m.cv_order, &m.cv_degree})
        allocate("alloc cv_dcolno", *a, maxcov, nq);
    for (auto* a : {&m.rn_dcolno, &m.rn_dcolno2, &m.kfitrnd, &m.ibsdeg, &m.irmeta, &m.rn_irand, &m.rn_place})
        allocate("all irmeta", *a, maxrand, nq);
    allocate("all irmeta", m.irropt, maxrand, nq);
    for (auto* a : {&m.ex_dcolno, &m.ex_dcolno2}) allocate("alloc ex_dcolno", *a, maxext, nq);
    allocate("alloc meta", m.rr_dcolno, maxmeta, nq);
    allocate("alloc fx_mlev", m.fx_mlev, maxfix, nq);
    allocate("alloc rn_mlev", m.rn_mlev, maxrand, nq);
    allocate("alloc ex_mlev", m.ex_mlev, maxext, nq);
    allocate("alloc mm_mlev", m.mm_mlev, maxmeta, nq);
    allocate("alloc cv_type", m.cv_type, maxcov, nq);
    for (auto* a : {&m.tr_dcolno, &m.subj_dcolno}) allocate("alloc tr_dcolno", *a, nq);
    // tie_blocks sets those of traits with an animal, or with a single random effect
    m.subj_dcolno.fill(-1);
    allocate("alloc tr_dcolno", m.subj_column, 2, nq);
    if (model.subject_line) m.subject = subject_rule::line;
    if (!model.subject.empty()) m.subject = subject_rule::columns;
}

// Column of an effect, or the two columns of an interaction a*b, and its largest number of levels.
void effect_position(const std::string& name, int iq, int& icol, int& icol2, std::int64_t& mlev) {
    const auto star = name.find(star_char);
    datposition(name.substr(0, star), iq, icol, mlev);
    icol2 = 0;
    if (star == std::string::npos) return;
    std::int64_t mlev2 = 0;
    datposition(name.substr(star + 1), iq, icol2, mlev2);
    // 0: no limit has been given
    mlev = mlev > 0 && mlev2 > 0 ? mlev * mlev2 : 0;
}

void check_limit(std::int64_t mlev, const std::string& name, std::int64_t& most) {
    if (mlev < 1) model_err("No max. no. of levels specified for \"" + name + "\" ?");
    most = std::max(most, mlev);
}

void map_fixed(int iq) {
    auto& m = mudmap;
    for (int i = 1; i <= model.nfix(iq); ++i) {
        const std::string& name = model.fixed(i, iq);
        effect_position(name, iq, m.fx_dcolno(i, iq), m.fx_dcolno2(i, iq), m.fx_mlev(i, iq));
        check_limit(m.fx_mlev(i, iq), name, m.maxlev_fix);
    }
}

// Number of the effect among the fixed ones of the trait, minus its number among the extra ones, 0 if it is neither.
int nesting_effect(const std::string& effect, int iq) {
    for (int i = 1; i <= model.nfix(iq); ++i)
        if (model.fixed(i, iq) == effect) return i;
    for (int i = 1; i <= model.nextra(iq); ++i)
        if (model.extra(i, iq) == effect) return -i;
    return 0;
}

void map_nested(int i, int iq, const std::string& name, const std::string& effect) {
    auto& m = mudmap;
    std::int64_t mlev = 0;
    datposition(name, iq, m.cv_dcolno(i, iq), mlev);
    // the column alone will not do: levels are counted for effects of the model
    datposition(effect, iq, m.cv_nestcolno(i, iq), mlev);
    m.cv_nestfix(i, iq) = nesting_effect(effect, iq);
    if (m.cv_nestfix(i, iq) != 0) return;
    print_list(screen(), "Error : Cannot find FE for nested covariable ");
    print_list(screen(), "        Covariable   : ", name);
    print_list(screen(), "        Fixed effect : ", effect);
    print_list(screen(), "        Data column no. - covar.", m.cv_dcolno(i, iq));
    print_list(screen(), "        Data column no. - f.eff.", m.cv_nestcolno(i, iq));
    stoptarvex();
}

// What stands in the bracket of name(order,text). The last two are empty where a symbol is missing.
struct bracket {
    std::string name, order, text;
    bool comma = false, closed = false;
};

bracket split_bracket(const std::string& s) {
    bracket b;
    const auto open = s.find('(');
    b.name = s.substr(0, open);
    if (open == std::string::npos) return b;
    // name(order,text): all in this order
    const auto comma = s.find(',', open), close = s.find(')', open);
    b.comma = comma != std::string::npos;
    b.closed = close != std::string::npos && b.comma && close > comma;
    if (!b.comma) return b;
    b.order = s.substr(open + 1, comma - open - 1);
    if (b.closed) b.text = s.substr(comma + 1, close - comma - 1);
    return b;
}

int order_of_fit(const bracket& b, const std::string& whole) {
    int order = 0;
    if (!read_integer(b.order, order) || order < 1 || order > maxfitorder)
        name_err("Error reading order of fit in \"", whole);
    return order;
}

void nested_spline_warning() {
    print_list(screen(), "WARNING : You have chosen to fit a regression on B-spline function");
    print_list(screen(), "for a \"nested\" covariable - there is a chance for dependencies   ");
    print_list(screen(), "among fixed effects that are not properly accounted for.");
    tvx_caution();
}

bool is_spline(basis_kind kind) { return kind == basis_kind::bsp || kind == basis_kind::spl; }

void covariable_type(int i, int iq, const bracket& b) {
    auto& m = mudmap;
    std::string text = b.text;
    capitalise(text, static_cast<int>(text.size()));
    const std::string type = text.substr(0, 3);
    const auto kind = basis_named(type);
    if (!kind) {
        print_list(screen(), "Error : Invalid type of covariable ", type);
        stoptarvex();
    }
    if (kind == basis_kind::spl || kind == basis_kind::usr) tvx_notyet();
    m.cv_type(i, iq) = *kind;
    if (kind != basis_kind::bsp) return;
    // BSP alone is linear, the letter behind it the degree (L, Q, C)
    m.cv_degree(i, iq) = text.size() > 3 ? spline_degree(text[3]) : 1;
    // the functions sum to 1 in each level, and so hold the mean of the level as well
    if (m.cv_nestcolno(i, iq) > 0) nested_spline_warning();
}

void map_covars(int iq) {
    for (int i = 1; i <= model.ncov(iq); ++i) {
        const std::string& whole = model.covar(i, iq);
        const bracket b = split_bracket(whole);
        const auto star = b.name.find(star_char);
        std::int64_t mlev = 0;
        if (star == std::string::npos)
            datposition(b.name, iq, mudmap.cv_dcolno(i, iq), mlev);
        else
            map_nested(i, iq, b.name.substr(0, star), b.name.substr(star + 1));
        if (b.text.size() < 3) {
            print_list(screen(), "Error : Covariable type too short : \"" + whole + "\"");
            stoptarvex();
        }
        mudmap.cv_order(i, iq) = order_of_fit(b, whole);
        covariable_type(i, iq, b);
    }
}

int control_number(const std::string& name) {
    const auto& list = model.rrcontrol;
    const auto at = std::find(list.begin(), list.end(), name);
    return at == list.end() ? 0 : static_cast<int>(at - list.begin()) + 1;
}

bool is_basis_word(const std::string& text) {
    // a control variable may begin like a basis ("legs"), but not be called like one
    const auto kind = basis_named(upper3(text));
    // behind the word of a spline the letter of its degree may stand
    return kind && text.size() <= (is_spline(*kind) ? 4 : 3);
}

void basis_function(int i, int iq, const std::string& text, const std::string& whole) {
    auto& m = mudmap;
    if (text.size() < 3) name_err("RR type option too short \"", whole);
    m.irropt(i, iq) = check_rropt(upper3(text));
    if (is_spline(m.irropt(i, iq))) m.ibsdeg(i, iq) = text.size() > 3 ? spline_degree(text[3]) : 1;
}

// Basis function and control variable of name(order,BASIS), name(order,control) or name(order,BASIS,control). A control
// variable alone stands for ordinary polynomials.
void map_rrbasis(int i, int iq) {
    auto& m = mudmap;
    const std::string& whole = model.random(i, iq);
    const bracket b = split_bracket(whole);
    if (!b.comma) name_err("Missing comma in RR effect \"", whole);
    m.kfitrnd(i, iq) = order_of_fit(b, whole);
    if (!b.closed) name_err("Missing \")\" in RR effect \"", whole);
    const auto comma = b.text.find(',');
    std::string control = comma == std::string::npos ? "" : b.text.substr(comma + 1);
    // one word that is a control variable and no basis
    if (comma == std::string::npos && !is_basis_word(b.text) && control_number(b.text) > 0)
        control = b.text;
    else
        basis_function(i, iq, b.text.substr(0, comma), whole);
    // the only control variable need not be named
    m.irmeta(i, iq) = control.empty() && model.nrrc == 1 ? 1 : control_number(control);
    if (m.irmeta(i, iq) == 0) model_err(" No match for RR control variable found");
}

void map_random(int iq) {
    auto& m = mudmap;
    for (int i = 1; i <= model.nrnd(iq); ++i) {
        const std::string& whole = model.random(i, iq);
        const std::string name = whole.substr(0, whole.find('('));
        m.kfitrnd(i, iq) = 1;
        if (options.randreg) map_rrbasis(i, iq);
        effect_position(name, iq, m.rn_dcolno(i, iq), m.rn_dcolno2(i, iq), m.rn_mlev(i, iq));
        if (model.rnd_opt(i, iq) == covariance_kind::nrm && m.rn_dcolno2(i, iq) > 0)
            tvx_notyet(); // a pedigree knows single codes
        // levels of a pedigree are counted, not limited
        if (model.rnd_opt(i, iq) != covariance_kind::nrm) check_limit(m.rn_mlev(i, iq), name, m.maxlev_rnd);
        m.maxlev_rnd = std::max(m.maxlev_rnd, m.rn_mlev(i, iq));
    }
}

void map_extra(int iq) {
    auto& m = mudmap;
    for (int i = 1; i <= model.nextra(iq); ++i) {
        const std::string& name = model.extra(i, iq);
        effect_position(name, iq, m.ex_dcolno(i, iq), m.ex_dcolno2(i, iq), m.ex_mlev(i, iq));
        check_limit(m.ex_mlev(i, iq), name, m.maxlev_ext);
    }
}

void map_controls(int iq) {
    auto& m = mudmap;
    for (int i = 1; i <= model.nmeta(iq); ++i) {
        const std::string& name = model.rricontrol(i, iq);
        datposition(name, iq, m.rr_dcolno(i, iq), m.mm_mlev(i, iq));
        check_limit(m.mm_mlev(i, iq), name, m.maxlev_ctrl);
    }
}

// A column whose name is the word for lines.
bool column_of_lines(int iq) {
    for (int k = 1; k <= datafile.ndatcol[iq]; ++k) {
        std::string name = datafile.colname[k][iq];
        capitalise(name, static_cast<int>(name.size()));
        if (name == "LINE") return true;
    }
    return false;
}

// Columns that tell the subjects.
void map_subject(int iq) {
    if (iq == 1 && model.subject_line && column_of_lines(iq))
        warn("column with the name LINE",
             "\"SUBject LINE\" makes a subject of each line, not of what the column of that "
             "name holds");
    for (std::size_t k = 0; k < model.subject.size(); ++k) {
        std::int64_t mlev = 0;
        datposition(model.subject[k], iq, mudmap.subj_column(static_cast<int>(k) + 1, iq), mlev);
    }
}

void check_residual() {
    if (model.kkfit(0) == 0) stop_with("No residual covariances given !");
    // random regression: set from the number of traits, with classes beside
    if (model.kkfit(0) == numbers.nq) return;
    print_list(screen(), "Order of residual covariance matrix is not the no. of traits :", model.kkfit(0), numbers.nq);
    stoptarvex();
}

} // namespace

int column_set(int iq) {
    if (mudmap.alltraits) return 1;
    return options.equal_model && datafile.ndatcol[iq] == 0 ? 1 : iq;
}

void model_err(std::string_view errmsg) {
    print_list(screen(), "***** ERROR  mapping model to data file *****");
    write(screen(), "(6x,a)  ", errmsg);
    stoptarvex();
}

void datposition(const std::string& name, int iq, int& icol, std::int64_t& mlev) {
    const int jq = column_set(iq);
    for (icol = 1; icol <= datafile.ndatcol[jq]; ++icol)
        if (datafile.colname[icol][jq] == name) {
            // lines of one trait begin with its number
            if (icol == 1 && !mudmap.alltraits)
                name_err("Column of the trait number cannot be in the model : \"", name);
            mlev = datafile.mlevels[icol][jq];
            return;
        }
    name_err("Variable in model not found : \"", name);
}

basis_kind check_rropt(const std::string& code) {
    const auto kind = basis_named(code);
    if (!kind) name_err("Invalid option for RR basis function \"", code);
    return *kind;
}

int spline_degree(char ch) {
    std::string letter(1, ch);
    capitalise(letter, 1);
    const auto degree = std::string_view("LQC").find(letter);
    if (degree == std::string_view::npos) name_err("Invalid option for degree of spline \"", std::string_view(&ch, 1));
    // linear 1, quadratic 2, cubic 3
    return static_cast<int>(degree) + 1;
}

void model2mudmap() {
    mudmap = {};
    // in front of all look-ups: these ask which columns name a line
    find_lines();
    allocate_map();
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        std::int64_t mlev = 0;
        datposition(model.trait(iq), iq, mudmap.tr_dcolno(iq), mlev);
        map_fixed(iq);
        map_covars(iq);
        map_random(iq);
        map_extra(iq);
        map_controls(iq);
        map_subject(iq);
    }
    if (!model.me_control.empty() && control_number(model.me_control) == 0)
        name_err("Control variable for ME var.s not matched \"", model.me_control);
    check_residual();
    tie_blocks();
}

} // namespace tarvex
