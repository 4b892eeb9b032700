#include "parameters/variances.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/levels.h"
#include "data/units.h"
#include "dense/numroutines.h"
#include "parameters/parunits.h"
#include "parameters/parvec.h"
#include "parameters/pivotedfactor.h"
#include "parameters/residualvars.h"
#include "parameters/zeropattern.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace tarvex {

namespace {

constexpr double log_at_start = 0.625; // factor diagonals below it go to the log scale when a block is built
constexpr double log_in_run = 0.25;    // ... and below it ask for the switch during the iterations
constexpr double log_low = -9.0, log_high = 22.0;
constexpr double eigen_floor = 1.0e-4;     // smallest eigenvalue of a block on the "Original" scale
constexpr double shrink_accuracy = 1.0e-4; // of the share to which covariances are shrunk
constexpr double rounding = 1.0e-10;       // a negative pivot against the largest variance
constexpr double pivot_floor = 0.0005;     // pivot of its factor when it is smaller than numbers.zero

// A variance function of the control variable stands for the residual: no covariances of its own.
bool empty_block(int irand) { return irand == 0 && model.rr_resteps > 1 && model.me_type == residual_kind::fun; }

int step_covs(int irand) { return empty_block(irand) ? 0 : matrix_covs(irand); }

std::string label(const edit_form& form, const std::string& letter, std::initializer_list<int> places) {
    const std::vector<int> list(places);
    std::string s = edit(form, letter, list);
    // the end of the line
    s.pop_back();
    return s;
}

constexpr edit_form covs_form{"(4hCOVS,1x,a,2i2)"};
constexpr edit_form covs_step_form{"(4hCOVS,1x,a,3i2)"};
constexpr edit_form chol_form{"(4hCHOL,1x,a,2i2)"};
constexpr edit_form chol_step_form{"(4hCHOL,1x,a,3i2)"};

std::string block_letter(int irand) { return std::string(1, std::string("ZABCDEFGHIJKLM").at(irand)); }

void count_parameters() {
    auto& e = estimates;
    const int krand = numbers.krand;
    allocate("all nnparm", e.nnparm, krand);
    e.nparm = e.npeqparm = e.ncov = 0;
    for (int irand = 0; irand <= krand; ++irand) {
        e.nnparm(irand) = steps_of(irand) * block_size(irand);
        e.ncov += steps_of(irand) * step_covs(irand);
        if (irand == 0) e.nresparm = e.nnparm(0);
        if (irand > 0 && mudmap.kovrnd(irand) == covariance_kind::peq) {
            e.npeqparm = e.nnparm(irand);
            residualvars.ipeq = irand;
            residualvars.peqsum = true;
        }
        e.nparm += e.nnparm(irand);
    }
    // residual and PEQ parameters stand together at the head
    e.nrespeq = e.nresparm + e.npeqparm;
    e.ncovall = e.ncov + usrdefcovs.ncovadd;
}

void allocate_parameters() {
    auto& e = estimates;
    const int krand = numbers.krand;
    allocate("all parname", e.parnames, e.nparm);
    allocate("all parname", e.covnames, e.ncovall);
    allocate("all paraform", e.paraform, krand);
    allocate("all paraform", e.logdiagonals, krand);
    allocate("all paraform", e.switchlog, krand);
    allocate("all nnparm", e.parvec, e.nparm);
    allocate("all nnparm", e.logpar, e.nparm);
    allocate("all nnparm", e.ispar, e.nparm);
    e.ispar.fill(1);
    auto& r = residualvars;
    for (auto* a : {&r.fixres, &r.given_zero}) allocate("alloc fixres", *a, steps_of(0) * step_covs(0));
    for (int k = 1; k <= r.given_zero.upper(); ++k) r.given_zero(k) = model.cov(k, 0) == 0.0 ? 1 : 0;
    int longest = 0;
    for (int irand = 0; irand <= krand; ++irand) longest = std::max(longest, steps_of(irand) * model.kkfit(irand));
    allocate("all paraform", e.cholorder, longest, krand);
    for (int irand = 0; irand <= krand; ++irand) {
        for (int step = 1; step <= steps_of(irand); ++step)
            for (int i = 1; i <= model.kkfit(irand); ++i) e.cholorder((step - 1) * model.kkfit(irand) + i, irand) = i;
        e.logdiagonals(irand) =
            // options know seven blocks apart, the last stands for all behind it
            !options.nologd && (model.diagonal(irand) || options.logdia[std::min(irand, 7)]) ? 1 : 0;
    }
    e.allocated = true;
}

void choose_scale(bool em) {
    const bool pc = options.principal;
    for (int irand = 0; irand <= numbers.krand; ++irand)
        // EM works on covariances, but with the equations of the factor its random effects have loadings
        estimates.paraform(irand) = em && (irand == 0 || !pc) ? par_scale::original
                                    : pc                      ? par_scale::cholesky
                                                              : par_scale::variance;
}

void label_parameters() {
    for (int irand = empty_block(0) ? 1 : 0; irand <= numbers.krand; ++irand) {
        const bool factor = estimates.paraform(irand) != par_scale::original;
        const int n = model.kkfit(irand), rank = factor ? model.krfit(irand) : n, steps = steps_of(irand);
        const std::string letter = block_letter(irand);
        for (int step = 1; step <= steps; ++step) {
            int ipar = block_start(irand, step);
            if (model.diagonal(irand)) {
                for (int i = 1; i <= n; ++i)
                    estimates.parnames(ipar++) = label(factor ? chol_form : covs_form, letter, {i, i});
                continue;
            }
            for (int i = 1; i <= rank; ++i)
                for (int j = i; j <= n; ++j)
                    estimates.parnames(ipar++) =
                        steps > 1 ? label(factor ? chol_step_form : covs_step_form, letter, {i, j, step})
                                  : label(factor ? chol_form : covs_form, letter, {i, j});
        }
    }
}

void label_covariances() {
    for (int irand = empty_block(0) ? 1 : 0; irand <= numbers.krand; ++irand) {
        const int n = model.kkfit(irand), steps = steps_of(irand);
        const std::string letter = block_letter(irand);
        for (int step = 1; step <= steps; ++step) {
            int k = cov_start(irand, step);
            for (int i = 1; i <= n; ++i)
                for (int j = i; j <= (model.diagonal(irand) ? i : n); ++j)
                    estimates.covnames(k++) =
                        steps > 1 ? label(covs_step_form, letter, {i, j, step}) : label(covs_form, letter, {i, j});
        }
    }
    for (int i = 1; i <= usrdefcovs.ncovadd; ++i)
        estimates.covnames(estimates.ncov + i) = usrdefcovs.addcovname(i).substr(0, 14);
}

// Variances that are positive, and yet too small for a pivot.
void tell_small_variances(int irand) {
    for (int step = 1; step <= steps_of(irand); ++step)
        for (int i = 1; i <= model.kkfit(irand); ++i) {
            const double start = model.cov(cov_place(irand, i, i, step), irand);
            if (!(start > 0.0) || start / cov_unit(irand, i, i) >= numbers.zero) continue;
            print_list(screen(),
                       "   Starting variance below the operational zero : \"" +
                           (irand == 0 ? "residual" : model.krandom(irand)) + "\", no.",
                       i, ":", start);
        }
}

[[noreturn]] void invalid_start(int irand, int kfit, int row, double pivot) {
    print_list(screen(), "***** Routine \"CHOLESKY\": negative/small pivot encountered");
    print_list(screen(), "      Random effect no. =", irand);
    print_list(screen(), "      No. of effects    =", kfit);
    print_list(screen(), "      Pivot no.         =", row, pivot);
    print_list(screen(), "Matrix of starting values is \"invalid\" ");
    print_list(screen(), " - change, making sure matrix is positive definite !");
    print_list(screen(), "   (check that UPPER triangle of matrix is given)");
    tell_small_variances(irand);
    stoptarvex();
}

bool any_fixres() {
    return std::any_of(residualvars.fixres.begin(), residualvars.fixres.end(), [](int f) { return f != 0; });
}

// Zeros of the residual block survive in its factor in the order of the traits, in one that is made to keep them, or by
// its completion in any.
bool pivot_by_size(int irand) {
    return estimates.reorder && (irand > 0 || residualvars.pivot_zeros || residualvars.filled || !any_fixres());
}

void block_order(int irand, int step, array<int>& order) {
    const int n = model.kkfit(irand);
    order.allocate(n);
    for (int i = 1; i <= n; ++i) order(i) = estimates.cholorder((step - 1) * n + i, irand);
}
void keep_order(int irand, int step, const array<int>& order) {
    const int n = model.kkfit(irand);
    for (int i = 1; i <= n; ++i) estimates.cholorder((step - 1) * n + i, irand) = order(i);
}

void transform_diagonal(int irand, const double* cc, double floor_pivot, array<double>& parvec) {
    const int n = model.kkfit(irand), from = block_start(irand);
    if (!options.nologd) estimates.logdiagonals(irand) = 1;
    for (int i = 1; i <= n; ++i) {
        double pivot = cc[i - 1];
        if (!(pivot >= numbers.zero)) {
            if (floor_pivot <= 0.0) invalid_start(irand, n, i, pivot);
            pivot = floor_pivot;
        }
        const double root = std::sqrt(pivot);
        estimates.logpar(from + i - 1) = estimates.logdiagonals(irand);
        parvec(from + i - 1) = estimates.logdiagonals(irand) ? std::log(root) : root;
    }
}

// A matrix that the user gives must be positive definite.
void check_start(int irand, const double* cc) {
    const int n = model.kkfit(irand);
    if (model.diagonal(irand)) {
        for (int i = 1; i <= n; ++i)
            if (!(cc[i - 1] >= numbers.zero)) invalid_start(irand, n, i, cc[i - 1]);
        return;
    }
    // largest pivots first: definite or not does not depend on the order of the traits
    array<int> order;
    order.allocate(n);
    for (int i = 1; i <= n; ++i) order(i) = i;
    array<double, 2> factor;
    double bad = 0.0;
    const int at = pivoted_factor(cc, n, n, true, 0.0, bad, factor, order);
    if (at > 0) invalid_start(irand, n, at, bad);
}

void transform_original(int irand, const double* cc, double floor_pivot, array<double>& parvec) {
    const int steps = steps_of(irand), length = steps * step_covs(irand), from = block_start(irand);
    for (int k = 0; k < length; ++k) {
        parvec(from + k) = cc[k];
        estimates.logpar(from + k) = 0;
    }
    // inside a search small pivots are mended, and solutions at given matrices take these as they are
    if (floor_pivot > 0.0 || options.blup) return;
    for (int step = 1; step <= steps; ++step) check_start(irand, cc + (step - 1) * step_covs(irand));
}

// Factor of each step, its pivot order kept; a small diagonal in any of them turns the block to logarithms.
vector1<array<double, 2>> factor_steps(int irand, const double* cc, double floor_pivot) {
    const int n = model.kkfit(irand), rank = model.krfit(irand), steps = steps_of(irand);
    vector1<array<double, 2>> factors(steps);
    bool small = false;
    for (int step = 1; step <= steps; ++step) {
        auto& factor = factors(step);
        array<int> order;
        block_order(irand, step, order);
        // an order of an earlier point need not keep the zeros
        if (irand == 0 && any_fixres())
            for (int i = 1; i <= n; ++i) order(i) = i;
        double bad = 0.0;
        zero_pattern zeros;
        const bool keep = irand == 0 && residualvars.pivot_zeros;
        if (keep) zeros = residual_zeros(step);
        const int at = pivoted_factor(cc + (step - 1) * step_covs(irand), n, rank, pivot_by_size(irand), floor_pivot,
                                      bad, factor, order, keep ? &zeros : nullptr);
        if (at > 0) invalid_start(irand, n, at, bad);
        keep_order(irand, step, order);
        // all steps of a block are on one scale
        for (int c = 1; c <= rank; ++c) small = small || std::fabs(factor(order(c), c)) < log_at_start;
    }
    if (small && !options.nologd) estimates.logdiagonals(irand) = 1;
    return factors;
}

// Columns of a factor into parvec, rows in pivot order.
void take_factor(int irand, int step, const array<double, 2>& factor, array<double>& parvec) {
    array<int> order;
    block_order(irand, step, order);
    int ipar = block_start(irand, step);
    // columns one after the other, each from its diagonal down
    for (int c = 1; c <= model.krfit(irand); ++c)
        for (int r = c; r <= model.kkfit(irand); ++r, ++ipar) {
            const bool log = r == c && estimates.logdiagonals(irand);
            const bool held = irand == 0 && r > c && residual_held(step, order(r), order(c));
            estimates.logpar(ipar) = log ? 1 : 0;
            // no parameter: 0 in the factor too, or what completes it
            if (irand == 0) estimates.ispar(ipar) = held ? 0 : 1;
            parvec(ipar) = log ? std::log(factor(order(c), c)) : held ? 0.0 : factor(order(r), c);
        }
}

// Adds the PEQ matrix, spread over the traits that fit it, to the residual triangle.
void add_peq(std::vector<double>& res) {
    int k = 0;
    for (const peq_place& p : peq_places()) res[p.residual - 1] += model.cov(++k, residualvars.ipeq);
}

// Covariances in the units in which the traits are worked out.
void divide_by_units(int irand, std::vector<double>& cc) {
    const std::vector<double> units = block_units(irand);
    for (std::size_t k = 0; k < units.size(); ++k) cc[k] /= units[k];
}

void factor_to_matrix(const array<double, 2>& vv, int n, int rank, array<double>& cc) {
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) {
            double s = 0.0;
            for (int c = 1; c <= rank; ++c) s += vv(i, c) * vv(j, c);
            cc(ihmssf(i, j, n)) = s;
        }
}

