#include "simulation/ranf.h"

#include "control/tvxroutines.h"
#include "simulation/ignlgi.h"
#include "support/stop.h"

namespace tarvex {

namespace {

// Tables of the FL method with 5 bits: boundaries a of the centre's intervals, widths d of the tail's, and the
// constants t and h of the rejection within an interval.
constexpr float a[32] = {0.0f,       0.03917609f, 0.07841241f, 0.1177699f, 0.1573107f, 0.1970991f, 0.2372021f,
                         0.2776904f, 0.3186394f,  0.3601299f,  0.4022501f, 0.4450965f, 0.4887764f, 0.5334097f,
                         0.5791322f, 0.626099f,   0.6744898f,  0.7245144f, 0.7764218f, 0.8305109f, 0.8871466f,
                         0.9467818f, 1.00999f,    1.077516f,   1.150349f,  1.229859f,  1.318011f,  1.417797f,
                         1.534121f,  1.67594f,    1.862732f,   2.153875f};
constexpr float d[31] = {0.0f,       0.0f,       0.0f,       0.0f,       0.0f,       0.2636843f, 0.2425085f, 0.2255674f,
                         0.2116342f, 0.1999243f, 0.1899108f, 0.1812252f, 0.1736014f, 0.1668419f, 0.1607967f, 0.1553497f,
                         0.1504094f, 0.1459026f, 0.14177f,   0.1379632f, 0.1344418f, 0.1311722f, 0.128126f,  0.1252791f,
                         0.1226109f, 0.1201036f, 0.1177417f, 0.1155119f, 0.1134023f, 0.1114027f, 0.1095039f};
constexpr float t[31] = {
    0.0007673828f, 0.00230687f, 0.003860618f, 0.005438454f, 0.007050699f, 0.008708396f, 0.01042357f, 0.01220953f,
    0.01408125f,   0.01605579f, 0.0181529f,   0.02039573f,  0.02281177f,  0.02543407f,  0.02830296f, 0.03146822f,
    0.03499233f,   0.03895483f, 0.04345878f,  0.04864035f,  0.05468334f,  0.06184222f,  0.07047983f, 0.08113195f,
    0.09462444f,   0.1123001f,  0.136498f,    0.1716886f,   0.2276241f,   0.330498f,    0.5847031f};
constexpr float h[31] = {0.03920617f, 0.03932705f, 0.03950999f, 0.03975703f, 0.04007093f, 0.04045533f, 0.04091481f,
                         0.04145507f, 0.04208311f, 0.04280748f, 0.04363863f, 0.04458932f, 0.04567523f, 0.04691571f,
                         0.04833487f, 0.04996298f, 0.05183859f, 0.05401138f, 0.05654656f, 0.0595313f,  0.06308489f,
                         0.06737503f, 0.07264544f, 0.07926471f, 0.08781922f, 0.09930398f, 0.1155599f,  0.1404344f,
                         0.1836142f,  0.2790016f,  0.7010474f};

// The value of the centre's interval i (1..31) for the fractional part us of the first draw.
float centre(int i, float us) {
    const float aa = a[i - 1];
    for (;;) {
        // most draws end here: the interval is nearly uniform
        if (us > t[i - 1]) return aa + (us - t[i - 1]) * h[i - 1];
        const float u = ranf();
        const float w = u * (a[i] - aa);
        // exponent of the density's fall within the interval
        float tt = (0.5f * w + aa) * w;
        for (;;) {
            if (us > tt) return aa + w;
            const float next = ranf();
            if (us < next) break;
            tt = next;
            us = ranf();
        }
        us = ranf();
    }
}

// A value of the tail beyond the last boundary; u is the fractional part of the first draw.
float tail(float u) {
    int i = 6;
    float aa = a[31];
    for (;;) {
        // leading bits of the draw choose the interval of the tail
        u += u;
        if (u >= 1.0f) break;
        aa += d[i - 1];
        ++i;
    }
    u -= 1.0f;
    for (;;) {
        const float w = u * d[i - 1];
        float tt = (0.5f * w + aa) * w;
        for (;;) {
            const float us = ranf();
            if (us > tt) return aa + w;
            u = ranf();
            if (us < u) break;
            tt = u;
        }
        u = ranf();
    }
}

} // namespace

float ranf() { return static_cast<float>(ignlgi()) * 4.656613E-10f; }

// the first bit is the sign, the next five the interval, the rest the fraction
float snorm() {
    float u = ranf();
    const float s = u > 0.5f ? 1.0f : 0.0f;
    u = u + u - s;
    u = 32.0f * u;
    int i = static_cast<int>(u);
    // rounding of 32 u in single precision
    if (i == 32) i = 31;
    const float y = i == 0 ? tail(u) : centre(i, u - static_cast<float>(i));
    return s == 1.0f ? -y : y;
}

int irandno(int n) {
    if (n < 1) {
        print_list(screen(), "LOW > HIGH in IGNUIN");
        print_list(screen(), " LOW: ", 1, " HIGH: ", n);
        stop(" Abort on Fatal ERROR");
    }
    constexpr int maxnum = 2147483561;
    if (n > maxnum) {
        print_list(screen(), " ( HIGH - LOW ) > 2,147,483,561 in IGNUIN");
        print_list(screen(), " LOW: ", 1, " HIGH: ", n);
        stop(" Abort on Fatal ERROR");
    }
    if (n == 1) return 1;
    // largest multiple of n: draws above it would favour small numbers
    const int maxnow = maxnum / n * n;
    int z = ignlgi() - 1;
    while (z > maxnow) z = ignlgi() - 1;
    return z % n + 1;
}

} // namespace tarvex
