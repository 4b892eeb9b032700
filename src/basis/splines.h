// B-splines on equally spaced knots, by the recursion of de Boor (1978, A Practical Guide to Splines).
#pragma once
#include "support/array.h"
#include "support/vector1.h"

#include <span>
#include <string>
#include <vector>

namespace tarvex {

// One spline: a variable, cut into equal intervals between its lowest and highest value. It has intervals + degree
// functions, and these sum to 1 at every value.
struct splines_module {
    int nspline = 0;
    vector1<std::string> bsp_names;          // variable: covariable up to its bracket, or control variable
    vector1<int> bsp_control;                // 1: control variable, 0: covariable
    vector1<int> bsp_degree;                 // 1 linear, 2 quadratic, 3 cubic
    vector1<int> bsp_nknots;                 // intervals between the lowest and highest value
    vector1<std::vector<double>> bsp_values; // distinct values, ascending
    vector1<array<double, 2>> bspmat;        // (values, functions)
    array<double> tvec;                      // knots of the spline last set up
    array<int, 2> cv_spline;                 // (maxcov,nq) spline of a covariable (from 1), 0 none
    array<int, 2> rn_spline;                 // (maxrand,nq) spline of a random effect, 0 none
};
inline splines_module splines;

// Finds the splines of the covariables and of the random effects, gathers their values over the traits and tabulates
// the functions. A variable that is a spline in one trait must be one of the same degree in all that have it, among
// the covariables and among the random effects; else, with fewer functions than degree + 1, or with one value alone the
// run stops. cv_values (maxcov,nq): distinct values of the covariables; those of the control variables are
// phimat.control_values.
void setup_bsplines(const array<std::vector<double>, 2>& cv_values);
// Knots for nint intervals from tmin to tmax, with `degree` further ones at each side.
void knot_vector(double tmin, double tmax, int nint, int degree, array<double>& tvec);
// Values at x of all functions of the given degree on tvec: row has tvec.upper() - 1 - degree elements.
void bspline_row(double x, const array<double>& tvec, int degree, std::span<double> row);
// Place of value x in the list of spline isp; stops if it is not there ("bspl code not found").
int bspline_place(int isp, double x);

} // namespace tarvex
