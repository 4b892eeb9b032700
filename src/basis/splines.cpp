#include "basis/splines.h"

#include "basis/phimatrix.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/screen.h"
#include "support/stop.h"

#include <algorithm>

namespace tarvex {

namespace {

std::string up_to_bracket(const std::string& name) { return name.substr(0, name.find('(')); }

// Number of the spline with this definition, added if new.
// A covariable and a control variable of one name stay two splines: the knots of the first span its values in the
// traits that fit it, those of the second all codes of the variable.
int spline_no(const std::string& name, int degree, int order, int control) {
    // functions = intervals + degree
    const int nint = order - degree;
    if (nint < 1) stop_with("Too few functions for a spline of this degree : \"" + name + "\"");
    for (int isp = 1; isp <= splines.nspline; ++isp)
        if (splines.bsp_names(isp) == name && splines.bsp_control(isp) == control &&
            splines.bsp_degree(isp) == degree && splines.bsp_nknots(isp) == nint)
            return isp;
    splines.bsp_names.push_back(name);
    splines.bsp_control.push_back(control);
    splines.bsp_degree.push_back(degree);
    splines.bsp_nknots.push_back(nint);
    return ++splines.nspline;
}

// The same name in an earlier trait must have the same type and degree.
void check_traits(const std::string& name, bool bsp, int degree, bool other_bsp, int other_degree) {
    if (bsp != other_bsp) {
        print_list(screen(), "Error : mismatch in covariable type across traits");
        print_list(screen(), "   ... variable", name);
        stoptarvex();
    }
    if (degree != other_degree) {
        print_list(screen(), "Error : mismatch in covariable degree across traits");
        print_list(screen(), "   ... variable", name);
        stoptarvex();
    }
}

void check_covariable(int i, int iq) {
    const std::string name = up_to_bracket(model.covar(i, iq));
    const bool bsp = mudmap.cv_type(i, iq) == basis_kind::bsp;
    for (int jq = 1; jq < iq; ++jq)
        for (int j = 1; j <= model.ncov(jq); ++j) {
            // a name without the bracket is the variable; only splines have to agree
            const bool other = mudmap.cv_type(j, jq) == basis_kind::bsp;
            if ((bsp || other) && up_to_bracket(model.covar(j, jq)) == name)
                check_traits(name, bsp, bsp ? mudmap.cv_degree(i, iq) : 0, other, other ? mudmap.cv_degree(j, jq) : 0);
        }
}

void check_random(int i, int iq) {
    const std::string name = up_to_bracket(model.random(i, iq));
    const bool bsp = mudmap.irropt(i, iq) == basis_kind::bsp;
    for (int jq = 1; jq < iq; ++jq)
        for (int j = 1; j <= model.nrnd(jq); ++j) {
            const bool other = mudmap.irropt(j, jq) == basis_kind::bsp;
            if ((bsp || other) && up_to_bracket(model.random(j, jq)) == name)
                check_traits(name, bsp, bsp ? mudmap.ibsdeg(i, iq) : 0, other, other ? mudmap.ibsdeg(j, jq) : 0);
        }
}

void find_splines() {
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        for (int i = 1; i <= model.ncov(iq); ++i) {
            check_covariable(i, iq);
            if (mudmap.cv_type(i, iq) == basis_kind::bsp)
                splines.cv_spline(i, iq) =
                    // 0: a covariable; 1: a control variable, whose values are those of all traits
                    spline_no(up_to_bracket(model.covar(i, iq)), mudmap.cv_degree(i, iq), mudmap.cv_order(i, iq), 0);
        }
        if (!options.randreg) continue;
        for (int i = 1; i <= model.nrnd(iq); ++i) {
            check_random(i, iq);
            if (mudmap.irropt(i, iq) == basis_kind::bsp)
                splines.rn_spline(i, iq) =
                    spline_no(model.rrcontrol(mudmap.irmeta(i, iq)), mudmap.ibsdeg(i, iq), mudmap.kfitrnd(i, iq), 1);
        }
    }
}

// Distinct values of spline isp, ascending, from the traits that have its variable.
void collect_bspvalues(int isp, const array<std::vector<double>, 2>& cv_values) {
    auto& values = splines.bsp_values(isp);
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        for (int i = 1; i <= model.ncov(iq); ++i)
            if (splines.cv_spline(i, iq) == isp)
                values.insert(values.end(), cv_values(i, iq).begin(), cv_values(i, iq).end());
        if (!options.randreg) continue;
        for (int i = 1; i <= model.nrnd(iq); ++i)
            if (splines.rn_spline(i, iq) == isp)
                for (const auto icode : control_codes(mudmap.irmeta(i, iq)))
                    values.push_back(static_cast<double>(icode));
    }
    std::sort(values.begin(), values.end());
    values.erase(std::unique(values.begin(), values.end()), values.end());
}

} // namespace

