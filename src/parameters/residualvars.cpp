#include "parameters/residualvars.h"

#include "basis/phimatrix.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "dense/numroutines.h"
#include "parameters/parvec.h"
#include "parameters/variances.h"
#include "parameters/zeropattern.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <algorithm>
#include <cmath>

namespace tarvex {

namespace {

constexpr double pattern_zeros = 0.01; // numbers.zero that the pivots of a pattern have to reach
constexpr double margin = 1.0e-6;      // relative, of eigenvalues above numbers.zero: rounding of pivots
constexpr double small_pivot = 1.0e-5; // gen_inverse tells of pivots below it

// Parameters of one class of the residual on the covariance scale.
int class_covs() { return triangle(numbers.nq); }

void allocate_residuals() {
    auto& r = residualvars;
    const int n = triangle(numbers.nq);
    if (!r.sigres.allocated() || r.sigres.upper(1) != n || r.sigres.upper(2) != model.rr_resteps) {
        allocate("alloc sige", r.sigres, n, model.rr_resteps);
        allocate("alloc sige", r.sigpeq, n);
        // what the inverses were formed from is of another size
        r.formed.clear();
    }
    const int npar = model.rr_resteps * class_covs();
    if (!r.rpars.allocated() || r.rpars.upper() != npar) allocate("alloc sige", r.rpars, npar);
    const int ndet = options.randreg ? 1 : std::max(combinations.ncombi, 1);
    if (!r.detres.allocated() || r.detres.upper() != ndet) {
        allocate("alloc detres", r.detres, ndet);
        r.formed.clear();
    }
}

// Residual covariances of all classes: sigres, and rpars with the fixed components at zero.
void residual_matrices(array<double>& parvec, int& ifail) {
    auto& r = residualvars;
    const int nq = numbers.nq;
    array<double> cc;
    array<double, 2> vv;
    for (int step = 1; step <= model.rr_resteps; ++step) {
        parvec2covs(parvec, 0, step, cc, vv, ifail);
        if (ifail) return;
        for (int i = 1; i <= nq; ++i)
            for (int j = i; j <= nq; ++j) {
                const int k = ihmssf(i, j, nq);
                // held components are 0 to the last bit, whatever a factor leaves there
                r.sigres(k, step) = residual_held(step, i, j) ? 0.0 : cc(k);
                r.rpars((step - 1) * class_covs() + k) = r.sigres(k, step);
            }
    }
}

// PEQ matrix, spread over the traits that fit the effect.
void peq_matrix(array<double>& parvec, int& ifail) {
    auto& r = residualvars;
    r.sigpeq.fill(0.0);
    if (!r.peqsum) return;
    array<double> cc;
    array<double, 2> vv;
    parvec2covs(parvec, r.ipeq, 1, cc, vv, ifail);
    if (ifail) return;
    // traits that do not fit the effect keep 0
    const int n = model.kkfit(r.ipeq);
    for (const peq_place& p : peq_places()) r.sigpeq(p.residual) = cc(ihmssf(p.i, p.j, n));
}

void show_residual() {
    if (!options.details) return;
    const int nq = numbers.nq;
    for (int i = 1; i <= nq; ++i) {
        std::vector<double> row;
        for (int j = 1; j <= nq; ++j) row.push_back(residualvars.sigres(packed_place(i, j, nq), 1));
        write(screen(), "(a,i3,24g13.6)", "sigr", i, row);
    }
}

// Covariance of two records of a pattern.
double record_covariance(int iq, int jq, bool same) {
    const auto& r = residualvars;
    const int k = packed_place(iq, jq, numbers.nq);
    // the variance of a record holds the repeat effect; two records of a trait have that alone in common
    if (same) return r.sigres(k, 1);
    return iq == jq ? r.sigpeq(k) : r.sigres(k, 1) + r.sigpeq(k);
}

void show_singular(int n, int rank, int icombi, const vector1<double>& w) {
    print_list(screen(), "***** ERROR : Residual covariance matrix not of full rank");
    print_list(screen(), "      Dimension   =", n);
    print_list(screen(), "      Rank        =", rank);
    show_combination(icombi);
    for (int i = 1; i <= n; ++i) {
        std::vector<double> row;
        for (int j = 1; j <= i; ++j) row.push_back(w(ihmssf(j, i, n)));
        write(screen(), "(i3,10(t4,8f13.6)/)", i, row);
    }
}

// A pattern whose records are independent: true if that could be settled by its diagonal alone.
bool independent_pattern(const vector1<int>& traits, pattern_matrix& inverse, double& ldet) {
    const auto& r = residualvars;
    const int nq = numbers.nq;
    vector1<int> count(nq);
    for (int q : traits) ++count(q);
    for (int i = 1; i <= nq; ++i) {
        if (count(i) == 0) continue;
        // smaller variances go to gen_inverse, which tells of them
        if (!(r.sigres(ihmssf(i, i, nq), 1) >= small_pivot)) return false;
        if (count(i) > 1 && r.sigpeq(ihmssf(i, i, nq)) != 0.0) return false;
        for (int j = i + 1; j <= nq; ++j)
            if (count(j) > 0 && record_covariance(i, j, false) != 0.0) return false;
    }
    inverse.reset(static_cast<int>(traits.size()), true);
    ldet = 0.0;
    for (int k = 1; k <= inverse.n; ++k) {
        const double s = r.sigres(ihmssf(traits(k), traits(k), nq), 1);
        inverse.v[k - 1] = 1.0 / s;
        ldet += std::log(s);
    }
    return true;
}

// A pivot so small that gen_inverse has told of it: with the largest pivot first the last one is the smallest, and the
// reciprocal of a diagonal element of the inverse.
bool has_small_pivot(const pattern_matrix& inverse) {
    for (int i = 1; i <= inverse.n; ++i)
        if (inverse(i, i) * small_pivot > 1.0) return true;
    return false;
}

// A pivot that is no more than rounding against the variance of its record: with the others given, nothing is left of
// it. log|R| and the inverse have no digit in common with those of a point beside it.
bool nearly_singular(const vector1<double>& inverse, const vector1<double>& matrix, int n) {
    for (int i = 1; i <= n; ++i) {
        const int k = ihmssf(i, i, n);
        if (!(inverse(k) * matrix(k) * numbers.zero < 1.0)) return true;
    }
    return false;
}

void invert_pattern(int icombi, int& ifail) {
    const vector1<int> traits = pattern_traits(icombi);
    pattern_matrix& inverse = residualvars.eei(icombi);
    double ldet = 0.0;
    if (!independent_pattern(traits, inverse, ldet)) {
        const int n = static_cast<int>(traits.size());
        vector1<double> w(triangle<std::ptrdiff_t>(n)), kept;
        for (int i = 1; i <= n; ++i)
            for (int j = i; j <= n; ++j) w(ihmssf(i, j, n)) = record_covariance(traits(i), traits(j), i == j);
        // w becomes the inverse
        kept = w;
        int rank = 0, negative = 0;
        gen_inverse(w, n, numbers.zero * pattern_zeros, rank, ldet, &negative);
        if (rank < n) show_singular(n, rank, icombi, kept);
        // a matrix that rounding has made regular is none
        if (rank < n || negative > 0 || nearly_singular(w, kept, n)) {
            inverse = {};
            ifail = 1;
            return;
        }
        inverse.reset(n, false);
        for (int i = 1; i <= n; ++i)
            for (int j = i; j <= n; ++j) inverse(i, j) = inverse(j, i) = w(ihmssf(i, j, n));
    }
    residualvars.detres(icombi) = ldet;
}

void rinv_muv(array<double>& parvec, int& ifail) {
    auto& r = residualvars;
    residual_matrices(parvec, ifail);
    if (!ifail) peq_matrix(parvec, ifail);
    if (ifail) return;
    show_residual();
    // the inverses stay where only random effects have moved
    std::vector<double> now(r.sigres.begin(), r.sigres.end());
    now.insert(now.end(), r.sigpeq.begin(), r.sigpeq.end());
    // equal to the last bit
    if (now == r.formed) return;
    r.formed.clear();
    r.eei.resize(combinations.ncombi);
    bool told = false; // what was told is told again whenever the same matrices are asked for
    for (int icombi = 1; icombi <= combinations.ncombi; ++icombi) {
        invert_pattern(icombi, ifail);
        if (ifail) return;
        told = told || has_small_pivot(r.eei(icombi));
    }
    if (!told) r.formed = now;
}

// Every class must have a positive definite matrix; what the records of a subject make of it is found out with them.
void rinv_ranreg(array<double>& parvec, int& ifail) {
    if (model.me_type == residual_kind::fun) stop("FUN not yet");
    if (residualvars.peqsum) tvx_notyet();
    residual_matrices(parvec, ifail);
    if (ifail) return;
    const int nq = numbers.nq;
    array<double, 2> vectors;
    array<double> eig;
    for (int step = 1; step <= model.rr_resteps; ++step) {
        const array<double, 2> a = unpack(residualvars.sigres.column(step), nq);
        int nzero = 0;
        eigem(a, eig, vectors, nq, numbers.zero, nzero);
        // the matrices of subjects are inverted with pivots above that limit: what fails there fails here
        if (nzero > 0 || !(*std::min_element(eig.begin(), eig.end()) > numbers.zero * (1.0 + margin))) ifail = 1;
    }
}

[[noreturn]] void singular_subject(int isubj, int nobs, int rank) {
    print_list(screen(), "Residual covariance matrix not of full rank !");
    print_list(screen(), "   Individual no.      =", isubj);
    print_list(screen(), "   No. of observations =", nobs);
    print_list(screen(), "   Rank found          =", rank);
    if (nobs > 1) {
        print_list(screen(), " ... this could be due to different records with the same");
        print_list(screen(), "     value of the covariable ... ");
    }
    stoptarvex();
}

bool all_independent(const subject_record& d, const vector1<int>& age, const vector1<int>& iclass) {
    const int n = d.nobs;
    for (int i = 1; i <= n; ++i) {
        const int q = d.ynq(i);
        // as for patterns: small ones are told by gen_inverse
        if (residualvars.sigres(ihmssf(q, q, numbers.nq), iclass(i)) < small_pivot) return false;
        for (int j = i + 1; j <= n; ++j)
            if (age(i) == age(j)) return false;
    }
    return true;
}

} // namespace

vector1<peq_place> peq_places() {
    vector1<peq_place> places;
    const int irand = residualvars.ipeq, n = irand > 0 ? model.kkfit(irand) : 0;
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= (model.diagonal(irand) ? i : n); ++j)
            places.push_back({i, j, packed_place(mudmap.rn_trait(i, irand), mudmap.rn_trait(j, irand), numbers.nq)});
    return places;
}

