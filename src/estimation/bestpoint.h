// The best point on disk: log L and number of parameters, then a record for each block with its covariances.
#pragma once
#include "support/screen.h"

#include <vector>

namespace tarvex {

// Covariances of block irand at estimates.parbest in the layout of model.cov; the residual without the PEQ matrix.
std::vector<double> best_covariances(int irand);

// Writes BestPoint (iround 0) or a numbered copy: estimates.xbest and the covariances of parbest. `extra` gets the same
// records when not null. Faults are ignored.
void writebestpoint(int iround, text_out* extra = nullptr);

// Reads BestPoint into model.cov and estimates.xlike_file; false (and nothing changed but xlike_file = -1e36) when the
// file is missing, short, or of another number of parameters. Unless quiet prints two lines.
bool readbestpoint(bool quiet);

} // namespace tarvex
