// Recoding of the data into binary records, and the reading of these records.
//
// recoded1.bin, for each subject: the head in form A to E, then xcov(:,:kk) and icov(:,:kk) as two records if the model
// has covariables (mcov > 0), then ieqnr(:,:kk), then iraand(:,:nobs) with superai.
//   A  one trait, no random regression, maxnr 1:  yvec(1)                          (icombi 1, nobs 1, kk 1)
//   B  one trait, no random regression:           icombi, nobs, kk, yvec(:nobs)
//   C  several traits, no random regression:      icombi, nobs, kk, ynq(:nobs), yvec(:nobs)
//   D  one trait, random regression:              nobs, yvec(:nobs), imeta(:,:nobs)  (kk = nobs, icombi 0)
//   E  several traits, random regression:         icombi, nobs, ynq(:nobs), yvec(:nobs), imeta(:,:nobs)
// recoded2.bin: nr, jvec(:nr) in equation numbers before ordering; recoded3.bin: the same after ordering.
// Observations of a subject are sorted by trait, those of one trait as they come. imeta has one row for
// each of the control variables rrcontrol, 0 where the trait has not got it. Integers are 32 bits, reals 64 bits.
#pragma once
#include "data/datavecs.h"
#include "data/recodedsums.h"
#include "support/record_file.h"
#include "support/vector1.h"

#include <string>
#include <string_view>
#include <vector>

namespace tarvex {

// Where the equations of each effect start, in the numbering of mmequations.h.
struct equation_starts {
    const array<int, 2>& covariables; // (maxcov,nq)
    const array<int, 2>& fixed;       // (maxfix,nq)
    const array<int>& random;         // (krand)
    const array<int>& means;          // (nq) the equation itself
    int neqns;                        // equations
};

// Reads the data once more and writes recoded1.bin and recoded2.bin; sets numbers.nsubject, numbers.maxnreq,
// combinations.
void data_recode(const equation_starts& starts);

// Reading pass over the recoded subjects. Several may go on at a time.
struct recdata_pass {
    record_reader heads;   // recoded1.bin
    record_reader lists;   // recoded2.bin or recoded3.bin
    subject_record record; // the subject in hand; sizes that belong to all (mrow, mcov, nmeta) from the start
    std::string lists_name;
    int nsubject = 0; // subjects in front of the next one
    int most = 0;     // largest number of an equation
    std::vector<std::uint64_t>* list_sums = nullptr;
    std::vector<int> controls; // levels of each control variable
    // Levels of the subject's animals (--super): no pass over the data needs them, but they are what was written.
    std::vector<int> iraand;
};
// Where a subject begins in both files.
struct recdata_place {
    std::uint64_t heads = 0, lists = 0;
    int nsubject = 0; // subjects in front of it
};
recdata_place place_of_next(const recdata_pass& pass);
void go_to(recdata_pass& pass, const recdata_place& place);
// Allocates the record of the pass and opens the files: `lists_file` is filenames.recdatfil2 or recdatfil3. Faults stop
// the run.
void setup_recdata(recdata_pass& pass, const std::string& lists_file);
// Reads the next subject. False at the end. Records that are not what was written (recodedsums.h) or do not fit
// this run, and an end before the last subject, stop the run.
bool next_subject(recdata_pass& pass);

// Number of the pattern of records with `mark(iq)` records of trait iq; adds it if new (at most maxcombi). Counts the
// subject in ncomb_subj and ncomb_pairs.
void combination_no(int& icombi, int nq, const array<int>& mark);

// Binary search of a code in an ascending list: its level, 0 if not found.
int find_code(std::int64_t icode, const vector1<std::int64_t>& list);
// Message on a code that is not in the list and stop. kind: 'r' random, 'f' fixed, 'e' extra effect, 'm' control
// variable.
[[noreturn]] void not_found(char kind, std::string_view name, std::int64_t icode, int nlev);

} // namespace tarvex
