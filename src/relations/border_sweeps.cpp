// With t(i,y) the share of border animal y in a young animal i, that part of the relationship between s and d is the
// sum of a(d,y) t(s,y) over the border. A column a(.,y) takes one sweep up from y, a scaling by D, and one sweep down
// to the end of the stretch, for a panel of border animals at a time. Up the list and in shares only those are visited
// that are touched: few, until panels have so many ancestors that whole runs are.
// Reading and writing of columns is what takes the time: each number takes as few bits as it is exact in.
//   Colleau, Genet. Sel. Evol. 34 (2002) 409.
#include "relations/border_sweeps.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
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

// Animals touched in a run of the sweep up: all, or those in list[from] to list[to-1].
struct touched_run {
    bool all = false;
    std::size_t from = 0, to = 0;
};

// Shares and ways up take Narrow numbers, relationships Wide ones but for those of the early runs.
template <class Narrow, class Wide, int lanes> struct panel {
    static constexpr int width = lanes;
    using wide_number = Wide;
    using narrow_line = line<Narrow, lanes>;
    using wide_line = line<Wide, lanes>;
    const sweep_order& o;
    std::size_t early_runs = 0;           // their relationships are exact in 16 bits
    int early_slots = 0;                  // in use by them
    std::vector<Wide> d{};                // by place
    std::span<narrow_line> up{};          // by place: T'e(y); zero between sweeps
    std::span<narrow_line> early{}, t{};  // by slot: relationships in early runs, shares
    std::span<wide_line> a{};             // by slot: relationships
    std::vector<unsigned char> hit{};     // by place: to be visited
    std::vector<unsigned char> sharing{}; // by place: t is not zero
    std::vector<int> touched{};           // places touched in runs where not all are
    std::vector<int> shared{};            // places at which `sharing` is set, but for those from `all_from` on
    int all_from = 0;                     // from this place on all are visited for their shares
    std::vector<touched_run> runs{};      // by run
    std::vector<int> visits{};            // places of the run in hand that are hit
    std::vector<double> f{};              // by place: what came in so far
};

// Visits the places from `from` to `to`-1 that are hit, ascending, and leaves them not hit.
template <class Visit> void each_hit(std::vector<unsigned char>& hit, int from, int to, Visit visit) {
    static_assert(std::endian::native == std::endian::little);
    for (int k = from; k < to; k += 8) {
        std::uint64_t word;
        std::memcpy(&word, hit.data() + k, 8);
        if (k + 8 > to) word &= ~std::uint64_t{0} >> (8 * (k + 8 - to));
        for (; word != 0; word &= word - 1) {
            const int place = k + std::countr_zero(word) / 8;
            hit[place] = 0;
            visit(place);
        }
    }
}

struct free_memory {
    void operator()(void* p) const { std::free(p); }
};

// Memory for lines that are read here and there: large pages where the system has them.
template <class Line> std::unique_ptr<Line[], free_memory> make_lines(std::size_t count) {
    constexpr std::size_t page = std::size_t{1} << 21;
    const std::size_t bytes = (count * sizeof(Line) + page - 1) / page * page;
    void* p = std::aligned_alloc(page, bytes);
    if (p == nullptr) throw std::bad_alloc();
#ifdef MADV_HUGEPAGE
    madvise(p, bytes, MADV_HUGEPAGE); // advice only
#endif
    auto* lines = static_cast<Line*>(p);
    std::uninitialized_value_construct_n(lines, count);
    return std::unique_ptr<Line[], free_memory>(lines);
}

int count_hits(const std::vector<unsigned char>& hit, int from, int to) {
    int count = 0;
    for (int k = from; k < to; ++k) count += hit[k];
    return count;
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
    w.hit[r.sire] = w.hit[r.dam] = 1;
}

template <class P> void up_touched(P& w, touched_run& run, int begin, int end) {
    each_hit(w.hit, begin, end, [&](int k) {
        __builtin_prefetch(&w.up[k]);
        __builtin_prefetch(&w.up[w.o.at[k].sire]);
        __builtin_prefetch(&w.up[w.o.at[k].dam]);
        w.touched.push_back(k);
    });
    run.to = w.touched.size();
    for (std::size_t k = run.from; k < run.to; ++k) up_animal(w, w.touched[k]);
}

