// Listing, checking and pruning of pedigrees, with the report SumPedigree.out.
#pragma once
#include "data/pedigreelist.h"

#include <fstream>
#include <string>

namespace tarvex {

struct ped_reader {
    std::ifstream in;
    std::string line;
    bool held = false; // line is the first record, not yet taken
    int nlines = 0;    // lines read, the one in hand included
};
// Opens the pedigree file and passes over the comment lines at its head. Faults stop the run.
void open_pedfile(ped_reader& reader);
// Next record: 1 read, 0 end of file, -1 a line that cannot be read. A record is one line, blank lines are passed over.
int next_pedrec(ped_reader& reader, long long& ian, long long& idad, long long& imum);

// Message on the first rule that a pedigree record breaks, null for a sound one.
const char* pedrec_fault(long long ian, long long idad, long long imum);
// A line on an animal that is there twice with the same parents.
void warn_repeat(long long ian, int line1, int line2);

// Reads data and pedigree, checks every record, and leaves idvec, jdvec.
void pedigree_list();
// Prunes the pedigree of each relationship matrix, leaves idwec, newno, sire, dam, nannew, writes the statistics.
void secateurs();

} // namespace tarvex
