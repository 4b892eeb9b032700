#include "reports/summary.h"

#include "control/filenames.h"
#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/levels.h"
#include "estimation/aireml.h"
#include "estimation/estimates.h"
#include "estimation/iteratelog.h"
#include "estimation/lastpoint.h"
#include "likelihood/derivatives.h"
#include "parameters/parunits.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "reports/apprxaicovs.h"
#include "reports/covblocks.h"
#include "reports/rrvariances.h"
#include "support/edit_form.h"

#include <cmath>
#include <limits>
#include <string>

namespace tarvex {

namespace {

constexpr edit_form count_line{"(1x,a,t25,1h=,i7)"};
constexpr edit_form value_line{"(1x,a,t25,1h=,f18.3)"};
constexpr const char* failed_note = "Negative values for s.e. indicate failed approximation !";

// Covariances held at their values count as parameters that are not estimated.
int estimated() { return derivs.nparm2 > 0 ? derivs.nparm2 : estimates.nparm; }

} // namespace

int records_used() {
    int n = 0;
    for (int k : means.nrec) n += k;
    return n;
}

namespace {

void write_criteria(text_out& out) {
    constexpr edit_form pair_line{"(1x,a,t25,1h=,2f18.3)"}, penalty_line{"(1x,a,t25,1h=,f18.3,4x,a,2f8.3)"};
    const double undefined = -std::numeric_limits<double>::max(); // edited as asterisks
    // REML: n less the rank of the fixed part stands for the number of records (BIC)
    const double p = estimated(), n = records_used(), free = n - numbers.nrankx, xbest = bestpoint.xbest;
    const double aic = xbest - p;
    // with its correction for few records
    const double aicc = n - p - 1.0 > 0.0 ? aic - p * (p + 1.0) / (n - p - 1.0) : undefined;
    const double xx = free > 0.0 ? 0.5 * std::log(free) : undefined;
    const double bic = free > 0.0 ? xbest - p * xx : undefined;
    write(out, value_line, "Maximum log L", xbest);
    write(out, pair_line, "-1/2 AIC & AICC", aic, aicc);
    write(out, penalty_line, "-1/2 BIC", bic, "\"Penalty factor\" =", xx);
    if (!options.siremodel) return;
    print_list(out, "Sire model fitted - log L and information criteria have");
    print_list(out, "                    been calculated omitting log|A| !!!");
}

void write_headlines(text_out& out) {
    write(out, count_line, "No. of traits", numbers.nq);
    write(out, count_line, "No. of records", records_used());
    write(out, count_line, "No. of parameters", estimates.nparm);
    if (estimated() < estimates.nparm) write(out, count_line, "  ... not estimated", estimates.nparm - estimated());
    if (options.bestonly)
        write(out, value_line, "Maximum log L so far", bestpoint.xbest);
    else
        write_criteria(out);
}

// Parameter at the best point in the units of the data.
double reported(int ipar, const std::vector<parameter_unit>& units) {
    const parameter_unit& u = units[ipar - 1];
    return bestpoint.parbest(ipar) * u.factor + u.shift;
}

void write_parameters(text_out& out) {
    const std::vector<parameter_unit> units = parameter_units();
    constexpr edit_form head{"(/a)"}, with_error{"(i4,3x,a,t25,2g18.6)"}, plain{"(i4,3x,a,t25,g18.6)"};
    if (!sampling.available) {
        write(out, head, " Parameter estimates");
        for (int i = 1; i <= estimates.nparm; ++i) write(out, plain, i, estimates.parnames(i), reported(i, units));
        return;
    }
    if (sampling.rank < estimated()) {
        out.line("");
        print_list(out, "WARNING : Matrix of sampling variances not of full rank", sampling.rank, estimated(),
                   estimates.nparm);
        print_list(out, "          -> approximation of sampling errors may be dubious");
    }
    write(out, head, " Parameter estimates with approx. sampling erors");
    bool warn = false;
    for (int i = 1; i <= estimates.nparm; ++i) {
        const double v = sampling.varpar(i);
        // a negative variance as its root with the sign kept
        const double xx = v < 0.0 ? -std::sqrt(-v) : std::sqrt(v);
        warn = warn || v < 0.0;
        write(out, with_error, i, estimates.parnames(i), reported(i, units), xx);
    }
    if (warn) print_list(out, failed_note);
}

void write_caution(text_out& out) {
    print_list(out, "*** \"Tarvex\" : Full convergence has not been achieved ");
    print_list(out, "               Treat results with caution !!!  ");
}

void write_convergence(text_out& out) {
    constexpr edit_form head{"(/1x,a)"}, fine{"(1x,a,t30,1h=,3f12.6)"}, coarse{"(1x,a,t30,1h=,3f12.4)"};
    // searches that no test has ended
    const bool short_of_end = !maximise.converged && !iterate_log.ended.empty();
    // the criteria are those of steps with derivatives
    if (aireml_terms.accepted == 0) { // rounds of EM, a search by directions
        if (short_of_end) write_caution(out);
        return;
    }
    const auto& c = maximise.cchanges;
    write(out, head, "Convergence criteria for last 3 iterates");
    write(out, fine, "Change in log likelihood", c[0][0], c[1][0], c[2][0]);
    write(out, fine, "Change in parameter vector", c[0][1], c[1][1], c[2][1]);
    write(out, coarse, "Norm of gradient vector", c[0][2], c[1][2], c[2][2]);
    write(out, coarse, "Newton decrement", c[0][3], c[1][3], c[2][3]);
    if (!maximise.converged) write_caution(out);
}

// Two lines of asterisks around a title set into columns 6 on of the first.
void banner(text_out& out, const std::string& title) {
    constexpr edit_form head{"(/a)"}, stars{"(78(1h*))"};
    std::string line(78, '*');
    line.replace(5, title.size(), title);
    write(out, head, line);
    write(out, stars);
}

std::string titled(const edit_form& form, int irand, const std::string& name) {
    std::string s = edit(form, " Estimates for RE", irand, name);
    s.pop_back();
    return s;
}

void write_residual_steps(text_out& out, const std::vector<double>& cov) {
    constexpr edit_form range{"(1x,a,i4,3x,a,2i8)"}, plain{"(1x,a,i4)"}, error_line{"(i4,2x,a,2g15.6,3x,a,2x,2f8.3)"};
    constexpr edit_form head{"(/1x,a)"};
    print_list(out, "No. of measurement error variance classes =", model.rr_resteps);
    // values of all classes first, errors of all classes in a list behind them
    for (int step = 1; step <= model.rr_resteps; ++step) {
        if (model.me_type == residual_kind::het)
            write(out, range, "Class no.", step, "Range", model.me_range(1, step), model.me_range(2, step));
        else
            write(out, plain, "Class no.", step);
        print_list(out, "(Co)Variance components");
        const report_matrix m = block_matrix(0, step);
        constexpr edit_form row{"(i4,(t7, 6g13.5))"};
        for (int i = 1, k = 0; i <= m.n; ++i)
            for (int j = i; j <= m.n; ++j, ++k) write(out, row, i, function_value(m.element[k], cov));
    }
    if (!sampling.available) return;
    write(out, head, "Covariance components with approximate sampling errors");
    bool warn = false;
    for (int step = 1; step <= model.rr_resteps; ++step) {
        const report_matrix m = block_matrix(0, step);
        for (std::size_t k = 0; k < m.element.size(); ++k) {
            const double se = error_of_sum(m.element[k]);
            warn = warn || se < 0.0;
            write(out, error_line, m.ipar[k], m.name[k], function_value(m.element[k], cov), se);
        }
    }
    if (warn) write(out, head, failed_note);
}

void write_residual_block(text_out& out, const std::vector<double>& cov) {
    banner(out, " Estimates of residual covariances   "); // columns 6 to 42
    if (model.rr_resteps > 1)
        write_residual_steps(out, cov);
    else
        write_covmat(out, block_matrix(0, 1), cov);
}

void write_random_block(text_out& out, int irand, const std::vector<double>& cov) {
    constexpr edit_form name_form{"(a,i3,3x,1h\",a,1h\",2h  )"}, sum_form{"(a,6x,1h\",3a,1h\",2h  )"};
    constexpr edit_form count{"(6x,a,i8)"}, text{"(6x,a,3x,a)"}, two{"(6x,a,2i8)"};
    banner(out, titled(name_form, irand, model.krandom(irand)));
    if (!options.bestonly) write(out, count, "No. of levels        =", levels.rn_nlev(irand));
    write(out, text, "Covariance structure = ", name_of(mudmap.kovrnd(irand)));
    if (model.krfit(irand) < model.kkfit(irand))
        write(out, two, "Order & rank of fit  =", model.kkfit(irand), model.krfit(irand));
    else
        write(out, count, "Order of fit         =", model.kkfit(irand));
    write_covmat(out, block_matrix(irand, 1), cov);
    if (options.randreg) return;
    const report_matrix sum = tied_sum_matrix(irand);
    if (sum.n == 0) return;
    const std::string& name = model.krandom(irand);
    const auto plus = name.find('+');
    // first letter of the first effect + name of the second, as the heads have been
    std::string title = edit(sum_form, " Estimates for RE", name.substr(0, 1), "+",
                             plus == std::string::npos ? name : name.substr(plus + 1));
    title.pop_back();
    banner(out, title);
    write_covmat(out, sum, cov);
}

// Covariance of this number; numbers beyond those of ListofCovs are the user's sums, in their order.
cov_function component(int number) {
    if (number <= estimates.ncov) return {{number, 1.0}};
    cov_function f;
    for (const auto& t : usrdefcovs.addcov(number - estimates.ncov)) f.push_back({t.isig, t.factor});
    return f;
}

// False: the error could not be approximated.
bool write_sum(text_out& out, int i, const std::vector<double>& cov) {
    constexpr edit_form with_error{"(i4,2x,a,2g15.6)"}, plain{"(i4,2x,a,g15.6)"};
    const int ipar = estimates.ncov + i;
    const cov_function f = component(ipar);
    const std::string& name = usrdefcovs.addcovname(i);
    if (!sampling.available) {
        write(out, plain, ipar, name, function_value(f, cov));
        return true;
    }
    const double se = error_of_sum(f);
    write(out, with_error, ipar, name, function_value(f, cov), se);
    return se >= 0.0;
}

bool write_ratio(text_out& out, int i, const std::vector<double>& cov) {
    constexpr edit_form with_error{"(i4,2x,a,2g15.6,3x,a)"}, plain{"(i4,2x,a,g15.6,3x,a)"};
    const auto& gp = usrdefcovs.igpadd(i);
    const std::string& name = usrdefcovs.addgpname(i);
    const bool ratio = gp[0] == 1;
    const cov_function c = component(gp[1]), a = component(gp[2]), b = ratio ? a : component(gp[3]);
    const double vc = function_value(c, cov), va = function_value(a, cov), vb = function_value(b, cov);
    // the smallest of what is divided by
    const double yy = ratio ? va : std::min(va, vb);
    if (!(yy > 0.0)) {
        // told on the screen, not in the report: nothing has failed there
        print_list(screen(), " Cannot calculate ", name, "  invalid denominator", yy);
        return true;
    }
    const double xx = ratio ? vc / va : vc / std::sqrt(va * vb);
    const char* what = ratio ? "vrat" : "corr";
    if (!sampling.available) {
        write(out, plain, i, name, xx, what);
        return true;
    }
    const double se = ratio ? error_of_ratio(c, a, cov) : error_of_correlation(c, a, b, cov);
    write(out, with_error, i, name, xx, se, what);
    return se >= 0.0;
}

// The user's functions: linear ones, then ratios and correlations, each list below a banner of its own.
void write_functions(text_out& out, const std::vector<double>& cov) {
    constexpr edit_form head{"(/a)"}, note{"(/1x,a)"};
    const auto section = [&](const char* title, int n, auto line) {
        if (n == 0) return;
        banner(out, " User defined functions of covariances");
        write(out, head, title);
        bool good = true;
        for (int i = 1; i <= n; ++i) good = line(out, i, cov) && good;
        if (!good) write(out, note, failed_note);
    };
    section(" Linear functions of covariances ", usrdefcovs.ncovadd, write_sum);
    section(" Variance ratios and correlations ", usrdefcovs.naddgps, write_ratio);
}

} // namespace

void write_estimates() {
    // errors before all else: every table below asks for them
    sampling = {};
    if (options.sevars) approxai_covs();
    text_out out;
    const std::string& name = options.bestonly ? filenames.best2file : filenames.estfile;
    if (!out.open(name)) stop_with("Error opening file \"" + name + "\"");
    write_tvxtop(out, options.bestonly ? "Covariance components specified" : "Estimates of covariance components",
                 options.wide);
    write_tvxfiles(out);
    write_headlines(out);
    write_parameters(out);
    write_convergence(out);
    const std::vector<double> cov = all_covariances();
    write_residual_block(out, cov);
    for (int irand = 1; irand <= numbers.krand; ++irand) write_random_block(out, irand, cov);
    // a phenotypic variance belongs to a value of the control variable, see rrvariances
    if (options.randreg) {
        if (!options.bestonly) rrvariances();
    } else {
        banner(out, " Estimates of phenotypic covariances  ");
        write_covmat(out, phenotypic_matrix(), cov);
    }
    write_functions(out, cov);
    if (options.bestonly)
        write_matrices_verdict(out);
    else
        write_verdict(out);
    write_tvxbottom(out, options.wide);
}

} // namespace tarvex
