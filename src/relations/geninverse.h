// Inverses of relationship matrices that the user supplies.
//
// <effect>.gin, free format: the log determinant of the matrix; then a line for each element of the lower triangle of
// its inverse, row by row: column, row, value. <effect>.codes, optional: running number of a level and its code in the
// data.
#pragma once
#include "relations/inverse_stream.h"
#include "support/vector1.h"

#include <vector>

namespace tarvex {

// Elements of the supplied inverses, kept after the first reading, by random effect ([irand-1]).
struct gin_store_module {
    vector1<std::vector<inverse_element>> elements;
};
inline gin_store_module gin_store;

// Reads and checks the inverse of effect irand: leaves detginv, nnginv, the elements, and widens the effect's table of
// levels where the file has more levels than the data. Faults of the files stop the run.
void check_ginverse(int irand);

} // namespace tarvex