// One diagonal element of a factor from its parameter: clamps, exponential, mark for the switch to logarithms.
double factor_diagonal(array<double>& parvec, int ipar, int irand) {
    double& p = parvec(ipar);
    if (estimates.logdiagonals(irand)) {
        p = std::clamp(p, log_low, log_high);
        estimates.logpar(ipar) = 1;
        return std::exp(p);
    }
    const double least = std::sqrt(numbers.zero);
    // the sign stays: that of a column is free, and a search may be about to cross 0
    if (std::fabs(p) < least) p = p < 0.0 ? -least : least;
    if (std::fabs(p) < log_in_run && !options.nologd) estimates.switchlog(irand) = 1;
    return p;
}

void from_factor(array<double>& parvec, int irand, int step, array<double>& cc, array<double, 2>& vv) {
    const int n = model.kkfit(irand), rank = model.krfit(irand);
    int ipar = block_start(irand, step);
    vv.allocate(n, rank);
    if (model.diagonal(irand)) {
        for (int i = 1; i <= rank; ++i) vv(i, i) = factor_diagonal(parvec, ipar++, irand);
    } else {
        array<int> order;
        block_order(irand, step, order);
        // rows come in the order of pivots
        for (int c = 1; c <= rank; ++c) {
            vv(order(c), c) = factor_diagonal(parvec, ipar++, irand);
            for (int r = c + 1; r <= n; ++r) vv(order(r), c) = parvec(ipar++);
        }
        if (irand == 0 && residualvars.filled) complete_factor(residual_zeros(step), order, vv);
    }
    factor_to_matrix(vv, n, rank, cc);
}