void show_combination(int icombi) {
    std::string line = "      Combination =";
    for (int k : combinations.nqcombi(icombi)) line += " " + std::to_string(k);
    print_list(screen(), line);
}

void show_indefinite_pattern() {
    const auto& eei = residualvars.eei;
    // rinverse leaves the pattern that failed without a matrix
    const auto failed = std::find_if(eei.begin(), eei.end(), [](const pattern_matrix& w) { return w.n == 0; });
    if (options.randreg || failed == eei.end()) return;
    print_list(screen(),
               "***** ERROR : Residual covariance matrix of the records of a subject is not positive definite");
    show_combination(static_cast<int>(failed - eei.begin()) + 1);
}

void rinverse(array<double>& parvec, int& ifail) {
    ifail = 0;
    allocate_residuals();
    if (model.anal_type == 1 || model.anal_type == 2)
        rinv_muv(parvec, ifail);
    else if (model.anal_type == 3)
        rinv_ranreg(parvec, ifail);
    else
        stop("rinverse");
}

bool same_place(const subject_record& d, int i, int j) {
    return std::all_of(phimat.shared_controls.begin(), phimat.shared_controls.end(),
                       [&](int irrc) { return d.imeta(irrc, i) == d.imeta(irrc, j); });
}

void residual_classes(const subject_record& d, vector1<int>& age, vector1<int>& iclass) {
    const int n = d.nobs;
    age.resize(n);
    iclass.resize(n);
    // the control variable of the trait gives the place, its level the class
    for (int i = 1; i <= n; ++i) {
        const int iq = d.ynq(i), control = phimat.jjmeta.allocated() ? phimat.jjmeta(iq) : 1;
        age(i) = d.imeta(control, i);
        iclass(i) = model.rr_resteps == 1 ? 1 : model.me_run(age(i));
    }
    if (model.nrrc < 2) return;
    const vector1<int> level = age;
    for (int i = 1; i <= n; ++i) { // the first record at a place stands for it
        int first = 1;
        while (first < i && (level(first) != level(i) || !same_place(d, first, i))) ++first;
        age(i) = first;
    }
}

