// An order of the equations by the method that has been chosen.
#pragma once
#include "sparse/order_methods.h"

namespace tarvex {

// Fills orders.invprm and orders.ivperm for the pattern in linked_list (numbers.nbase rows, no right-hand side) by the
// method |orders.order_type|. nofsub: upper limit to the subscripts of the structure, or the fill, as the method tells
// it; 0: not told. A refusal of the method stops the run, and so does want of memory.
void find_order(int& nofsub);

// The pattern in linked_list as a graph; stops where there is no memory for it.
order_graph equations_graph();
// Puts an order into invprm and ivperm.
void take_order(const node_order& order);

} // namespace tarvex
