#include "sparse/autodiff.h"

#include <vector>

namespace tarvex {

void autodiff_columns(const sparse_store& s, array<double>& fdiag, array<double>& foff, const progress& tell) {
    need_state(s, store_state::factor, "autodiff_columns");
    const int n = s.n;
    const auto &ixvec1 = s.ixvec1, &ixvec2 = s.ixvec2, &ixsub = s.ixsub;
    const auto &diag = s.diag, &xspars = s.xspars;
    // f = (log|C| + y'Py)/2 in terms of the factor: df/dL(i,i) = 1/L(i,i), and L(n,n) of y'Py = L(n,n)^2
    for (int i = 1; i < n; ++i) fdiag(i) = 1.0 / diag(i);
    fdiag(n) = diag(n);
    foff.fill(0.0);
    std::vector<int> pos(n + 1, 0); // place of each row in column k, 0: not there
    // Columns behind k are final: derivatives by elements of the matrix. Column k collects those by elements of L until
    // its own division and root are undone.
    for (int k = n; k >= 1; --k) {
        if (tell && k % tell_every == 0) tell(k);
        // pos is all zero
        const int start = ixvec1(k), end = ixvec1(k + 1), shift = ixvec2(k) - start;
        for (int q = start; q < end; ++q) pos[ixsub(q + shift)] = q;
        // the updates L(i,k) L(r,k) of columns i run backwards; r = i is the diagonal, hence the 2
        for (int q = start; q < end; ++q) {
            const int i = ixsub(q + shift), shifti = ixvec2(i) - ixvec1(i);
            const double l = xspars(q);
            double t = 2.0 * fdiag(i) * l;
            for (int u = ixvec1(i); u < ixvec1(i + 1); ++u) {
                const int v = pos[ixsub(u + shifti)];
                if (v == 0) continue;
                t += foff(u) * xspars(v);
                foff(v) -= foff(u) * l;
            }
            foff(q) -= t;
        }
        // L(r,k) = a(r)/L(k,k), L(k,k) = sqrt(a(k)): from derivatives by L to those by a
        double sum = 0.0;
        for (int q = start; q < end; ++q) {
            foff(q) /= diag(k);
            sum += foff(q) * xspars(q);
            pos[ixsub(q + shift)] = 0;
        }
        fdiag(k) = 0.5 * (fdiag(k) - sum) / diag(k);
    }
}

} // namespace tarvex
