// Layout of a row of the design, as the recoded records hold it and as the assembly reads it.
//
// Row of trait iq: fixed effects 1..nfix(iq), the trait's mean if one is fitted, then the random effects in the order
// of the trait's model. A random effect takes as many positions as it has fitted components (principal runs) or
// regression coefficients (1 in other analyses); an effect of type PEQ takes none, as it has no equations.
#pragma once

namespace tarvex {

int lead_positions(int iq);        // positions in front of the random effects
int position_width(int i, int iq); // positions of random effect i of trait iq
int row_length(int iq);            // all positions of a row of trait iq
int max_row_length();              // the largest over traits
int covariable_width(int iq);      // regression values of a row of trait iq
int max_covariable_width();

} // namespace tarvex
