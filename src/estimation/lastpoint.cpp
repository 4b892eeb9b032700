#include "estimation/lastpoint.h"

#include "basis/phimatrix.h"
#include "control/numbers.h"
#include "control/options.h"
#include "data/levels.h"
#include "data/units.h"
#include "dense/numroutines.h"
#include "estimation/estimates.h"
#include "estimation/iteratelog.h"
#include "likelihood/derivatives.h"
#include "parameters/parvec.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/edit_form.h"

#include <cmath>
#include <cstdio>
#include <utility>

namespace tarvex {

namespace {

vector1<double> block_covariances(int irand, int step, array<double, 2>& factor) {
    block_at_point at_end = covariances_at(estimates.parvec, irand, step);
    const array<double>& cc = at_end.cc;
    factor = std::move(at_end.vv);
    const int n = model.kkfit(irand);
    vector1<double> cov;
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= (model.diagonal(irand) ? i : n); ++j) cov.push_back(cc(ihmssf(i, j, n)));
    return cov;
}

int trait_of(int irand, int row) { return irand == 0 ? row : mudmap.rn_trait(row, irand); }

std::string row_name(int irand, int row) {
    if (options.randreg && irand > 0) return "coefficient " + std::to_string(row);
    const int iq = trait_of(irand, row);
    std::string name = model.trait(iq).empty() ? "trait " + std::to_string(iq) : model.trait(iq);
    if (irand > 0 && mudmap.rn_which.allocated() && mudmap.rn_which(row, irand) == 2) name += " (second effect)";
    return name;
}

// Sum of the variances of each trait over all blocks: the phenotypic variance at the point. The residual block holds
// the sum with a repeat effect already.
vector1<double> phenotypic_variances() {
    vector1<double> v(numbers.nq);
    array<double, 2> factor;
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        if (irand > 0 && (irand == residualvars.ipeq || options.randreg)) continue;
        const vector1<double> cov = block_covariances(irand, 1, factor);
        const int n = model.kkfit(irand);
        for (int i = 1; i <= n; ++i) v(trait_of(irand, i)) += cov(cov_place(irand, i, i));
    }
    if (options.randreg)
        // coefficients vary over the control variable: the data's own variance is the measure
        for (int iq = 1; iq <= numbers.nq; ++iq)
            if (means.tr_var.allocated()) v(iq) = std::pow(means.tr_var(iq) / trait_unit(iq), 2.0);
    for (double& x : v)
        // a measure must be positive
        if (!(x > 0.0)) x = 1.0;
    return v;
}

vector1<double> row_scales(int irand, const vector1<double>& phenotypic) {
    vector1<double> s;
    for (int row = 1; row <= model.kkfit(irand); ++row) {
        if (options.randreg && irand > 0)
            // of a coefficient: what makes its contribution phi^2 var(coefficient) as large as the trait, on average
            s.push_back(phenotypic.front() / basis_mean_square(irand, row));
        else
            s.push_back(phenotypic(trait_of(irand, row)));
    }
    return s;
}

std::string block_name(int irand, int step) {
    if (irand > 0) return model.krandom(irand);
    return model.rr_resteps > 1 ? "residual, class " + std::to_string(step) : "residual";
}

judged_block covariance_block(int irand, int step, const vector1<double>& scale) {
    judged_block b;
    array<double, 2> factor;
    b.name = block_name(irand, step);
    for (int row = 1; row <= model.kkfit(irand); ++row) b.rows.push_back(row_name(irand, row));
    b.first = block_start(irand, step);
    b.diagonal = model.diagonal(irand) != 0;
    b.cov = block_covariances(irand, step, factor);
    b.scale = scale;
    if (irand == 0 && residualvars.fixres.allocated())
        for (int k = 1; k <= b.cov.size(); ++k) {
            const int par = b.first + k - 1;
            b.fixed.push_back(par <= residualvars.fixres.upper() ? residualvars.fixres(par) : 0);
        }
    return b;
}

constexpr double far_from_border = 1.0e36;

// Elements of the factor of a principal block. A column whose leading element has gone counts by that element alone.
void factor_parameters(int irand, const vector1<double>& scale, judged_point& p) {
    array<double, 2> factor;
    block_covariances(irand, 1, factor);
    const int from = block_start(irand);
    int column = 0;
    bool gone = false;
    for (int k = 1; k <= block_size(irand); ++k) {
        const factor_place f = factor_element(irand, 1, k);
        judged_parameter q;
        q.par = from + k - 1;
        q.scale = std::sqrt(scale(f.row));
        q.name =
            "factor element " + std::to_string(f.row) + "," + std::to_string(f.col) + " of " + model.krandom(irand);
        if (f.col != column) { // the first element of a column is the pivot
            column = f.col;
            q.value = factor(f.row, f.col);
            gone = std::fabs(q.value) < vanished_element * q.scale;
        } else if (gone) {
            continue;
        } else {
            q.value = far_from_border; // never at a border
        }
        p.others.push_back(q);
    }
}

