// Record of the iterates and rounds: screen line and Iterates.
#include "control/filenames.h"
#include "control/maximise.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "estimation/aireml.h"
#include "estimation/bestpoint.h"
#include "estimation/iteratelog.h"
#include "estimation/searchstate.h"
#include "likelihood/likelihood.h"
#include "parameters/parvec.h"
#include "support/edit_form.h"

#include <cmath>
#include <string>

namespace tarvex {

namespace {

char decimals(double x, std::initializer_list<double> limits, int first) {
    int d = first;
    for (double limit : limits) {
        if (x > limit) break;
        ++d;
    }
    return static_cast<char>('0' + d);
}

void trace_round(int iround, double xlike, double dd, std::string_view note) {
    const auto& t = aireml_terms;
    // processor time since the last line
    const double used = times.prev - t.tt0;
    text_out out;
    if (search_state.method.aireml) {
        constexpr edit_form form{"(i4,f13.3,f6.2,f6.3,4g12.5,i7,i4)"};
        if (out.open_append("AIiterates"))
            write(out, form, iround, xlike, t.tau, t.alpha, t.dnorm, t.pnorm, t.prox, dd, static_cast<int>(used),
                  likelihoods.ncall);
    } else {
        constexpr edit_form form{"(i5,g18.9,2g13.6,f10.1,1x,a,i5)"};
        if (out.open_append("EMrounds")) write(out, form, iround, xlike, dd, t.pnorm, used, note, likelihoods.ncall);
    }
}

} // namespace

double relative_change(const array<double>& from, const array<double>& to) {
    double change = 0.0, size = 0.0;
    for (int i = 1; i <= estimates.nparm; ++i) {
        change += (from(i) - to(i)) * (from(i) - to(i));
        size += to(i) * to(i);
    }
    return size > 0.0 ? std::sqrt(change / size) : 0.0;
}

void push_changes(double dd, double dnorm, double slope) {
    auto& c = maximise.cchanges;
    // three last steps, the newest in row 2
    for (int k = 0; k < 4; ++k) {
        c[0][k] = c[1][k];
        c[1][k] = c[2][k];
    }
    c[2][0] = dd;
    c[2][1] = aireml_terms.pnorm;
    c[2][2] = dnorm;
    c[2][3] = slope;
}

void edit_iterate_form(char* form, const iterate_form_values& v) {
    // places of the digits behind the points in the form of print_iterate
    form[17] = decimals(v.dd, {1000.0, 100.0, 10.0, 1.0, static_cast<double>(0.1f), static_cast<double>(0.01f)}, 0);
    form[22] = decimals(v.dnorm, {1000.0, 100.0, 10.0, 1.0}, 0);
    form[28] = decimals(v.pnorm, {1000.0, 100.0, 10.0, 1.0}, 2);
    form[33] = decimals(std::fabs(v.prox), {1000.0, 100.0, 10.0, 1.0}, 0);
    if (v.ncall > 9999) form[33] = '6'; // the field of ncall stays as wide as it is
}

void print_iterate(int iround, double xlike, double xold, std::string_view note) {
    constexpr edit_form line{"(a,i6,2x,a,g17.9,2x,a,2g13.5,2x,a,i7)"};
    const auto& t = aireml_terms;
    const double dd = xlike - xold;
    const std::string label = search_state.method.aireml ? "***AI iterate"
                              : search_state.method.pxem ? "***PX round  "
                                                         : "***EM round  ";
    if (options.devtrace) trace_round(iround, xlike, dd, note);
    times.prev = cpu_time();
    const int seconds = static_cast<int>(times.prev - t.tt0);
    if (!options.terse) write(screen(), line, label, iround, "log L =", xlike, "D =", dd, t.pnorm, "Time", seconds);
    screen().flush();
    iterate_log.records.push_back(
        {label.substr(3, 2), iround, xlike, dd, t.dnorm, t.pnorm, t.prox, t.alpha, t.tau, seconds, likelihoods.ncall});

    // the form is edited in its places: widths stay, digits behind the point move with the size of the value
    char form[] = "(a2,i5,f14.3,f10.0,f9.0,f11.2,f9.0,f8.4,i7,i5,g12.5,i2)";
    edit_iterate_form(form, {dd, t.dnorm, t.pnorm, t.prox, likelihoods.ncall});
    text_out out;
    if (out.open_append(filenames.iteratesfile))
        write(out, edit_form::edited(form), std::string_view(label).substr(3, 2), iround, xlike, dd, t.dnorm, t.pnorm,
              t.prox, t.alpha, seconds, likelihoods.ncall, t.tau, maximise.modify_chol);
    if (options.devtrace) {
        text_out all;
        writebestpoint(iround, all.open_append("Estimates") ? &all : nullptr);
    }
}

} // namespace tarvex