void get_rinv_rreg(const subject_record& d, int isubj, pattern_matrix& inverse, double& ldet) {
    const int n = d.nobs, nq = numbers.nq;
    vector1<int> age, iclass;
    residual_classes(d, age, iclass);
    inverse.reset(n, all_independent(d, age, iclass));
    ldet = 0.0;
    if (inverse.diagonal) {
        for (int i = 1; i <= n; ++i) {
            const int q = d.ynq(i);
            const double s = residualvars.sigres(ihmssf(q, q, nq), iclass(i));
            inverse.v[i - 1] = 1.0 / s;
            ldet += std::log(s);
        }
        // independent records: the diagonal is all
        return;
    }
    // records at different places are independent
    vector1<double> w(triangle<std::ptrdiff_t>(n));
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j)
            if (age(i) == age(j))
                w(ihmssf(i, j, n)) = residualvars.sigres(packed_place(d.ynq(i), d.ynq(j), nq), iclass(i));
    int rank = 0, negative = 0;
    gen_inverse(w, n, numbers.zero, rank, ldet, &negative);
    if (rank < n || negative > 0) singular_subject(isubj, n, rank);
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) inverse(i, j) = inverse(j, i) = w(ihmssf(i, j, n));
}

vector1<int> pattern_traits(int icombi) {
    vector1<int> traits;
    const vector1<int>& count = combinations.nqcombi(icombi);
    // records of a subject are sorted by trait: counts say all
    for (int iq = 1; iq <= numbers.nq; ++iq) traits.append(count(iq), iq);
    return traits;
}

