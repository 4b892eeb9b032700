#include "estimation/pulledstart.h"

#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/levels.h"
#include "estimation/covs2parvec.h"
#include "estimation/evaluate.h"
#include "estimation/lastpoint.h"
#include "estimation/rescue.h"
#include "parameters/parvec.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/screen.h"

#include <cmath>
#include <functional>
#include <vector>

namespace tarvex {

namespace {

constexpr double far = 4.0; // sum of variances against that of the data

int trait_of(int irand, int row) {
    if (irand == 0) return row;
    return options.randreg ? 1 : mudmap.rn_trait(row, irand);
}

// What each block gives to the variance of each trait: [irand][trait - 1].
std::vector<std::vector<double>> variance_shares() {
    std::vector<std::vector<double>> shares;
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        std::vector<double> v(numbers.nq, 0.0);
        for (int step = 1; step <= steps_of(irand); ++step)
            for (int i = 1; i <= model.kkfit(irand); ++i) {
                const double weight = options.randreg && irand > 0 ? basis_mean_square(irand, i) : 1.0;
                // classes of the residual: their mean
                v[trait_of(irand, i) - 1] += weight * model.cov(cov_place(irand, i, i, step), irand) / steps_of(irand);
            }
        shares.push_back(std::move(v));
    }
    return shares;
}

double data_variance(int iq) { return means.tr_var(iq) * means.tr_var(iq); }

// Multiplies row and column i of each block by the root of factor(block, trait of the row).
void scale_start(const std::function<double(int, int)>& factor) {
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        const int n = model.kkfit(irand);
        for (int step = 1; step <= steps_of(irand); ++step)
            for (int i = 1; i <= n; ++i)
                for (int k = i; k <= (model.diagonal(irand) ? i : n); ++k)
                    // rows and columns alike: correlations stay
                    model.cov(cov_place(irand, i, k, step), irand) *=
                        std::sqrt(factor(irand, trait_of(irand, i)) * factor(irand, trait_of(irand, k)));
    }
}

bool any_far(const std::vector<std::vector<double>>& shares, std::vector<double>& sums) {
    sums.assign(numbers.nq, 0.0);
    for (const auto& v : shares)
        for (std::size_t q = 0; q < v.size(); ++q) sums[q] += v[q];
    bool any = false;
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        const double ratio = sums[iq - 1] / data_variance(iq);
        // records without spread, or components without variance
        if (!(data_variance(iq) > 0.0) || !(ratio > 0.0)) return false; // nothing to go by
        any = any || ratio > far || ratio < 1.0 / far;
    }
    return any;
}

// Shares of a trait's variance where all is open: half of it to the residual.
double even_share(const std::vector<std::vector<double>>& shares, int irand, int iq) {
    if (irand == 0) return 0.5 * data_variance(iq);
    int effects = 0;
    for (std::size_t k = 1; k < shares.size(); ++k) effects += shares[k][iq - 1] > 0.0 ? 1 : 0;
    return 0.5 * data_variance(iq) / effects;
}

double value_here() {
    covs2parvec();
    return evaluate_point(estimates.parvec, 0);
}

} // namespace

void pull_start() {
    if (options.continew || model.me_type == residual_kind::fun) return;
    const auto shares = variance_shares();
    std::vector<double> sums;
    if (!any_far(shares, sums)) return;
    const array<double, 2, 0> given = model.cov;
    const double as_given = evaluate_point(estimates.parvec, 0);
    // first the shares as given, with the right sum
    scale_start([&](int, int iq) { return data_variance(iq) / sums[iq - 1]; });
    array<double, 2, 0> best = model.cov;
    double most = value_here();
    model.cov = given;
    // then, if log L likes it better, half to the residual and the rest in equal parts
    scale_start([&](int irand, int iq) {
        const double share = shares[irand][iq - 1];
        return share > 0.0 ? even_share(shares, irand, iq) / share : 1.0;
    });
    if (const double x = value_here(); x > most) {
        most = x;
        best = model.cov;
    }
    // never worse than what the user gave
    model.cov = most > as_given ? best : given;
    covs2parvec();
    if (!(most > as_given)) return;
    if (as_given > invalid_logl)
        print_list(screen(), "Starting values pulled to the variances of the data : log L =", most,
                   "as given :", as_given);
    else
        print_list(screen(), "Starting values pulled to the variances of the data : log L =", most);
}

} // namespace tarvex
