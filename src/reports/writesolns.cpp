#include "reports/writesolns.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/data.h"
#include "data/levels.h"
#include "data/units.h"
#include "dense/numroutines.h"
#include "equations/mmequations.h"
#include "equations/orders.h"
#include "likelihood/solutions.h"
#include "parameters/parunits.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "reports/ebvs.h"
#include "reports/levelcounts.h"
#include "support/edit_form.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <vector>

namespace tarvex {

namespace {

bool with_errors() { return solutions.nsolerrs != 0; }

// Prediction error variance of an equation whose solution has this unit, 0 where it was taken out.
double error_variance(int equation, double unit) {
    const int e = orders.ieqnew(equation);
    return e > 0 ? solutions.solerrs(e) * unit * unit : 0.0;
}
// a negative error variance is shown as it is: rounding, or a matrix that is not definite
double root_or_raw(double v) { return v > 0.0 ? std::sqrt(v) : v; }

void trait_head(text_out& out, const char* what, int iq) {
    constexpr edit_form form{"(/1x,a,t32,i3,3x,1h\",a,1h\")"};
    write(out, form, what, iq, model.trait(iq));
}

// the name up to its order or its nesting
std::string bare_name(const std::string& covariable) { return covariable.substr(0, covariable.find_first_of("(*")); }
std::string nest_name(int icov, int iq) {
    const int nest = mudmap.cv_nestfix(icov, iq);
    return nest > 0 ? model.fixed(nest, iq) : nest < 0 ? model.extra(-nest, iq) : std::string();
}

// nested: the curves of this covariable are.
std::string curve_file(int icov, int iq, bool nested) {
    return "Curve_" + bare_name(model.covar(icov, iq)) + (nested ? "_" + nest_name(icov, iq) : "") + ".dat";
}

// ---- covariables

void covariable_head(text_out& out, bool nested) {
    constexpr edit_form nested_errors{"(5x,a,t25,4x,a,1x,a,4x,a,8x,a)"}, plain_errors{"(5x,a,t25,12x,a,4x,a,8x,a)"};
    constexpr edit_form nested_only{"(5x,a,t25,4x,a,1x,a,4x,a)"}, plain{"(5x,a,t25,12x,a,4x,a)"};
    if (nested && with_errors())
        write(out, nested_errors, "Covariable", " Nested", "Reg.coeff", "Solution", "S.Error");
    else if (nested)
        write(out, nested_only, "Covariable", " Nested", "Reg.coeff", "Solution");
    else if (with_errors())
        write(out, plain_errors, "Covariable", "Reg.coeff", "Solution", "S.Error");
    else
        write(out, plain, "Covariable", "Reg.coeff", "Solution");
}

void write_coefficients(text_out& out, int icov, int iq) {
    constexpr edit_form nested_line{"(i3,2x,a,t25,i11,3x,i7,3g16.6)"}, plain_line{"(i3,2x,a,t25,14x,i7,3g16.6)"};
    const code_list* codes = nest_codes(icov, iq);
    const int order = mudmap.cv_order(icov, iq), curves = codes ? static_cast<int>(codes->size()) : 1;
    for (int icurve = 1; icurve <= curves; ++icurve)
        for (int j = 1; j <= order; ++j) {
            const int k1 = mmequations.cv_start(icov, iq) + (icurve - 1) * order + j;
            std::vector<double> values{solutions.solsave(k1) * trait_unit(iq)};
            if (with_errors()) values.push_back(root_or_raw(error_variance(k1, trait_unit(iq))));
            if (codes)
                write(out, nested_line, icov, model.covar(icov, iq), icurve, j, values);
            else
                write(out, plain_line, icov, model.covar(icov, iq), j, values);
        }
}

// Fitted curve at every value of the covariable. Values that are not whole numbers are told by their running number.
void write_curve(int icov, int iq, const level_counts& counts, std::set<std::string>& written) {
    constexpr edit_form line{"(i6,g20.8,i8,g13.6)"}, head{"(a,i5,a,i10)"};
    const code_list* codes = nest_codes(icov, iq);
    const std::string name = curve_file(icov, iq, codes != nullptr);
    text_out out;
    // traits with one covariable share the file
    if (!(written.insert(name).second ? out.open(name) : out.open_append(name)))
        stop_with("Error opening file \"" + name + "\"");
    const auto& values = covmeans.cv_values(icov, iq);
    const bool whole =
        std::all_of(values.begin(), values.end(), [](double v) { return v == std::floor(v) && std::fabs(v) < 1e9; });
    const int order = mudmap.cv_order(icov, iq), curves = codes ? static_cast<int>(codes->size()) : 1;
    std::vector<double> row(order);
    for (int icurve = 1; icurve <= curves; ++icurve) {
        if (codes) write(out, head, "Nested curve no. =", icurve, "  Code", (*codes)(icurve));
        for (std::size_t v = 0; v < values.size(); ++v) {
            // counts run over the values within a curve, as count_levels lays them out
            const auto at = static_cast<std::ptrdiff_t>((icurve - 1) * values.size() + v + 1);
            // no record at this value in this curve
            if (counts.nnvec(at) == 0) continue;
            covariable_row(icov, iq, values[v], row);
            double xx = 0.0;
            for (int j = 1; j <= order; ++j)
                xx += row[j - 1] * solutions.solsave(mmequations.cv_start(icov, iq) + (icurve - 1) * order + j) *
                      trait_unit(iq);
            write(out, line, whole ? static_cast<long long>(values[v]) : static_cast<long long>(v + 1), xx,
                  counts.nnvec(at), counts.fbar(at));
        }
    }
}

void write_covariables(text_out& out, const solution_counts& counts) {
    std::set<std::string> written;
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        if (model.ncov(iq) == 0) continue;
        trait_head(out, "Covariables for trait no.", iq);
        bool nested = false;
        for (int i = 1; i <= model.ncov(iq); ++i) nested = nested || mudmap.cv_nestfix(i, iq) != 0;
        covariable_head(out, nested);
        for (int i = 1; i <= model.ncov(iq); ++i) {
            write_coefficients(out, i, iq);
            write_curve(i, iq, counts.curve(i, iq), written);
        }
    }
}

// ---- fixed and extra effects

void level_line(text_out& out, int ifix, const std::string& name, std::int64_t code, int level, int equation,
                double unit, double svec, int n, double mean) {
    constexpr edit_form errors{"(i3,2x,a,t20,i14,i7,3g16.6,i10,g15.5)"}, plain{"(i3,2x,a,t20,i14,i7,2g16.6,i10,g15.5)"};
    const double solution = solutions.solsave(equation) * unit;
    if (with_errors())
        write(out, errors, ifix, name, code, level, solution, root_or_raw(error_variance(equation, unit)), svec, n,
              mean);
    else
        write(out, plain, ifix, name, code, level, solution, svec, n, mean);
}

void subclass_lines(text_out& out, const vector1<int>& nnvec) {
    constexpr edit_form line{"(5x,a,i8)"};
    const auto n1 = std::count(nnvec.begin(), nnvec.end(), 1), n2 = std::count(nnvec.begin(), nnvec.end(), 2);
    if (n1 > 0) write(out, line, "No. of subclasses with only 1 record  =", n1);
    if (n2 > 0) write(out, line, "No. of subclasses with only 2 records =", n2);
}

void write_fixed(text_out& out, const solution_counts& counts) {
    constexpr edit_form errors{"(5x,a,t20,5x,a,2x,a,4x,a,8x,a,8x,a,7x,a,3x,a)"};
    constexpr edit_form plain{"(5x,a,t20,5x,a,2x,a,4x,a,8x,a,7x,a,3x,a)"};
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        trait_head(out, "Fixed effects for trait no.", iq);
        if (with_errors())
            write(out, errors, "Effect", "Orig.code", "Level", "Solution", " S.Error", "SolSum=0", "No.recs",
                  "Eff.Mean");
        else
            write(out, plain, "Effect", "Orig.code", "Level", "Solution", "SolSum=0", "No.recs", "Eff.Mean");
        if (mmequations.ieq_trait(iq) > 0) // the trait's mean
            level_line(out, 0, "Mean", 0, 1, mmequations.ieq_trait(iq), trait_unit(iq), 0.0, means.nrec(iq),
                       means.tr_xbar(iq));
        for (int ifix = 1; ifix <= model.nfix(iq); ++ifix) {
            const auto& codes = levels.fx_codes(ifix, iq);
            const auto& c = counts.fixed(ifix, iq);
            const int n = static_cast<int>(codes.size()), start = mmequations.fx_start(ifix, iq);
            double mean = 0.0;
            // "SolSum=0": solutions less their mean, equations taken out included as 0
            for (int i = 1; i <= n; ++i) mean += solutions.solsave(start + i) / n;
            for (int i = 1; i <= n; ++i)
                level_line(out, ifix, model.fixed(ifix, iq), codes(i), i, start + i, trait_unit(iq),
                           (solutions.solsave(start + i) - mean) * trait_unit(iq), c.nnvec(i), c.fbar(i));
            subclass_lines(out, c.nnvec);
        }
    }
}

