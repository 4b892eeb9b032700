#include "parfile/model.h"

#include "control/options.h"
#include "parfile/mudmap.h"

namespace tarvex {

int cov_length(int irand) {
    const int n = model.kkfit(irand);
    if (irand > 0 && model.diagonal(irand) != 0) return n;
    return n * (n + 1) / 2 * (irand == 0 ? model.rr_resteps : 1);
}

int nfit(int irand) { return options.principal ? model.krfit(irand) : model.kkfit(irand); }

} // namespace tarvex
