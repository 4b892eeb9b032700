// Counts that the whole program shares.
#pragma once

namespace tarvex {

struct numbers_module {
    int nq = 0;           // traits
    int krand = 0;        // random effects across traits (blocks besides the residual)
    int maxnr = 0;        // largest number of observations of a subject
    int maxnreq = 0;      // largest number of distinct equations of a subject (without covariables)
    int nsubject = 0;     // subjects written by the recoding
    int nbase = 0;        // equations in the full-rank system
    int nsrow = 0;        // rows of its matrix: the equations and the right-hand side, nbase + 1
    int nrankx = 0;       // rank of the fixed part
    int lim1 = 0;         // equations in front of the covariables: always 0
    double zero = 1.0e-8; // the operational zero
};
inline numbers_module numbers;

} // namespace tarvex
