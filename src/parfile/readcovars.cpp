// VAR blocks: the covariance matrices, and the file of starting values.
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "control/warnings.h"
#include "parfile/model.h"
#include "parfile/parblocks.h"
#include "support/edit_form.h"
#include "support/plain_text.h"
#include "support/stop.h"
#include "support/text.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

namespace tarvex {

namespace {

constexpr int maxorder = 999; // order of a covariance matrix

constexpr double largest_value = 1.0e30; // of a starting value: squares and products must stay finite

constexpr std::string_view value_failure = "Reading covariances failed !";

// Values begin on a new line.
void new_line(par_state& s) { s.lines.i2 = plinelen + 1; }

// Next value as text, from the lines that follow or from the file of starting values. A "+" leads to the next line.
std::string next_value(par_state& s) {
    auto& p = s.lines;
    if (options.start_vals) {
        while (s.start_at < s.start_tokens.size() && s.start_tokens[s.start_at] == "+") ++s.start_at;
        if (s.start_at == s.start_tokens.size()) rdpar_err(p, value_failure);
        return s.start_tokens[s.start_at++];
    }
    if (!next_var(p)) conti_line(p);
    // a plus at the end of a line is the old way to go on
    while (token(p) == "+") conti_line(p);
    return token(p);
}

// Every starting value passes here.
double real_value(const par_state& s, const std::string& text) {
    double x = 0.0;
    if (!read_real(text, x)) rdpar_err(s.lines, value_failure);
    // not a number, too
    if (!(std::fabs(x) <= largest_value)) {
        print_list(screen(), "Starting value is no finite number, or too large :", x);
        rdpar_err(s.lines, value_failure);
    }
    return x;
}

int integer_value(par_state& s) {
    int i = 0;
    if (!read_integer(next_value(s), i)) rdpar_err(s.lines, value_failure);
    return i;
}

void read_values(par_state& s, int irand, int n) {
    for (int i = 0; i < n; ++i) s.values(irand).push_back(real_value(s, next_value(s)));
}

// Bounds of a class of residual variances: ascending, and above those of the class before.
void check_range(int i) {
    constexpr edit_form line{"(1x,a,i3,2x,a,2i6)  "};
    const auto& range = model.me_range;
    const auto show = [&](int j) { write(screen(), line, "Class no.", j, "Range", range(1, j), range(2, j)); };
    if (range(2, i) < range(1, i)) {
        print_list(screen(), "Invalid range for ME variance step function");
        show(i);
        stoptarvex();
    }
    if (i > 1 && range(1, i) <= range(2, i - 1)) {
        print_list(screen(), "Inconsistent ranges for ME variance step function");
        show(i - 1);
        show(i);
        stoptarvex();
    }
}

void read_steps(par_state& s, int n) {
    // two bounds and the covariances of the class, on a line of their own
    for (int i = 1; i <= model.rr_resteps; ++i) {
        new_line(s);
        model.me_range(1, i) = integer_value(s);
        model.me_range(2, i) = integer_value(s);
        check_range(i);
        read_values(s, 0, n);
    }
}

// Individual residual variances: a line for each.
void read_individual_vars(par_state& s, int n) {
    auto& p = s.lines;
    for (int i = 1; i <= model.rr_resteps; ++i) {
        if (options.start_vals) {
            read_values(s, 0, n);
            continue;
        }
        // a line has n values, the first as its first token
        get_pline(p);
        if (p.iend != 0) rdpar_err(p, "read error ?");
        s.values(0).push_back(real_value(s, token(p)));
        read_values(s, 0, n - 1);
    }
}

std::string optional_token(par_lines& p, int length) { return next_var(p) ? token(p, length) : ""; }

int class_count(par_lines& p, const char* missing) {
    if (!next_var(p)) rdpar_err(p, missing);
    const int n = this_digit(p);
    if (n < 1) rdpar_err(p, missing);
    if (n > maxage) rdpar_err(p, "Max. no. of classes of ME variances exceeded !");
    return n;
}

bool is_qualifier(const std::string& t) { return residual_named(upper3(t)) != residual_kind::none; }

// Structure of the residual variances in a random regression analysis.
void read_qualifier(par_state& s) {
    auto& p = s.lines;
    if (!next_var(p)) rdpar_err(p, "Premature end of line ?");
    // an order in front of the word is passed over
    while (is_digit(token(p).front()))
        if (!next_var(p)) rdpar_err(p, "Qualifier for ME variances missing");
    model.me_type = residual_named(upper3(token(p)));
    model.rr_resteps = 1;
    model.me_control.clear();
    switch (model.me_type) {
    case residual_kind::hom:
        model.me_control = optional_token(p, name_length);
        break;
    case residual_kind::het:
        model.rr_resteps = class_count(p, "No. of classes in step function is missing");
        model.me_control = optional_token(p, name_length);
        allocate("alloc me_range", model.me_range, 2, model.rr_resteps);
        break;
    case residual_kind::ind:
        model.rr_resteps = class_count(p, "No. of different ME variances is missing");
        if (const std::string name = optional_token(p, file_length); !name.empty()) filenames.me_varfile = name;
        if (options.verbose)
            print_list(screen(), "Expect to read codes for ME variances from file \"", filenames.me_varfile, "\"");
        break;
    case residual_kind::fun:
        if (numbers.nq > 1) rdpar_err(p, "Variance function for residuals only for univariate analyses");
        tvx_notyet();
    case residual_kind::none:
        rdpar_err(p, "Error variance structure option not recognised ");
    }
}

int read_order(par_lines& p) {
    const int n = next_digit(p);
    if (n < 1) rdpar_err(p, "Invalid order of covariance matrix !");
    if (n > maxorder) rdpar_err(p, "Max. order of covariance matrix exceeded !");
    return n;
}

// Remarks, and the sign of correlated effects, may stand there.
void warn_passed_over(const std::string& block, const std::string& word) {
    if (word.front() == '#' || word.front() == plus_char) return;
    warn("word of a VAR line that is not looked at",
         "\"" + word + "\" behind the order of the covariance matrix of \"" + block + "\" is not looked at");
}

void read_residual(par_state& s, const std::string& name) {
    if (!s.values(0).empty()) rdpar_err(s.lines, "Residual covariances given twice");
    s.values(0).clear();
    model.krandom(0) = name;
    model.rr_resteps = 1;
    if (options.randreg)
        read_qualifier(s);
    else
        model.kkfit(0) = read_order(s.lines);
    // structures are those of random effects
    if (!options.randreg && next_var(s.lines)) warn_passed_over(name, token(s.lines));
    // one residual for each trait, of whatever classes
    if (options.randreg) model.kkfit(0) = numbers.nq;
    model.krfit(0) = model.kkfit(0);
    const int n = matrix_covs(0);
    new_line(s);
    if (model.me_type == residual_kind::het && options.randreg)
        read_steps(s, n);
    else if (model.me_type == residual_kind::ind && options.randreg)
        read_individual_vars(s, n);
    else
        read_values(s, 0, n);
}

// Options behind order and rank, in any order. Numbers in front of them are passed over, at reduced rank only the first
// token may be an option.
void read_option(par_state& s, int irand) {
    par_lines& p = s.lines;
    while (next_var(p)) {
        const std::string t = token(p), option = upper3(t);
        if (is_digit(t.front())) {
            // a rank where no ranks are fitted
            if (!options.principal && t != std::to_string(model.kkfit(irand)))
                warn_passed_over(model.krandom(irand), t);
            if (options.principal) return;
        } else if (option == "REC") {
            // repeats by record: settled when all blocks are read
            s.by_record = model.krandom(irand);
        } else if (option == "DIA") {
            model.diagonal(irand) = 1;
            if (model.kkfit(irand) == model.krfit(irand)) continue;
            print_list(screen(), " incompatible options - need full rank for ", "diagonal matrix");
            stoptarvex();
        } else {
            return warn_passed_over(model.krandom(irand), t);
        }
    }
}

void read_block(par_state& s, const std::string& name) {
    auto& p = s.lines;
    const int n = read_order(p);
    int m = n;
    if (options.principal) {
        m = next_digit(p);
        if (m > n) rdpar_err(p, "Reduced rank fit too large");
        if (m < 1) rdpar_err(p, "Reduced rank fit too small");
    }
    for (int i = 1; i <= numbers.krand; ++i)
        if (model.krandom(i) == name) {
            print_list(screen(), " Random effect name used more than once : ", name);
            stoptarvex();
        }
    // more blocks than random effects
    if (numbers.krand == s.maxblocks) rdpar_err(p, "Max. no. of random effects exceeded !");
    const int irand = ++numbers.krand;
    model.krandom(irand) = name;
    model.kkfit(irand) = n;
    model.krfit(irand) = m;
    read_option(s, irand);
    // correlated effects in one block: the plus stands within the name, or behind the order
    if (find_char(p, plus_char) > 0) {
        options.sigam = true;
        model.correlated(irand) = 1;
    }
    new_line(s);
    read_values(s, irand, matrix_covs(irand));
}

bool is_residual(const par_lines& line, const std::string& name) {
    // any name that begins so
    const std::string head = upper3(name);
    if (head == "ERR" || head == "RES") return true;
    // random regression: the residual may have any name, its qualifier tells it
    if (!options.randreg) return false;
    const std::string& text = line.pline;
    std::istringstream rest(text.substr(line.i2 - 1));
    for (std::string t; rest >> t;)
        if (!is_digit(t.front())) return is_qualifier(t);
    return false;
}

// A PEQ effect by records: those of a line share residual and effect, those of different lines the effect alone. That
// is an independent effect of the level beside residuals that are correlated within lines.
void repeats_by_record(par_state& s) {
    if (s.by_record.empty()) return;
    bool found = false;
    for (int iq = 1; iq <= numbers.nq; ++iq)
        for (int i = 1; i <= model.nrnd(iq); ++i) {
            if (model.rnd_opt(i, iq) != covariance_kind::peq ||
                model.random(i, iq).substr(0, model.random(i, iq).find('(')) != s.by_record)
                continue;
            model.rnd_opt(i, iq) = covariance_kind::ide;
            found = true;
        }
    if (!found) stop_with("\"REC\" is for effects that are fitted as PEQ : \"" + s.by_record + "\" is not !");
    if (!model.subject.empty()) stop_with("PEQ is an effect of the subject : it cannot be fitted with \"SUBject\" !");
    model.subject_line = true;
}

} // namespace

void read_covars(par_state& s) {
    auto& p = s.lines;
    if (!s.model_set) rdpar_err(p, "Specify model before covariances !");
    if (!next_var(p)) rdpar_err(p, "Name of effect is missing !");
    const std::string name = token(p, name_length);
    if (is_residual(p, name))
        read_residual(s, name);
    else
        read_block(s, name);
}

void store_covars(par_state& s) {
    repeats_by_record(s);
    if (options.start_vals) {
        while (s.start_at < s.start_tokens.size() && s.start_tokens[s.start_at] == "+") ++s.start_at;
        if (s.start_at < s.start_tokens.size()) {
            print_list(screen(), "Values left over in file \"" + filenames.stvalfile + "\" :",
                       s.start_tokens.size() - s.start_at);
            rdpar_err(s.lines, value_failure);
        }
    }
    // from here on the length of a column tells nothing: cov_length does
    const int krand = numbers.krand;
    std::size_t maxij = 1;
    for (int irand = 0; irand <= krand; ++irand) maxij = std::max(maxij, s.values(irand).size());
    // a column for each block, as long as the longest
    allocate("alloc cov", model.cov, static_cast<std::ptrdiff_t>(maxij), krand);
    for (int irand = 0; irand <= krand; ++irand)
        std::copy(s.values(irand).begin(), s.values(irand).end(), model.cov.column(irand).begin());
    // fewer blocks than names of effects are possible
    model.krandom.resize(krand);
    for (auto* a : {&model.kkfit, &model.krfit, &model.diagonal, &model.correlated}) a->resize(krand);
}

// The file holds, for each VAR line in their order, the values that would stand behind it. Lines with "#" are passed
// over.
void read_starting(par_state& s) {
    auto& p = s.lines;
    if (!next_var(p)) rdpar_err(p, "File name is missing !");
    // values could not be told apart any more
    if (numbers.krand > 0 || (s.values.allocated() && !s.values(0).empty()))
        rdpar_err(p, "Give file of starting values before covariances !");
    filenames.stvalfile = token(p, file_length);
    options.start_vals = true;
    if (options.verbose) print_list(screen(), "Read starting values from :\"", filenames.stvalfile, "\"");
    std::ifstream in;
    if (!open_text(in, filenames.stvalfile)) {
        print_list(screen(), "Can not open file of starting values :\"", filenames.stvalfile, "\"");
        stoptarvex();
    }
    check_text_file(filenames.stvalfile);
    skip_mark(in);
    int nline = 0;
    for (std::string line; std::getline(in, line);) {
        ++nline;
        if (const int column = comma_in_number(line); column > 0) {
            print_list(screen(), "Comma between two digits in \"" + filenames.stvalfile + "\" : line", nline, "column",
                       column);
            rdpar_err(p, value_failure);
        }
        // a comma parts values, where it is no decimal comma
        std::replace(line.begin(), line.end(), ',', ' ');
        std::istringstream tokens(line);
        for (std::string t; tokens >> t && t.front() != comment_char;) s.start_tokens.push_back(t);
    }
    if (in.bad()) rdpar_err(p, "File cannot be read to its end");
}

} // namespace tarvex
