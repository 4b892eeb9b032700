#include "sparse/takahashi.h"

#include "sparse/supernodal_solve.h"

#include <vector>

namespace tarvex {

void rescale_factor(const sparse_store& s, array<double>& diag, array<double>& off) {
    for (int j = 1; j <= s.n; ++j) {
        const double d = diag(j), r = 1.0 / d;
        for (int q = s.ixvec1(j); q < s.ixvec1(j + 1); ++q) off(q) *= r;
        diag(j) = d * d;
    }
}

void inverse_columns(const sparse_store& s, array<double>& diag, array<double>& off, const progress& tell) {
    const int n = s.n;
    const auto &ixvec1 = s.ixvec1, &ixvec2 = s.ixvec2, &ixsub = s.ixsub;
    std::vector<double> w(n + 1, 0.0), acc(n + 1, 0.0); // column i of the factor; Z times it
    std::vector<int> imark(n + 1, 0);                   // 1: row of column i
    // diag holds d = L(i,i)^2, off the unit factor; row n is no part of the inverse
    if (n >= 2) diag(n - 1) = 1.0 / diag(n - 1);
    // Z(r,i) = -sum over k of Z(r,k) w(k), Z(i,i) = 1/d + w'Z w, for the rows of column i of the unit factor, w
    for (int i = n - 2; i >= 1; --i) {
        if (tell && i % tell_every == 0) tell(i);
        // acc and imark are all zero; w counts where imark is 1
        const int start = ixvec1(i);
        const int shift = ixvec2(i) - start;
        int end = start;
        for (; end < ixvec1(i + 1) && ixsub(end + shift) != n; ++end) {
            imark[ixsub(end + shift)] = 1;
            w[ixsub(end + shift)] = off(end);
        }
        // each stored Z(r,k), r below k, serves both halves of the symmetric product
        for (int p = start; p < end; ++p) {
            const int k = ixsub(p + shift), shiftk = ixvec2(k) - ixvec1(k);
            const double wk = off(p);
            double acck = 0.0;
            for (int q = ixvec1(k); q < ixvec1(k + 1); ++q) {
                const int r = ixsub(q + shiftk);
                if (!imark[r]) continue;
                acck += off(q) * w[r];
                acc[r] += wk * off(q);
            }
            acc[k] += acck + wk * diag(k);
        }
        double t = 0.0;
        for (int p = start; p < end; ++p) {
            const int r = ixsub(p + shift);
            t += w[r] * acc[r];
            off(p) = -acc[r];
            acc[r] = 0.0;
            imark[r] = 0;
        }
        diag(i) = 1.0 / diag(i) + t;
    }
}

void solve_back(const sparse_store& s, array<double>& solns) {
    need_state(s, store_state::factor, "solve_back");
    if (solns.size() < s.n) solns.allocate(s.n);
    solns.fill(0.0);
    for (int i = s.n - 1; i >= 1; --i) solns(i) = solve_row(s, i, solns);
}

} // namespace tarvex