// Matrix with the covariances multiplied by `share`, and how many of its eigenvalues are below the floor.
int count_small(const array<double>& cc, int n, double share) {
    array<double, 2> a = unpack(cc.prefix(triangle(n)), n), vectors;
    array<double> eig;
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j)
            if (i != j) a(i, j) *= share;
    int nzero = 0;
    eigem(a, eig, vectors, n, eigen_floor, nzero);
    return nzero;
}

// Raises eigenvalues below the floor, in the matrix only.
void raise_matrix(array<double>& cc, int n) {
    array<double, 2> a = unpack(cc.prefix(triangle(n)), n);
    if (!raise_eigenvalues(a, n, n, eigen_floor)) return;
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) cc(ihmssf(i, j, n)) = a(i, j);
}

// The same where covariances are held at 0: raised eigenvalues would spread into these. Variances are raised to twice
// the floor, and all covariances shrunk as far as it takes.
void raise_beside_zeros(array<double>& cc, int n, int step) {
    for (int k = 1; k <= triangle(n); ++k)
        if (residualvars.fixres((step - 1) * step_covs(0) + k)) cc(k) = 0.0;
    if (count_small(cc, n, 1.0) == 0) return;
    for (int i = 1; i <= n; ++i) cc(ihmssf(i, i, n)) = std::max(cc(ihmssf(i, i, n)), 2.0 * eigen_floor);
    double low = 0.0, high = 1.0;
    // low always fits, high does not: variances alone are above the floor
    if (count_small(cc, n, 1.0) == 0) low = 1.0;
    while (high - low > shrink_accuracy) {
        const double middle = 0.5 * (low + high);
        (count_small(cc, n, middle) == 0 ? low : high) = middle;
    }
    for (int i = 1; i <= n; ++i)
        for (int j = i + 1; j <= n; ++j) cc(ihmssf(i, j, n)) *= low;
}

