#include "reports/ebvs.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/levels.h"
#include "data/pedigreelist.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "estimation/estimates.h"
#include "likelihood/buildmmm.h"
#include "likelihood/solutions.h"
#include "parameters/parunits.h"
#include "parameters/randomvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "relations/inbreeding.h"
#include "support/edit_form.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <span>
#include <string>

namespace tarvex {

namespace {

bool with_errors() { return solutions.nsolerrs != 0; }

// Element of the inverse coefficient matrix, old numbers; 0 for equations taken out.
double inverse_element(int i, int j) {
    const int a = orders.ieqnew(i), b = orders.ieqnew(j);
    if (a < 1 || b < 1) return 0.0;
    if (a == b) return solutions.solerrs(a);
    const int p = locate(a, b);
    // the pattern has all pairs within a level (the structure of such runs)
    if (p == 0) stop_with("No place for the errors of breeding values");
    return sparse.xspars(p);
}

void show_loadings(int irand, const array<double, 2>& q, std::span<const int> order) {
    constexpr edit_form row{"(i4,(t7, 6g13.5))"};
    const int n = model.kkfit(irand), rank = model.krfit(irand);
    std::string pivots;
    for (int r = 0; r < rank; ++r) pivots += " " + std::to_string(order[r]);
    print_list(screen(), "Loadings of the components of \"" + model.krandom(irand) + "\", order of pivots :" + pivots);
    for (int i = 1; i <= n; ++i) {
        std::vector<double> loadings;
        for (int c = 1; c <= rank; ++c) loadings.push_back(q(i, c));
        write(screen(), row, i, loadings);
    }
}

// Those of the solutions.
void write_loadings(int irand) {
    const int n = model.kkfit(irand), rank = model.krfit(irand);
    array<double, 2> q;
    q.allocate(n, rank);
    for (int i = 1; i <= n; ++i)
        for (int c = 1; c <= rank; ++c) q(i, c) = randomvars.zig(i, c, irand) * row_unit(irand, i);
    show_loadings(irand, q, estimates.cholorder.column(irand));
}

} // namespace

bool reduced_rank(int irand) { return options.principal && model.krfit(irand) < model.kkfit(irand); }

level_values breeding_values(int irand, int level) {
    const int n = model.kkfit(irand), rank = model.krfit(irand);
    // u = Q w for the w of the level
    const int first = mmequations.rn_start(irand) + (level - 1) * rank;
    // u = Q s: scores s of the level times the loadings Q (traits x components), into the units of the data
    const auto& q = randomvars.zig;
    level_values values;
    values.u.assign(n, 0.0);
    for (int i = 1; i <= n; ++i)
        for (int c = 1; c <= rank; ++c)
            values.u(i) += q(i, c, irand) * solutions.solsave(first + c) * row_unit(irand, i);
    if (!with_errors()) return values;
    values.pev.assign(n, 0.0);
    // the inverse is symmetric: each pair of components once, twice its weight
    for (int c = 1; c <= rank; ++c)
        for (int d = 1; d <= c; ++d) {
            bool used = false; // a diagonal matrix needs no elements between components
            for (int i = 1; i <= n; ++i) used = used || q(i, c, irand) * q(i, d, irand) != 0.0;
            if (!used) continue;
            // var(u - u^) = Q C^-1 Q' of the level, by pairs of components
            const double x = (c == d ? 1.0 : 2.0) * inverse_element(first + c, first + d);
            for (int i = 1; i <= n; ++i) {
                const double unit = row_unit(irand, i);
                values.pev(i) += q(i, c, irand) * q(i, d, irand) * x * unit * unit;
            }
        }
    return values;
}

double fitted_variance(int irand, int r) {
    double s = 0.0;
    for (int c = 1; c <= model.krfit(irand); ++c) s += randomvars.zig(r, c, irand) * randomvars.zig(r, c, irand);
    return s * cov_unit(irand, r, r);
}

double accuracy(double pev, double variance) {
    // r^2 = 1 - PEV/variance; a negative one is told as it is
    const double v = 1.0 - pev / variance;
    return v > 0.0 ? std::sqrt(v) : v;
}

vector1<double> variance_factors(int irand) {
    vector1<double> factors(levels.rn_nlev(irand), 1.0);
    if (!solutions.accinb || options.siremodel || mudmap.kovrnd(irand) != covariance_kind::nrm) return factors;
    const int irun = mudmap.iranno(irand);
    // variance of animal l is (1 + F) times that of the base
    const std::vector<double> f = inbreeding(pedigreelist.sire(irun), pedigreelist.dam(irun));
    for (int l = 1; l <= std::min(factors.size(), std::ssize(f)); ++l) factors(l) += f[l - 1];
    return factors;
}

void write_given_loadings() {
    array<double, 2> q;
    array<int> order;
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (!reduced_rank(irand) || mudmap.kovrnd(irand) == covariance_kind::peq) continue;
        start_factor(irand, q, order);
        show_loadings(irand, q, order);
    }
}

void write_ebvs(int irand) {
    constexpr edit_form head{"(1x,5hLevel,6x,8hOrg.code,1x,2hNo,10x,6hB.Valu,10x,6hS.Erro,2x,6hAccur.)"};
    constexpr edit_form errors{"(i6,i14,i3,2g16.6,f8.3)"}, plain{"(i6,i14,i3,g16.6)"};
    const std::string name = "EBV_" + model.krandom(irand) + ".dat";
    text_out out;
    if (!out.open(name)) stop_with("Error opening file \"" + name + "\"");
    write(out, head);
    const vector1<double> factors = variance_factors(irand);
    for (int l = 1; l <= levels.rn_nlev(irand); ++l) {
        const level_values values = breeding_values(irand, l);
        for (int i = 1; i <= model.kkfit(irand); ++i) {
            const std::int64_t code = levels.rn_codes(irand)(l);
            const double u = values.u(i);
            if (!with_errors()) {
                write(out, plain, l, code, i, u);
                continue;
            }
            const double v = values.pev(i);
            // a variance that is not positive stands in the place of its root, so that it shows
            write(out, errors, l, code, i, u, v > 0.0 ? std::sqrt(v) : v,
                  accuracy(v, fitted_variance(irand, i) * factors(l)));
        }
    }
    write_loadings(irand);
}

} // namespace tarvex
