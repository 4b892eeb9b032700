// Joins the names of the model to the columns of the data, and the random effects of the traits to the covariance
// blocks.
//
// Reads model and datafile as read_parfile leaves them. Fills mudmap. In grouped data with all traits in a line the
// columns of trait 1 are replaced by those of the line.
#pragma once
#include "parfile/basiskinds.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace tarvex {

// Runs once, before any file of data is opened. Every fault prints its message and stops.
void model2mudmap();

// First column with this name among those of trait iq, and the number of levels declared for it. With all traits in a
// line the columns are those named for trait 1. No such column: model_err.
void datposition(const std::string& name, int iq, int& icol, std::int64_t& mlev);
// "***** ERROR  mapping model to data file *****" and errmsg; stops.
[[noreturn]] void model_err(std::string_view errmsg);
// Basis function of a random regression by its code in upper case; sets the flag of the tables it needs.
basis_kind check_rropt(const std::string& code);
// Degree of a spline by its letter L, Q or C, in any case.
int spline_degree(char ch);
// Step of model2mudmap: the random effects of all blocks, in their order, and the numbers of the relationship matrices.
void tie_blocks();
// Ties the effects of all traits to block irand: one effect a trait, or (correlated) two.
void random_regular(int irand);
void random_sigam(int irand);

} // namespace tarvex
