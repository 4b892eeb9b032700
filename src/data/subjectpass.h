// Pass over the records of the data file, those of a subject one after the other.
//
// Without a SUBject line in the model, and with SUBject LINE, records come as they stand in the file. With SUBject and
// columns all records are held in memory and put together by subject: subjects in the order of their first records, the
// records of each as they stand in the file.
#pragma once
#include "data/data.h"

#include <cstddef>
#include <vector>

namespace tarvex {

struct subject_pass {
    data_reader reader;
    subject_run run;
    bool sorted = false;
    int record = 0; // number of the record in hand among those with an observation, in the order of the file
    std::vector<double> values; // of all records, mudmap.maxcol each
    std::vector<int> trait;     // [record-1] trait of the line, 0 all
    std::vector<int> line;      // [record-1] records read up to it, skipped ones included
    std::vector<int> group;     // [record-1] number of its subject
    std::vector<int> order;     // records by subject
    std::size_t at = 0;         // of them taken
};

// Opens the data file; faults stop the run.
void open_subjects(subject_pass& pass);
// Next record with at least one observation. iq: trait of the line, 0 all. starts: it is the first of its subject.
bool next_record(subject_pass& pass, array<double>& dvec, int& iq, bool& starts);

} // namespace tarvex
