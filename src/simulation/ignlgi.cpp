#include "simulation/ignlgi.h"

#include "simulation/setall.h"
#include "support/screen.h"
#include "support/stop.h"

namespace tarvex {

int ignlgi() {
    auto& r = randomgen;
    constexpr int m1 = 2147483563, m2 = 2147483399;
    r.qrgnin = true;
    if (!r.qqssd) setall(1234567890, 123456789);
    const int g = r.curntg - 1;
    int s1 = r.cg1[g], s2 = r.cg2[g];
    // s1 = 40014 s1 mod m1 without overflow: m1 = 40014 * 53668 + 12211 (Schrage's method)
    int k = s1 / 53668;
    s1 = 40014 * (s1 - k * 53668) - k * 12211;
    if (s1 < 0) s1 += m1;
    k = s2 / 52774;
    s2 = 40692 * (s2 - k * 52774) - k * 3791;
    if (s2 < 0) s2 += m2;
    r.cg1[g] = s1;
    r.cg2[g] = s2;
    // combination of the two: 1 .. m1 - 1
    int z = s1 - s2;
    if (z < 1) z += m1 - 1;
    return r.qanti[g] ? m1 - z : z;
}

void setcgn(int g) {
    if (g < 1 || g > generators) {
        print_list(screen(), " Generator number out of range in SETCGN:", g);
        print_list(screen(), " Legal range is 1 to ", generators, " -- ABORT!");
        stop(" Generator number out of range in SETCGN");
    }
    randomgen.curntg = g;
}

} // namespace tarvex