// up = T' e(y) for the border animals at [from, to) of the border.
template <class P> void sweep_up(P& w, std::size_t from, std::size_t to) {
    const sweep_order& o = w.o;
    for (std::size_t k = from; k < to; ++k) {
        auto& x = w.up[o.border[k]].x[k - from];
        x = one<std::remove_reference_t<decltype(x)>>;
        w.hit[o.border[k]] = 1;
    }
    w.touched.clear();
    // runs of older animals, the youngest first: within a run nobody is a parent of another
    for (std::size_t r = o.young; r-- > 1;) {
        const int begin = o.run[r], end = o.run[r + 1];
        // runs younger than the border animals in hand are not touched
        const int count = begin > o.border[to - 1] ? 0 : count_hits(w.hit, begin, end);
        touched_run& run = w.runs[r];
        // beyond a third all of them are visited: faster than finding the ones that are touched
        run = {count > (end - begin) / 3, w.touched.size(), w.touched.size()};
        if (run.all) {
            for (int k = begin; k < end; ++k) {
                __builtin_prefetch(&w.up[o.at[std::min(k + ahead, end - 1)].dam]);
                up_animal(w, k);
            }
            std::fill(w.hit.begin() + begin, w.hit.begin() + end, static_cast<unsigned char>(0));
        } else if (count > 0) {
            up_touched(w, run, begin, end);
        }
    }
    std::fill(w.hit.begin(), w.hit.begin() + o.run[1], static_cast<unsigned char>(0));
    // place 0 takes what goes to unknown parents
    w.up[0] = {};
}

// Adds the Mendelian sampling of the animal at this place to its relationships.
template <class P, class T> void add_own(P& w, line<T, P::width>& x, int place) {
    if constexpr (std::is_same_v<T, std::uint16_t>)
        add_scaled(x, w.up[place], static_cast<T>(w.d[place] >> 14));
    else
        add_scaled(x, w.up[place], w.d[place]);
    w.up[place] = {};
}

// visit(line, place) before the line of each animal is stored, which holds half the sum of its parents'.
template <class Line, class Visit>
void down_animals(const sweep_order& o, std::span<Line> a, int begin, int end, Visit visit) {
    const int last = static_cast<int>(o.at.size()) - 1;
    for (int k = begin; k < end; ++k) {
        __builtin_prefetch(&a[o.at[std::min(k + ahead, last)].dam_slot]);
        const Line &s = a[o.at[k].sire_slot], &d = a[o.at[k].dam_slot];
        Line x;
        for (std::size_t l = 0; l < std::size(x.x); ++l) x.x[l] = mean(s.x[l], d.x[l]);
        visit(x, k);
        a[o.at[k].slot] = x;
    }
}

template <class P, class Line> void down_run(P& w, std::span<Line> a, std::size_t r) {
    const sweep_order& o = w.o;
    const touched_run& run = w.runs[r];
    // a = D T'e + half of the parents' a
    const auto add = [&](Line& x, int place) { add_own(w, x, place); };
    if (r == 0) { // founders
        for (int k = o.run[0]; k < o.run[1]; ++k) {
            Line x{};
            add(x, k);
            a[o.at[k].slot] = x;
        }
    } else if (run.all) {
        down_animals(o, a, o.run[r], o.run[r + 1], add);
    } else {
        down_animals(o, a, o.run[r], o.run[r + 1], [](Line&, int) {});
        for (std::size_t k = run.from; k < run.to; ++k) add(a[o.at[w.touched[k]].slot], w.touched[k]);
    }
}

// a becomes the relationships of the older animals with the border animals in hand.
template <class P> void sweep_down(P& w) {
    using number = typename P::wide_number;
    for (std::size_t r = 0; r < w.early_runs; ++r) down_run(w, w.early, r);
    if constexpr (std::is_same_v<number, std::uint32_t>)
        for (int slot = 1; slot <= w.early_slots; ++slot)
            for (int l = 0; l < P::width; ++l) w.a[slot].x[l] = number{w.early[slot].x[l]} << 15;
    for (std::size_t r = w.early_runs; r < w.o.young; ++r) down_run(w, w.a, r);
}

// Notes that the animal at this place has shares, which its offspring inherit.
template <class P> void share(P& w, int place) {
    w.sharing[place] = 1;
    w.shared.push_back(place);
    for (int at = w.o.start[place]; at < w.o.start[place + 1]; ++at) w.hit[w.o.next[at]] = 1;
}

// What comes in by a young animal's sire; and, where these are handed on, its own shares: whether it has any.
template <class P> bool inherit(P& w, int place, bool hand_on) {
    const swept& r = w.o.at[place];
    const bool by_sire = w.sharing[r.sire], by_dam = w.sharing[r.dam];
    const auto& ts = w.t[by_sire ? r.sire_slot : 0]; // slot 0 holds zeros
    // F is half the relationship of the parents; that part of it which comes in through the border
    if (by_sire) w.f[place] += 0.5 * inner_product(w.a[r.dam_slot], ts);
    if (!hand_on) return false;
    const auto& td = w.t[by_dam ? r.dam_slot : 0];
    typename P::narrow_line x;
    for (int k = 0; k < P::width; ++k) {
        x.x[k] = half(ts.x[k]);
        x.x[k] += half(td.x[k]);
    }
    w.t[r.slot] = x;
    return by_sire || by_dam;
}

