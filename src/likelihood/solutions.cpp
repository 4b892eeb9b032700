#include "likelihood/solutions.h"

#include "equations/mmequations.h"
#include "equations/orders.h"

namespace tarvex {

void save_solutions() {
    const int neqns = mmequations.neqns;
    if (solutions.solsave.size() != neqns) solutions.solsave.allocate(neqns);
    for (int e = 1; e <= neqns; ++e)
        solutions.solsave(e) = orders.ieqnew(e) > 0 ? solutions.solns(orders.ieqnew(e)) : 0.0;
}

} // namespace tarvex
