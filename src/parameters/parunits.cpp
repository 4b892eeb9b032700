#include "parameters/parunits.h"

#include "control/numbers.h"
#include "control/options.h"
#include "data/levels.h"
#include "data/units.h"
#include "parameters/parvec.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"

#include <algorithm>
#include <cmath>

namespace tarvex {

void set_units_from_covariances() {
    means.unit.allocate(numbers.nq);
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        // variance of the trait, all components added up: all that is known of its scale without the data
        double v = 0.0;
        for (int irand = 0; irand <= numbers.krand; ++irand)
            for (int i = 1; i <= model.kkfit(irand); ++i) {
                // random regression: coefficients of all traits share one unit
                const int trait = options.randreg ? 1 : irand == 0 ? i : mudmap.rn_trait(i, irand);
                if (trait == iq) v += model.cov(cov_place(irand, i, i), irand);
            }
        means.unit(iq) = unit_for(std::sqrt(std::max(v, 0.0)));
    }
}

double row_unit(int irand, int i) {
    if (options.randreg) return trait_unit(1);
    return trait_unit(irand == 0 ? i : mudmap.rn_trait(i, irand));
}

double cov_unit(int irand, int i, int j) { return row_unit(irand, i) * row_unit(irand, j); }

std::vector<double> block_units(int irand) {
    std::vector<double> u;
    const int n = model.kkfit(irand);
    for (int step = 1; step <= steps_of(irand); ++step)
        for (int i = 1; i <= n; ++i)
            for (int j = i; j <= (model.diagonal(irand) ? i : n); ++j) u.push_back(cov_unit(irand, i, j));
    return u;
}

std::vector<double> all_cov_units() {
    std::vector<double> all;
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        const std::vector<double> u = block_units(irand);
        all.insert(all.end(), u.begin(), u.end());
    }
    return all;
}

std::vector<double> covariance_units() {
    std::vector<double> units(estimates.nparm, 1.0);
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        if (estimates.nnparm(irand) == 0) continue;
        const std::vector<double> u = block_units(irand);
        std::copy(u.begin(), u.end(), units.begin() + block_start(irand) - 1);
    }
    return units;
}

namespace {

// Factor columns of a block in the order of the parameters.
void factor_units(int irand, int step, std::vector<parameter_unit>& units) {
    const int n = model.kkfit(irand), rank = model.diagonal(irand) ? n : model.krfit(irand);
    std::size_t at = block_start(irand, step) - 1;
    for (int c = 1; c <= rank; ++c)
        for (int r = c; r <= (model.diagonal(irand) ? c : n); ++r, ++at) {
            const int row = model.diagonal(irand) ? r : estimates.cholorder((step - 1) * n + r, irand);
            // log(q u) = log q + log u: a unit shifts a logarithm
            if (r == c && estimates.logdiagonals(irand))
                units[at].shift = std::log(row_unit(irand, row));
            else
                units[at].factor = row_unit(irand, row);
        }
}

} // namespace

std::vector<parameter_unit> parameter_units() {
    std::vector<parameter_unit> units(estimates.nparm);
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        if (estimates.nnparm(irand) == 0) continue;
        if (estimates.paraform(irand) == par_scale::original) {
            std::size_t at = block_start(irand) - 1;
            for (double u : block_units(irand)) units[at++].factor = u;
            continue;
        }
        for (int step = 1; step <= steps_of(irand); ++step) factor_units(irand, step, units);
    }
    return units;
}

} // namespace tarvex
