#include "simulation/setall.h"

#include "simulation/ignlgi.h"
#include "support/screen.h"
#include "support/stop.h"

namespace tarvex {

namespace {

constexpr int m1 = 2147483563, m2 = 2147483399;
constexpr int a1w = 1033780774, a2w = 1494757890;  // multipliers of a jump by one block
constexpr int a1vw = 2082007225, a2vw = 784306273; // multipliers of a jump to the next generator

} // namespace

// a s mod m; the product fits into 64 bits
int mltmod(int a, int s, int m) {
    if (a <= 0 || a >= m || s <= 0 || s >= m) {
        print_list(screen(), " A, M, S out of order in MLTMOD - ABORT!");
        print_list(screen(), " A = ", a, " S = ", s, " M = ", m);
        stop(" MLTMOD requires: 0 < A < M; 0 < S < M");
    }
    return static_cast<int>(static_cast<long long>(a) * s % m);
}

void initgn(int isdtyp) {
    auto& r = randomgen;
    if (!r.qrgnin) {
        print_list(screen(), " INITGN called before random number generator ");
        print_list(screen(), " initialized -- abort!");
        stop(" INITGN called before random number generator initialized");
    }
    const int g = r.curntg - 1;
    // -1: back to the first seed, 1: on to the next block, 0: back to the start of this one
    if (isdtyp == -1) {
        r.lg1[g] = r.ig1[g];
        r.lg2[g] = r.ig2[g];
    } else if (isdtyp == 1) {
        r.lg1[g] = mltmod(a1w, r.lg1[g], m1);
        r.lg2[g] = mltmod(a2w, r.lg2[g], m2);
    } else if (isdtyp != 0)
        stop("ISDTYP NOT IN RANGE in INITGN");
    r.cg1[g] = r.lg1[g];
    r.cg2[g] = r.lg2[g];
}

void setall(int iseed1, int iseed2) {
    auto& r = randomgen;
    r.qqssd = true;
    r.qrgnin = true;
    const int current = r.curntg;
    r.ig1[0] = iseed1;
    r.ig2[0] = iseed2;
    // each generator begins far behind the one before
    for (int g = 1; g <= generators; ++g) {
        const int k = g - 1;
        if (g > 1) {
            r.ig1[k] = mltmod(a1vw, r.ig1[k - 1], m1);
            r.ig2[k] = mltmod(a2vw, r.ig2[k - 1], m2);
        }
        setcgn(g);
        initgn(-1);
    }
    setcgn(current);
}

} // namespace tarvex
