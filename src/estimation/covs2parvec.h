// The parameter vector of the search: from starting values or the best point, and its changes of scale.
#pragma once

namespace tarvex {

// The start of a search: takes the method in hand (search_state) from the options, and builds estimates.parvec and
// bestpoint.parbest from model.cov on its scale. First call: lays out the parameters; reads BestPoint with
// options.continew. Earlier evaluations are forgotten. Starting matrices that are not positive definite stop the run.
void covs2parvec();
// Within a search: the same from model.cov as it is now, on the scale that search_state.method.em_scale asks for.
void change_scale();

// Turns the diagonals of block irand into logarithms in parvec and parbest without a change of the matrix.
void switch_to_logs(int irand);

} // namespace tarvex