template <class P> void fetch(const P& w, const swept& r, bool hand_on) {
    __builtin_prefetch(&w.a[r.dam_slot]);
    __builtin_prefetch(&w.t[r.sire_slot]);
    if (hand_on) __builtin_prefetch(&w.t[r.dam_slot]);
}

// The same for all of a run that are hit; once these are many, for all from there on.
template <class P> void inherit_run(P& w, std::size_t run) {
    const int begin = w.o.run[run], end = w.o.run[run + 1], handing_on = w.o.sharing[run];
    w.all_from = std::min(w.all_from, count_hits(w.hit, begin, end) > (end - begin) / 3 ? begin : w.all_from);
    if (w.all_from <= begin) {
        std::fill(w.hit.begin() + begin, w.hit.begin() + end, static_cast<unsigned char>(0));
        for (int k = begin; k < end; ++k) {
            const int next = std::min(k + ahead, end - 1);
            fetch(w, w.o.at[next], next < handing_on);
            w.sharing[k] = inherit(w, k, k < handing_on);
        }
        return;
    }
    w.visits.clear();
    each_hit(w.hit, begin, end, [&](int k) { w.visits.push_back(k); });
    for (std::size_t k = 0; k < w.visits.size(); ++k) {
        fetch(w, w.o.at[w.visits[std::min(k + ahead, w.visits.size() - 1)]], true);
        if (inherit(w, w.visits[k], w.visits[k] < handing_on)) share(w, w.visits[k]);
    }
}

template <class P> void sweep_stretch(P& w, std::size_t from, std::size_t to) {
    const sweep_order& o = w.o;
    for (std::size_t k = from; k < to; ++k) {
        // a border animal has itself with share 1
        auto& t = w.t[o.at[o.border[k]].slot];
        t = {};
        t.x[k - from] = one<std::remove_reference_t<decltype(t.x[0])>>;
        share(w, o.border[k]);
    }
    w.all_from = o.run.back();
    for (std::size_t r = o.young; r + 1 < o.run.size(); ++r) {
        down_animals(o, w.a, o.related[r], o.childless[r], [](auto&, int) {});
        inherit_run(w, r);
    }
    // back to zero for the next panel
    for (const int place : w.shared) w.sharing[place] = 0;
    w.shared.clear();
    std::fill(w.sharing.begin() + w.all_from, w.sharing.end(), static_cast<unsigned char>(0));
}

// What one thread sweeps with.
template <class P> struct own_panel {
    own_panel(const sweep_order& o, const std::vector<double>& d, std::size_t early_runs) : w{o, early_runs} {
        const std::size_t slots = static_cast<std::size_t>(o.slots) + 1, places = o.animal.size();
        const std::size_t older = static_cast<std::size_t>(o.run[o.young]);
        using number = typename P::wide_number;
        w.d.resize(older);
        for (std::size_t k = 1; k < older; ++k)
            w.d[k] = static_cast<number>(d[o.animal[k]] * static_cast<double>(one<number>));
        for (int k = 1; k < o.run[early_runs]; ++k) w.early_slots = std::max(w.early_slots, o.at[k].slot);
        const std::size_t early = static_cast<std::size_t>(w.early_slots) + 1;
        narrow = make_lines<typename P::narrow_line>(older + slots + early);
        wide = make_lines<typename P::wide_line>(slots);
        w.up = {narrow.get(), older};
        w.t = {narrow.get() + older, slots};
        w.early = {narrow.get() + older + slots, early};
        w.a = {wide.get(), slots};
        // a word of eight flags may reach beyond the last place
        w.hit.resize(places + 8);
        w.sharing.resize(places);
        w.runs.resize(o.young);
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
    std::vector<std::unique_ptr<own_panel<P>>> of_slot(pool.threads());
    std::vector<std::vector<double>> sums(parts);
    // only young animals get anything
    const auto add = [&](const std::vector<double>& part) {
        for (std::size_t k = static_cast<std::size_t>(o.run[o.young]); k < part.size(); ++k)
            f[o.animal[k] - 1] += part[k];
    };
    const auto sweep = [&](int i, int slot) {
        auto& mine = of_slot[slot];
        if (!mine) mine = std::make_unique<own_panel<P>>(o, d, early_runs);
        const auto part = static_cast<std::size_t>(i);
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
