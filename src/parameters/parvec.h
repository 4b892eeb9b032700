// The parameter vector and its layout.
//
// parvec: residual block first (step after step), then the PEQ block, then the other random effects in order. A block
// on the factor scale holds the columns of the (pivoted) lower Cholesky factor: for c = 1..krfit, r = c..kkfit element
// (r,c); on the "Original" scale its packed upper triangle. A diagonal block holds kkfit (log) root variances, or
// variances on "Original".
#pragma once
#include "support/array.h"

#include <string>

namespace tarvex {

// What the parameters of a block are: elements of its factor (cholesky: of the loadings at reduced rank), or its
// covariances.
enum class par_scale { variance, cholesky, original };

struct estimates_module {
    int nparm = 0;                   // length of parvec
    int nresparm = 0;                // parameters of the residual block
    int npeqparm = 0;                // parameters of the PEQ block
    int nrespeq = 0;                 // nresparm + npeqparm
    int ncov = 0;                    // covariance components
    int ncovall = 0;                 // ncov and user-defined sums
    array<double> parvec;            // (nparm) the point in hand
    array<std::string> parnames;     // (nparm)
    array<std::string> covnames;     // (ncovall)
    array<int, 1, 0> nnparm;         // (0:krand) block sizes
    array<par_scale, 1, 0> paraform; // (0:krand)
    array<int, 1, 0> logdiagonals;   // (0:krand) diagonals of the factor are held as logarithms
    array<int, 1, 0> switchlog;      // (0:krand) a diagonal fell below 0.25: ask for logarithms
    array<int> logpar;               // (nparm) this element is a logarithm
    array<int> ispar;                // (nparm) takes part in derivative-free maximisation
    array<int, 2, 0> cholorder;      // (maxk*steps,0:krand) pivot order; step s of block 0 at (s-1)*kkfit+1
    bool reorder = true;             // pivot the factorisation
    bool allocated = false;
};
inline estimates_module estimates;

// First parameter of block irand (0 residual) in parvec; step of the residual from 1.
int block_start(int irand, int step = 1);
// Parameters of one step of a block.
int block_size(int irand);
// Row of the factor and column that parameter k (from 1) of a step of block irand stands for.
struct factor_place {
    int row, col;
};
factor_place factor_element(int irand, int step, int k);
// Number of the first covariance of block irand in ListofCovs.
int cov_start(int irand, int step = 1);

} // namespace tarvex