void gather_matrices(judged_point& p) {
    const vector1<double> phenotypic = phenotypic_variances();
    for (int irand = estimates.nresparm == 0 ? 1 : 0; irand <= numbers.krand; ++irand) {
        const vector1<double> scale = row_scales(irand, phenotypic);
        if (irand > 0 && options.principal && irand != residualvars.ipeq) {
            factor_parameters(irand, scale, p);
            continue;
        }
        for (int step = 1; step <= steps_of(irand); ++step) p.blocks.push_back(covariance_block(irand, step, scale));
    }
}

judged_point gather() {
    judged_point p;
    const int n = estimates.nparm;
    p.gradient.assign(derivs.devl1.begin(), derivs.devl1.begin() + n);
    // devl2 has the sign of second derivatives of log L
    for (int k = 1; k <= triangle(n); ++k) p.information.push_back(-derivs.devl2(k));
    gather_matrices(p);
    return p;
}

constexpr const char* titles[] = {"not judged", "at a maximum of log L", "at the border of the parameter space",
                                  "log L is flat", "NOT at a maximum of log L"};

} // namespace

double basis_mean_square(int irand, int row) {
    for (int i = 1; i <= model.nrnd(1); ++i) {
        // blocks agree over traits: the first one tells
        if (mudmap.rn_irand(i, 1) != irand) continue;
        const auto& phi = phimat.phi(phimat.kkphi(i, 1));
        double s = 0.0;
        for (int a = 1; a <= phi.upper(1); ++a) s += phi(a, row) * phi(a, row);
        return s > 0.0 ? s / static_cast<double>(phi.upper(1)) : 1.0;
    }
    return 1.0;
}

void judge_last_point() {
    verdict.last = {};
    if (!average_info_available()) return;
    average_info();
    derivatives_mmm();
    verdict.last = verdict_of_derivatives();
}

search_verdict verdict_of_derivatives() { return judge(gather()); }

std::string verdict_line(const search_verdict& v) {
    char gain[32];
    std::snprintf(gain, sizeof gain, "%.6f", v.promised);
    return std::string("Verdict: ") + titles[static_cast<int>(v.kind)] + ", promised gain in log L = " + gain;
}

namespace {

void write_eigenvalues(text_out& out, const search_verdict& v) {
    constexpr edit_form list{"(1x,a,t30,1h=,(t31,6g12.4))"};
    for (const auto& [name, values] : v.eigenvalues) write(out, list, ("Eigenvalues, " + name).substr(0, 28), values);
}

void write_border(text_out& out, const search_verdict& v) {
    for (const std::string& s : v.border) print_list(out, " At the border: " + s);
    for (const std::string& s : v.flat) print_list(out, " No information: " + s);
    for (const std::string& s : v.void_names) print_list(out, " Sampling error is void: " + s);
}

// What was tried at an end short of a maximum, and what to do.
void write_remedy(text_out& out) {
    if (verdict.resumed > 0)
        print_list(out, " Tried: rounds of PX-EM and AI-REML anew,", verdict.resumed,
                   verdict.resumed > 1 ? "times" : "time");
    else
        print_list(out, " Not tried: to go on by itself (limit of iterates, \"--nosure\", or a plan without AI-REML)");
    print_list(out, " Go on with \"-c\", or start from other values; see the page on algorithms");
}

constexpr edit_form block_head{"(/1x,a)"}, word_line{"(1x,a,t30,1h=,1x,a)"};

} // namespace

void write_verdict(text_out& out) {
    const search_verdict& v = verdict.last;
    if (v.kind == search_end::none) return;
    constexpr edit_form count{"(1x,a,t30,1h=,i12)"}, value{"(1x,a,t30,1h=,g16.6)"};
    write(out, block_head, "Verdict on the end of the search");
    write(out, word_line, "The last point is", titles[static_cast<int>(v.kind)]);
    if (!iterate_log.ended.empty()) write(out, word_line, "The search ended by", iterate_log.ended);
    write(out, value, "Gain in log L promised", v.promised);
    // promised is g' H^-1 g / 2
    write(out, value, "Newton decrement", 2.0 * v.promised);
    write(out, value, "Norm of scaled gradient", v.gradient_norm);
    write(out, value, "Least eigenvalue of AI", v.least);
    write(out, value, "Largest eigenvalue of AI", v.largest);
    write_eigenvalues(out, v);
    if (verdict.resumed > 0) write(out, count, "Times the search went on", verdict.resumed);
    write_border(out, v);
    if (v.kind == search_end::not_maximum) write_remedy(out);
}

void write_matrices_verdict(text_out& out) {
    if (options.randreg) return; // the sizes of the traits are not at hand
    judged_point p;
    gather_matrices(p);
    const search_verdict v = look_at_matrices(p);
    write(out, block_head, "Verdict on the end of the search");
    write(out, word_line, "The last point is", "not judged : no gradient without the data");
    write_eigenvalues(out, v);
    write_border(out, v);
}

} // namespace tarvex
