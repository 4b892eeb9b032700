// The list is cut into stretches. Relationships between animals of one stretch have two parts. Common ancestors within
// the stretch are found on the ways up from both parents. All older ones come in through the border, the old parents of
// the stretch: with t(i,y) the share of border animal y in animal i,
//   a(s,d) = sum over young k of T(s,k) T(d,k) D(k) + sum over border y of a(d,y) t(s,y),
// and a(.,y) is a column of A (border_sweeps.h). The ways up double with each generation but are few within a stretch;
// columns are needed for one border only.
//   Meuwissen and Luo, Genet. Sel. Evol. 24 (1992) 305 (ways up); Colleau, Genet. Sel. Evol. 34 (2002) 409 (columns).
#include "relations/inbreeding_cuts.h"

#include "relations/border_sweeps.h"
#include "relations/inbreeding.h"
#include "relations/sweep_order.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>

namespace tarvex {

namespace {

constexpr int most_places = 48; // places at which the list may be cut
constexpr int most_listed = 32; // ways up that are kept as a list, and generations in them

// The animals of a stretch by place in it, from 1. Of animals with few ways up these are listed by the places and the
// generations at their ends; ways of others are followed until such animals are met.
struct stretch_tree {
    std::vector<std::array<int, 2>> up{}; // parents; 0: older or unknown
    std::vector<double> d{};              // D(k)
    std::vector<double> x{};              // T(s,k) for common ancestors of the pair in hand, else 0
    std::vector<std::size_t> begin{};     // ways listed: at begin to begin+count-1 of the next two; count 0: too many
    std::vector<int> count{}, ends{};
    std::vector<unsigned char> generations{};
    std::vector<int> path{};                         // animals whose ways are not listed
    std::vector<std::uint64_t> of_sire{}, of_both{}; // a bit for each ancestor of `sire`, of him and his mate
    std::vector<std::pair<int, double>> common{};    // ways up from the mate to ancestors of both: place, share
    int sire = 0;                                    // the sire in hand
    int dam = 0;                                     // his last mate
    double with_dam = 0.0;                           // and their relationship within the stretch
};

std::size_t word(int place) { return static_cast<std::size_t>(place) / 64; }
std::uint64_t bit(int place) { return std::uint64_t{1} << (static_cast<unsigned>(place) % 64); }

// Number of ways up from the animal at `place`, itself among them; 0 if they are too many to be listed.
int count_ways(const stretch_tree& w, int place) {
    int ways = 1;
    for (const int p : w.up[place])
        if (p > 0) ways += w.count[p] > 0 ? w.count[p] : most_listed;
    return ways > most_listed ? 0 : ways;
}

// Lists the ways up from the animal at `place`, itself first.
void list_ways(stretch_tree& w, int place) {
    w.begin[place] = w.ends.size();
    w.ends.push_back(place);
    w.generations.push_back(0);
    for (const int p : w.up[place])
        for (std::size_t k = w.begin[p], end = k + w.count[p]; k < end; ++k) {
            w.ends.push_back(w.ends[k]);
            w.generations.push_back(static_cast<unsigned char>(w.generations[k] + 1));
        }
}

// The columns are done with by now: o.at and o.place are given up.
stretch_tree make_tree(sweep_order& o) {
    const int older = o.run[o.young] - 1, places = static_cast<int>(o.at.size()) - older;
    stretch_tree w;
    w.up.resize(places);
    w.count.resize(places);
    std::size_t listed = 0;
    for (int k = 1; k < places; ++k) {
        const swept& x = o.at[older + k];
        // older parents belong to the border
        w.up[k] = {std::max(x.sire - older, 0), std::max(x.dam - older, 0)};
        if (x.slot > 0) w.count[k] = count_ways(w, k); // a parent
        listed += w.count[k];
    }
    o.at = {};
    o.place = {};
    w.begin.resize(places);
    w.ends.reserve(listed);
    w.generations.reserve(listed);
    for (int k = 1; k < places; ++k)
        if (w.count[k] > 0) list_ways(w, k);
    w.d.resize(places);
    w.x.resize(places);
    w.of_sire.resize(word(places) + 1);
    w.of_both.resize(word(places) + 1);
    return w;
}

// Visits all ways up from the animal at `place` within the stretch: visit(place, share) at the end of each, where
// share() is worked out if it is asked for.
template <class Visit> void each_way(stretch_tree& w, int place, Visit visit) {
    static constexpr std::array<double, most_listed> half_power = [] {
        std::array<double, most_listed> x{1.0};
        for (std::size_t k = 1; k < x.size(); ++k) x[k] = 0.5 * x[k - 1];
        return x;
    }();
    w.path.assign(1, place);
    std::size_t begin = 0;
    for (double share = 1.0; begin < w.path.size(); share *= 0.5)
        for (const std::size_t end = w.path.size(); begin < end; ++begin) {
            const int i = w.path[begin];
            const int* next = w.ends.data() + w.begin[w.path[std::min(begin + 3, end - 1)]];
            for (const int line : {0, 16}) __builtin_prefetch(next + line);
            const std::size_t from = w.begin[i], to = from + w.count[i];
            for (std::size_t k = from; k < to; ++k)
                visit(w.ends[k], [&] { return share * half_power[w.generations[k]]; });
            if (to > from) continue;
            visit(i, [&] { return share; });
            for (const int p : w.up[i])
                if (p > 0) w.path.push_back(p);
        }
}

// Sum over common ancestors of the sire in hand and of d. Few are common: sets of bits, which stay close by, tell them.
double over_common(stretch_tree& w, int d) {
    w.common.clear();
    each_way(w, d, [&](int k, auto share) {
        if ((w.of_sire[word(k)] & bit(k)) == 0) return;
        w.common.emplace_back(k, share());
        w.of_both[word(k)] |= bit(k);
    });
    if (w.common.empty()) return 0.0;
    each_way(w, w.sire, [&](int k, auto share) {
        if ((w.of_both[word(k)] & bit(k)) != 0) w.x[k] += share();
    });
    double sum = 0.0;
    for (const auto& [k, share] : w.common) sum += share * w.x[k] * w.d[k];
    for (const auto& [k, share] : w.common) w.x[k] = 0.0, w.of_both[word(k)] = 0;
    return sum;
}

// Relationship of s and d by common ancestors within the stretch.
double within_stretch(stretch_tree& w, int s, int d) {
    if (s != w.sire) {
        // the ancestors of the last sire are taken back along his ways
        if (w.sire > 0) each_way(w, w.sire, [&](int k, auto) { w.of_sire[word(k)] = 0; });
        each_way(w, s, [&](int k, auto) { w.of_sire[word(k)] |= bit(k); });
        w.sire = s;
        w.dam = 0;
    }
    // full sibs: the sum is that of the last one
    if (d != w.dam) w.with_dam = over_common(w, d);
    w.dam = d;
    return w.with_dam;
}

// Adds what comes in within the stretch to F, in the order of `o`, where brothers and full sibs stand together.
void add_within_stretch(sweep_order& o, const std::vector<int>& sire, const std::vector<int>& dam,
                        std::vector<double>& f) {
    const int older = o.run[o.young] - 1;
    stretch_tree w = make_tree(o);
    for (int k = 1; k < static_cast<int>(w.up.size()); ++k) {
        const int i = o.animal[older + k], s = w.up[k][0], d = w.up[k][1];
        // a parent outside has no common ancestor inside with the other
        if (s > 0 && d > 0) f[i - 1] += 0.5 * within_stretch(w, s, d);
        w.d[k] = mendelian_variance(sire[i - 1], dam[i - 1], f);
    }
}

// Counts from which steps are estimated, by animal.
struct parent_counts {
    std::vector<int> upto, youngest; // parents up to here, last offspring
    std::vector<int> level;          // generations in the longest line of ancestors
    std::vector<double> ancestors;   // and itself, an upper limit
    parent_counts(const std::vector<int>& sire, const std::vector<int>& dam)
        : upto(sire.size() + 1), youngest(sire.size() + 1), level(sire.size() + 1), ancestors(sire.size() + 1) {
        for (std::size_t i = 1; i < upto.size(); ++i)
            youngest[sire[i - 1]] = youngest[dam[i - 1]] = static_cast<int>(i);
        youngest[0] = 0;
        for (std::size_t i = 1; i < upto.size(); ++i) {
            const int s = sire[i - 1], d = dam[i - 1];
            upto[i] = upto[i - 1] + (youngest[i] > 0 ? 1 : 0);
            level[i] = s > 0 || d > 0 ? 1 + std::max(level[s], level[d]) : 0;
            // no more than there are parents
            ancestors[i] = 1.0 + std::min<double>(ancestors[s] + ancestors[d], upto[i]);
        }
    }
};

// Places in equal parts of the list, each where the fewest animals have offspring behind it.
std::vector<int> cut_places(const parent_counts& c) {
    const int n = static_cast<int>(c.upto.size()) - 1, parts = std::min(n, most_places);
    std::vector<int> change(n + 2), places{0};
    for (int i = 1; i <= n; ++i)
        if (c.youngest[i] > 0) ++change[i], --change[c.youngest[i]];
    int live = 0, at = 1;
    for (int part = 1; part <= parts; ++part) {
        // live: animals whose offspring stand on both sides of the place
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

// What the border of a stretch costs.
struct border_counts {
    double size = 0.0, above = 0.0; // animals, their ancestors
    double shares = 0.0;            // pairs of a young animal and a border animal of which it has a share
    int level = 0, young_level = 0; // the highest
    double panels() const { return std::ceil(size / (level + young_level <= most_levels ? wide_panel : narrow_panel)); }
    // Columns down to the last of `lines` animals; of those touched on the way up and by shares, each is worth a few.
    double steps(double lines) const {
        constexpr double touched = 4.0;
        return panels() * lines + touched * (std::min(above, panels() * lines) + std::min(shares, panels() * lines));
    }
};

// Ways up from young animals, border animals of which they have shares (1 for a border animal), by animal.
struct way_counts {
    std::vector<double> ways, share;
};

// Steps of a stretch that begins behind places[from], for each place at which it may end; infinite from `limit` on.
std::vector<double> stretch_steps(const std::vector<int>& sire, const std::vector<int>& dam, const parent_counts& c,
                                  const std::vector<int>& places, std::size_t from, double limit, way_counts& w) {
    const int n = static_cast<int>(sire.size()), before = places[from];
    std::vector<double> steps(places.size(), std::numeric_limits<double>::infinity());
    auto& [ways, share] = w;
    for (auto* v : {&ways, &share}) std::fill_n(v->begin(), before + 1, 0.0);
    double traces = 0.0;
    border_counts border;
    std::size_t next = from + 1;
    for (int i = before + 1; i <= n && next < places.size(); ++i) {
        const int s = sire[i - 1], d = dam[i - 1];
        for (const int p : {s, d}) {
            // a border animal counts once for the stretch
            if (p == 0 || p > before || share[p] > 0.0) continue;
            share[p] = 1.0;
            border.size += 1.0;
            border.above += c.ancestors[p];
            border.level = std::max(border.level, c.level[p]);
        }
        if (s > before && d > before) traces += ways[s] + ways[d];
        ways[i] = 1.0 + ways[s] + ways[d];
        share[i] = std::min(share[s] + share[d], border.size);
        border.shares += std::min(share[i], border.size / wide_panel);
        border.young_level = std::max(border.young_level, c.level[i]);
        // only at places where the stretch may end
        if (i < places[next]) continue;
        // ways up are followed from both parents of each animal
        const double all = traces + border.steps(c.upto[i]);
        if (all >= limit) break;
        for (; next < places.size() && places[next] == i; ++next) steps[next] = all;
    }
    return steps;
}

} // namespace

pedigree_cuts cut_pedigree(const std::vector<int>& sire, const std::vector<int>& dam) {
    constexpr double none = std::numeric_limits<double>::infinity();
    const parent_counts c(sire, dam);
    const std::vector<int> places = cut_places(c);
    std::vector<double> cost(places.size(), none);
    std::vector<std::size_t> begin(places.size());
    cost[0] = 0.0;
    way_counts w{std::vector<double>(sire.size() + 1), std::vector<double>(sire.size() + 1)};
    for (std::size_t from = 0; from + 1 < places.size(); ++from) {
        // dearer than a whole list that is known already
        if (cost[from] >= cost.back()) continue;
        const std::vector<double> steps = stretch_steps(sire, dam, c, places, from, cost.back() - cost[from], w);
        for (std::size_t to = from + 1; to < places.size(); ++to)
            // shortest way through the places: the best cut before each of them
            if (cost[from] + steps[to] < cost[to]) cost[to] = cost[from] + steps[to], begin[to] = from;
    }
    constexpr double most = 1e18;
    pedigree_cuts cuts{{}, static_cast<std::int64_t>(std::min(cost.back(), most))};
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
        // an upper limit: common ancestors count twice
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
        // sires are swept eight together
        if (in_hand < 8 && s < n) continue;
        steps += 3 * std::min<std::int64_t>(group, c.upto[last]); // listed, up and down
        group = in_hand = last = 0;
    }
    return steps;
}

std::vector<double> inbreeding_by_cuts(const std::vector<int>& sire, const std::vector<int>& dam,
                                       const std::vector<int>& last, const std::function<void(int)>& done,
                                       int threads) {
    std::vector<double> f(sire.size()), d(sire.size() + 1);
    const std::vector<int> level = parent_counts(sire, dam).level; // the other counts are done with
    task_pool pool(threads);
    int first = 1;
    for (const int end : last) {
        sweep_order o = order_stretch(sire, dam, first, end);
        add_through_border(o, d, level, pool, f);
        add_within_stretch(o, sire, dam, f);
        for (int i = first; i <= end; ++i) d[i] = mendelian_variance(sire[i - 1], dam[i - 1], f);
        if (done) done(end);
        first = end + 1;
    }
    return f;
}

} // namespace tarvex
