#include "reports/rrvariances.h"

#include "basis/phimatrix.h"
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/tvxroutines.h"
#include "data/levels.h"
#include "estimation/estimates.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "reports/apprxaicovs.h"
#include "reports/covblocks.h"
#include "support/edit_form.h"
#include "support/screen.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace tarvex {

namespace {

constexpr int most_levels = 20; // levels with a block of correlations; more are thinned out evenly
constexpr int iq = 1;           // random regression analyses have one trait

// The regressions on one control variable.
struct regression {
    int irand;
    const array<double, 2>* phi;
};

std::vector<regression> regressions_on(int irrc) {
    std::vector<regression> list;
    for (int irand = 1; irand <= numbers.krand; ++irand)
        for (int i = 1; i <= model.nrnd(iq); ++i)
            if (mudmap.rn_irand(i, iq) == irand && mudmap.irmeta(i, iq) == irrc)
                list.push_back({irand, &phimat.phi(phimat.kkphi(i, iq))});
    return list;
}

// phi(ia)' K phi(ja) as a function of the covariances of K.
cov_function rrcovar(const regression& r, int ia, int ja) {
    cov_function f;
    const int n = model.kkfit(r.irand);
    int number = cov_start(r.irand);
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= (model.diagonal(r.irand) ? i : n); ++j, ++number) {
            const auto& phi = *r.phi;
            // element (i,j) and its mirror image
            const double x = phi(ia, i) * phi(ja, j);
            f.push_back({number, i == j ? x : x + phi(ia, j) * phi(ja, i)});
        }
    return f;
}

// the class of the value; one class: the first
cov_function residual_at(int ia) { return {{cov_start(0, model.rr_resteps > 1 ? model.me_run(ia) : 1), 1.0}}; }

std::string column_name(const std::string& name) {
    std::string s = name.substr(0, 12);
    s.resize(12, ' ');
    return s;
}

std::string without_end(std::string s) {
    if (!s.empty() && s.back() == '\n') s.pop_back();
    return s;
}

// Width of the column of values: 7, or what parts the longest from the column in front.
int value_width(int irrc) {
    int width = 7;
    for (const auto code : control_codes(irrc)) {
        // seven digits, sign included, fit
        const int length = static_cast<int>(std::to_string(code).size());
        if (length > 7 || (length == 7 && code < 0)) width = std::max(width, length + 1);
    }
    return width;
}
// Running number and value of a level.
std::string level_item(int irrc, int a) {
    constexpr edit_form number{"(i5)"};
    const std::string value = std::to_string(control_codes(irrc)(a));
    return without_end(edit(number, a)) + std::string(value_width(irrc) - value.size(), ' ') + value;
}

std::string piece(const edit_form& form, double x) { return without_end(edit(form, x)); }
std::string piece(const edit_form& form, double x, double y) { return without_end(edit(form, x, y)); }

// A value of the tables, with its error where there are any.
std::string variance_item(double x, double se) {
    if (!sampling.available) return edit_g(x, 13, 6);
    return se < 0.0 ? piece("(2x,g13.6,9x,4hfail)", x) : piece("(2x,2g13.6) ", x, se);
}
std::string ratio_item(double x, double se) {
    if (!sampling.available) return edit_f(x, 9, 3);
    return se < 0.0 ? piece("(2x,f8.3,4x,4hfail) ", x) : piece("(2x,2f8.3)  ", x, se);
}

struct table_columns {
    std::vector<regression> effects;
    std::vector<std::string> names; // of the effects
    bool residual = true;           // the residual variance is a function of this control variable, or constant
    bool phenotypic = true;         // all effects are functions of this control variable
};

table_columns columns_for(int irrc) {
    table_columns columns;
    columns.effects = regressions_on(irrc);
    for (const auto& r : columns.effects) columns.names.push_back(column_name(model.krandom(r.irand)));
    // a constant residual variance stands in every table
    columns.residual = model.rr_resteps == 1 || phimat.jjmeta(iq) == irrc;
    columns.phenotypic = model.nrrc == 1;
    return columns;
}

void write_heads(text_out& variances, text_out* ratios, const table_columns& columns) {
    constexpr edit_form wide_head{"(5hLevel,2x,5hValue,t13,20(8x,a,8x))"},
        ratio_head{"(5hLevel,2x,5hValue,t13,20(6x,a))"};
    constexpr edit_form error_head{"(5hLevel,2x,5hValue,t13,20(1x,a))"};
    std::vector<std::string> names = columns.names;
    if (columns.residual) names.push_back(column_name("Residual"));
    if (ratios) write(*ratios, sampling.available ? error_head : ratio_head, names);
    if (columns.phenotypic) names.push_back("  Phenotypic");
    write(variances, sampling.available ? error_head : wide_head, names);
}

