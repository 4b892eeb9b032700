// The point at which a search ended, as it is judged, and the verdict.
#pragma once
#include "estimation/verdict.h"
#include "support/screen.h"

namespace tarvex {

struct verdict_module {
    search_verdict last; // of the point in the reports; kind none: not judged
    int resumed = 0;     // times that the search went on from an end short of a maximum
};
inline verdict_module verdict;

// Judges estimates.parvec, where log L has just been evaluated with iopt > 0: costs one average information and one
// gradient, takes the factor of that evaluation and uses it up. Leaves verdict.last; derivs holds the information and
// the gradient of the covariance scale (devl1, devl2). Kind none where the model has no average information.
void judge_last_point();

// The same from derivatives that are at hand (devl1, devl2 of estimates.parvec).
search_verdict verdict_of_derivatives();

// Random regression: mean square of basis function `row` of block irand over the values of its control variable.
double basis_mean_square(int irand, int row);

// The verdict in one line, for the screen.
std::string verdict_line(const search_verdict& v);
// All of it, for the foot of the report.
void write_verdict(text_out& out);
// What can be said of a stored point without the data: borders and eigenvalues of the matrices in estimates.parvec.
void write_matrices_verdict(text_out& out);

} // namespace tarvex
