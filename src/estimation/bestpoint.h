// The best point on disk: log L and number of parameters, then a record for each block with its covariances, then a
// line of sums over what the point belongs to and over the file itself (see modelsums.h).
#pragma once
#include "control/limits.h"
#include "support/array.h"
#include "support/screen.h"

#include <string>
#include <string_view>
#include <vector>

namespace tarvex {

struct bestpoint_module {
    double xlike_file = invalid_logl; // log L last read from BestPoint
    double xbest = invalid_logl;      // best log L of the run
    array<double> parbest;            // (nparm) its parameters
    double to_beat = invalid_logl; // log L of the stored point that a continued run has to beat before it is replaced
    bool from_best = false;        // model.cov was read from BestPoint, not given by the user
};
inline bestpoint_module bestpoint;

// Covariances of block irand at bestpoint.parbest in the layout of model.cov; the residual without the PEQ matrix.
std::vector<double> best_covariances(int irand);

// Name of the numbered copy of a round from 1 to 999.
std::string bestpoint_copy(int iround);

// Writes BestPoint (iround 0) or a numbered copy: bestpoint.xbest and the covariances of parbest. `extra` gets the same
// records when not null, without the sums. A BestPoint that cannot be written stops the run.
void writebestpoint(int iround, text_out* extra = nullptr);

// Line of sums behind the records in `text`.
std::string bestpoint_sums(std::string_view text);

// Reads BestPoint into model.cov and bestpoint.xlike_file; false (and nothing changed but xlike_file = -1e36) when the
// file is missing, torn, without its sums, or of another number of parameters. Unless quiet prints two lines. A point
// of another model stops the run; of one on other data only the covariances count: xlike_file stays -1e36.
bool readbestpoint(bool quiet);
// The point that the user asks for by option: says so where there is none, and stops if it was to be reported.
void take_stored_point();

} // namespace tarvex
