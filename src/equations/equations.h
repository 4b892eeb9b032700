// Equation numbering, before and after ordering.
#pragma once
namespace tarvex {
void equation_nos();       // fills mmequations, starts ieqzero
void equation_nos_full();  // rn_start_full, neqns_full: every effect at full rank
void new_eqnnos();         // recoded2.bin -> recoded3.bin by orders.ieqnew
} // namespace tarvex
