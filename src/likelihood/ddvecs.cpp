#include "likelihood/ddvecs.h"

#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "data/rowlayout.h"
#include "parameters/randomvars.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/stop.h"

#include <algorithm>

namespace tarvex {

void dpositions() {
    const int nq = numbers.nq;
    allocate("alloc kkst", ddvecs.kkst, maxrand + 1, nq);
    ddvecs.maxeff = 0;
    for (int iq = 1; iq <= nq; ++iq) {
        // fixed effects and the mean come first; then position_width places for each random effect
        int from = lead_positions(iq) + 1;
        for (int j = 1; j <= maxrand + 1; ++j) {
            ddvecs.kkst(j, iq) = from;
            if (j <= model.nrnd(iq)) from += position_width(j, iq);
        }
        ddvecs.maxeff = std::max(ddvecs.maxeff, from - 1);
    }
    allocate("alloc dd", ddvecs.dd, std::max(ddvecs.maxeff, 1), nq);
}

void dvec_combs_muv() {
    if (!ddvecs.kkst.allocated()) dpositions();
    // weight 1: an effect itself; with equations of the factor its row for the trait
    ddvecs.dd.fill(1.0);
    if (!options.principal || options.randreg || !randomvars.zig.allocated()) return;
    for (int iq = 1; iq <= numbers.nq; ++iq)
        for (int j = 1; j <= model.nrnd(iq); ++j) {
            const int irand = mudmap.rn_irand(j, iq), place = mudmap.rn_place(j, iq);
            const int from = ddvecs.kkst(j, iq), to = ddvecs.kkst(j + 1, iq);
            for (int p = from; p < to; ++p) ddvecs.dd(p, iq) = randomvars.zig(place, p - from + 1, irand);
        }
}

} // namespace tarvex