void write_extra(text_out& out, const solution_counts& counts) {
    constexpr edit_form head{"(5x,a,t20,5x,a,2x,a,3x,a,3x,a)"}, line{"(i3,2x,a,t20,i14,i7,i10,g15.5)"};
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        if (model.nextra(iq) == 0) continue;
        trait_head(out, "Extra effects for trait no.", iq);
        write(out, head, "Effect", "Orig.code", "Level", "No.recs", "Eff.Mean");
        for (int ifix = 1; ifix <= model.nextra(iq); ++ifix) {
            const auto& codes = levels.ex_codes(ifix, iq);
            const auto& c = counts.extra(ifix, iq);
            for (int l = 1; l <= codes.size(); ++l)
                write(out, line, ifix, model.extra(ifix, iq), codes(l), l, c.nnvec(l), c.fbar(l));
        }
    }
}

// ---- random effects

// Solution of component r of a level, its prediction error variance and the variance of the component.
struct random_value {
    double solution, pev, variance;
};

// At reduced rank these are scores, with unit variances; at full rank effects of traits or coefficients.
std::vector<random_value> level_solutions(int irand, int level) {
    const int n = nfit(irand), first = mmequations.rn_start(irand) + (level - 1) * n;
    std::vector<random_value> all;
    // full rank by components: effects are made from them
    if (options.principal && !reduced_rank(irand)) {
        const level_values values = breeding_values(irand, level);
        for (int r = 1; r <= n; ++r)
            all.push_back({values.u(r), with_errors() ? values.pev(r) : 0.0, fitted_variance(irand, r)});
        return all;
    }
    for (int r = 1; r <= n; ++r) {
        const double unit = options.principal ? 1.0 : row_unit(irand, r);
        // of the base population
        const double variance = options.principal       ? 1.0
                                : model.diagonal(irand) ? model.cov(r, irand)
                                                        : model.cov(ihmssf(r, r, model.kkfit(irand)), irand);
        all.push_back(
            {solutions.solsave(first + r) * unit, with_errors() ? error_variance(first + r, unit) : 0.0, variance});
    }
    return all;
}

