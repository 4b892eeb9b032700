#include "likelihood/warnfix.h"

#include "control/numbers.h"
#include "data/levels.h"
#include "equations/mmequations.h"
#include "equations/orders.h"
#include "parfile/model.h"
#include "support/screen.h"

namespace tarvex {

namespace {

// The fixed effect that equation ieq (before ordering) belongs to, if any.
void name_effect(int ieq) {
    for (int iq = 1; iq <= numbers.nq; ++iq)
        for (int i = 1; i <= model.nfix(iq); ++i) {
            const int level = ieq - mmequations.fx_start(i, iq), n = levels.fx_nlev(i, iq);
            if (level < 1 || level > n) continue;
            print_list(screen(), "This belongs to fixed effect \"" + model.fixed(i, iq) + "\"");
            print_list(screen(), "and trait no.", iq);
            print_list(screen(), "Problem occurs for level no.          =", level);
            print_list(screen(), "No. of levels fitted for this effect  =", n);
            print_list(screen(), "Check \"fixed\" part of the model carefully !");
            return;
        }
}

} // namespace

void write_warnfix(int irow) {
    const int ieq = irow >= 1 && irow <= orders.ieqold.upper() ? orders.ieqold(irow) : 0;
    print_list(screen(), "This occurred in first likelihood evaluation attempted.");
    print_list(screen(), "This indicates that - most likely - this is due to an ");
    print_list(screen(), "unidentified dependency among the fixed effects levels fitted.");
    print_list(screen(), "Error ocuured at row no.              =", irow);
    print_list(screen(), "Corresponding \"original\" equation no. =", ieq);
    if (ieq > 0) name_effect(ieq);
}

} // namespace tarvex