void from_original(array<double>& parvec, int irand, int step, array<double>& cc, array<double, 2>& vv) {
    const int n = model.kkfit(irand), from = block_start(irand, step);
    if (model.diagonal(irand)) {
        cc.fill(0.0);
        vv.allocate(n, n);
        for (int i = 1; i <= n; ++i) {
            double v = parvec(from + i - 1);
            // solutions at given matrices take them as they are
            if (!options.blup) v = std::max(v, eigen_floor);
            cc(ihmssf(i, i, n)) = v;
            vv(i, i) = std::sqrt(std::max(v, 0.0));
        }
        return;
    }
    // parvec itself is not raised: a maximiser sees log L flat beyond, damage_control moves its point
    for (int k = 1; k <= triangle(n); ++k) cc(k) = parvec(from + k - 1);
    if (!options.blup && irand == 0 && any_fixres())
        raise_beside_zeros(cc, n, step);
    else if (!options.blup)
        raise_matrix(cc, n);
    array<int> order;
    order.allocate(n);
    for (int i = 1; i <= n; ++i) order(i) = i;
    double bad = 0.0;
    // a factor is wanted in any case: pivots that vanish are lifted in it, not in cc
    pivoted_factor(cc.data(), n, n, true, pivot_floor, bad, vv, order);
}