constexpr double told_as_zero = 0.0005; // by the three digits of an accuracy

// Returns how many accuracies are negative.
int write_random(text_out& out, int irand) {
    constexpr edit_form coded{"(i6,i14,i3,2g16.6, f8.3)"}, further{"(i6,14x,i3,2g16.6, f8.3)"};
    constexpr edit_form coded_only{"(i6,i14,i3,3g16.6)"}, further_only{"(i6,14x,i3,3g16.6)"};
    const vector1<double> factors = variance_factors(irand);
    int negative = 0;
    for (int i = 1; i <= levels.rn_nlev(irand); ++i) {
        const std::int64_t icode = levels.rn_codes(irand)(i);
        int r = 0;
        for (const random_value& x : level_solutions(irand, i)) {
            // the code of a level stands in its first line only
            if (++r; with_errors()) {
                const double yy = accuracy(x.pev, x.variance * factors(i));
                negative += yy < -told_as_zero ? 1 : 0;
                if (r == 1)
                    write(out, coded, i, icode, r, x.solution, root_or_raw(x.pev), yy);
                else
                    write(out, further, i, r, x.solution, root_or_raw(x.pev), yy);
            } else if (r == 1)
                write(out, coded_only, i, icode, r, x.solution);
            else
                write(out, further_only, i, r, x.solution);
        }
    }
    return negative;
}

} // namespace

std::vector<std::string> curve_files() {
    std::vector<std::string> list;
    for (int iq = 1; iq <= numbers.nq; ++iq)
        for (int i = 1; i <= model.ncov(iq); ++i) list.push_back(curve_file(i, iq, mudmap.cv_nestfix(i, iq) != 0));
    return list;
}

void write_fixsolns() {
    constexpr edit_form comment{"(1x,a/)"};
    solution_counts counts;
    count_levels(counts);
    text_out out;
    if (!out.open(filenames.fixsolfile)) stop_with("Error opening file \"" + filenames.fixsolfile + "\"");
    write_tvxtop(out, "GLS solutions for fixed effects", false);
    if (options.comment) write(out, comment, model.commentline);
    write_covariables(out, counts);
    write_fixed(out, counts);
    write_extra(out, counts);
    write_tvxbottom(out, false);
}

void write_randsolns() {
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (mudmap.kovrnd(irand) == covariance_kind::peq) continue;
        text_out out;
        const std::string name = "RnSoln_" + model.krandom(irand) + ".dat";
        if (!out.open(name)) stop_with("Error opening file \"" + name + "\"");
        if (const int negative = write_random(out, irand); negative > 0)
            print_list(screen(), "\"" + name + "\" :", negative,
                       "accuracies are negative: 1 - PEV / variance, as the error variance of an inbred animal exceeds"
                       " the variance; see option --accinb");
        if (reduced_rank(irand)) write_ebvs(irand);
    }
}

} // namespace tarvex
