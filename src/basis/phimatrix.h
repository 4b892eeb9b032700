// Tables of the basis functions of the random regressions at the values of the control variables, and the residual
// class of each value.
//
// Files: <variable>_<type><order>.baf (a second table of splines of one order: with the letter of its degree, L, Q or
// C, behind it), one line for each value: the value, then the functions. Tables of type USR are read from such a file
// (the value in front may be left out), all others are written to one.
#pragma once
#include "support/array.h"
#include "support/vector1.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tarvex {

using control_list = vector1<std::int64_t>;

struct phimat_module {
    // (irrc) values of the control variables, ascending; the traits share them. Set by the first scan of the data.
    vector1<control_list> control_values;
    int nphi = 0;                // tables
    array<int, 2> kkphi;         // (maxrand,nq) table of random effect i of trait iq
    array<array<double, 2>> phi; // (nphi)(levels, order) value of function k at level a of the control variable
    array<int> phi_control;      // (nphi) control variable, its number within rrcontrol (row of imeta)
    array<std::string> phi_name; // (nphi) variable, type and order: "age_LEG3"
    array<int> jjmeta; // (nq) control variable that the residuals of a trait depend on, number within rrcontrol
    vector1<int> shared_controls; // numbers of the control variables that every trait has
};
inline phimat_module phimat;

// Place of control variable irrc (number within rrcontrol) among those of trait iq, 0 if the trait has not got it.
int control_place(int irrc, int iq);
// Its values, which the traits share.
const control_list& control_codes(int irrc);

// From control_values: fills jjmeta, shared_controls and model.me_run, then the tables (phimatrix). Values outside all
// classes, a faulty file of classes or of a table, and, with several classes, a trait without the control variable that
// selects them stop the run.
void mm2ages();
// Names of the tables that the analysis reads (`of_user`), or may write. Needs mudmap only.
std::vector<std::string> basis_files(bool of_user);
// Fills kkphi, phi, phi_control and phi_name; writes the tables, but reads those of type USR. Legendre polynomials and
// splines must be set up, and have more values than one (the scan of the data stops at less).
void phimatrix();

} // namespace tarvex
