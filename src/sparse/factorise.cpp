#include "sparse/factorise.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "likelihood/likelihood.h"
#include "likelihood/warnfix.h"
#include "sparse/sparse.h"
#include "sparse/supernodes.h"
#include "support/screen.h"

#include <cmath>
#include <vector>

namespace tarvex {

namespace {

// Work of the column kernel, kept between calls.
std::vector<int> link, first; // columns waiting for a row; next unused place of each column
std::vector<double> temp;     // updates of the current column, all zero between columns

// Repairs the pivot of column j where pivots that vanish are not errors; false if it cannot be.
bool repair_pivot(int j, double& diagj) {
    const double zero = numbers.zero, d = sparse.diag(j);
    if (d >= zero && diagj >= zero * d) return true;
    if (d >= zero) {
        print_list(screen(), "pivot close to tol - at row", j, diagj, d, zero);
    } else {
        if (std::fabs(diagj) >= zero) return false;
        print_list(screen(), "pivot close to zero - at row", j, 1.0 / zero, d);
    }
    diagj = zero * zero; // its root is zero
    return true;
}

[[noreturn]] void report_indefinite(int irow) {
    screen().line("***** ERROR in sparse matrix factorisation ");
    screen().line("      mixed model matrix is not positive definite !!!");
    if (options.first) write_warnfix(irow);
    stoptarvex();
}

} // namespace

int factorise_columns(double& pivot, bool forcepd) {
    const int n = numbers.nsrow;
    const auto &ixvec1 = sparse.ixvec1, &ixvec2 = sparse.ixvec2, &ixsub = sparse.ixsub;
    auto &diag = sparse.diag, &xspars = sparse.xspars;
    link.assign(n + 1, 0);
    first.assign(n + 1, 0);
    temp.assign(n + 1, 0.0);
    for (int j = 1; j <= n; ++j) {
        if (options.verbose && j % 20000 == 0) print_list(screen(), "Factorise MMM", j);
        double s = 0.0;
        for (int k = link[j], next; k != 0; k = next) {
            next = link[k];
            const int p = first[k], end = ixvec1(k + 1);
            const double l = xspars(p);
            s += l * l;
            if (p + 1 == end) continue;
            const int shift = ixvec2(k) - ixvec1(k);
            const int i = ixsub(p + 1 + shift);
            first[k] = p + 1;
            link[k] = link[i];
            link[i] = k;
            for (int q = p + 1; q < end; ++q) temp[ixsub(q + shift)] += l * xspars(q);
        }
        double diagj = diag(j) - s;
        const bool accepted = forcepd ? diagj >= numbers.zero : repair_pivot(j, diagj);
        if (!accepted) {
            pivot = diagj;
            return j;
        }
        diag(j) = std::sqrt(diagj);
        const double r = 1.0 / diag(j);
        const int start = ixvec1(j), end = ixvec1(j + 1);
        if (start == end) continue;
        const int shift = ixvec2(j) - start;
        const int i1 = ixsub(start + shift);
        first[j] = start;
        link[j] = link[i1];
        link[i1] = j;
        for (int q = start; q < end; ++q) {
            const int i = ixsub(q + shift);
            xspars(q) = (xspars(q) - temp[i]) * r;
            temp[i] = 0.0;
        }
    }
    return 0;
}

bool supernodes_wanted() {
    if (kernels.choice != kernel_kind::automatic) return kernels.choice == kernel_kind::supernodes;
    // Counted anew when the size of the factor changes: a stale answer could only cost time.
    static int rows = 0, elements = 0;
    static bool wanted = false;
    if (rows != numbers.nsrow || elements != sparse.maxlnz) {
        rows = numbers.nsrow;
        elements = sparse.maxlnz;
        wanted = elements > 0 && factor_operations() > 20.0 * elements;
    }
    return wanted;
}

void factorise_mmm(double& detc, double& ypy, int& ifail) {
    double pivot = 0.0;
    ifail = 0;
    const int irow = supernodes_wanted() ? factorise_supernodes(pivot) : factorise_columns(pivot);
    likelihoods.failrow = irow;
    if (irow != 0) {
        print_list(screen(), "invalid pivot - at row", irow, pivot, sparse.diag(irow));
        if (options.mmmposdef) report_indefinite(irow);
        ifail = 1;
        return;
    }
    const int n = numbers.nsrow;
    double sum = 0.0;
    for (int j = 1; j < n; ++j)
        if (sparse.diag(j) > numbers.zero) sum += std::log(sparse.diag(j));
    detc = 2.0 * sum;
    ypy = n > 0 ? sparse.diag(n) * sparse.diag(n) : 0.0;
}

} // namespace tarvex
