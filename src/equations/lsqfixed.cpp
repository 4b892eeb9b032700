#include "equations/lsqfixed.h"

#include "control/filenames.h"
#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/datavecs.h"
#include "data/recodedata.h"
#include "data/rowlayout.h"
#include "equations/mmequations.h"
#include "relations/linkedlist.h"
#include "sparse/lsqrank.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <algorithm>
#include <new>
#include <vector>

namespace tarvex {

namespace {

// Rows of the least squares system: equations 1..neqfix, then the means, which stand behind the random effects.
struct fixed_rows {
    int neqfix = 0;
    std::vector<int> means; // equations, ascending

    int count() const { return neqfix + static_cast<int>(means.size()); }
    int equation(int row) const { return row < neqfix ? row + 1 : means[row - neqfix]; }
    int row(int equation) const { // from 0
        if (equation <= neqfix) return equation - 1;
        return neqfix + static_cast<int>(std::lower_bound(means.begin(), means.end(), equation) - means.begin());
    }
};

fixed_rows make_rows() {
    fixed_rows r;
    r.neqfix = mmequations.neq_cov + mmequations.neq_fix;
    for (int e : mmequations.ieq_trait)
        if (e > 0) r.means.push_back(e);
    return r;
}

struct coefficient {
    int row;
    double x;
};

// Fixed effects, mean and covariables of observation i.
void observation_row(const subject_record& d, int i, const fixed_rows& rows, std::vector<coefficient>& list) {
    list.clear();
    const int iq = numbers.nq == 1 ? 1 : d.ynq(i);
    for (int j = 1; j <= lead_positions(iq); ++j)
        if (const int p = d.ieqnr(j, i); p > 0) list.push_back({rows.row(d.jvec(p)), 1.0});
    for (int c = 1; c <= d.mcov; ++c)
        if (const int e = d.icov(c, i); e > 0) list.push_back({rows.row(e), d.xcov(c, i)});
}

// Observations count one by one: residual covariances are not known yet.
void data_pass(normal_equations& a, const fixed_rows& rows) {
    recdata_pass pass;
    setup_recdata(pass, filenames.recdatfil2);
    const subject_record& d = pass.record;
    std::vector<coefficient> list;
    while (next_subject(pass))
        for (int i = 1; i <= d.nobs; ++i) {
            observation_row(d, i, rows, list);
            for (std::size_t p = 0; p < list.size(); ++p) {
                const auto [row, x] = list[p];
                a.diag[row] += x * x;
                // X'X and X'y, one record after the other
                a.rhs[row] += x * d.yvec(i);
                for (std::size_t q = 0; q < p; ++q) a.add(row, list[q].row, x * list[q].x);
            }
        }
    if (options.verbose) print_list(screen(), "END data");
}

void warn_covariable() {
    for (const char* line :
         {"    Rows/columns to be zero-ed out to account for the",
          "    additional dependency among fixed effects found  ",
          "    corresponds to a (nested ?) regression coefficient !        ",
          "    This may cause problems - it would be highly advisable to",
          "    identify the level(s) of fixed effects fitted which",
          "    cause this & specify these explicitely (in the .par file)", "    as to be zero-ed out instead !!! "})
        print_list(screen(), line);
    tvx_caution();
}

std::vector<int> taken_out(const normal_equations& a, const fixed_rows& rows) {
    std::vector<int> out(a.n, 0);
    for (int e : mmequations.ieqzero) {
        out[rows.row(e)] = 1;
        if (options.details) print_list(screen(), "zero out", e, a.diag[rows.row(e)]);
    }
    return out;
}

constexpr long long told_room = 10000; // elements a row
constexpr double pivot_zeros = 100.0;  // numbers.zero that a pivot has to reach

// Elements behind the diagonal, as if held in a store with that room.
void tell_elements(int n, long long data, long long all) {
    const long long capacity = std::min(told_room * n + told_room, static_cast<long long>(maxelements));
    tell_growth(0, data, capacity);
    tell_growth(data, std::max(data, all), capacity);
}

lsq_rank eliminate(const fixed_rows& rows, normal_equations& a) {
    try {
        data_pass(a, rows);
        a.finish();
        const std::vector<int> out = taken_out(a, rows);
        // pivots here are counts and sums of squares: 100 times the operational zero
        return fast_rank(a, out, pivot_zeros * numbers.zero);
    } catch (const std::bad_alloc&) {
        stop("alloc zhz");
    }
}

} // namespace

void lsq_fixed() {
    const fixed_rows rows = make_rows();
    const int n = rows.count();
    normal_equations a(n);
    // equations that depend on those before them go out of the mixed model equations
    const lsq_rank r = eliminate(rows, a);
    // what the store of rows would have grown to
    tell_elements(n, static_cast<long long>(a.col.size()), r.elements);
    for (const auto& [row, pivot] : r.dependent) {
        const int irow = rows.equation(row);
        if (options.verbose) print_list(screen(), "LSQ : small pivot", irow, pivot);
        mmequations.ieqzero.push_back(irow);
        print_list(screen(), "LSQ : additional dependency", irow);
        if (irow <= mmequations.neq_cov) warn_covariable();
    }
    numbers.nrankx = r.rank;
    if (options.verbose)
        write(screen(), "(1x,2(a,i6))", "Coefficient matrix fixed effects - rank =", r.rank, "  no. of rows =", n);
    allocate("alloc zhz", lsqsolutions.rhs, n);
    allocate("alloc zhz", lsqsolutions.xsol, n);
    std::copy(a.rhs.begin(), a.rhs.end(), lsqsolutions.rhs.begin());
    std::copy(r.xsol.begin(), r.xsol.end(), lsqsolutions.xsol.begin());
    if (options.verbose) print_list(screen(), "END \"lsqfixed\"");
}

} // namespace tarvex
