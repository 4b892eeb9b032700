// The parameter vector of the search: from starting values or the best point, and its changes of scale.
#pragma once

namespace tarvex {

// Builds estimates.parvec and bestpoint.parbest from model.cov on the scale that options.emalgorithm asks for. First
// call: lays out the parameters; reads BestPoint with options.continew. Earlier evaluations are forgotten. Starting
// matrices that are not positive definite stop the run.
void covs2parvec();

// Turns the diagonals of block irand into logarithms in parvec and parbest without a change of the matrix.
void switch_to_logs(int irand);

} // namespace tarvex
