// With t(i,y) the share of border animal y in a young animal i, that part of the relationship between s and d is the
// sum of a(d,y) t(s,y) over the border. A column a(.,y) takes one sweep up from y, a scaling by D, and one sweep down
// to the end of the stretch, for a panel of border animals at a time. The sweeps up and the shares follow lines of
// descent one by one as long as these are few in a run, and from then on whole runs in lines of the panel.
// Reading and writing of columns is what takes the time: each number takes as few bits as it is exact in.
//   Colleau, Genet. Sel. Evol. 34 (2002) 409.
#include "relations/border_sweeps.h"

#include "relations/border_ways.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <span>
#include <sys/mman.h>
#include <type_traits>

namespace tarvex {

namespace {

// Numbers of a column: doubles, or multiples of 2**-15 in 16 bits and of 2**-30 in 32.
template <class T> constexpr int fraction_bits() {
    if (std::is_same_v<T, std::uint16_t>) return 15;
    return std::is_same_v<T, std::uint32_t> ? 30 : 0;
}
template <class T> constexpr T one = static_cast<T>(std::uint32_t{1} << fraction_bits<T>());

template <class T> T half(T x) {
    if constexpr (fraction_bits<T>() > 0)
        return static_cast<T>(x >> 1);
    else
        return 0.5 * x;
}
template <class T> T mean(T x, T y) {
    if constexpr (std::is_same_v<T, std::uint16_t>)
        return static_cast<T>(half(x) + half(y)); // their sum may not fit
    else
        return half<T>(x + y);
}

template <class T, int lanes> struct alignas(std::min<std::size_t>(64, sizeof(T) * lanes)) line { T x[lanes]; };

// x += d u, in 64 bits exact.
template <class To, class From, int lanes> void add_scaled(line<To, lanes>& x, const line<From, lanes>& u, To d) {
    for (int l = 0; l < lanes; ++l)
        if constexpr (fraction_bits<From>() > 0)
            x.x[l] += static_cast<To>(std::uint64_t{u.x[l]} * d >> fraction_bits<From>());
        else
            x.x[l] += d * u.x[l];
}
// In 16 bits with d in multiples of 2**-16, 0 for 1.
template <int lanes>
void add_scaled(line<std::uint16_t, lanes>& x, const line<std::uint16_t, lanes>& u, std::uint16_t d) {
    std::uint16_t same[lanes]; // a product of two vectors, of which compilers know the upper half
    for (int l = 0; l < lanes; ++l) same[l] = d;
    if (d == 0)
        for (int l = 0; l < lanes; ++l) x.x[l] += u.x[l];
    else
        for (int l = 0; l < lanes; ++l) x.x[l] += static_cast<std::uint16_t>((u.x[l] * std::uint32_t{same[l]}) >> 16);
}

// Sum over the lanes of x y.
double inner_product(const line<double, 8>& x, const line<double, 8>& y) {
    double sum[4];
    for (int k = 0; k < 4; ++k) sum[k] = x.x[k] * y.x[k] + x.x[k + 4] * y.x[k + 4];
    return (sum[0] + sum[1]) + (sum[2] + sum[3]);
}
template <class T, int lanes> // shares sum up to 1 at most
double inner_product(const line<std::uint32_t, lanes>& x, const line<T, lanes>& y) {
    std::uint64_t sum = 0;
    for (int k = 0; k < lanes; ++k) sum += std::uint64_t{x.x[k]} * y.x[k];
    return static_cast<double>(sum) * (1.0 / static_cast<double>(std::uint64_t{1} << (30 + fraction_bits<T>())));
}

constexpr int ahead = 12; // lines are fetched so many animals before their use

struct free_memory {
    void operator()(void* p) const { std::free(p); }
};

// Memory for lines that are read here and there: large pages where the system has them.
template <class Line> std::unique_ptr<Line[], free_memory> make_lines(std::size_t count) {
    constexpr std::size_t large_page = std::size_t{1} << 21;
    const std::size_t page = count * sizeof(Line) < large_page ? alignof(Line) : large_page;
    const std::size_t bytes = (count * sizeof(Line) + page - 1) / page * page;
    void* p = std::aligned_alloc(page, bytes);
    if (p == nullptr) throw std::bad_alloc();
#ifdef MADV_HUGEPAGE
    if (page == large_page) madvise(p, bytes, MADV_HUGEPAGE); // advice only
#endif
    auto* lines = static_cast<Line*>(p);
    std::uninitialized_value_construct_n(lines, count);
    return std::unique_ptr<Line[], free_memory>(lines);
}

// Shares and ways up take Narrow numbers, relationships Wide ones but for those of the early runs.
template <class Narrow, class Wide, int lanes> struct panel {
    static constexpr int width = lanes;
    using wide_number = Wide;
    using narrow_line = line<Narrow, lanes>;
    using wide_line = line<Wide, lanes>;
    const sweep_order& o;
    const way_map& m;
    std::size_t early_runs = 0;        // their relationships are exact in 16 bits
    int early_slots = 0;               // in use by them
    std::vector<int> late{};           // slots of early animals with offspring in other runs
    std::vector<Wide> d{};             // by place
    std::vector<double> half_power{};  // 2**-k at [k]
    std::vector<way_list> up_ways{};   // by run
    std::vector<way_list> down_ways{}; // by queue
    std::size_t line_runs = 0;         // runs before this one are swept up in lines
    int line_from = 0;                 // from this place on young animals have shares in lines
    std::unique_ptr<narrow_line[], free_memory> up_lines{}, share_lines{};
    std::span<narrow_line> up{};    // by place: T'e(y); zero between sweeps. As far as lines were needed
    std::span<narrow_line> t{};     // by slot: shares. Empty until lines are needed
    std::span<narrow_line> early{}; // by slot: relationships in early runs
    std::span<wide_line> a{};       // by slot: relationships
    std::vector<double> f{};        // by place: what came in so far
};

// Whether lines of descent are so many in a run that whole lines of the panel take less.
bool too_many(std::size_t ways, const sweep_order& o, std::size_t run) {
    const std::size_t animals = o.run[run + 1] - o.run[run];
    return ways > animals;
}

// The share that a way leaves, and the part of d that it brings.
template <class P, class T> T share_of(const P& w, unsigned length) {
    if constexpr (fraction_bits<T>() > 0)
        return static_cast<T>(one<T> >> length);
    else
        return w.half_power[length];
}
template <class P, class T> T part_of(const P& w, int place, unsigned length) {
    if constexpr (std::is_same_v<T, std::uint16_t>)
        return static_cast<T>(w.d[place] >> (fraction_bits<T>() + length));
    else if constexpr (fraction_bits<T>() > 0)
        return w.d[place] >> length;
    else
        return w.d[place] * w.half_power[length];
}

template <class P> void up_animal(P& w, int place) {
    const swept& r = w.o.at[place];
    typename P::narrow_line x;
    for (int k = 0; k < P::width; ++k) x.x[k] = half(w.up[place].x[k]);
    // T'e: what an animal has goes on to its parents by halves
    auto& s = w.up[r.sire];
    for (int k = 0; k < P::width; ++k) s.x[k] += x.x[k];
    auto& q = w.up[r.dam];
    for (int k = 0; k < P::width; ++k) q.x[k] += x.x[k];
}

// From run `last` on up the list in lines, which take over the ways that wait there.
template <class P> void up_in_lines(P& w, std::size_t last) {
    const sweep_order& o = w.o;
    w.line_runs = last + 1;
    const std::size_t places = o.run[w.line_runs];
    if (w.up.size() < places) {
        w.up_lines = make_lines<typename P::narrow_line>(places);
        w.up = {w.up_lines.get(), places};
    }
    for (std::size_t r = 0; r < w.line_runs; ++r) {
        for (const way& x : w.up_ways[r]) {
            auto& u = w.up[x.at].x[x.lane];
            u += share_of<P, std::remove_reference_t<decltype(u)>>(w, x.length);
        }
        w.up_ways[r].count = 0;
    }
    for (int k = o.run[w.line_runs] - 1; k >= o.run[1]; --k) up_animal(w, k);
    // place 0 takes what goes to unknown parents
    w.up[0] = {};
}

// T' e(y) for the border animals at [from, to) of the border: the ways up to each ancestor, or its line.
template <class P> void sweep_up(P& w, std::size_t from, std::size_t to) {
    const sweep_order& o = w.o;
    for (way_list& x : w.up_ways) x.count = 0;
    w.line_runs = 0;
    std::size_t r = 0;
    for (std::size_t k = from; k < to; ++k) {
        while (o.border[k] >= o.run[r + 1]) ++r;
        w.up_ways[r].put(make_way(o.border[k], static_cast<unsigned>(k - from), 0));
    }
    // the youngest first: within a run nobody is a parent of another
    for (++r; r-- > 0;) {
        const way_list& ways = w.up_ways[r];
        if (too_many(ways.count, o, r)) return up_in_lines(w, r);
        for (std::size_t k = 0; k < ways.count; ++k) {
            __builtin_prefetch(&w.m.up[ways.list[std::min(k + ahead, ways.count - 1)].at]);
            const way x = ways.list[k];
            const ancestor& p = w.m.up[x.at];
            if (p.sire > 0) w.up_ways[p.sire_run].put(make_way(p.sire, x.lane, x.length + 1U));
            if (p.dam > 0) w.up_ways[p.dam_run].put(make_way(p.dam, x.lane, x.length + 1U));
        }
    }
}

// Adds the Mendelian sampling of the animals of a run to their relationships.
template <class P, class T> void add_own(P& w, std::span<line<T, P::width>> a, std::size_t r) {
    const sweep_order& o = w.o;
    const int lines_end = r < w.line_runs ? o.run[r + 1] : o.run[r];
    for (int k = o.run[r]; k < lines_end; ++k) {
        if constexpr (std::is_same_v<T, std::uint16_t>)
            add_scaled(a[o.at[k].slot], w.up[k], static_cast<T>(w.d[k] >> 14));
        else
            add_scaled(a[o.at[k].slot], w.up[k], w.d[k]);
        w.up[k] = {};
    }
    const way_list& ways = w.up_ways[r];
    for (std::size_t k = 0; k < ways.count; ++k) {
        const way &x = ways.list[k], &next = ways.list[std::min(k + ahead, ways.count - 1)];
        __builtin_prefetch(&o.at[ways.list[std::min(k + 2 * ahead, ways.count - 1)].at]);
        __builtin_prefetch(&a[o.at[next.at].slot].x[next.lane]);
        a[o.at[x.at].slot].x[x.lane] += part_of<P, T>(w, x.at, x.length);
    }
}

// The line of each animal becomes half the sum of its parents'.
template <class Line> void down_animals(const sweep_order& o, std::span<Line> a, int begin, int end) {
    for (int k = begin; k < end; ++k) {
        __builtin_prefetch(&a[o.at[std::min(k + ahead, end - 1)].dam_slot]);
        const Line &s = a[o.at[k].sire_slot], &d = a[o.at[k].dam_slot];
        Line x;
        for (std::size_t l = 0; l < std::size(x.x); ++l) x.x[l] = mean(s.x[l], d.x[l]);
        a[o.at[k].slot] = x;
    }
}

// a = D T'e + half of the parents' a
template <class P, class Line> void down_run(P& w, std::span<Line> a, std::size_t r) {
    const sweep_order& o = w.o;
    if (r > 0)
        down_animals(o, a, o.run[r], o.run[r + 1]);
    else // founders
        for (int k = o.run[0]; k < o.run[1]; ++k) a[o.at[k].slot] = {};
    add_own(w, a, r);
}

// a becomes the relationships of the older animals with the border animals in hand.
template <class P> void sweep_down(P& w) {
    using number = typename P::wide_number;
    for (std::size_t r = 0; r < w.early_runs; ++r) down_run(w, w.early, r);
    if constexpr (std::is_same_v<number, std::uint32_t>)
        for (const int slot : w.late)
            for (int l = 0; l < P::width; ++l) w.a[slot].x[l] = number{w.early[slot].x[l]} << 15;
    for (std::size_t r = w.early_runs; r < w.o.young; ++r) down_run(w, w.a, r);
}

// Along the ways that wait in `queue`: what comes in by sires; and what heirs hand on.
template <bool by_sire, class P> void inherit_ways(P& w, std::size_t queue) {
    constexpr double unit = 1.0 / static_cast<double>(one<typename P::wide_number>);
    const way_list& ways = w.down_ways[queue];
    const heir* heirs = w.m.heirs.data();
    for (std::size_t k = 0; k < ways.count; ++k) {
        const way &x = ways.list[k], &next = ways.list[std::min(k + ahead / 2, ways.count - 1)];
        __builtin_prefetch(&heirs[ways.list[std::min(k + 2 * ahead, ways.count - 1)].at]);
        for (int sib = 0; by_sire && sib < 2; ++sib) {
            __builtin_prefetch(&w.a[heirs[next.at + sib].dam_slot].x[next.lane]);
            __builtin_prefetch(&w.f[heirs[next.at + sib].place]);
        }
        for (const heir* i = heirs + x.at;; ++i) {
            // F is half the relationship of the parents; that part of it which comes in through the border
            if (by_sire) w.f[i->place] += w.half_power[x.length] * (unit * w.a[i->dam_slot].x[x.lane]);
            if (i->more)
                w.m.hand_on(static_cast<int>(i->place), x.lane, x.length + 1U, w.down_ways);
            else
                w.down_ways[i->queue].put(make_way(i->next, x.lane, x.length + 1U), i->next > 0);
            if (i->last) break;
        }
    }
}

// What comes in by a young animal's sire, and its own shares where these are handed on, from the lines of its parents.
template <class P> void inherit_lines(P& w, int place, bool hand_on) {
    const swept& r = w.o.at[place];
    const bool by_sire = r.sire >= w.line_from;
    const auto& ts = w.t[by_sire ? r.sire_slot : 0]; // slot 0 holds zeros
    if (by_sire) w.f[place] += 0.5 * inner_product(w.a[r.dam_slot], ts);
    if (!hand_on) return;
    const auto& td = w.t[r.dam >= w.line_from ? r.dam_slot : 0];
    typename P::narrow_line x;
    for (int k = 0; k < P::width; ++k) {
        x.x[k] = half(ts.x[k]);
        x.x[k] += half(td.x[k]);
    }
    w.t[r.slot] = x;
}

// The ways of a run that is visited in lines end there.
template <class P> void end_ways(P& w, std::size_t queue) {
    constexpr double unit = 1.0 / static_cast<double>(one<typename P::wide_number>);
    const bool by_sire = queue % 2 == 1;
    const int sharing = w.o.sharing[queue / 2];
    for (const way& x : w.down_ways[queue])
        for (const heir* i = &w.m.heirs[x.at];; ++i) {
            const int place = static_cast<int>(i->place);
            if (by_sire) w.f[place] += w.half_power[x.length] * (unit * w.a[i->dam_slot].x[x.lane]);
            if (place < sharing) {
                auto& t = w.t[w.o.at[place].slot].x[x.lane];
                t += share_of<P, std::remove_reference_t<decltype(t)>>(w, x.length);
            }
            if (i->last) break;
        }
}

template <class P> void run_in_lines(P& w, std::size_t run) {
    const sweep_order& o = w.o;
    if (w.t.empty()) {
        w.share_lines = make_lines<typename P::narrow_line>(w.a.size());
        w.t = {w.share_lines.get(), w.a.size()};
    }
    w.line_from = std::min(w.line_from, o.run[run]);
    const int begin = o.run[run], end = o.run[run + 1], handing_on = o.sharing[run];
    for (int k = begin; k < end; ++k) {
        const swept& next = o.at[std::min(k + ahead, end - 1)];
        __builtin_prefetch(&w.a[next.dam_slot]);
        __builtin_prefetch(&w.t[next.sire_slot]);
        __builtin_prefetch(&w.t[next.dam_slot]);
        inherit_lines(w, k, k < handing_on);
    }
    end_ways(w, 2 * run);
    end_ways(w, 2 * run + 1);
}

template <class P> void sweep_stretch(P& w, std::size_t from, std::size_t to) {
    const sweep_order& o = w.o;
    for (way_list& x : w.down_ways) x.count = 0;
    for (std::size_t k = from; k < to; ++k) w.m.hand_on(o.border[k], static_cast<unsigned>(k - from), 1, w.down_ways);
    w.line_from = o.run.back();
    for (std::size_t r = o.young; r + 1 < o.run.size(); ++r) {
        down_animals(o, w.a, o.related[r], o.childless[r]);
        if (w.line_from <= o.run[r] || too_many(w.down_ways[2 * r].count + w.down_ways[2 * r + 1].count, o, r)) {
            run_in_lines(w, r);
        } else {
            inherit_ways<false>(w, 2 * r);
            inherit_ways<true>(w, 2 * r + 1);
        }
    }
}

// What one thread sweeps with.
template <class P> struct own_panel {
    own_panel(const sweep_order& o, const way_map& m, const std::vector<double>& d, std::size_t early_runs)
        : w{o, m, early_runs} {
        const std::size_t slots = o.slots + 1, older = o.run[o.young];
        using number = typename P::wide_number;
        w.d.resize(older);
        for (std::size_t k = 1; k < older; ++k)
            w.d[k] = static_cast<number>(d[o.animal[k]] * static_cast<double>(one<number>));
        for (std::size_t k = 0; k <= o.run.size(); ++k) w.half_power.push_back(std::ldexp(1.0, -static_cast<int>(k)));
        for (int k = 1; k < o.run[early_runs]; ++k) w.early_slots = std::max(w.early_slots, o.at[k].slot);
        list_late();
        const std::size_t early = w.early_slots + 1;
        narrow = make_lines<typename P::narrow_line>(early);
        wide = make_lines<typename P::wide_line>(slots);
        w.early = {narrow.get(), early};
        w.a = {wide.get(), slots};
        w.up_ways.resize(o.young);
        w.down_ways.resize(2 * o.run.size());
    }
    void list_late() {
        const sweep_order& o = w.o;
        std::vector<char> late(w.early_slots + 1);
        for (int k = o.run[w.early_runs]; k < o.run.back(); ++k) {
            if (o.at[k].sire < o.run[w.early_runs]) late[o.at[k].sire_slot] = 1;
            if (o.at[k].dam < o.run[w.early_runs]) late[o.at[k].dam_slot] = 1;
        }
        for (int slot = 1; slot <= w.early_slots; ++slot)
            if (late[slot]) w.late.push_back(slot);
    }
    std::unique_ptr<typename P::narrow_line[], free_memory> narrow;
    std::unique_ptr<typename P::wide_line[], free_memory> wide;
    P w;
};

// Panels first..end-1 of the border; what comes in through them is left in w.f.
template <class P> void sweep_part(P& w, std::size_t first, std::size_t end) {
    const std::vector<int>& border = w.o.border;
    w.f.assign(w.o.animal.size(), 0.0);
    for (std::size_t p = first; p < end; ++p) {
        const std::size_t from = p * P::width, to = std::min(from + P::width, border.size());
        sweep_up(w, from, to);
        sweep_down(w);
        sweep_stretch(w, from, to);
    }
}

// The border in parts whose sums are added up in their order, by however many threads they were made.
template <class P>
void sweep_panels(const sweep_order& o, const std::vector<double>& d, std::size_t early_runs, task_pool& pool,
                  std::vector<double>& f) {
    constexpr std::size_t most_parts = 16;
    const std::size_t panels = (o.border.size() + P::width - 1) / P::width;
    const std::size_t parts = std::min(panels, most_parts);
    const way_map m = map_ways(o);
    std::vector<std::unique_ptr<own_panel<P>>> of_slot(pool.threads());
    std::vector<std::vector<double>> sums(parts);
    // only young animals get anything
    const auto add = [&](const std::vector<double>& part) {
        for (std::size_t k = o.run[o.young]; k < part.size(); ++k) f[o.animal[k] - 1] += part[k];
    };
    const auto sweep = [&](int i, int slot) {
        auto& mine = of_slot[slot];
        if (!mine) mine = std::make_unique<own_panel<P>>(o, m, d, early_runs);
        const std::size_t part = i;
        sweep_part(mine->w, panels * part / parts, panels * (part + 1) / parts);
        // alone: parts come in their order anyway, and need not be kept
        if (pool.threads() == 1)
            add(mine->w.f);
        else
            sums[part] = mine->w.f;
    };
    pool.run([&] {
        pool.each(
            static_cast<int>(parts),
            [](const void* g, int i, int slot) { (*static_cast<const decltype(sweep)*>(g))(i, slot); }, &sweep);
    });
    for (const auto& part : sums) add(part);
}

// Generations in the longest lines of ancestors.
struct line_lengths {
    int border = 0, young = 0, within = 0; // of a border animal, of a young one, of a young one within the stretch
    std::size_t short_runs = 0;            // before the first run with an animal whose sum with `border` is above 15
};

line_lengths longest_lines(const sweep_order& o, const std::vector<int>& level) {
    line_lengths most;
    for (const int place : o.border) most.border = std::max(most.border, level[o.animal[place]]);
    std::vector<int> within(o.animal.size());
    for (int k = o.run[o.young]; k < o.run.back(); ++k) {
        within[k] = 1 + std::max(within[o.at[k].sire], within[o.at[k].dam]);
        most.within = std::max(most.within, within[k]);
        most.young = std::max(most.young, level[o.animal[k]]);
    }
    const auto is_short = [&](int animal) { return level[animal] + most.border <= fraction_bits<std::uint16_t>(); };
    const auto begin = o.animal.begin();
    while (most.short_runs < o.young &&
           std::all_of(begin + o.run[most.short_runs], begin + o.run[most.short_runs + 1], is_short))
        ++most.short_runs;
    return most;
}

} // namespace

void add_through_border(const sweep_order& o, const std::vector<double>& d, const std::vector<int>& level,
                        task_pool& pool, std::vector<double>& f) {
    if (o.border.empty()) return;
    const line_lengths most = longest_lines(o, level);
    constexpr int few = fraction_bits<std::uint16_t>();
    if (most.border + most.young > most_levels)
        sweep_panels<panel<double, double, narrow_panel>>(o, d, 0, pool, f);
    else if (most.border > few || most.within > few)
        sweep_panels<panel<std::uint32_t, std::uint32_t, wide_panel>>(o, d, 0, pool, f);
    else
        sweep_panels<panel<std::uint16_t, std::uint32_t, 2 * wide_panel>>(o, d, most.short_runs, pool, f);
}

} // namespace tarvex