bool occur_together(int i, int j) { return means.pairs(packed_place(i, j, numbers.nq)) > 0; }

// True if trait i or j of a flagged pair is recorded together with a trait before it.
bool linked_to_earlier(int i, int j) {
    // then the pivot of k fills in the element (i,j) of the factor
    for (int k = 1; k < j; ++k) {
        if (k < i && occur_together(k, i)) return true;
        if (k != i && occur_together(k, j)) return true;
    }
    return false;
}

} // namespace

int block_size(int irand) {
    if (empty_block(irand)) return 0;
    if (model.diagonal(irand)) return model.kkfit(irand);
    // columns of n, n-1, ... elements
    return model.krfit(irand) * (2 * model.kkfit(irand) - model.krfit(irand) + 1) / 2;
}

factor_place factor_element(int irand, int step, int k) {
    if (model.diagonal(irand)) return {k, k};
    const int n = model.kkfit(irand);
    int c = 1;
    // columns have n, n-1, ... elements; rows are named by the order of pivots
    for (int length = n; k > length; ++c, --length) k -= length;
    return {estimates.cholorder((step - 1) * n + c + k - 1, irand), c};
}

int block_start(int irand, int step) {
    const auto& e = estimates;
    // residual first, PEQ behind it whatever its number, then the others
    const int within = (step - 1) * block_size(irand) + 1;
    if (irand == 0) return within;
    if (irand == residualvars.ipeq) return e.nresparm + within;
    int from = e.nrespeq;
    for (int k = 1; k < irand; ++k)
        if (k != residualvars.ipeq) from += e.nnparm(k);
    return from + within;
}

