// The part of the inbreeding coefficients of a stretch of the pedigree that comes in through its border.
#pragma once
#include "relations/sweep_order.h"
#include "support/tasks.h"

#include <vector>

namespace tarvex {

// Relationships are dyadic fractions: those of animals x and y, whose longest lines of ancestors have l(x) and l(y)
// generations, are multiples of 2 to the power of -(l(x)+l(y)). Up to this sum they are exact in 32 bits. So are, in 16
// bits, those with a sum up to 15, shares within up to 15 generations, and ways up as many.
constexpr int most_levels = 30;
// Border animals swept together up to this sum, or twice as many where 16 bits do, and above it.
constexpr int wide_panel = 16, narrow_panel = 8;

// Adds to F of the animals of the stretch half of the sum over border animals y of a(dam,y) t(sire,y).
//   d      Mendelian sampling variances by animal from [1], of all animals older than the stretch
//   level  generations in the longest line of ancestors, by animal from [1]
//   pool   threads that take part: parts of the border, whose sums are added up in a fixed order
//   f      by animal, from [0]
void add_through_border(const sweep_order& o, const std::vector<double>& d, const std::vector<int>& level,
                        task_pool& pool, std::vector<double>& f);

} // namespace tarvex
