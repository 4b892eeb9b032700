#include "reports/apprxaicovs.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "dense/numroutines.h"
#include "estimation/aireml.h"
#include "estimation/estimates.h"
#include "estimation/searchstate.h"
#include "likelihood/derivatives.h"
#include "parameters/parunits.h"
#include "parameters/residualvars.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/record_file.h"
#include "support/stop.h"

#include <cmath>
#include <fstream>
#include <limits>

namespace tarvex {

namespace {

constexpr double largest_discrepancy = 0.01; // between the log L of the information matrix and of the best point

// Information matrix as read, full storage, and the log L that it belongs to. False: no file, or of another run.
bool read_information(array<double, 2>& hess2, double& xl2) {
    const int n = estimates.nparm;
    // a file of this run: from the final point, or from its last iterate
    if (!search_state.saverr_ready && !(search_state.method.aireml && aireml_terms.accepted > 0)) return false;
    std::ifstream in(filenames.aiparsfile);
    const bool closed = !in && file_exists(filenames.aiparsfile);
    if (in) in >> xl2;
    if (closed || in.bad()) stop_with("Error reading file \"" + filenames.aiparsfile + "\"");
    if (!in) return false;
    const double xl1 = bestpoint.xbest;
    // the best point is another than that of the last iterate
    if (std::fabs(xl1 - xl2) > largest_discrepancy) {
        print_list(screen(), "Approximation of sampling covariances failed");
        print_list(screen(), "-> discrepancy in log L too big", xl1, xl2);
        return false;
    }
    allocate("alloc hess2", hess2, n, n);
    int i = 0, j = 0;
    double x = 0.0;
    // elements that the file does not have stay 0
    while (in >> i >> j >> x) {
        if (i < 1 || j < 1 || i > n || j > n) break;
        hess2(i, j) = hess2(j, i) = x;
    }
    if (in.bad()) stop_with("Error reading file \"" + filenames.aiparsfile + "\"");
    return true;
}

// Generalised inverse after scaling to unit diagonal, so that the tolerance does not depend on the units of the traits.
void invert_information(array<double, 2>& a, int n, int& rank) {
    std::vector<double> scale(n, 0.0);
    for (int i = 1; i <= n; ++i)
        // rows without information stay 0
        if (a(i, i) != 0.0) scale[i - 1] = 1.0 / std::sqrt(std::fabs(a(i, i)));
    const auto s = [&](int i) { return scale[i - 1]; };
    std::vector<double> packed(triangle<std::size_t>(n));
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) packed[ihmssf(i, j, n) - 1] = a(i, j) * s(i) * s(j);
    // generalised: directions without information get variance 0, and `rank` tells of them
    double ldet = 0.0;
    gen_inverse(packed, n, numbers.zero, rank, ldet);
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) a(i, j) = a(j, i) = packed[ihmssf(i, j, n) - 1] * s(i) * s(j);
}

// Rows of block irand in linfun: derivatives of its covariances with respect to all parameters.
void block_rows(int irand, array<double, 2>& linfun) {
    array<double, 2> J;
    for (int step = 1; step <= steps_of(irand); ++step) {
        block_jacobian(irand, step, J);
        const int row = cov_start(irand, step), col = block_start(irand, step);
        for (int i = 1; i <= J.upper(1); ++i)
            for (int k = 1; k <= J.upper(2); ++k) linfun(row + i - 1, col + k - 1) = J(i, k);
    }
}

// The residual block of the parameters is a sum with the PEQ matrix: its own covariances depend on both.
void peq_rows(array<double, 2>& linfun) {
    const int irand = residualvars.ipeq, col = block_start(irand);
    array<double, 2> J;
    block_jacobian(irand, 1, J);
    int row = 0;
    for (const peq_place& p : peq_places()) {
        ++row;
        const int at = cov_start(0) - 1 + p.residual;
        // R = (R + PEQ) - PEQ
        for (int k = 1; k <= J.upper(2); ++k) linfun(at, col + k - 1) -= J(row, k);
    }
}