int cov_start(int irand, int step) {
    int from = 0;
    for (int k = 0; k < irand; ++k) from += steps_of(k) * step_covs(k);
    return from + (step - 1) * step_covs(irand) + 1;
}

void transform_covs(int irand, const double* cc, double floor_pivot, array<double>& parvec) {
    if (empty_block(irand)) return;
    if (estimates.paraform(irand) == par_scale::original) return transform_original(irand, cc, floor_pivot, parvec);
    if (model.diagonal(irand)) return transform_diagonal(irand, cc, floor_pivot, parvec);
    const auto factors = factor_steps(irand, cc, floor_pivot);
    for (int step = 1; step <= steps_of(irand); ++step) take_factor(irand, step, factors(step), parvec);
}

void parvec2covs(array<double>& parvec, int irand, int step, array<double>& cc, array<double, 2>& vv, int& ifail) {
    ifail = 0;
    const int n = model.kkfit(irand);
    cc.allocate(triangle(n));
    // a mark is for the whole block: set anew by its steps
    if (step == 1) estimates.switchlog(irand) = 0;
    if (estimates.paraform(irand) == par_scale::original)
        from_original(parvec, irand, step, cc, vv);
    else
        from_factor(parvec, irand, step, cc, vv);
    // exactly 0, not the rounding of a product
    if (irand == 0)
        for (int k = 1; k <= step_covs(0); ++k)
            if (residualvars.fixres((step - 1) * step_covs(0) + k)) cc(k) = 0.0;
    for (double x : cc)
        if (!std::isfinite(x)) ifail = 1;
}

block_at_point covariances_at(const array<double>& parvec, int irand, int step) {
    array<double> point = parvec; // takes the clamps
    const int mark = estimates.switchlog(irand);
    const array<int> logpar = estimates.logpar;
    block_at_point found;
    int ifail = 0;
    parvec2covs(point, irand, step, found.cc, found.vv, ifail);
    estimates.switchlog(irand) = mark;
    estimates.logpar = logpar;
    found.finite = ifail == 0;
    return found;
}

namespace {

// Number of the PEQ covariance of traits i and j in model.cov, 0 none.
int peq_element(int i, int j) {
    int number = 0;
    for (const peq_place& p : peq_places()) {
        ++number;
        if (p.residual == packed_place(i, j, numbers.nq)) return number;
    }
    return 0;
}

} // namespace