// The ratios go only where there is a phenotypic variance.
void write_variances(text_out& variances, text_out* ratios, const table_columns& columns, int irrc,
                     const std::vector<double>& cov) {
    const code_list& codes = control_codes(irrc);
    write_heads(variances, ratios, columns);
    for (int a = 1; a <= static_cast<int>(codes.size()); ++a) {
        std::vector<cov_function> parts;
        for (const auto& r : columns.effects) parts.push_back(rrcovar(r, a, a));
        if (columns.residual) parts.push_back(residual_at(a));
        // the phenotypic variance at this value
        cov_function total;
        // terms may occur twice: functions are sums
        for (const auto& f : parts) total.insert(total.end(), f.begin(), f.end());
        const double sum = function_value(total, cov);
        std::string line = level_item(irrc, a), ratio_line = line;
        for (const auto& f : parts) {
            const double x = function_value(f, cov);
            line += variance_item(x, sampling.available ? error_of_sum(f) : 0.0);
            const double se = sampling.available ? error_of_ratio(f, total, cov) : 0.0;
            ratio_line += ratio_item(sum > 0.0 ? x / sum : 0.0, se);
        }
        if (columns.phenotypic) line += variance_item(sum, sampling.available ? error_of_sum(total) : 0.0);
        variances.line(line);
        if (ratios) ratios->line(ratio_line);
    }
}

std::string correlation_item(const regression& r, int a, int i, const std::vector<double>& cov) {
    const cov_function c = rrcovar(r, a, i), va = rrcovar(r, a, a), vi = rrcovar(r, i, i);
    const double x = function_value(c, cov), y = function_value(va, cov), z = function_value(vi, cov);
    const double corr = y > 0.0 && z > 0.0 ? x / std::sqrt(y * z) : 0.0;
    if (!sampling.available) return ratio_item(corr, 0.0);
    // of a value with itself: 1, without an error
    if (a == i) return ratio_item(corr, 0.0);
    return ratio_item(corr, error_of_correlation(c, va, vi, cov));
}

std::vector<int> selected_levels(int n) {
    std::vector<int> list;
    const int m = std::min(n, most_levels);
    for (int k = 0; k < m; ++k)
        // first and last always
        list.push_back(m == 1 ? 1 : 1 + static_cast<int>(std::lround(static_cast<double>(k) * (n - 1) / (m - 1))));
    return list;
}

// Heads of the block of level a: where there are several control variables the block tells which, and no values follow.
void write_correlation_heads(text_out& out, const table_columns& columns, int irrc, int a) {
    constexpr edit_form head{"(a,i3,a,a) "}, variable{"(2a)"}, label{"(7x,i5) "}, names{"(t13,20(6x,a))  "};
    if (columns.phenotypic) {
        write(out, head,
              sampling.available ? "Correlations & approximate sampling errors for level no. "
                                 : "Correlations for level no. ",
              a, "  value", level_item(irrc, a).substr(5));
    } else {
        write(out, variable,
              sampling.available ? "Correlations & approximate sampling errors for " : "Correlations for ",
              model.rrcontrol(irrc));
        write(out, label, a);
    }
    write(out, names, columns.names);
}

void rrcorrels(text_out& out, const table_columns& columns, int irrc, const std::vector<double>& cov) {
    constexpr edit_form level_only{"(i5)"};
    const code_list& codes = control_codes(irrc);
    for (int a : selected_levels(static_cast<int>(codes.size()))) {
        write_correlation_heads(out, columns, irrc, a);
        for (int i = 1; i <= static_cast<int>(codes.size()); ++i) {
            std::string line = columns.phenotypic ? level_item(irrc, i) : without_end(edit(level_only, i));
            for (const auto& r : columns.effects) line += correlation_item(r, a, i, cov);
            out.line(line);
        }
    }
}

void open_table(text_out& out, const std::string& name) {
    if (!out.open(name)) stop_with("Error opening file \"" + name + "\"");
}

} // namespace

void rrvariances() {
    constexpr edit_form trait_line{"(a,i3)  "};
    const std::vector<double> cov = all_covariances();
    text_out variances, ratios, correls;
    // with several control variables there is no phenotypic variance at a value of one of them: no ratios
    const bool single = model.nrrc == 1;
    open_table(variances, filenames.rrvarsfile);
    open_table(correls, filenames.rrcorrelfile);
    if (single) open_table(ratios, filenames.rrratiosfile);
    write(variances, trait_line, "Variance components for trait no.", iq);
    if (single) write(ratios, trait_line, "Variance ratios for trait no.", iq);
    write(correls, trait_line, "Selected correlations for trait no.", iq);
    for (int irrc = 1; irrc <= model.nrrc; ++irrc) {
        // tables of the control variables below each other in one file
        const table_columns columns = columns_for(irrc);
        if (!single) print_list(variances, "Control variable", model.rrcontrol(irrc));
        write_variances(variances, single ? &ratios : nullptr, columns, irrc, cov);
        rrcorrels(correls, columns, irrc, cov);
    }
}

} // namespace tarvex
