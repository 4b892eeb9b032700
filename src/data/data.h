// Data file reader and first scan of the data.
#pragma once
#include "support/array.h"

#include <cstdint>
#include <fstream>
#include <span>
#include <string_view>
#include <vector>

namespace tarvex {

// Open data file. A record is one line of numbers parted by blanks or a comma; blank lines are passed over. Lines that
// begin with '#' are comments at the head of the file only.
struct data_reader {
    std::ifstream in;
    std::vector<char> buffer; // the part of the file in hand: at..end not yet used
    std::size_t at = 0, end = 0;
    int ndatrec = 0; // records read in this pass, skipped ones included
    int nlines = 0;  // lines read in this pass
};
struct datalines_module {
    int told_to = 0;      // last line that has been remarked on
    int nskip_drecs = -1; // comment lines at the head of the data file, -1 until they have been counted
};
inline datalines_module datalines;

// Opens the data file and passes over its comment lines; faults stop the run.
void open_datfile(data_reader& reader);
// Reads one record into dvec (columns from 1; upper bound mudmap.maxcol). iq: trait of the line, 0 with all traits in a
// line. iskip: nothing to be used in the record. Returns false at the end of the file. A line that cannot be read, or
// has fewer values than there are columns, stops the run; values behind the last column are ignored.
bool getrec_dvec(data_reader& reader, array<double>& dvec, int& iq, bool& iskip);
// "***** ERROR : reading data file *****" with the number of records read, and stop.
[[noreturn]] void data_error(int ndatrec);

// First scan: fills means, covmeans, levels, numbers.maxnr; prepares basis functions and, in random regression
// analyses, the tables at the values of the control variables.
void data_scan1st();

// Code of an effect in a record: the value of column icol truncated, or with icol2 > 0 the code of the interaction of
// two columns, first * base + second, where base is the power of ten above the largest second code of the data
// (levels.fx_base and its like). A value that is no 32-bit code gives -1.
std::int64_t effect_code(const array<double>& dvec, int icol, int icol2, std::int64_t base);

// Regression row of covariable icov of trait iq at value x: cv_order values (powers 1, 2, .. of x less its mean;
// Legendre polynomials of degree 1, 2, ..; all functions of a spline).
void covariable_row(int icov, int iq, double x, std::span<double> row);

// True if observation of trait iq (value y) is missing.
bool is_missing(int iq, double y);

// Tells the subjects of a data pass apart: a subject is a run of records with one code in the subject column of their
// trait. A record of a trait without such a column is a subject of its own, and so is every line with all traits of a
// sire model.
struct subject_run {
    std::int64_t icode = 0;
    bool open = false; // the next record may belong to the same subject
};
// True if the record (trait iq, 0 all traits) starts a new subject.
bool starts_subject(subject_run& run, const array<double>& dvec, int iq);

} // namespace tarvex
