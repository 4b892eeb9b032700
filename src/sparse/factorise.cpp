#include "sparse/factorise.h"

#include "sparse/symbfact.h"

#include <cmath>

namespace tarvex {

namespace {

constexpr double operations_for_each_element = 20.0; // from which on supernodes are faster, measured

// Repairs the pivot of column j, with the diagonal d, where it vanishes; false if it cannot be.
bool repair_pivot(int j, double d, double& diagj, const pivot_rule& rule) {
    const double zero = rule.limit;
    // positive beyond rounding, measured by what was assembled
    if (d >= zero && diagj >= zero * d) return true;
    // an empty row may only have an empty pivot: anything else comes from an indefinite matrix
    if (d < zero && std::fabs(diagj) >= zero) return false;
    rule.tell_repair(j, diagj, d);
    diagj = zero * zero; // its root is zero
    return true;
}

} // namespace

int factorise_columns(sparse_store& s, sparse_work& w, const pivot_rule& rule, double& pivot, const progress& tell) {
    need_state(s, store_state::assembled, "factorise_columns");
    const int n = s.n;
    const auto &ixvec1 = s.ixvec1, &ixvec2 = s.ixvec2, &ixsub = s.ixsub;
    auto &diag = s.diag, &xspars = s.xspars;
    auto &link = w.link, &first = w.first;
    auto& temp = w.temp;
    link.assign(n + 1, 0);
    first.assign(n + 1, 0);
    temp.assign(n + 1, 0.0);
    s.state = store_state::empty;
    for (int j = 1; j <= n; ++j) { // temp is all zero; link[j] chains the columns whose next row is j
        if (tell && j % tell_every == 0) tell(j);
        double sum = 0.0;
        // column k takes its row j out, then joins the chain of its next row
        for (int k = link[j], next; k != 0; k = next) {
            next = link[k];
            const int p = first[k], end = ixvec1(k + 1);
            const double l = xspars(p);
            sum += l * l;
            if (p + 1 == end) continue;
            const int shift = ixvec2(k) - ixvec1(k);
            const int i = ixsub(p + 1 + shift);
            first[k] = p + 1;
            link[k] = link[i];
            link[i] = k;
            for (int q = p + 1; q < end; ++q) temp[ixsub(q + shift)] += l * xspars(q);
        }
        double diagj = diag(j) - sum;
        const bool accepted = rule.repair ? repair_pivot(j, diag(j), diagj, rule) : diagj >= rule.limit;
        if (!accepted) {
            pivot = diagj;
            return j;
        }
        diag(j) = std::sqrt(diagj);
        const double r = 1.0 / diag(j);
        const int start = ixvec1(j), end = ixvec1(j + 1);
        // a column without rows below is in no chain
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
    s.state = store_state::factor;
    return 0;
}

bool worth_supernodes(const sparse_store& s) {
    return s.maxlnz > 0 && count_operations(s.n, s.ixvec1) > operations_for_each_element * s.maxlnz;
}

} // namespace tarvex