// Residual and PEQ covariance of two traits: log L holds the former plus twice the latter and nothing else of them.
void find_tied() {
    int k = 0;
    for (const peq_place& p : peq_places())
        if (++k; p.i != p.j)
            sampling.tied.emplace_back(cov_start(0) - 1 + p.residual, cov_start(residualvars.ipeq) - 1 + k);
    if (!sampling.tied.empty())
        print_list(screen(),
                   "PEQ effect of several traits: residual and PEQ covariance between traits are in log L as the"
                   " former plus twice the latter - errors of either are withheld; see the word REC");
}

void write_sampling(double xl2) {
    text_out out;
    if (!out.open(filenames.aicovsfile)) return;
    print_list(out, xl2);
    for (int i = 1; i <= estimates.ncovall; ++i)
        for (int j = i; j <= estimates.ncovall; ++j) print_list(out, i, j, sampling.vcov(j, i));
}

// Error from a variance that is a difference of terms of this size: 0 where only their rounding is left, as for a
// correlation that cannot be but 1.
double root_of_difference(double v, double size) {
    constexpr double rounding = 1.0e-10;
    if (size > 0.0 && std::fabs(v) <= rounding * size) return 0.0;
    return v > 0.0 ? std::sqrt(v) : -1.0;
}

} // namespace

void check_usrdefcovs() {
    const auto bad = [](int number, int limit) { return number < 1 || number > limit; };
    bool wrong = false;
    for (const auto& sum : usrdefcovs.addcov)
        for (const auto& t : sum) wrong = wrong || bad(t.isig, estimates.ncov);
    for (const auto& gp : usrdefcovs.igpadd)
        for (int k = 1; k <= (gp[0] == 1 ? 2 : 3); ++k) wrong = wrong || bad(gp[k], estimates.ncovall);
    if (!wrong) return;
    print_list(screen(), " invalid no. in definition of add. cov");
    stoptarvex();
}

void approxai_covs() {
    sampling = {};
    const int nparm = estimates.nparm, nall = estimates.ncovall;
    array<double, 2> hess2, linfun;
    double xl2 = 0.0;
    if (!read_information(hess2, xl2)) return;
    invert_information(hess2, nparm, sampling.rank);
    sampling.varpar.allocate(nparm);
    // of the parameters in the units of the data
    for (int i = 1; i <= nparm; ++i) sampling.varpar(i) = hess2(i, i);
    const std::vector<parameter_unit> units = parameter_units(); // the Jacobians are those of the parameters in use
    for (int i = 1; i <= nparm; ++i)
        for (int j = 1; j <= nparm; ++j) hess2(i, j) /= units[i - 1].factor * units[j - 1].factor;

    // rows: covariances, then the user's sums of them; columns: parameters
    allocate("alloc linfun", linfun, nall, nparm);
    for (int irand = 0; irand <= numbers.krand; ++irand) block_rows(irand, linfun);
    if (residualvars.peqsum) peq_rows(linfun);
    const std::vector<double> cov_units = all_cov_units();
    // covariances into the units of the data too
    for (int c = 1; c <= estimates.ncov; ++c)
        for (int k = 1; k <= nparm; ++k) linfun(c, k) *= cov_units[c - 1];
    for (int i = 1; i <= usrdefcovs.ncovadd; ++i)
        for (const auto& t : usrdefcovs.addcov(i))
            for (int k = 1; k <= nparm; ++k) linfun(estimates.ncov + i, k) += t.factor * linfun(t.isig, k);

    // var(f) = J V J' (delta method)
    array<double, 2> product;
    product.allocate(nparm, nall);
    for (int c = 1; c <= nall; ++c)
        for (int k = 1; k <= nparm; ++k)
            // a covariance depends on the parameters of its own block: most of J is 0
            if (linfun(c, k) != 0.0)
                for (int l = 1; l <= nparm; ++l) product(l, c) += hess2(l, k) * linfun(c, k);
    sampling.vcov.allocate(nall, nall);
    for (int c = 1; c <= nall; ++c)
        for (int d = c; d <= nall; ++d) {
            double s = 0.0;
            for (int l = 1; l <= nparm; ++l) s += linfun(c, l) * product(l, d);
            sampling.vcov(c, d) = sampling.vcov(d, c) = s;
        }
    sampling.available = true;
    write_sampling(xl2);
    find_tied();
}

