// ZER, PSE and SE+ blocks.
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "parfile/model.h"
#include "parfile/parblocks.h"
#include "parfile/randasfix.h"
#include "support/edit_form.h"
#include "support/text.h"

#include <algorithm>
#include <cstdint>
#include <sstream>

namespace tarvex {

namespace {

constexpr int maxzerout = 299, maxpsfix = 399;

// Next line of a block that must not end with the file; false at its END.
bool block_line(par_lines& p, const char* incomplete) {
    get_pline(p);
    if (p.iend != 0) rdpar_err(p, incomplete);
    return upper3(p.pline) != "END";
}

bool next_integer(par_lines& p, int& value) { return next_var(p) && read_integer(token(p), value); }

// A whole number of up to 18 digits: codes of interactions are products.
bool next_code(par_lines& p, std::int64_t& value) {
    if (!next_var(p)) return false;
    const std::string t = token(p);
    std::istringstream in(t);
    const auto digits = std::count_if(t.begin(), t.end(), is_digit);
    return digits <= 18 && t.find_first_not_of("0123456789", t[0] == '-' || t[0] == '+' ? 1 : 0) == std::string::npos &&
           in >> value;
}

void add_zerout(par_lines& p) {
    auto& z = zerout;
    const std::string name = token(p, name_length);
    std::int64_t code = 0;
    int iq = 1;
    // one trait: its number need not be given
    const bool good = next_code(p, code) && (numbers.nq == 1 || next_integer(p, iq)) && iq >= 1 && iq <= numbers.nq;
    if (!good) rdpar_err(p, "\"Zero out\" code or trait no.");
    if (z.nzerout == maxzerout) rdpar_err(p, "Too many effects to be zeroed out");
    ++z.nzerout;
    z.addzername.push_back(name);
    z.iaddzer1.push_back(code);
    z.iaddzer2.push_back(iq);
}

// A term of a sum: isig or isig(xx).
usrdefcovs_module::term sum_term(const par_lines& p) {
    const std::string t = token(p);
    const auto open = t.find('('), close = t.find(')');
    usrdefcovs_module::term term{0, 1.0};
    bool good = is_digit(t.front()) && read_integer(std::string_view(t).substr(0, open), term.isig) && term.isig > 0;
    if (open != std::string::npos)
        // isig(factor); without a bracket the factor is 1
        good = good && close != std::string::npos && close > open &&
               read_real(std::string_view(t).substr(open + 1, close - open - 1), term.factor);
    if (!good) rdpar_err(p, "Something wrong parsing line !");
    return term;
}

void add_sum(par_lines& p, const std::string& name) {
    auto& u = usrdefcovs;
    if (u.ncovadd == maxaddcovs) {
        print_list(screen(), "too many additional covariances");
        print_list(screen(), "maximum allowed is", maxaddcovs);
        stoptarvex();
    }
    std::vector<usrdefcovs_module::term> terms;
    while (next_var(p)) {
        if (static_cast<int>(terms.size()) == maxaddterms) stop_with("too many components in add. cov.");
        terms.push_back(sum_term(p));
    }
    if (terms.empty()) rdpar_err(p, "Missing number !");
    ++u.ncovadd;
    u.addcovname.push_back(name);
    u.addcov.push_back(terms);
}

// Kind 1, ratio of two variances; kind 2, correlation: covariance and two variances.
void add_parameter(par_lines& p, const std::string& name, int kind) {
    auto& u = usrdefcovs;
    if (u.naddgps == maxaddgps) {
        print_list(screen(), "too many additional genetic parameters");
        print_list(screen(), "maximum allowed is", maxaddgps);
        stoptarvex();
    }
    std::array<int, 4> igp{kind, 0, 0, 0};
    // numbers of the covariances, as ListofCovs has them: two for a ratio, numerator first; three for a correlation,
    // the covariance first
    for (int i = 1; i <= kind + 1; ++i) igp[i] = next_digit(p);
    ++u.naddgps;
    u.addgpname.push_back(name);
    u.igpadd.push_back(igp);
}

void add_function(par_lines& p) {
    const std::string code = p.pline.substr(0, 3);
    if (code != "SUM" && code != "VRA" && code != "COR") rdpar_err(p, "Invalid add. SE code found !");
    if (!next_var(p)) rdpar_err(p, "Name of function is missing !");
    const std::string name = token(p, covname_length);
    // whether the numbers exist is not known before the covariances are (check_usrdefcovs)
    if (code == "SUM")
        add_sum(p, name);
    else
        add_parameter(p, name, code == "VRA" ? 1 : 2);
}

} // namespace

void read_zerout(par_state& s) {
    auto& p = s.lines;
    if (!s.model_set) rdpar_err(p, "Specify model before additional FE dependencies !");
    p.ucase = false;
    while (block_line(p, "\"Zero out\" block incomplete !")) add_zerout(p);
    if (!options.verbose) return;
    print_list(screen(), " Additional dependencies among fixed effects");
    for (int i = 1; i <= zerout.nzerout; ++i) {
        write(screen(), "(i4,2x,a,i18,i4)", i, zerout.addzername(i), zerout.iaddzer1(i), zerout.iaddzer2(i));
    }
}

void read_pseudofix(par_state& s) {
    auto& p = s.lines;
    auto& r = randasfix;
    // an empty block counts too: leave_factor_scale asks for this flag
    options.pseudofix = true;
    // weight of such levels; the default has been set
    if (next_var(p) && !read_real(token(p), r.psfixfact)) rdpar_err(p, "Something wrong parsing line !");
    p.ucase = false;
    while (block_line(p, "Error reading PSEUDOFIX lines")) {
        const std::string name = token(p, name_length);
        int code = 0;
        if (!next_integer(p, code)) rdpar_err(p, "Error reading pseudo-fix code");
        if (r.npsfix == maxpsfix) rdpar_err(p, " Max. no. of pseudo-fix codes exceeded !");
        ++r.npsfix;
        r.psfixname.push_back(name);
        r.psfixcode.push_back(code);
    }
}

void read_usrcovs(par_state& s) {
    auto& p = s.lines;
    usrdefcovs = {};
    while (block_line(p, "Additional SE block incomplete !")) add_function(p);
    if (!options.verbose) return;
    print_list(screen(), " Additional covariances & parameters defined");
    for (const auto& name : usrdefcovs.addcovname) print_list(screen(), name);
    for (const auto& name : usrdefcovs.addgpname) print_list(screen(), name);
}

} // namespace tarvex
