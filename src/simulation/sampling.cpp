#include "simulation/sampling.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/levels.h"
#include "data/pedigreelist.h"
#include "dense/numroutines.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "relations/inbreeding.h"
#include "relations/nrminverse.h"
#include "simulation/ranf.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <cmath>
#include <string>

namespace tarvex {

namespace {

// Share of the variance that Mendelian sampling adds, and the parents' contributions.
struct pedigree_rule {
    double share, by_sire, by_dam;
};

pedigree_rule animal_rule(const array<double, 2>& f, int irun, int s, int d) {
    if (s > 0 && d > 0) return {0.5 - 0.25 * (f(s, irun) + f(d, irun)), 0.5, 0.5};
    if (s > 0) return {0.75 - 0.25 * f(s, irun), 0.5, 0.0};
    if (d > 0) return {0.75 - 0.25 * f(d, irun), 0.0, 0.5};
    return {1.0, 0.0, 0.0};
}

// Sires with the sire and the maternal grandsire known or not; inbreeding is not considered.
pedigree_rule sire_rule(int s, int m) {
    if (s > 0 && m > 0) return {s == m ? 0.4375 : 0.6875, 0.5, 0.25};
    if (s > 0) return {0.75, 0.5, 0.0};
    if (m > 0) return {0.9375, 0.0, 0.25};
    return {1.0, 0.0, 0.0};
}

void block_factor(int irand, array<double, 2>& chol) {
    const int n = model.kkfit(irand);
    if (!model.diagonal(irand)) return mvnormal_initial(n, model.cov.column(irand), chol);
    allocate("all chol", chol, n, n);
    for (int i = 1; i <= n; ++i) chol(i, i) = std::sqrt(std::max(model.cov(i, irand), 0.0));
}

[[noreturn]] void cannot_simulate(int irand) {
    print_list(screen(), "Cannot simulate data for this random effect : ", model.krandom(irand), irand,
               " with covariance structure  ", mudmap.kovrnd(irand));
    stoptarvex();
}

void sample_block(int irand, std::vector<double>& u, std::vector<double>& total) {
    const bool nrm = mudmap.kovrnd(irand) == "NRM";
    if (!nrm && mudmap.kovrnd(irand) != "IDE") cannot_simulate(irand);
    const int n = model.kkfit(irand), nlev = levels.rn_nlev(irand), irun = mudmap.iranno(irand);
    const auto width = static_cast<std::size_t>(n);
    array<double, 2> chol;
    block_factor(irand, chol);
    if (nrm && !options.siremodel) compute_inbreeding(irun); // where the inverse was taken over from an earlier run
    const array<double, 2>& f = nrminverse.inbreed;
    u.assign(static_cast<std::size_t>(nlev) * width, 0.0);
    std::vector<double> w(width);
    for (int l = 1; l <= nlev; ++l) {
        mvnormal_draw(n, chol, w);
        for (int i = 1; i <= n; ++i)
            for (int j = i; j <= n; ++j)
                total[static_cast<std::size_t>(ihmssf(i, j, n) - 1)] +=
                    w[static_cast<std::size_t>(i - 1)] * w[static_cast<std::size_t>(j - 1)];
        double* ul = u.data() + static_cast<std::size_t>(l - 1) * width;
        if (!nrm) {
            for (std::size_t k = 0; k < width; ++k) ul[k] = w[k];
            continue;
        }
        const auto at = static_cast<std::size_t>(l - 1);
        const int s = pedigreelist.sire(irun)[at], d = pedigreelist.dam(irun)[at];
        const pedigree_rule rule = options.siremodel ? sire_rule(s, d) : animal_rule(f, irun, s, d);
        const double root = std::sqrt(rule.share);
        for (std::size_t k = 0; k < width; ++k) {
            const double from_sire = s > 0 ? u[static_cast<std::size_t>(s - 1) * width + k] : 0.0;
            const double from_dam = d > 0 ? u[static_cast<std::size_t>(d - 1) * width + k] : 0.0;
            ul[k] = root * w[k] + rule.by_sire * from_sire + rule.by_dam * from_dam;
        }
    }
}

// Nothing is left of row j but rounding: its column of the factor is zero.
bool dependent_row(int n, int j, std::span<const double> sig, const array<double, 2>& chol) {
    constexpr double negligible = 1.0e-5;
    const auto element = [&](int i, int k) { return sig[static_cast<std::size_t>(ihmssf(i, k, n) - 1)]; };
    for (int i = j + 1; i <= n; ++i) {
        double s = element(j, i);
        for (int k = 1; k < j; ++k) s -= chol(i, k) * chol(j, k);
        if (std::fabs(s) > negligible * std::sqrt(std::fabs(element(i, i) * element(j, j)))) return false;
    }
    return true;
}

} // namespace

void mvnormal_initial(int n, std::span<const double> sig, array<double, 2>& chol) {
    allocate("all chol", chol, n, n);
    constexpr double vanishing = 1.0e-10; // of its diagonal element: the matrix is deficient there
    for (int j = 1; j <= n; ++j) {
        const double diagonal = sig[static_cast<std::size_t>(ihmssf(j, j, n) - 1)];
        double pivot = diagonal;
        for (int k = 1; k < j; ++k) pivot -= chol(j, k) * chol(j, k);
        if (std::fabs(pivot) <= vanishing * std::fabs(diagonal) && dependent_row(n, j, sig, chol)) continue;
        if (!(pivot > 0.0)) {
            print_list(screen(), "***** Routine \"MVNORMAL_INITIAL\": negative/small pivot encountered");
            print_list(screen(), "      No. of effects    =", n);
            print_list(screen(), "      Pivot no.         =", j, pivot);
            for (int i = 1; i <= n; ++i) {
                std::string row;
                for (int k = 1; k <= n; ++k)
                    row += (k > 1 ? " " : "") +
                           list_item(sig[static_cast<std::size_t>(ihmssf(std::min(i, k), std::max(i, k), n) - 1)]);
                screen().line(row);
            }
            stoptarvex();
        }
        chol(j, j) = std::sqrt(pivot);
        for (int i = j + 1; i <= n; ++i) {
            double s = sig[static_cast<std::size_t>(ihmssf(j, i, n) - 1)];
            for (int k = 1; k < j; ++k) s -= chol(i, k) * chol(j, k);
            chol(i, j) = s / chol(j, j);
        }
    }
}

void mvnormal_draw(int n, const array<double, 2>& chol, std::span<double> x) {
    for (int i = 1; i <= n; ++i) x[static_cast<std::size_t>(i - 1)] = static_cast<double>(snorm());
    for (int i = n; i >= 1; --i) { // from the last row, so that the draws can be replaced in place
        double s = 0.0;
        for (int k = 1; k <= i; ++k) s += chol(i, k) * x[static_cast<std::size_t>(k - 1)];
        x[static_cast<std::size_t>(i - 1)] = s;
    }
}

void sample_randeffs(random_samples& u, std::vector<std::vector<double>>& simtot) {
    const auto krand = static_cast<std::size_t>(numbers.krand);
    u.resize(krand);
    if (simtot.size() != krand) {
        simtot.resize(krand);
        for (int irand = 1; irand <= numbers.krand; ++irand)
            simtot[static_cast<std::size_t>(irand - 1)].assign(
                static_cast<std::size_t>(model.kkfit(irand) * (model.kkfit(irand) + 1) / 2), 0.0);
    }
    for (int irand = 1; irand <= numbers.krand; ++irand)
        sample_block(irand, u[static_cast<std::size_t>(irand - 1)], simtot[static_cast<std::size_t>(irand - 1)]);
}

} // namespace tarvex