bool estimable(const cov_function& f) {
    // a function is estimable if it holds residual + 2 PEQ of each tied pair as a whole
    if (sampling.tied.empty()) return true;
    std::vector<double> factor(estimates.ncov, 0.0);
    for (const auto& t : f) {
        if (t.number <= estimates.ncov) {
            factor[t.number - 1] += t.factor;
            continue;
        }
        // a user's sum stands for its terms
        for (const auto& u : usrdefcovs.addcov(t.number - estimates.ncov)) factor[u.isig - 1] += t.factor * u.factor;
    }
    for (const auto& [residual, repeat] : sampling.tied)
        if (factor[repeat - 1] != 2.0 * factor[residual - 1]) return false;
    return true;
}

double function_value(const cov_function& f, const std::vector<double>& cov) {
    double s = 0.0;
    for (const auto& t : f) s += t.factor * cov[t.number - 1];
    return s;
}

double function_covariance(const cov_function& f, const cov_function& g) {
    if (!estimable(f) || !estimable(g)) return std::numeric_limits<double>::quiet_NaN();
    double s = 0.0;
    for (const auto& t : f)
        for (const auto& u : g) s += t.factor * u.factor * sampling.vcov(t.number, u.number);
    return s;
}

double error_of_sum(const cov_function& f) {
    const double v = function_covariance(f, f);
    return v > 0.0 ? std::sqrt(v) : -1.0;
}

double error_of_ratio(const cov_function& a, const cov_function& b, const std::vector<double>& cov) {
    return error_of_ratio(function_value(a, cov), function_value(b, cov), function_covariance(a, a),
                          function_covariance(b, b), function_covariance(a, b));
}

double error_of_correlation(const cov_function& c, const cov_function& a, const cov_function& b,
                            const std::vector<double>& cov) {
    const auto v = function_covariance;
    return error_of_correlation(function_value(c, cov), function_value(a, cov), function_value(b, cov), v(c, c),
                                v(a, a), v(b, b), v(c, a), v(c, b), v(a, b));
}

double error_of_ratio(double a, double b, double vaa, double vbb, double vab) {
    if (!(b > 0.0)) return -1.0;
    // var(a/b), first order; `size` adds up magnitudes, to tell rounding
    const double v = (b * b * vaa + a * a * vbb - 2.0 * a * b * vab) / (b * b * b * b);
    const double size = (b * b * vaa + a * a * vbb + std::fabs(2.0 * a * b * vab)) / (b * b * b * b);
    return root_of_difference(v, size);
}

double error_of_correlation(double c, double a, double b, double vcc, double vaa, double vbb, double vca, double vcb,
                            double vab) {
    if (!(a > 0.0) || !(b > 0.0)) return -1.0;
    // var(c / sqrt(ab)), first order
    const double v = (4.0 * a * a * b * b * vcc + b * b * c * c * vaa + a * a * c * c * vbb -
                      4.0 * a * b * b * c * vca - 4.0 * a * a * b * c * vcb + 2.0 * a * b * c * c * vab) /
                     (4.0 * a * a * a * b * b * b);
    const double size =
        (4.0 * a * a * b * b * vcc + b * b * c * c * vaa + a * a * c * c * vbb + std::fabs(4.0 * a * b * b * c * vca) +
         std::fabs(4.0 * a * a * b * c * vcb) + std::fabs(2.0 * a * b * c * c * vab)) /
        (4.0 * a * a * a * b * b * b);
    return root_of_difference(v, size);
}

} // namespace tarvex
