#include "basis/legendre.h"

#include "control/options.h"
#include "support/screen.h"
#include "support/stop.h"

#include <cmath>

namespace tarvex {

void setup_legendre(int nord) {
    auto& [nleg, leg, legmask, xpow] = legpolynomials;
    // elements of the other parity and above the degree stay 0, as allocate leaves them
    allocate("alloc leg", leg, nord, nord);
    allocate("alloc leg", legmask, nord, nord);
    allocate("alloc leg", xpow, nord);
    nleg = nord;
    for (int n = 0; n < nord; ++n) {
        // c = binomial(2n,n) / 2^n at m = 0; the next power down takes the ratio of neighbouring terms.
        double c = 1.0;
        for (int k = 1; k <= n; ++k) c *= (n + k) / (2.0 * k);
        for (int m = 0; 2 * m <= n; ++m) {
            const int power = n - 2 * m;
            // normalised: sqrt((2n+1)/2), so that the integral of the square over (-1,1) is 1
            leg(power + 1, n + 1) = c * std::sqrt(n + 0.5);
            legmask(power + 1, n + 1) = 1;
            c *= -static_cast<double>(power) * (power - 1) / (2.0 * (m + 1) * (2 * n - 2 * m - 1));
        }
    }
    if (options.details) print_list(screen(), "END setup_legendre");
}

void legendre_row(double x, std::span<double> row) {
    auto& [nleg, leg, legmask, xpow] = legpolynomials;
    const int nord = static_cast<int>(row.size());
    if (nord > nleg) stop("legendre");
    // powers first; a polynomial has every other one, as the mask says
    for (int k = 1; k <= nord; ++k) xpow(k) = k == 1 ? 1.0 : xpow(k - 1) * x;
    for (int j = 1; j <= nord; ++j) {
        double sum = 0.0;
        for (int k = 1; k <= j; ++k)
            if (legmask(k, j) != 0) sum += leg(k, j) * xpow(k);
        row[j - 1] = sum;
    }
}

} // namespace tarvex
