#include "reports/modelsum.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/levels.h"
#include "dense/numroutines.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/edit_form.h"

#include <algorithm>
#include <string>
#include <vector>

namespace tarvex {

namespace {

// of means and covmeans: the members named _var hold standard deviations
constexpr edit_form moments_line{"(i4,2x,1h\",a,1h\",t20,i7,t29,4g13.6)"};

void trait_table(text_out& out) {
    write(out, "(1x,t23,a,t28,4(6x,a,3x))", "nrec", "mean", "sdev", "min.", "max.");
    for (int iq = 1; iq <= numbers.nq; ++iq)
        write(out, moments_line, iq, model.trait(iq), means.nrec(iq), means.tr_xbar(iq), means.tr_var(iq),
              means.tr_min(iq), means.tr_max(iq));
}

void pairs_table(text_out& out) {
    const int nq = numbers.nq;
    if (options.equal_model) write(out, "(1x,a)", "Same model for all traits");
    if (mudmap.subject == subject_rule::line) write(out, "(1x,a)", "Residuals are correlated within lines of data");
    if (mudmap.subject == subject_rule::columns)
        write(out, "(1x,a,2(1x,1h\",a,1h\"))", "Residuals are correlated within equal values of", model.subject);
    write(out, "(/1x,a)", "Numbers of records for pairs of traits ");
    // the head of the triangle: numbers of the traits; its rows are the lower triangle
    std::vector<int> row(nq);
    for (int iq = 1; iq <= nq; ++iq) row[iq - 1] = iq;
    write(out, "(4x,(t20,10i7))", row);
    for (int iq = 1; iq <= nq; ++iq) {
        row.clear();
        for (int i = 1; i <= iq; ++i) row.push_back(means.pairs(ihmssf(i, iq, nq)));
        write(out, "(i4,2x,1h\",a,1h\",(t20,10i7))", iq, model.trait(iq), row);
    }
}

void covariables_table(text_out& out) {
    const auto ncov = model.ncov.prefix(numbers.nq);
    if (*std::max_element(ncov.begin(), ncov.end()) == 0) return;
    const auto& c = covmeans;
    write(out, "(/1x,a)", "Covariables");
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        if (model.ncov(iq) == 0) continue;
        if (numbers.nq > 1)
            write(out, "(i2,1h\",a,1h\",t23,a,t28,4(6x,a,3x))", iq, model.trait(iq), "nrec", "mean", "sdev", "min.",
                  "max.");
        for (int i = 1; i <= model.ncov(iq); ++i)
            write(out, moments_line, i, model.covar(i, iq), c.cv_nrec(i, iq), c.cv_xbar(i, iq), c.cv_var(i, iq),
                  c.cv_min(i, iq), c.cv_max(i, iq));
    }
}

void controls_table(text_out& out) {
    const auto& c = covmeans;
    write(out, "(/1x,a)", "Control variables in RR analysis");
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        if (numbers.nq > 1) write(out, "(1x,a,i5)", "Trait no =", iq);
        write(out, "(1x,t23,a,4(6x,a,3x))", "nrec", "mean", "sdev", "min.", "max.");
        for (int i = 1; i <= model.nmeta(iq); ++i)
            write(out, moments_line, i, model.rricontrol(i, iq), c.mm_nrec(i, iq), c.mm_xbar(i, iq), c.mm_var(i, iq),
                  c.mm_min(i, iq), c.mm_max(i, iq));
    }
}

// Heads stand for every trait, also where it has no such effect.
void levels_table(text_out& out, const array<std::string, 2>& names, const array<int>& n, const array<int, 2>& nlev) {
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        write(out, "(i2,2h \",a,1h\",t23,a,4(6x,a,3x))", iq, model.trait(iq), "nlev");
        for (int i = 1; i <= n(iq); ++i) write(out, "(i4,2x,1h\",a,1h\",t20,i7,4g13.6)", i, names(i, iq), nlev(i, iq));
    }
}

// Names that are longer than their place in the tables above.
void long_names(text_out& out) {
    // columns between the quotes and the first number
    constexpr std::size_t place = 11;
    std::vector<std::string> names;
    // each name once, in the order of the tables
    const auto add = [&](const std::string& name) {
        if (name.size() > place && std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
    };
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        add(model.trait(iq));
        for (int i = 1; i <= model.ncov(iq); ++i) add(model.covar(i, iq));
        for (int i = 1; options.randreg && i <= model.nmeta(iq); ++i) add(model.rricontrol(i, iq));
        for (int i = 1; i <= model.nfix(iq); ++i) add(model.fixed(i, iq));
        for (int i = 1; i <= model.nextra(iq); ++i) add(model.extra(i, iq));
    }
    for (int i = 1; i <= numbers.krand; ++i) add(model.krandom(i));
    if (names.empty()) return;
    write(out, "(/1x,a)", "Names in full");
    for (const std::string& name : names) write(out, "(6x,1h\",a,1h\")", name);
}

} // namespace

void write_modelsum() {
    text_out out;
    if (!out.open(filenames.summodfile)) stop_with("Error opening file \"" + filenames.summodfile + "\"");
    write_tvxtop(out, "Summary of information from Set-up step", options.wide);
    write_tvxfiles(out);
    write(out, "(1x,a,t25,1h=,i4)", "No. of traits", numbers.nq);
    trait_table(out);
    if (numbers.nq > 1) pairs_table(out);
    covariables_table(out);
    if (options.randreg) controls_table(out);
    write(out, "(/1x,a)", "Fixed effects");
    levels_table(out, model.fixed, model.nfix, levels.fx_nlev);
    write(out, "(/1x,a,t23,a,4(6x,a,3x))", "Random effects", "nlev");
    for (int i = 1; i <= numbers.krand; ++i)
        write(out, "(i4,2x,1h\",a,1h\",t20,i7,4x,a)", i, model.krandom(i), levels.rn_nlev(i),
              name_of(mudmap.kovrnd(i)));
    // the head stands only above a table
    const auto nextra = model.nextra.prefix(numbers.nq);
    if (*std::max_element(nextra.begin(), nextra.end()) > 0) {
        write(out, "(/1x,a)", "Extra effects");
        levels_table(out, model.extra, model.nextra, levels.ex_nlev);
    }
    long_names(out);
    write_tvxbottom(out, options.wide);
}

} // namespace tarvex
