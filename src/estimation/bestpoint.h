// The best point on disk: log L and number of parameters, then a record for each block with its covariances.
#pragma once
#include "control/limits.h"
#include "support/array.h"
#include "support/screen.h"

#include <vector>

namespace tarvex {

struct bestpoint_module {
    double xlike_file = invalid_logl; // log L last read from BestPoint
    double xbest = invalid_logl;      // best log L of the run
    array<double> parbest;            // (nparm) its parameters
    bool from_best = false;           // model.cov was read from BestPoint, not given by the user
};
inline bestpoint_module bestpoint;

// Covariances of block irand at bestpoint.parbest in the layout of model.cov; the residual without the PEQ matrix.
std::vector<double> best_covariances(int irand);

// Writes BestPoint (iround 0) or a numbered copy: xbest and the covariances of parbest. `extra` gets the same
// records when not null. Faults are ignored.
void writebestpoint(int iround, text_out* extra = nullptr);

// Reads BestPoint into model.cov and xlike_file; false (and nothing changed but xlike_file = -1e36) when the
// file is missing, short, or of another number of parameters. Unless quiet prints two lines.
bool readbestpoint(bool quiet);

} // namespace tarvex
