#include "simulation/sampling.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/levels.h"
#include "data/pedigreelist.h"
#include "dense/numroutines.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "relations/animalnrm.h"
#include "relations/geninverse.h"
#include "relations/inbreeding.h"
#include "relations/nrminverse.h"
#include "simulation/ranf.h"
#include "sparse/lsqrank.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <cmath>
#include <string>

namespace tarvex {

namespace {

pedigree_rule animal_rule(const array<double, 2>& f, int irun, int s, int d) {
    // D = 1/2 - (F_s + F_d)/4; 3/4 - F/4 with one parent known
    if (s > 0 && d > 0) return {0.5 - 0.25 * (f(s, irun) + f(d, irun)), 0.5, 0.5};
    if (s > 0) return {0.75 - 0.25 * f(s, irun), 0.5, 0.0};
    if (d > 0) return {0.75 - 0.25 * f(d, irun), 0.0, 0.5};
    return {1.0, 0.0, 0.0};
}

// Draws of the effects of a block for a level: w = Q z, Q triangular or, at reduced rank, the loadings.
struct block_draws {
    bool cut = false;
    array<double, 2> q;

    explicit block_draws(int irand) : cut(options.principal && model.krfit(irand) < model.kkfit(irand)) {
        const int n = model.kkfit(irand);
        if (cut) {
            array<int> order;
            if (start_factor(irand, q, order)) return;
            // the full matrix is factorised, which
            cut = false; // tells of the negative pivot and stops
        }
        if (!model.diagonal(irand)) {
            mvnormal_initial(n, model.cov.column(irand), q);
            return;
        }
        allocate("all chol", q, n, n);
        // a diagonal block: a variance of 0 draws zeros
        for (int i = 1; i <= n; ++i) q(i, i) = std::sqrt(std::max(model.cov(i, irand), 0.0));
    }
    void draw(std::span<double> w) const {
        if (!cut) return mvnormal_draw(static_cast<int>(w.size()), q, w);
        std::vector<double> z(q.upper(2));
        for (double& x : z) x = static_cast<double>(snorm());
        for (int i = 1; i <= q.upper(1); ++i) {
            double s = 0.0;
            for (int c = 1; c <= q.upper(2); ++c) s += q(i, c) * z[c - 1];
            w[i - 1] = s;
        }
    }
};

[[noreturn]] void cannot_simulate(int irand) {
    print_list(screen(), "Cannot simulate data for this random effect : ", model.krandom(irand), irand,
               " with covariance structure  ", mudmap.kovrnd(irand));
    stoptarvex();
}

// Animals (or sires) from their parents: w holds the draws and becomes the effects, parents first.
void follow_pedigree(int irand, std::vector<double>& w) {
    const int n = model.kkfit(irand), nlev = levels.rn_nlev(irand), irun = mudmap.iranno(irand);
    const std::size_t width = n;
    if (!options.siremodel) compute_inbreeding(irun); // where the inverse was taken over from an earlier run
    const array<double, 2>& f = nrminverse.inbreed;
    // u = half of the parents' u + sqrt(D) w: parents stand in front
    for (int l = 1; l <= nlev; ++l) {
        const std::size_t at = l - 1;
        const int s = pedigreelist.sire(irun)[at], d = pedigreelist.dam(irun)[at];
        const pedigree_rule rule = options.siremodel ? sire_rule(s, d) : animal_rule(f, irun, s, d);
        const double root = std::sqrt(rule.share);
        double* ul = w.data() + at * width;
        for (std::size_t k = 0; k < width; ++k) {
            const double from_sire = s > 0 ? w[width * (s - 1) + k] : 0.0;
            const double from_dam = d > 0 ? w[width * (d - 1) + k] : 0.0;
            ul[k] = root * ul[k] + rule.by_sire * from_sire + rule.by_dam * from_dam;
        }
    }
}

// Levels whose relationships are given by their inverse. Its factor is formed for each replicate anew: that takes less
// time than writing the data.
void follow_inverse(int irand, std::vector<double>& w) {
    const int nlev = levels.rn_nlev(irand);
    const std::size_t width = model.kkfit(irand);
    normal_equations a(nlev);
    for (const inverse_element& e : gin_store.elements(irand))
        if (e.row == e.col)
            a.diag[e.row - 1] += e.value;
        else
            a.add(e.row - 1, e.col - 1, e.value);
    a.finish();
    const row_factor factor = factor_of(a);
    for (int j = 1; j <= factor.n; ++j) {
        const std::size_t k = j;
        constexpr double vanishing = 1.0e-10; // of the diagonal: the units of an inverse are the user's
        if (factor.pivot[k] > vanishing * a.diag[factor.eq[k]]) continue;
        print_list(screen(),
                   "***** ERROR : Inverse of effect \"" + model.krandom(irand) + "\" is not positive definite - level",
                   factor.eq[k] + 1);
        cannot_simulate(irand);
    }
    std::vector<double> x(nlev);
    for (std::size_t k = 0; k < width; ++k) {
        for (std::size_t l = 0; l < x.size(); ++l) x[l] = w[l * width + k];
        sample_inverse(factor, x);
        for (std::size_t l = 0; l < x.size(); ++l) w[l * width + k] = x[l];
    }
}

void sample_block(int irand, std::vector<double>& u, std::vector<double>& total) {
    const covariance_kind kov = mudmap.kovrnd(irand);
    const int n = model.kkfit(irand), nlev = levels.rn_nlev(irand);
    const std::size_t width = n;
    u.assign(width * nlev, 0.0);
    if (kov == covariance_kind::peq && options.randreg) cannot_simulate(irand);
    if (kov == covariance_kind::peq) return; // comes with the residuals
    const block_draws draws(irand);
    for (int l = 1; l <= nlev; ++l) {
        const std::span<double> w(u.data() + width * (l - 1), width);
        draws.draw(w);
        for (int i = 1; i <= n; ++i)
            for (int j = i; j <= n; ++j)
                // of the draws themselves: what covariances were simulated from
                total[ihmssf(i, j, n) - 1] += w[i - 1] * w[j - 1];
    }
    if (kov == covariance_kind::nrm) follow_pedigree(irand, u);
    if (kov == covariance_kind::gin) follow_inverse(irand, u);
}

// Nothing is left of row j but rounding: its column of the factor is zero.
bool dependent_row(int n, int j, std::span<const double> sig, const array<double, 2>& chol) {
    constexpr double negligible = 1.0e-5;
    const auto element = [&](int i, int k) { return sig[ihmssf(i, k, n) - 1]; };
    // what is left of the elements below the pivot
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
        const double diagonal = sig[ihmssf(j, j, n) - 1];
        double pivot = diagonal;
        for (int k = 1; k < j; ++k) pivot -= chol(j, k) * chol(j, k);
        // a variance that follows from the others: its column stays 0
        if (std::fabs(pivot) <= vanishing * std::fabs(diagonal) && dependent_row(n, j, sig, chol)) continue;
        if (!(pivot > 0.0)) {
            print_list(screen(), "***** Routine \"MVNORMAL_INITIAL\": negative/small pivot encountered");
            print_list(screen(), "      No. of effects    =", n);
            print_list(screen(), "      Pivot no.         =", j, pivot);
            for (int i = 1; i <= n; ++i) {
                std::string row;
                for (int k = 1; k <= n; ++k) row += (k > 1 ? " " : "") + list_item(sig[packed_place(i, k, n) - 1]);
                screen().line(row);
            }
            stoptarvex();
        }
        chol(j, j) = std::sqrt(pivot);
        for (int i = j + 1; i <= n; ++i) {
            double s = sig[ihmssf(j, i, n) - 1];
            for (int k = 1; k < j; ++k) s -= chol(i, k) * chol(j, k);
            chol(i, j) = s / chol(j, j);
        }
    }
}

void mvnormal_draw(int n, const array<double, 2>& chol, std::span<double> x) {
    for (int i = 1; i <= n; ++i) x[i - 1] = static_cast<double>(snorm());
    for (int i = n; i >= 1; --i) { // from the last row, so that the draws can be replaced in place
        double s = 0.0;
        for (int k = 1; k <= i; ++k) s += chol(i, k) * x[k - 1];
        x[i - 1] = s;
    }
}

void sample_randeffs(random_samples& u, std::vector<std::vector<double>>& simtot) {
    const std::size_t krand = numbers.krand;
    u.resize(krand);
    if (simtot.size() != krand) {
        simtot.resize(krand);
        for (int irand = 1; irand <= numbers.krand; ++irand)
            simtot[irand - 1].assign(triangle(model.kkfit(irand)), 0.0);
    }
    for (int irand = 1; irand <= numbers.krand; ++irand) sample_block(irand, u[irand - 1], simtot[irand - 1]);
}

} // namespace tarvex
