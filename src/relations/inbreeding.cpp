// An animal's coefficient is half the relationship between its parents. With A = T D T' the relationships of one sire
// with all of its mates are a column of A: one sweep up from the sire, a scaling by D, and one sweep down to the mates,
// both restricted to ancestors and each visiting an ancestor once. Sires are taken in ascending order, so that D is
// known for all ancestors of the sire in hand. In deep pedigrees sires born about the same time have most of their
// ancestors in common: as many as D allows are swept together, each in a column of its own.
//   Colleau, Genet. Sel. Evol. 34 (2002) 409; Sargolzaei, Iwaisaki and Colleau, J. Anim. Breed. Genet. 122 (2005) 325.
#include "relations/inbreeding.h"

#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/pedigreelist.h"
#include "relations/inbreeding_cuts.h"
#include "relations/nrminverse.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <utility>

namespace tarvex {

namespace {

constexpr std::int64_t few_steps = 3 << 23; // sweeps by sires take no time to speak of
constexpr int most_sires = 8;               // swept together
constexpr int most_waiting = 2048;          // sires that are sorted into groups of relatives

// Sets of animals, a bit each: word i/64.
using bit_set = std::vector<std::uint64_t>;

void insert(bit_set& set, int i) {
    set[static_cast<std::size_t>(i) / 64] |= std::uint64_t{1} << (static_cast<unsigned>(i) % 64);
}

// Animal whose relationships with the sires in hand are formed, and places of its parents.
struct relative {
    int animal, sire, dam;
    bool up, down; // ancestor of a sire, of a mate (or one itself)
};

struct lineage {
    const std::vector<int>&sire, &dam;
    std::vector<double> f;             // by animal from [0]; all that follows by animal or by place from [1]
    std::vector<double> d;             // -1: not known yet
    std::vector<int> place;            // of the animals in the list
    std::vector<relative> list;        // by place, ascending animals; place 0 stands for an unknown parent
    std::vector<double> v;             // by place, one column for each sire of the group
    bit_set up, down;                  // empty between groups
    std::vector<int> group;            // sires in hand
    std::vector<int> start, offspring; // offspring with two known parents of sire s: start[s] to start[s+1]-1
};

// Visits the mates of the group: visit(column, offspring, mate).
template <class Visit> void each_mate(const lineage& w, Visit visit) {
    for (std::size_t k = 0; k < w.group.size(); ++k)
        for (int at = w.start[w.group[k]]; at < w.start[w.group[k] + 1]; ++at)
            visit(k, w.offspring[at], w.dam[w.offspring[at] - 1]);
}

// Lists the ancestors of the sires and of their mates, and these themselves.
void list_relatives(lineage& w) {
    int youngest = 0;
    for (const int s : w.group) {
        insert(w.up, s);
        youngest = std::max(youngest, s);
    }
    each_mate(w, [&](std::size_t, int, int mate) {
        insert(w.down, mate);
        youngest = std::max(youngest, mate);
    });
    w.list.clear();
    for (std::size_t word = youngest / 64 + 1; word-- > 0;) {
        // from the youngest down; ancestors have smaller numbers and are met later
        while (const std::uint64_t either = w.up[word] | w.down[word]) { // parents may fall into the same word
            const int bit = 63 - std::countl_zero(either), i = static_cast<int>(word * 64) + bit;
            const std::uint64_t mask = std::uint64_t{1} << static_cast<unsigned>(bit);
            const relative r{i, w.sire[i - 1], w.dam[i - 1], (w.up[word] & mask) != 0, (w.down[word] & mask) != 0};
            for (const int p : {r.sire, r.dam}) {
                if (p > 0 && r.up) insert(w.up, p);
                if (p > 0 && r.down) insert(w.down, p);
            }
            w.list.push_back(r);
            w.up[word] &= ~mask;
            w.down[word] &= ~mask;
        }
    }
    // place 0 takes what goes to unknown parents
    w.list.push_back({0, 0, 0, false, false});
    std::reverse(w.list.begin(), w.list.end());
    for (std::size_t i = 1; i < w.list.size(); ++i) {
        relative& r = w.list[i];
        r.sire = r.sire > 0 ? w.place[r.sire] : 0;
        r.dam = r.dam > 0 ? w.place[r.dam] : 0;
        w.place[r.animal] = static_cast<int>(i);
    }
}

// v = D T' e(s) for each sire s of the group, over the ancestors of all of them.
template <int width> void sweep_up(lineage& w) {
    for (std::size_t i = w.list.size() - 1; i > 0; --i) {
        const relative& r = w.list[i];
        if (!r.up) continue;
        double& d = w.d[r.animal];
        // F of its parents is known: their sires came before
        if (d < 0.0) d = mendelian_variance(w.sire[r.animal - 1], w.dam[r.animal - 1], w.f);
        double* v = w.v.data() + i * width;
        std::array<double, width> half;
        for (int k = 0; k < width; ++k) half[k] = 0.5 * v[k];
        for (int k = 0; k < width; ++k) v[k] *= d;
        for (const int parent : {r.sire, r.dam}) {
            double* p = w.v.data() + std::ptrdiff_t{parent} * width;
            for (int k = 0; k < width; ++k) p[k] += half[k];
        }
    }
    // unknown parents have no relationships
    std::fill_n(w.v.begin(), width, 0.0);
}

// v becomes the relationships of the sires with the ancestors of mates: a = v + (a(sire) + a(dam)) / 2.
template <int width> void sweep_down(lineage& w) {
    for (std::size_t i = 1; i < w.list.size(); ++i) {
        const relative& r = w.list[i];
        if (!r.down) continue;
        double* v = w.v.data() + i * width;
        const double* p = w.v.data() + std::ptrdiff_t{r.sire} * width;
        const double* q = w.v.data() + std::ptrdiff_t{r.dam} * width;
        std::array<double, width> a;
        for (int k = 0; k < width; ++k) a[k] = v[k] + 0.5 * (p[k] + q[k]);
        for (int k = 0; k < width; ++k) v[k] = a[k];
    }
}

// Coefficients of all offspring of the group.
template <int width> void sweep(lineage& w) {
    list_relatives(w);
    w.v.assign(w.list.size() * width, 0.0);
    for (std::size_t k = 0; k < w.group.size(); ++k) w.v[std::ptrdiff_t{w.place[w.group[k]]} * width + k] = 1.0;
    sweep_up<width>(w);
    sweep_down<width>(w);
    each_mate(w, [&](std::size_t k, int child, int mate) {
        w.f[child - 1] = 0.5 * w.v[std::ptrdiff_t{w.place[mate]} * width + k];
    });
}

// Coefficients of the offspring of sires between which D does not matter: brothers go together.
void sweep_sires(lineage& w, std::vector<int>& waiting) {
    std::sort(waiting.begin(), waiting.end(), [&](int i, int j) {
        const auto key = [&](int s) { return std::array{w.sire[s - 1], w.dam[s - 1], s}; };
        return key(i) < key(j);
    });
    for (std::size_t at = 0; at < waiting.size(); at += most_sires) {
        const std::size_t count = std::min<std::size_t>(most_sires, waiting.size() - at);
        const auto from = waiting.begin() + static_cast<std::ptrdiff_t>(at);
        w.group.assign(from, from + static_cast<std::ptrdiff_t>(count));
        if (count == 1)
            sweep<1>(w);
        else if (count <= 4)
            sweep<4>(w);
        else
            sweep<most_sires>(w);
    }
    waiting.clear();
}

// Last sire whose offspring must have their coefficients before D is known for an animal and all its ancestors.
std::vector<int> last_needed(const std::vector<int>& sire, const std::vector<int>& dam) {
    std::vector<int> need(sire.size() + 1);
    for (std::size_t i = 1; i < need.size(); ++i)
        for (const int p : {sire[i - 1], dam[i - 1]}) {
            if (p <= 0) continue;
            // D of i needs F of its parents, which their own sires give
            need[i] = std::max(need[i], need[p]);
            if (dam[p - 1] > 0) need[i] = std::max(need[i], sire[p - 1]);
        }
    return need;
}

// Offspring with two known parents, by sire: those of sire s are list[start[s]] to list[start[s+1]-1].
void offspring_by_sire(const std::vector<int>& sire, const std::vector<int>& dam, std::vector<int>& start,
                       std::vector<int>& list) {
    const std::size_t n = sire.size();
    start.assign(n + 2, 0);
    for (std::size_t i = 0; i < n; ++i)
        // others are not inbred
        if (sire[i] > 0 && dam[i] > 0) ++start[sire[i] + 1];
    for (std::size_t s = 1; s < start.size(); ++s) start[s] += start[s - 1];
    list.resize(start.back());
    std::vector<int> at(start.begin(), start.end() - 1);
    for (std::size_t i = 0; i < n; ++i)
        if (sire[i] > 0 && dam[i] > 0) list[at[sire[i]]++] = static_cast<int>(i) + 1;
}

} // namespace

std::vector<double> inbreeding_by_sires(const std::vector<int>& sire, const std::vector<int>& dam,
                                        const std::function<void(int)>& done) {
    const int n = static_cast<int>(sire.size());
    const std::size_t m = sire.size() + 1;
    const std::size_t words = m / 64 + 1;
    lineage w{sire,
              dam,
              std::vector<double>(sire.size()),
              std::vector<double>(m, -1.0),
              std::vector<int>(m),
              {},
              {},
              bit_set(words),
              bit_set(words),
              {},
              {},
              {}};
    offspring_by_sire(sire, dam, w.start, w.offspring);
    const std::vector<int> need = last_needed(sire, dam);
    int told = 0;
    std::vector<int> waiting; // ascending
    const auto finish = [&](int last) {
        sweep_sires(w, waiting);
        while (done && told < last) done(++told);
    };
    for (int s = 1; s <= n; ++s) {
        if (w.start[s] == w.start[s + 1]) continue;
        // sires wait as long as none needs the coefficients of an offspring of another
        if (waiting.size() == most_waiting || (!waiting.empty() && need[s] >= waiting.front())) finish(s - 1);
        waiting.push_back(s);
    }
    finish(n);
    return std::move(w.f);
}

std::vector<double> inbreeding(const std::vector<int>& sire, const std::vector<int>& dam,
                               const std::function<void(int)>& done, int threads) {
    const std::int64_t steps = sweep_steps(sire, dam);
    // the way by cuts has costs of its own
    if (steps < few_steps) return inbreeding_by_sires(sire, dam, done);
    const pedigree_cuts cuts = cut_pedigree(sire, dam);
    if (cuts.steps >= steps) return inbreeding_by_sires(sire, dam, done);
    std::vector<int> youngest(sire.size() + 1); // offspring of each sire
    // progress counts sires, whichever way is gone
    for (std::size_t i = 0; i < sire.size(); ++i) youngest[sire[i]] = static_cast<int>(i) + 1;
    int told = 0;
    const auto tell = [&](int m) {
        while (done && told < static_cast<int>(sire.size()) && youngest[told + 1] <= m) done(++told);
    };
    return inbreeding_by_cuts(sire, dam, cuts.last, tell, threads);
}

void write_inbreeding(text_out& out, int jj, int nanim, const inbreeding_sums& inbred) {
    write(out, "(/a,i4,a)", "Inbreeding coefficients for random effect", jj, " computed");
    write(out, "(a,i8)", "No. of inbred animals          =", inbred.count);
    write(out, "(a,f8.4,a)", "Average inbreeding coefficient =", nanim > 0 ? 100.0 * inbred.total / nanim : 0.0,
          " (in %)");
}

inbreeding_sums inbreed_coeffs(int jj, int nanim, text_out& out) {
    const auto& sire = pedigreelist.sire(jj);
    const auto& dam = pedigreelist.dam(jj);
    const auto tell = [&](int ia) {
        if (!options.terse && ia % 5000 == 0) write(screen(), "(2x,a,i10,a,i10)", "inbreed : at", ia, "  of", nanim);
    };
    const std::vector<double> f = inbreeding(sire, dam, tell, threads_wanted());
    inbreeding_sums inbred;
    for (int i = 1; i <= nanim; ++i) {
        nrminverse.nrmdiag(i) = mendelian_variance(sire[i - 1], dam[i - 1], f);
        inbred.total += f[i - 1];
        if (f[i - 1] > 0.0) ++inbred.count;
    }
    if (nrminverse.ifin.allocated()) {
        for (int i = 1; i <= nanim; ++i) nrminverse.inbreed(i, jj) = f[i - 1];
        nrminverse.ifin(jj) = 1;
    }
    write_inbreeding(out, jj, nanim, inbred);
    if (!options.verbose) return inbred;
    write_inbreeding(screen(), jj, nanim, inbred);
    if (inbred.count > 0)
        write(screen(), "(a,f8.4,a)", "... amongst inbred animals     =", 100.0 * inbred.total / inbred.count,
              " (in %)");
    return inbred;
}

void compute_inbreeding(int jj) {
    if (nrminverse.ifin(jj) != 0) return;
    const std::vector<double> f = inbreeding(pedigreelist.sire(jj), pedigreelist.dam(jj), {}, threads_wanted());
    for (std::size_t i = 0; i < f.size(); ++i) nrminverse.inbreed(static_cast<int>(i) + 1, jj) = f[i];
    nrminverse.ifin(jj) = 1;
}

} // namespace tarvex