int residual_pars(int iq, int jq, int iclass, bool same, int pars[2]) {
    const int nq = numbers.nq;
    int n = 0;
    // held components are no parameters of the data
    if ((same || iq != jq) && !residual_held(iclass, iq, jq))
        pars[n++] = (iclass - 1) * class_covs() + packed_place(iq, jq, nq);
    // of one record the parameter is the sum of both; of two, the repeat effect alone
    if (same || !residualvars.peqsum) return n;
    const int ipeq = residualvars.ipeq, k = model.kkfit(ipeq);
    int pi = 0, pj = 0;
    for (int p = 1; p <= k; ++p) {
        if (mudmap.rn_trait(p, ipeq) == iq) pi = p;
        if (mudmap.rn_trait(p, ipeq) == jq) pj = p;
    }
    if (pi == 0 || pj == 0) return n;
    if (model.diagonal(ipeq)) {
        if (pi == pj) pars[n++] = estimates.nresparm + pi;
    } else {
        pars[n++] = estimates.nresparm + packed_place(pi, pj, k);
    }
    return n;
}

void add_residual_terms(const pattern_matrix& x, std::span<const int> traits, std::span<const int> age,
                        std::span<const int> iclass, double factor, vector1<double>& g) {
    int pars[2];
    for (int k = 1; k <= x.n; ++k) {
        const int c = iclass.empty() ? 1 : iclass[k - 1];
        for (int l = k; l <= (x.diagonal ? k : x.n); ++l) {
            // records at different places have covariance 0 whatever the parameters
            if (!age.empty() && age[k - 1] != age[l - 1]) continue;
            // (k,l) and (l,k)
            const double value = factor * (k == l ? 1.0 : 2.0) * x(k, l);
            const int n = residual_pars(traits[k - 1], traits[l - 1], c, k == l, pars);
            for (int p = 0; p < n; ++p) g(pars[p]) += value;
        }
    }
}

} // namespace tarvex
