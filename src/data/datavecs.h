// The record of one subject, as the recoded files hold it, and the patterns of records.
//
// Row k of a subject's design belongs to observation k. Positions of a row of trait iq: fixed effects 1..nfix(iq), then
// the trait's mean if one is fitted, then the random effects in the order of the model, each with as many positions as
// it has fitted components or coefficients (none for PEQ): see ddvecs.kkst. ieqnr(j,k) is the place in jvec of the
// equation at position j, 0 where the row has none. Covariables stand in xcov, icov only.
#pragma once
#include "support/array.h"
#include "support/vector1.h"

#include <cstdint>
#include <string>

namespace tarvex {

struct subject_record {
    int icombi = 0;        // number of the pattern of records
    int nobs = 0;          // observations
    int nr = 0;            // length of jvec
    int mrow = 0;          // positions of a row (largest over traits)
    int mcov = 0;          // covariable coefficients of a row (largest over traits)
    int nmeta = 0;         // control variables
    array<double> yvec;    // (maxnr) observations in units of their traits (units.h), sorted by trait
    array<int> ynq;        // (maxnr) traits
    array<int, 2> ieqnr;   // (mrow,maxnr)
    array<double, 2> xcov; // (mcov,maxnr) regression values
    array<int, 2> icov;    // (mcov,maxnr) covariable equation (1..neq_cov), 0 none
    array<int, 2> imeta;   // (nmeta,maxnr) level of each control variable
    array<int> jvec;       // (maxnreq) sorted distinct equations of the subject
};

struct combinations_module {
    int ncombi = 0;
    vector1<vector1<int>> nqcombi; // (icombi)(iq) records of each trait
    vector1<int> ncomb_subj;       // subjects with the pattern
    array<int> ncomb_pairs;        // packed upper triangle without diagonal: subjects with both traits
    int neqns = 0;                 // equations that the records may name
    int ncov = 0;                  // those of covariables among them, which come first
};
inline combinations_module combinations;

} // namespace tarvex
