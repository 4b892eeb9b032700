#include "reports/finalpoint.h"

#include "control/numbers.h"
#include "control/options.h"
#include "data/levels.h"
#include "dense/numroutines.h"
#include "estimation/bestpoint.h"
#include "estimation/estimates.h"
#include "estimation/lastpoint.h"
#include "likelihood/derivatives.h"
#include "likelihood/likelihood.h"
#include "parameters/parunits.h"
#include "parameters/parvec.h"
#include "parameters/residualvars.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "reports/covblocks.h"

#include <Eigen/Eigenvalues>

#include <algorithm>
#include <cmath>

namespace tarvex {

namespace {

using matrix = Eigen::MatrixXd;
using column = Eigen::VectorXd;

// The thresholds are those of the verdict.
constexpr double small_variance = vanished_variance, high_correlation = 1.0 - vanished_correlation;
constexpr double gone = 1.0e-4; // eigenvalue of a correlation matrix

bool on_factor_scale(int irand) {
    return irand > 0 && options.principal && mudmap.kovrnd(irand) != covariance_kind::peq;
}

// Covariances of one class of a block as a matrix; for block 0 without what a PEQ effect takes.
matrix block_of(int irand, int step) {
    const std::vector<double> cov = best_covariances(irand);
    const int n = model.kkfit(irand);
    matrix k = matrix::Zero(n, n);
    // classes follow each other in the list
    std::size_t at = cov_place(irand, 1, 1, step) - 1;
    for (int i = 0; i < n; ++i)
        for (int j = i; j < (model.diagonal(irand) ? i + 1 : n); ++j) k(i, j) = k(j, i) = cov[at++];
    return k;
}

// Phenotypic variance that row i of a block is compared with.
double phenotypic(int irand, int i, const std::vector<double>& cov) {
    const int iq = options.randreg ? 1 : irand == 0 ? i : mudmap.rn_trait(i, irand);
    // coefficients are compared with the variance of the data
    if (options.randreg) return means.tr_var.upper() >= iq ? means.tr_var(iq) * means.tr_var(iq) : 1.0;
    return function_value(phenotypic_covariance(iq, iq), cov);
}

constexpr double least_size = 1.0e-300; // nothing is divided by 0
constexpr double named_share = 0.1;     // of the largest: coefficients of a flat combination that are listed

// The block scaled to unit diagonal, but for small variances: one at the border has a diagonal of vanished_correlation.
matrix scaled(const matrix& k, int irand, const std::vector<double>& cov, column& scale) {
    const auto n = k.rows();
    scale.resize(n);
    for (Eigen::Index i = 0; i < n; ++i) {
        const double floor =
            small_variance / vanished_correlation * std::fabs(phenotypic(irand, static_cast<int>(i) + 1, cov));
        scale(i) = std::sqrt(std::max({k(i, i), floor, least_size}));
    }
    return scale.cwiseInverse().asDiagonal() * k * scale.cwiseInverse().asDiagonal();
}

void border_of(int irand, int step, const std::vector<double>& cov) {
    const matrix k = block_of(irand, step);
    const int n = static_cast<int>(k.rows());
    auto& list = final_point.border;
    const std::size_t before = list.size();
    for (int i = 1; i <= n; ++i) {
        const double part = k(i - 1, i - 1) / phenotypic(irand, i, cov);
        // not a number counts as small
        if (!(part >= small_variance)) list.push_back({irand, step, "variance", i, i, part});
    }
    if (model.diagonal(irand) || n < 2) return;
    for (int i = 1; i <= n; ++i)
        for (int j = i + 1; j <= n; ++j) {
            const double r = k(i - 1, j - 1) / std::sqrt(k(i - 1, i - 1) * k(j - 1, j - 1));
            // at rank 1 all correlations are 1
            if (std::fabs(r) > high_correlation && model.krfit(irand) > 1)
                list.push_back({irand, step, "correlation", i, j, r});
        }
    if (list.size() > before) return;
    column scale;
    const column eig = Eigen::SelfAdjointEigenSolver<matrix>(scaled(k, irand, cov, scale)).eigenvalues();
    // ascending: the first n - rank have to be 0
    for (int r = n - model.krfit(irand); r < n; ++r)
        if (eig(r) < gone) list.push_back({irand, step, "eigenvalue", 0, 0, eig(r)});
}

// Coordinates of the parameter vector without information of their own are left out.
bool informative(Eigen::Index k, const matrix& info) { return info(k, k) > 0.0; }

// Rank of the information scaled to unit diagonal, and what its null vectors combine.
void rank_of(const matrix& info, const column& size) {
    std::vector<Eigen::Index> use;
    for (Eigen::Index k = 0; k < info.rows(); ++k)
        if (informative(k, info)) use.push_back(k);
    auto& f = final_point;
    f.estimated = static_cast<int>(use.size());
    if (use.empty()) return;
    // unit diagonal, as in the verdict
    const column s = info(use, use).diagonal().cwiseSqrt().cwiseInverse();
    const Eigen::SelfAdjointEigenSolver<matrix> own(s.asDiagonal() * info(use, use) * s.asDiagonal());
    for (Eigen::Index k = 0; k < own.eigenvalues().size(); ++k) {
        if (own.eigenvalues()(k) > flat_information * own.eigenvalues().maxCoeff()) {
            ++f.rank;
            continue;
        }
        // back to parameters, each by its own size: coefficients compare
        const column d = (own.eigenvectors().col(k).cwiseProduct(s)).cwiseQuotient(size(use));
        std::vector<flat_item> items;
        const double most = d.cwiseAbs().maxCoeff();
        for (Eigen::Index l = 0; l < d.size(); ++l)
            if (std::fabs(d(l)) > named_share * most) items.push_back({f.names[use[l]], d(l) / most});
        f.flat.push_back(items);
    }
}

// Name and size of each coordinate: covariances by the root of the product of their variances.
void name_coordinates(const std::vector<double>& cov, column& size) {
    auto& names = final_point.names;
    names.resize(estimates.nparm);
    for (int i = 1; i <= estimates.nparm; ++i) names[i - 1] = estimates.parnames(i);
    size = column::Ones(estimates.nparm);
    for (int irand = 0; irand <= numbers.krand; ++irand)
        for (int step = 1; step <= steps_of(irand); ++step) {
            // elements of a factor keep the names of their parameters, and size 1
            if (on_factor_scale(irand) || estimates.nnparm(irand) == 0) continue;
            const int n = model.kkfit(irand), start = cov_start(irand, step);
            int k = block_start(irand, step) - 1, number = start;
            for (int i = 1; i <= n; ++i)
                for (int j = i; j <= (model.diagonal(irand) ? i : n); ++j, ++k, ++number) {
                    names[k] = estimates.covnames(number);
                    size(k) = std::sqrt(std::fabs(phenotypic(irand, i, cov) * phenotypic(irand, j, cov)));
                }
        }
}

// Units of the quantities that derivatives are taken with respect to: covariances, or elements of factors.
std::vector<double> derivative_units() {
    if (!options.principal) return covariance_units();
    std::vector<double> units(estimates.nparm, 1.0);
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        if (estimates.nnparm(irand) == 0) continue;
        auto at = static_cast<std::size_t>(block_start(irand) - 1);
        if (!on_factor_scale(irand))
            for (const double u : block_units(irand)) units[at++] = u;
        else
            for (int k = 1; k <= block_size(irand); ++k) units[at++] = row_unit(irand, factor_element(irand, 1, k).row);
    }
    return units;
}

} // namespace

