// An animal's coefficient is half the relationship between its parents. With A = T D T' the relationships of one sire
// with all of its mates are a column of A: one sweep up from the sire, a scaling by D, and one sweep down to the mates,
// both restricted to ancestors and each visiting an ancestor once. Sires are taken in ascending order, so that D is
// known for all ancestors of the sire in hand.
//   Colleau, Genet. Sel. Evol. 34 (2002) 409; Sargolzaei, Iwaisaki and Colleau, J. Anim. Breed. Genet. 122 (2005) 325.
#include "relations/inbreeding.h"

#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/pedigreelist.h"
#include "relations/nrminverse.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <utility>

namespace tarvex {

namespace {

struct lineage {
    const std::vector<int>&sire, &dam;
    std::vector<double> f; // by animal from [0]; all that follows from [1]
    std::vector<double> d;
    std::vector<double> v; // scaled contribution of the sire's ancestors, all zero between sires
    std::vector<double> a; // relationship with the sire in hand, valid where stamp is this sire
    std::vector<int> stamp, upmark;
    std::vector<int> list, stack;
};

// Lists the ancestors of s and s itself, ancestors before their offspring.
void list_ancestors(lineage& w, int s) {
    w.list.clear();
    w.stack.assign(1, s);
    while (!w.stack.empty()) {
        const int i = w.stack.back();
        if (i < 0) {
            w.list.push_back(-i);
            w.stack.pop_back();
            continue;
        }
        if (w.upmark[i] == s) {
            w.stack.pop_back();
            continue;
        }
        w.upmark[i] = s;
        w.stack.back() = -i; // comes back when both parents are listed
        for (const int p : {w.sire[i - 1], w.dam[i - 1]})
            if (p > 0 && w.upmark[p] != s) w.stack.push_back(p);
    }
}

// v = D T' e(s) over the ancestors of s.
void sweep_up(lineage& w, int s) {
    list_ancestors(w, s);
    w.v[s] = 1.0;
    for (auto at = w.list.rbegin(); at != w.list.rend(); ++at) {
        const int i = *at;
        const double half = 0.5 * w.v[i];
        if (w.sire[i - 1] > 0) w.v[w.sire[i - 1]] += half;
        if (w.dam[i - 1] > 0) w.v[w.dam[i - 1]] += half;
    }
    for (const int i : w.list) w.v[i] *= w.d[i];
}

// Relationship of s with animal j: a(j) = v(j) + (a(sire) + a(dam)) / 2.
double sweep_down(lineage& w, int s, int j) {
    w.stack.assign(1, j);
    while (!w.stack.empty()) {
        const int i = w.stack.back(), p = w.sire[i - 1], q = w.dam[i - 1];
        if (w.stamp[i] == s) {
            w.stack.pop_back();
            continue;
        }
        const bool wait_p = p > 0 && w.stamp[p] != s, wait_q = q > 0 && w.stamp[q] != s;
        if (wait_p) w.stack.push_back(p);
        if (wait_q) w.stack.push_back(q);
        if (wait_p || wait_q) continue;
        w.a[i] = w.v[i] + 0.5 * ((p > 0 ? w.a[p] : 0.0) + (q > 0 ? w.a[q] : 0.0));
        w.stamp[i] = s;
        w.stack.pop_back();
    }
    return w.a[j];
}

// Offspring with two known parents, by sire: those of sire s are list[start[s]] to list[start[s+1]-1].
void offspring_by_sire(const std::vector<int>& sire, const std::vector<int>& dam, std::vector<int>& start,
                       std::vector<int>& list) {
    const std::size_t n = sire.size();
    start.assign(n + 2, 0);
    for (std::size_t i = 0; i < n; ++i)
        if (sire[i] > 0 && dam[i] > 0) ++start[sire[i] + 1];
    for (std::size_t s = 1; s < start.size(); ++s) start[s] += start[s - 1];
    list.resize(static_cast<std::size_t>(start.back()));
    std::vector<int> at(start.begin(), start.end() - 1);
    for (std::size_t i = 0; i < n; ++i)
        if (sire[i] > 0 && dam[i] > 0) list[at[sire[i]]++] = static_cast<int>(i) + 1;
}

void write_summary(text_out& out, int jj, int n, double fbar) {
    write(out, "(/a,i4,a)", "Inbreeding coefficients for random effect", jj, " computed");
    write(out, "(a,i8)", "No. of inbred animals          =", n);
    write(out, "(a,f8.4,a)", "Average inbreeding coefficient =", fbar, " (in %)");
}

} // namespace

std::vector<double> inbreeding(const std::vector<int>& sire, const std::vector<int>& dam,
                               const std::function<void(int)>& done) {
    const int n = static_cast<int>(sire.size());
    const std::size_t m = sire.size() + 1;
    std::vector<int> start, list;
    offspring_by_sire(sire, dam, start, list);
    lineage w{sire,
              dam,
              std::vector<double>(sire.size()),
              std::vector<double>(m),
              std::vector<double>(m),
              std::vector<double>(m),
              std::vector<int>(m),
              std::vector<int>(m),
              {},
              {}};
    auto& f = w.f;
    for (int s = 1; s <= n; ++s) {
        w.d[s] = mendelian_variance(sire[s - 1], dam[s - 1], f);
        if (start[s] < start[s + 1]) {
            sweep_up(w, s);
            for (int k = start[s]; k < start[s + 1]; ++k) f[list[k] - 1] = 0.5 * sweep_down(w, s, dam[list[k] - 1]);
            for (const int i : w.list) w.v[i] = 0.0;
        }
        if (done) done(s);
    }
    return std::move(w.f);
}

void inbreed_coeffs(int jj, int nanim, text_out& out) {
    const auto& sire = pedigreelist.sire(jj);
    const auto& dam = pedigreelist.dam(jj);
    const std::vector<double> f = inbreeding(sire, dam, [&](int ia) {
        if (!options.terse && ia % 5000 == 0) write(screen(), "(2x,a,i10,a,i10)", "inbreed : at", ia, "  of", nanim);
    });
    double sum = 0.0;
    int n = 0;
    for (int i = 1; i <= nanim; ++i) {
        nrminverse.nrmdiag(i) = mendelian_variance(sire[i - 1], dam[i - 1], f);
        sum += f[i - 1];
        if (f[i - 1] > 0.0) ++n;
    }
    if (nrminverse.ifin.allocated()) {
        for (int i = 1; i <= nanim; ++i) nrminverse.inbreed(i, jj) = f[i - 1];
        nrminverse.ifin(jj) = 1;
    }
    const double fbar = nanim > 0 ? 100.0 * sum / nanim : 0.0;
    write_summary(out, jj, n, fbar);
    if (!options.verbose) return;
    write_summary(screen(), jj, n, fbar);
    if (n > 0) write(screen(), "(a,f8.4,a)", "... amongst inbred animals     =", 100.0 * sum / n, " (in %)");
}

} // namespace tarvex
