#include "likelihood/warnfix.h"

#include "control/numbers.h"
#include "control/options.h"
#include "data/levels.h"
#include "equations/mmequations.h"
#include "equations/orders.h"
#include "likelihood/likelihood.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/screen.h"

#include <string>

namespace tarvex {

namespace {

constexpr double far_limit = 1.0e6; // a variance against that of the data

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

// The random effect that equation ieq belongs to and the level, 0: none.
int random_block(int ieq, int& level) {
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        const int first = mmequations.rn_start(irand);
        // -1: not fitted by equations of its own
        if (first < 0 || ieq <= first || ieq > first + levels.rn_nlev(irand) * nfit(irand)) continue;
        level = (ieq - first - 1) / nfit(irand) + 1;
        return irand;
    }
    return 0;
}

std::string block_words(int irand) {
    return irand == 0 ? std::string("residual") : "random effect \"" + model.krandom(irand) + "\"";
}

// Pivots fall below the operational zero.
bool variances_far_off() {
    for (int irand = 0; irand <= numbers.krand; ++irand)
        // coefficients of random regression are of no trait's scale
        for (int i = 1; i <= model.kkfit(irand) && !(options.randreg && irand > 0); ++i)
            if (variance_at_start(irand, i).far_off()) return true;
    return false;
}

void blame_fixed_part() {
    print_list(screen(), "This indicates that - most likely - this is due to an ");
    print_list(screen(), "unidentified dependency among the fixed effects levels fitted.");
}

void blame_random_part(int irand, int level) {
    print_list(screen(), "The equation belongs to " + block_words(irand) + ", level no.", level);
    if (effective_levels(irand) < levels.rn_nlev(irand))
        print_list(screen(), "Levels of this effect are treated as fixed : one of them depends on the fixed effects !");
    else
        print_list(screen(), "Its starting values do not go with the others - check variances and covariances !");
}

// The last pivot is that of the records: y'Py.
void blame_records() {
    long long n = 0;
    for (int iq = 1; iq <= numbers.nq; ++iq) n += means.nrec(iq);
    if (n <= numbers.nrankx)
        print_list(screen(), "Fixed effects leave nothing of the records : records, rank of the fixed part =", n,
                   numbers.nrankx);
    else
        print_list(screen(), "Records differ by too little for their size - subtract a constant from all of a trait !");
}

} // namespace

bool start_variance::far_off() const { return start > far_limit * found; }

start_variance variance_at_start(int irand, int i) {
    const int trait = irand == 0 ? i : mudmap.rn_trait(i, irand);
    return {trait, model.cov(cov_place(irand, i, i), irand), means.tr_var(trait) * means.tr_var(trait)};
}

void write_reason(int irow) {
    const int ieq = irow >= 1 && irow <= orders.ieqold.upper() ? orders.ieqold(irow) : 0;
    int level = 0;
    const int irand = ieq > 0 ? random_block(ieq, level) : 0;
    if (variances_far_off())
        print_list(screen(), "Starting variances far from those of the data make pivots vanish.");
    else if (irow == numbers.nsrow)
        blame_records();
    else if (irand > 0)
        blame_random_part(irand, level);
    else
        blame_fixed_part();
    print_list(screen(), "Error ocuured at row no.              =", irow);
    print_list(screen(), "Corresponding \"original\" equation no. =", ieq);
    if (ieq > 0) name_effect(ieq);
}

void write_warnfix(int irow) {
    print_list(screen(), "This occurred in first likelihood evaluation attempted.");
    write_reason(irow);
}

} // namespace tarvex
