// Order of the equations in the factorisation.
#pragma once
#include "support/array.h"
#include "support/digest.h"

#include <array>
#include <limits>

namespace tarvex {

struct orders_module {
    // 0 automatic, 1 multiple minimum degree, 2 approximate minimum degree, 3 METIS, -3 search, 4 SCOTCH, 5 METIS with
    // heavy rows last
    int order_type = 0;
    std::array<int, 8> metis_opts{};
    double race_from = 5.0e7; // operations from which further orders are tried
    double race_price = 1.0;  // their price, in that of the table of entrants
    array<int> ieqnew;        // (neqns+1) old equation to new, 0 if taken out; entry neqns+1 is the right-hand side
    array<int> ieqold;        // (neqns+1) new equation to old
    array<int> invprm;        // (nsrow)   full-rank number to place
    array<int> ivperm;        // (nsrow)   place to full-rank number
    array<int> jeq;           // (neqns)   running number among the equations that stay, 0 for the others
    int maxspa = std::numeric_limits<int>::max(); // most subscripts of a structure
    digest links;                                 // of the pattern in use: links_sum
    int nsymb = 0;   // counts symbolic structures made in this run: cached positions belong to one of them
    int nlisted = 0; // the structure (nsymb then) whose numbers recoded3.bin has
};
inline orders_module orders;

} // namespace tarvex