void look_at_final_point() {
    final_point = {};
    auto& f = final_point;
    const std::vector<double> cov = all_covariances();
    // the border needs no derivatives
    for (int irand = 0; irand <= numbers.krand; ++irand)
        for (int step = 1; step <= steps_of(irand); ++step) border_of(irand, step, cov);
    if (estimates.nparm == 0 || !average_info_available()) return;
    // best point: the last one may have been a trial
    estimates.parvec = bestpoint.parbest;
    forget_factor(); // the verdict has used it up
    if (!loglike(estimates.parvec, 1).valid) return;
    judge_last_point();
    jacob_var2chol(0);
    const int n = estimates.nparm;
    column g(n), size;
    matrix info(n, n);
    double norm = 0.0;
    const std::vector<double> units = derivative_units();
    const auto unit = [&](int i) { return units[i - 1]; };
    for (int i = 1; i <= n; ++i) {
        // by covariances (or elements of factors) in the units of the data; the norm is that of the search
        g(i - 1) = derivs.devl1(i) / unit(i);
        norm += derivs.der1(i) * derivs.der1(i);
        for (int j = i; j <= n; ++j)
            info(i - 1, j - 1) = info(j - 1, i - 1) = -derivs.devl2(ihmssf(i, j, n)) / (unit(i) * unit(j));
    }
    f.available = true;
    f.gradient_norm = std::sqrt(norm);
    f.gradient.assign(g.data(), g.data() + n);
    f.information.assign(info.data(), info.data() + info.size());
    name_coordinates(cov, size);
    rank_of(info, size);
    f.half_decrement = verdict.last.promised;
}

} // namespace tarvex
