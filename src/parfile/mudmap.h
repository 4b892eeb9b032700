// Where the effects of the model stand in a data record, and how they tie into the covariance blocks.
#pragma once
#include "parfile/basiskinds.h"
#include "parfile/covkinds.h"
#include "support/array.h"

#include <cstdint>
#include <string>

namespace tarvex {

// What makes a subject: the code of a random effect in neighbouring lines, one line, or named columns.
enum class subject_rule { effect, line, columns };

// A record is an array dvec of column values, from 1. With `alltraits` one line holds all traits and the columns are
// those named for trait 1; otherwise a line belongs to one trait and column 1 is the trait's number.
struct mudmap_module {
    bool alltraits = false;         // equal_model and not renumbered
    int maxcol = 0;                 // longest line, in columns
    array<int> tr_dcolno;           // (nq) column of the observation
    array<int, 2> fx_dcolno;        // (maxfix,nq)
    array<int, 2> fx_dcolno2;       // second column of an interaction a*b, 0 none
    array<std::int64_t, 2> fx_mlev; // declared limit of levels
    array<int, 2> cv_dcolno;        // (maxcov,nq)
    array<int, 2> cv_nestcolno;     // column of the effect in which the covariable is nested, 0 none
    array<int, 2> cv_nestfix;       // its number among the trait's fixed effects; minus its number among the extra ones
    array<basis_kind, 2> cv_type;   // pol, leg or bsp
    array<int, 2> cv_order;         // coefficients (per level where nested)
    array<int, 2> cv_degree;        // spline degree
    array<int, 2> rn_dcolno;        // (maxrand,nq)
    array<int, 2> rn_dcolno2;
    array<std::int64_t, 2> rn_mlev;
    array<int, 2> ex_dcolno; // (maxext,nq)
    array<int, 2> ex_dcolno2;
    array<std::int64_t, 2> ex_mlev;
    array<int, 2> rr_dcolno; // (maxmeta,nq)
    array<std::int64_t, 2> mm_mlev;
    subject_rule subject = subject_rule::effect; // which records have correlated residuals
    array<int, 2> subj_column;                   // (2,nq) columns of the subject, 0 none; with subject_rule::columns
    array<int> subj_dcolno;                      // (nq) subject column, -1: every record is its own subject

    // Random regression
    array<basis_kind, 2> irropt; // (maxrand,nq)
    array<int, 2> kfitrnd;       // order of fit; 1 in other analyses
    array<int, 2> ibsdeg;        // spline degree
    array<int, 2> irmeta;        // number of the control variable within rrcontrol

    // Tie between the effects of the traits and the blocks. With correlated effects two effects of a trait share a
    // block.
    array<int, 2> rn_irand;        // (maxrand,nq) block of random effect i of the trait
    array<int, 2> rn_place;        // place of its (first) equation within a level of the block, 1..kkfit
    array<int> iranno;             // (krand) number of the relationship matrix, 0 none
    int nrunno = 0;                // relationship matrices
    array<covariance_kind> kovrnd; // (krand)
    array<int, 2> ksfit;           // (krand,nq) order in the trait, 0: not fitted
    array<int> nnq, nnq2;          // (krand) traits that fit the effect (its second name with correlated effects)
    array<int, 2> rn_trait;        // (maxkkfit,krand) trait of each place (1 in random regression)
    array<int, 2> rn_which;        // (maxkkfit,krand) 1, or 2: second name of a pair of correlated effects
    std::int64_t maxlev_fix = 0, maxlev_rnd = 0, maxlev_ext = 0, maxlev_ctrl = 0;
};
inline mudmap_module mudmap;

// Trait whose columns name the values in a line of trait iq: the first where a line holds all traits, or where traits
// of one model share a list of columns.
int column_set(int iq);

// Fitted components of a block: krfit in reduced-rank runs, else kkfit.
int nfit(int irand);

} // namespace tarvex
