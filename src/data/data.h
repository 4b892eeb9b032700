// Data file reader and first scan of the data.
#pragma once
#include "support/array.h"

#include <cstdint>
#include <fstream>
#include <span>
#include <string>

namespace tarvex {

// Open data file. A record is one line; blank lines are passed over.
struct data_reader {
    std::ifstream in;
    std::string line;
    int nskip_drecs = -1; // comment lines at the head, -1 not counted yet
    int ndatrec = 0;      // records read in this pass, skipped ones included
};
inline int nskip_drecs = -1; // comment lines at the head of the data file, once counted

// Opens the data file and passes over its comment lines; faults stop the run.
void open_datfile(data_reader& reader);
// Reads one record into dvec (columns from 1). iq: trait of the line, 0 with all traits in a line. iskip: nothing to be used
// in the record. Returns false at the end of the file. A line that cannot be read stops the run.
bool getrec_dvec(data_reader& reader, array<double>& dvec, int& iq, bool& iskip);
// "***** ERROR : reading data file *****" with the number of records read, and stop.
[[noreturn]] void data_error(int ndatrec);

// First scan: fills means, covmeans, levels, numbers.maxnr; random regression tables by mm2ages.
void data_scan1st();

// Code of an effect in a record: the value of column icol truncated, or with icol2 > 0 the code of the interaction.
// The combined code of an interaction a*b is a * interaction_base + b.
std::int64_t effect_code(const array<double>& dvec, int icol, int icol2);
inline constexpr std::int64_t interaction_base = 1000000000; // larger than any single code (int32)

// Regression row of covariable icov of trait iq at value x: cv_order values (powers of x less its mean, Legendre or spline
// functions).
void covariable_row(int icov, int iq, double x, std::span<double> row);

// True if observation of trait iq (value y) is missing.
bool is_missing(int iq, double y);

} // namespace tarvex
