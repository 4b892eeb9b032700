// A part of a study: the analysis of some of its traits, as a study of its own.
#pragma once
#include "tvx/study.h"

#include <string>
#include <vector>

namespace tvx {

// Writes the analysis of the traits `numbers` (ascending) of a study read with its tables into `folder`, as study
// "analysis": records of these traits, their part of the parameter file that now stands there, keys and pedigree. The
// traits are numbered anew from 1. analysis.par is written last, and only if anything has changed since.
void write_part(const study& s, const std::vector<int>& numbers, const std::string& folder);

} // namespace tvx