void knot_vector(double tmin, double tmax, int nint, int degree, array<double>& tvec) {
    // equal intervals; `degree` of them added at each end, so that every function has its full number of knots
    const double h = (tmax - tmin) / nint;
    allocate("all knotv", tvec, nint + 1 + 2 * degree);
    for (int i = -degree; i <= nint + degree; ++i)
        // the last inner knot is tmax to the last bit
        tvec(i + degree + 1) = i <= nint - 1 ? tmin + i * h : tmax + (i - nint) * h;
}

void bspline_row(double x, const array<double>& tvec, int degree, std::span<double> row) {
    const int nint = static_cast<int>(tvec.upper()) - 1; // all intervals, the outer ones too
    std::vector<double> b(nint + 1, 0.0);
    for (int i = 1; i <= nint; ++i)
        // degree 0: the interval of x, closed on the left; tmax falls into the first one beyond
        if (x >= tvec(i) && x < tvec(i + 1)) b[i - 1] = 1.0;
    // recursion of de Boor and Cox; b(i) is overwritten from the left, b(i+1) is still of degree k-1
    for (int k = 1; k <= degree; ++k)
        for (int i = 1; i <= nint - k; ++i) {
            // knots are distinct, as the range is not 0: no divisor vanishes
            const int j = i - 1;
            b[j] = (x - tvec(i)) / (tvec(i + k) - tvec(i)) * b[j] +
                   (tvec(i + k + 1) - x) / (tvec(i + k + 1) - tvec(i + 1)) * b[j + 1];
        }
    std::copy_n(b.begin(), row.size(), row.begin());
}

int bspline_place(int isp, double x) {
    const auto& values = splines.bsp_values(isp);
    // values that the table was made for, found to the bit
    const auto at = std::lower_bound(values.begin(), values.end(), x);
    if (at == values.end() || *at != x) stop("bspl code not found");
    return static_cast<int>(at - values.begin()) + 1;
}

void setup_bsplines(const array<std::vector<double>, 2>& cv_values) {
    splines = {};
    int mcov = 0, mrnd = 0;
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        mcov = std::max(mcov, model.ncov(iq));
        mrnd = std::max(mrnd, model.nrnd(iq));
    }
    allocate("all bsp", splines.cv_spline, mcov, numbers.nq);
    allocate("all bsp", splines.rn_spline, mrnd, numbers.nq);
    find_splines();
    splines.bsp_values.resize(splines.nspline);
    splines.bspmat.resize(splines.nspline);
    for (int isp = 1; isp <= splines.nspline; ++isp) {
        collect_bspvalues(isp, cv_values);
        const auto& values = splines.bsp_values(isp);
        const int degree = splines.bsp_degree(isp);
        const int nfun = splines.bsp_nknots(isp) + degree;
        // no range to be cut into intervals
        if (values.empty() || values.front() == values.back())
            stop_with("Variable with a single value cannot be fitted by splines : \"" + splines.bsp_names(isp) + "\"");
        knot_vector(values.front(), values.back(), splines.bsp_nknots(isp), degree, splines.tvec);
        const int nval = static_cast<int>(values.size());
        allocate("all bspmat", splines.bspmat(isp), nval, nfun);
        std::vector<double> row(nfun);
        for (int a = 1; a <= nval; ++a) {
            bspline_row(values[a - 1], splines.tvec, degree, row);
            for (int j = 1; j <= nfun; ++j) splines.bspmat(isp)(a, j) = row[j - 1];
        }
        if (options.details) {
            std::string knots;
            for (double t : splines.tvec) knots += " " + list_item(t);
            print_list(screen(), "bspknots : " + knots);
            print_list(screen(), "bsp coeffs", isp, knots, degree, splines.tvec.upper(), nval);
        }
    }
}

} // namespace tarvex
