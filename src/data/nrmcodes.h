// Codes of animals in the data: one reading pass over the records, shared by all steps on pedigrees.
#pragma once
#include <cstdint>
#include <functional>

namespace tarvex {

// Reads the data file and calls visit(irun, icode) for each effect with a relationship matrix (number irun) of each
// trait observed in a record. Blocks of correlated effects have two columns and so two calls. Faults of the data stop
// the run. all_known: a code below 1 is a fault too, told by record and column.
void visit_nrm_codes(const std::function<void(int irun, std::int64_t icode)>& visit, bool all_known = false);

} // namespace tarvex
