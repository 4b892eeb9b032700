// Choice of the order of the equations.
//
// eqnsorder.bin: neqns, neq_fix, neq_rnd, neq_cov | nq, nsrow, nrankx, lim1, krand,
// krfit(0:krand) | nofsub, maxlnz, nnops, order_type | metis_opts(8), for METIS orders (codes 3 and 5) only | invprm |
// ivperm, both for the equations that stay; the seal has links_sum. OperationCounts gets a line for each order that is
// tried.
#pragma once

namespace tarvex {

// An order as eqnsorder.bin has it: subscripts of its method, and operations of a factorisation.
struct order_made {
    int nofsub = 0;
    double operations = 0.0;
};

// Chooses the order, lays out the factor, and leaves the maps in `orders`; sets numbers.nbase and numbers.nsrow.
// Takes over the order and the structure of an earlier run where they fit this one. Otherwise, where no method was
// named and the order chosen by size takes orders.race_from operations or more, further ones are raced against it.
void eqnorders();
// Anew in mid-run, with the covariances in hand (residualvars, randomvars); the numeric store takes the new size.
// Writes no file: keep_order does so later.
order_made redo_eqnorders();
// Files of the order in hand: recoded3.bin (new_eqnnos), eqnsorder.bin and symbfact.bin for later runs, and a line in
// OperationCounts.
void keep_order(const order_made& made);

// Ordering method and METIS settings by the number of equations, unless the user has chosen one (returns true).
bool choose_method();

} // namespace tarvex
