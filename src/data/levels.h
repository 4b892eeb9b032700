// What the first scan of the data finds: codes of all effects, means and ranges.
#pragma once
#include "support/array.h"
#include "support/vector1.h"

#include <cstdint>
#include <vector>

namespace tarvex {

using code_list = vector1<std::int64_t>; // codes by level, mostly ascending

struct levels_module {
    array<code_list, 2> fx_codes; // (maxfix,nq)
    array<code_list, 2> ex_codes; // (maxext,nq)
    // (maxmeta,nq) values of the control variables; the traits that share a variable share its list, so that equal
    // levels mean equal values.
    array<code_list, 2> mm_codes;
    // (krand) levels of the blocks: for NRM the codes idwec of the pedigree; otherwise the codes found in the data, in
    // level order (ascending but for a supplied inverse with a codes file).
    array<code_list> rn_codes;
    array<int, 2> fx_nlev; // (maxfix,nq)
    array<int, 2> ex_nlev;
    array<int, 2> mm_nlev;
    array<int> rn_nlev;            // (krand) levels
    array<std::int64_t> rn_maxlev; // (krand) largest number of levels allowed
    // Base of the codes of interactions a*b (a * base + b), 1 for effects of one column. For a random effect one base a
    // block.
    array<std::int64_t, 2> fx_base; // (maxfix,nq)
    array<std::int64_t, 2> ex_base; // (maxext,nq)
    array<std::int64_t> rn_base;    // (krand)
};
inline levels_module levels;

struct means_module {
    array<int> nrec;                               // (nq) records
    array<double> tr_xbar, tr_var, tr_min, tr_max; // (nq) mean, standard deviation, extremes
    array<double> unit;                            // (nq) what records are divided by when they are recoded
    array<int> pairs;                              // (nq(nq+1)/2) records of pairs of traits, counted within subjects
};
inline means_module means;

struct covmeans_module {
    array<int, 2> cv_nrec; // (maxcov,nq)
    array<double, 2> cv_xbar, cv_var, cv_min, cv_max;
    array<std::vector<double>, 2> cv_values; // (maxcov,nq) distinct values, ascending
    array<int, 2> mm_nrec;                   // (maxmeta,nq)
    array<double, 2> mm_xbar, mm_var, mm_min, mm_max;
};
inline covmeans_module covmeans;

} // namespace tarvex
