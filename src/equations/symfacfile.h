// The file of the symbolic factorisation, from which a later run with the same equations takes it over.
//
// symbfact.bin: neqns, nsrow, maxlnz, maxsub, steps | ieqnew(neqns+1) | ivperm(nsrow, the right-hand side last) |
// ixvec1(nsrow+1) | ixvec2(nsrow) | ixsub in records of `steps` subscripts, the rest in a last one if there is any.
// The seal has a sum over the pattern (orders.links) and the order.
#pragma once

namespace tarvex {

// Writes symbfact.bin for the structure in `sparse` and the maps in `orders`.
void write_symfac();

// Reads symbfact.bin into `sparse`. lfound: the file is there, sound, and belongs to the order and the maps in
// `orders`.
void read_symfac(bool& lfound);

} // namespace tarvex
