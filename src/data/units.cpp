#include "data/units.h"

#include "control/numbers.h"
#include "data/levels.h"
#include "support/screen.h"

#include <algorithm>
#include <cmath>

namespace tarvex {

namespace {

constexpr double most_doublings = 400.0;                     // squares of units stay finite
constexpr double ordinary_low = 0.25, ordinary_high = 512.0; // standard deviations that are left as they are

} // namespace

double trait_unit(int iq) { return means.unit.upper() >= iq ? means.unit(iq) : 1.0; }

bool any_unit() {
    return std::any_of(means.unit.begin(), means.unit.end(), [](double u) { return u != 1.0; });
}

double unit_for(double sdev) {
    // ordinary data are left alone: their results do not change by a bit
    if (!(sdev > 0.0) || !std::isfinite(sdev) || (sdev >= ordinary_low && sdev <= ordinary_high)) return 1.0;
    // a power of two: no digit of an observation is lost
    return std::exp2(std::clamp(std::round(std::log2(sdev)), -most_doublings, most_doublings));
}

void set_units() {
    means.unit.allocate(numbers.nq);
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        means.unit(iq) = unit_for(means.tr_var(iq));
        if (means.unit(iq) == 1.0) continue;
        print_list(screen(), "Trait no.", iq, ": worked out in units of", means.unit(iq),
                   "; reports and files hold the units of the data");
    }
}

} // namespace tarvex