void fixresvars() {
    if (options.bestonly || empty_block(0)) return;
    const int n = model.kkfit(0);
    bool spread = false; // zeros that the order of the traits would lose
    for (int step = 1; step <= steps_of(0); ++step)
        for (int i = 1; i <= n; ++i)
            for (int j = i; j <= n; ++j) {
                const int k = (step - 1) * step_covs(0) + ihmssf(i, j, n);
                // no subject has records of both traits: the data know nothing of the covariance
                const bool never = j > i && n == numbers.nq && !occur_together(i, j);
                if (never) model.cov(k, 0) = 0.0;
                const int peq = residualvars.peqsum ? peq_element(i, j) : 0;
                if (never && peq > 0) model.cov(peq, residualvars.ipeq) = 0.0;        // nor do records tell of it
                const bool sum = peq > 0 && model.cov(peq, residualvars.ipeq) != 0.0; // parvec holds it
                const bool fixed = never || (residualvars.given_zero(k) != 0 && model.cov(k, 0) == 0.0 && !sum);
                residualvars.fixres(k) = fixed ? 1 : 0;
                if (fixed && j > i && linked_to_earlier(i, j)) spread = true;
            }
    residualvars.pivot_zeros = spread && estimates.paraform(0) != par_scale::original;
    for (int step = 1; step <= steps_of(0) && residualvars.pivot_zeros; ++step)
        residualvars.pivot_zeros = order_exists(residual_zeros(step));
    residualvars.filled = spread && !residualvars.pivot_zeros && estimates.paraform(0) != par_scale::original;
    if (estimates.paraform(0) == par_scale::original)
        for (int k = 1; k <= estimates.nresparm; ++k) estimates.ispar(k) = residualvars.fixres(k) ? 0 : 1;
}

int no_fixed_residuals() {
    const auto& fixed = residualvars.fixres;
    return static_cast<int>(std::count_if(fixed.begin(), fixed.end(), [](int f) { return f != 0; }));
}

bool start_factor(int irand, array<double, 2>& q, array<int>& order) {
    const int n = model.kkfit(irand);
    std::vector<double> cc(model.cov.column(irand).begin(), model.cov.column(irand).end());
    if (any_unit()) divide_by_units(irand, cc);
    double largest = 0.0, bad = 0.0;
    for (int i = 1; i <= n; ++i) largest = std::max(largest, std::fabs(cc[ihmssf(i, i, n) - 1]));
    bool vanishes = false;
    for (const bool by_size : {estimates.reorder, true}) { // in a given order nothing may follow a pivot that vanishes
        order.allocate(n);
        for (int i = 1; i <= n; ++i) order(i) = i;
        vanishes = pivoted_factor(cc.data(), n, model.krfit(irand), by_size, 0.0, bad, q, order) > 0;
        if (!vanishes || by_size) break;
    }
    for (int i = 1; i <= n; ++i)
        for (int c = 1; c <= model.krfit(irand); ++c) q(i, c) *= row_unit(irand, i);
    return !vanishes || bad >= -rounding * largest;
}

void diagonals_to_logs(int irand, array<double>& parvec) {
    const int n = model.kkfit(irand), rank = model.krfit(irand);
    for (int step = 1; step <= steps_of(irand); ++step) {
        int ipar = block_start(irand, step);
        for (int c = 1; c <= rank; ++c) {
            const int below = model.diagonal(irand) ? 0 : n - c;
            double& d = parvec(ipar);
            // QQ' does not know the sign of a column: the whole of it is turned
            if (d < 0.0)
                for (int r = 0; r <= below; ++r) parvec(ipar + r) = -parvec(ipar + r);
            d = std::log(std::max(std::fabs(d), std::sqrt(numbers.zero)));
            estimates.logpar(ipar) = 1;
            ipar += below + 1;
        }
    }
    estimates.logdiagonals(irand) = 1;
}

void lay_out_parameters() {
    count_parameters();
    allocate_parameters();
    label_covariances();
}

void parvec_from_covs(bool em_scale, double floor_pivot) {
    choose_scale(em_scale);
    estimates.logpar.fill(0);
    fixresvars();
    label_parameters();
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        std::vector<double> cc(model.cov.column(irand).begin(), model.cov.column(irand).end());
        // the residual parameters are those of the sum
        if (irand == 0 && residualvars.peqsum) add_peq(cc);
        if (any_unit()) divide_by_units(irand, cc);
        transform_covs(irand, cc.data(), floor_pivot, estimates.parvec);
    }
    estimates.switchlog.fill(0); // asked for by the vector that has been replaced
}

} // namespace tarvex
