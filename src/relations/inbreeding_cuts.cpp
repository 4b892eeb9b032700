// The list is cut into stretches. Relationships between animals of one stretch have two parts. Common ancestors within
// the stretch are found by tracing the ancestors of both parents generation by generation. All older ones come in
// through the border, the old parents of the stretch: with t(i,y) the share of border animal y in animal i,
//   a(s,d) = sum over young k of T(s,k) T(d,k) D(k) + sum over border y of a(s,y) t(d,y),
// and a(.,y) is a column of A, by one sweep up from y and one down to the end of the stretch, for several y at a time.
// A trace doubles with each generation but stays short within a stretch; columns are needed for one border only.
//   Meuwissen and Luo, Genet. Sel. Evol. 24 (1992) 305 (traces); Colleau, Genet. Sel. Evol. 34 (2002) 409 (columns).
#include "relations/inbreeding_cuts.h"

#include "relations/inbreeding.h"

#include <algorithm>
#include <array>
#include <limits>

namespace tarvex {

namespace {

constexpr int width = 8;        // border animals swept together
constexpr int most_places = 48; // places at which the list may be cut

struct alignas(64) column_block : std::array<double, width> {}; // a cache line

// Animal of a column sweep. Its column and those of its parents stand in slots, which are given on after the last
// offspring, so that what is in use stays close together. Slot 0 stands for an unknown parent.
struct swept {
    int sire, dam, slot; // slot 0 of a young animal: no parent of the stretch
    int animal;
};

struct stretches {
    const std::vector<int>&sire, &dam;
    std::vector<double> f{}, d{};      // f by animal from [0]; what follows by animal from [1]
    int first = 1, last = 0;           // stretch in hand
    std::vector<int> border{};         // animals
    std::vector<swept> old{}, young{}; // ancestors of the border and itself; the stretch
    std::vector<int> slot{};           // while they are given out
    std::vector<int> border_slot{};
    std::vector<column_block> up{};            // by animal: D T' e(y)
    std::vector<char> above{};                 // by animal: up is not zero
    std::vector<column_block> a{}, t{};        // by slot: relationship with the border animals in hand, their share
    std::vector<char> shared{};                // by slot: t is not zero
    std::vector<int> level{};                  // generation within the stretch
    std::vector<std::vector<int>> traced{};    // animals met, by generation
    std::vector<std::array<double, 2>> part{}; // T(s,k), T(d,k)
    std::vector<int> met{};                    // trace that met the animal last
    std::vector<int> mate{};                   // last mate of a dam, and their relationship within the stretch
    std::vector<double> with_mate{};
    int trace = 0;
};

// Lists the border, its ancestors and the stretch, with their slots.
void list_animals(stretches& w) {
    std::vector<char> mark(static_cast<std::size_t>(w.last) + 1), parent(mark.size());
    for (int i = w.first; i <= w.last; ++i)
        for (const int p : {w.sire[i - 1], w.dam[i - 1]}) mark[p] = parent[p] = 1;
    for (int i = w.first - 1; i > 0; --i)
        if (mark[i]) mark[w.sire[i - 1]] = mark[w.dam[i - 1]] = 1;
    mark[0] = 0;
    std::vector<int> youngest(mark.size()), free;
    for (int i = 1; i <= w.last; ++i)
        if (mark[i] || i >= w.first) youngest[w.sire[i - 1]] = youngest[w.dam[i - 1]] = i;
    w.border.clear();
    w.border_slot.clear();
    w.old.clear();
    w.young.clear();
    int slots = 0;
    for (int i = 1; i <= w.last; ++i) {
        if (!mark[i] && i < w.first) continue;
        const int s = w.sire[i - 1], d = w.dam[i - 1];
        swept r{w.slot[s], w.slot[d], 0, i};
        for (const int p : {s, d == s ? 0 : d})
            if (p > 0 && youngest[p] == i) free.push_back(w.slot[p]);
        if (mark[i]) {
            if (free.empty()) free.push_back(++slots);
            r.slot = w.slot[i] = free.back();
            free.pop_back();
        }
        if (i < w.first) {
            w.old.push_back(r);
            if (parent[i]) w.border.push_back(i), w.border_slot.push_back(r.slot);
        } else if (s > 0 || d > 0 || r.slot > 0)
            w.young.push_back(r);
    }
    const auto size = static_cast<std::size_t>(slots) + 1;
    w.a.assign(size, {});
    w.t.assign(size, {});
    w.shared.assign(size, 0);
}

// up = D T' e(y) for the border animals at [from, to) of the border.
void sweep_up(stretches& w, std::size_t from, std::size_t to) {
    for (std::size_t k = from; k < to; ++k) {
        const int i = w.border[k];
        w.up[i] = {};
        w.up[i][k - from] = 1.0;
        w.above[i] = 1;
    }
    for (int i = w.border[to - 1]; i > 0; --i) {
        if (!w.above[i]) continue;
        column_block half = w.up[i];
        for (double& x : w.up[i]) x *= w.d[i];
        for (double& x : half) x *= 0.5;
        for (const int p : {w.sire[i - 1], w.dam[i - 1]}) {
            if (p == 0) continue;
            if (!w.above[p]) w.up[p] = {};
            w.above[p] = 1;
            for (int k = 0; k < width; ++k) w.up[p][k] += half[k];
        }
    }
}

// a becomes the relationships of old animals with the border animals in hand.
void sweep_down(stretches& w) {
    for (const swept& r : w.old) {
        const column_block &s = w.a[r.sire], &d = w.a[r.dam];
        column_block x;
        for (int k = 0; k < width; ++k) x[k] = 0.5 * (s[k] + d[k]);
        if (w.above[r.animal]) {
            for (int k = 0; k < width; ++k) x[k] += w.up[r.animal][k];
            w.above[r.animal] = 0;
        }
        w.a[r.slot] = x;
    }
}

// Down the stretch: F gains half of the sum over the border of a(sire,y) t(dam,y).
void sweep_stretch(stretches& w) {
    for (const swept& r : w.young) {
        const column_block &s = w.a[r.sire], &d = w.a[r.dam];
        const bool by_sire = w.shared[r.sire], by_dam = w.shared[r.dam];
        if (by_dam && r.sire > 0) {
            const column_block& t = w.t[r.dam];
            double sum = 0.0;
            for (int k = 0; k < width; ++k) sum += s[k] * t[k];
            w.f[r.animal - 1] += 0.5 * sum;
        }
        if (r.slot == 0) continue;
        column_block x;
        for (int k = 0; k < width; ++k) x[k] = 0.5 * (s[k] + d[k]);
        w.a[r.slot] = x;
        if (by_sire || by_dam) {
            column_block t{};
            if (by_sire)
                for (int k = 0; k < width; ++k) t[k] += 0.5 * w.t[r.sire][k];
            if (by_dam)
                for (int k = 0; k < width; ++k) t[k] += 0.5 * w.t[r.dam][k];
            w.t[r.slot] = t;
        }
        w.shared[r.slot] = by_sire || by_dam;
    }
}

// The part of all coefficients of the stretch that comes in through the border.
void through_border(stretches& w) {
    list_animals(w);
    for (std::size_t from = 0; from < w.border.size(); from += width) {
        const std::size_t to = std::min(from + width, w.border.size());
        sweep_up(w, from, to);
        sweep_down(w);
        std::fill(w.shared.begin(), w.shared.end(), char{0});
        for (std::size_t k = from; k < to; ++k) {
            w.t[w.border_slot[k]] = {};
            w.t[w.border_slot[k]][k - from] = 1.0;
            w.shared[w.border_slot[k]] = 1;
        }
        sweep_stretch(w);
    }
}

// Notes that ancestor i was met with these parts of sire and dam.
void meet(stretches& w, int i, double ts, double td, int& top) {
    if (i < w.first) return;
    if (w.met[i] != w.trace) {
        w.met[i] = w.trace;
        w.part[i] = {};
        w.traced[w.level[i]].push_back(i);
        top = std::max(top, w.level[i]);
    }
    w.part[i][0] += ts;
    w.part[i][1] += td;
}

// Relationship of s and d by common ancestors within the stretch.
double within_stretch(stretches& w, int s, int d) {
    if (s < w.first || d < w.first) return 0.0;
    if (w.mate[d] == s) return w.with_mate[d];
    ++w.trace;
    int top = 0;
    meet(w, s, 1.0, 0.0, top);
    meet(w, d, 0.0, 1.0, top);
    double sum = 0.0;
    for (int g = top; g >= 0; --g) {
        for (const int i : w.traced[g]) { // parents belong to lower generations
            const auto [ts, td] = w.part[i];
            sum += ts * td * w.d[i];
            meet(w, w.sire[i - 1], 0.5 * ts, 0.5 * td, top);
            meet(w, w.dam[i - 1], 0.5 * ts, 0.5 * td, top);
        }
        w.traced[g].clear();
    }
    w.mate[d] = s;
    w.with_mate[d] = sum;
    return sum;
}

void trace_stretch(stretches& w) {
    for (int i = w.first; i <= w.last; ++i) {
        const int s = w.sire[i - 1], d = w.dam[i - 1];
        const auto above = [&](int p) { return p >= w.first ? w.level[p] + 1 : 0; };
        w.level[i] = std::max(above(s), above(d));
        if (w.level[i] >= static_cast<int>(w.traced.size())) w.traced.resize(static_cast<std::size_t>(w.level[i]) + 1);
        if (s > 0 && d > 0) w.f[i - 1] += 0.5 * within_stretch(w, s, d);
        w.d[i] = mendelian_variance(s, d, w.f);
    }
}

// Counts from which steps are estimated: how many parents there are up to each animal, and the last offspring of each.
struct parent_counts {
    std::vector<int> upto, youngest;
    parent_counts(const std::vector<int>& sire, const std::vector<int>& dam)
        : upto(sire.size() + 1), youngest(sire.size() + 1) {
        for (std::size_t i = 1; i < upto.size(); ++i)
            youngest[sire[i - 1]] = youngest[dam[i - 1]] = static_cast<int>(i);
        youngest[0] = 0;
        for (std::size_t i = 1; i < upto.size(); ++i) upto[i] = upto[i - 1] + (youngest[i] > 0 ? 1 : 0);
    }
};

// Places in equal parts of the list, each where the fewest animals have offspring behind it.
std::vector<int> cut_places(const parent_counts& c) {
    const int n = static_cast<int>(c.upto.size()) - 1, parts = std::min(n, most_places);
    std::vector<int> change(static_cast<std::size_t>(n) + 2), places{0};
    for (int i = 1; i <= n; ++i)
        if (c.youngest[i] > 0) ++change[i], --change[c.youngest[i]];
    int live = 0, at = 1;
    for (int part = 1; part <= parts; ++part) {
        const int end = static_cast<int>(static_cast<std::int64_t>(n) * part / parts);
        int fewest = std::numeric_limits<int>::max(), best = end;
        for (; at <= end; ++at) {
            live += change[at];
            if (live <= fewest) fewest = live, best = at;
        }
        places.push_back(part == parts ? n : best);
    }
    return places;
}

// Steps of a stretch that begins behind places[from], for each place at which it may end.
std::vector<std::int64_t> stretch_steps(const std::vector<int>& sire, const std::vector<int>& dam,
                                        const parent_counts& c, const std::vector<int>& places, std::size_t from) {
    const int n = static_cast<int>(sire.size()), before = places[from];
    std::vector<std::int64_t> steps(places.size());
    std::vector<int> length(static_cast<std::size_t>(n) + 1); // of a trace; -1: border animal
    std::int64_t traces = 0, border = 0;
    std::size_t next = from + 1;
    for (int i = before + 1; i <= n; ++i) {
        std::int64_t ancestors = 0;
        bool both = true;
        for (const int p : {sire[i - 1], dam[i - 1]}) {
            if (p > before)
                ancestors += length[p];
            else
                both = false;
            if (p > 0 && p <= before && length[p] == 0) length[p] = -1, ++border;
        }
        if (both) traces += ancestors;
        length[i] = static_cast<int>(1 + std::min<std::int64_t>(ancestors, c.upto[i] - c.upto[before]));
        for (; next < places.size() && places[next] == i; ++next)
            steps[next] = traces + (border + width - 1) / width * c.upto[i];
    }
    return steps;
}

} // namespace

pedigree_cuts cut_pedigree(const std::vector<int>& sire, const std::vector<int>& dam) {
    const parent_counts c(sire, dam);
    const std::vector<int> places = cut_places(c);
    std::vector<std::int64_t> cost(places.size(), std::numeric_limits<std::int64_t>::max());
    std::vector<std::size_t> begin(places.size());
    cost[0] = 0;
    for (std::size_t from = 0; from + 1 < places.size(); ++from) {
        const std::vector<std::int64_t> steps = stretch_steps(sire, dam, c, places, from);
        for (std::size_t to = from + 1; to < places.size(); ++to)
            if (cost[from] + steps[to] < cost[to]) cost[to] = cost[from] + steps[to], begin[to] = from;
    }
    pedigree_cuts cuts{{}, cost.back()};
    for (std::size_t at = places.size() - 1; at > 0; at = begin[at]) cuts.last.insert(cuts.last.begin(), places[at]);
    return cuts;
}

std::int64_t sweep_steps(const std::vector<int>& sire, const std::vector<int>& dam) {
    const parent_counts c(sire, dam);
    const std::size_t n = sire.size();
    std::vector<std::int64_t> length(n + 1), family(n + 1); // ancestors of an animal, of a sire and his mates
    std::vector<int> youngest(n + 1);                       // of a sire and his mates
    for (std::size_t i = 1; i <= n; ++i) {
        const int s = sire[i - 1], d = dam[i - 1];
        length[i] = 1 + std::min<std::int64_t>(length[s] + length[d], c.upto[i]);
        if (s == 0 || d == 0) continue;
        family[s] += length[d] + (family[s] == 0 ? length[s] : 0);
        youngest[s] = std::max({youngest[s], s, d});
    }
    std::int64_t steps = 0, group = 0;
    int in_hand = 0, last = 0;
    for (std::size_t s = 1; s <= n; ++s) {
        if (family[s] > 0) {
            group += family[s];
            last = std::max(last, youngest[s]);
            ++in_hand;
        }
        if (in_hand < 8 && s < n) continue;
        steps += 2 * std::min<std::int64_t>(group, c.upto[last]);
        group = in_hand = last = 0;
    }
    return steps;
}

std::vector<double> inbreeding_by_cuts(const std::vector<int>& sire, const std::vector<int>& dam,
                                       const std::vector<int>& last, const std::function<void(int)>& done) {
    const std::size_t m = sire.size() + 1;
    stretches w{sire, dam, std::vector<double>(sire.size()), std::vector<double>(m)};
    w.slot.resize(m);
    w.up.resize(m);
    w.above.resize(m);
    w.level.resize(m);
    w.part.resize(m);
    w.met.resize(m);
    w.mate.resize(m);
    w.with_mate.resize(m);
    for (const int end : last) {
        w.last = end;
        std::fill(w.mate.begin(), w.mate.end(), 0);
        through_border(w);
        trace_stretch(w);
        if (done) done(end);
        w.first = end + 1;
    }
    return std::move(w.f);
}

} // namespace tarvex
