// With t(i,y) the share of border animal y in a young animal i, that part of the relationship between s and d is the
// sum of a(d,y) t(s,y) over the border. A column a(.,y) takes one sweep up from y, a scaling by D, and one sweep down
// to the end of the stretch, for a panel of border animals at a time. Up the list and in shares only those are visited
// that are touched: few, until panels have so many ancestors that whole runs are.
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

// Numbers of a cache line: doubles, or multiples of 2**-30 in 32 bits.
template <class T> struct cells {
    static constexpr bool fixed = std::is_same_v<T, std::uint32_t>;
    static constexpr int width = fixed ? wide_panel : narrow_panel;
    // shares are multiples of 2^-levels: exact while that many generations fit into 30 bits
    static constexpr T one = static_cast<T>(fixed ? 1u << most_levels : 1u);
    static T half(T x) {
        if constexpr (fixed)
            return x >> 1;
        else
            return 0.5 * x;
    }
    // Products are exact in 64 bits.
    static T times(T x, T y) {
        if constexpr (fixed)
            return static_cast<T>(std::uint64_t{x} * y >> most_levels);
        else
            return x * y;
    }
};

template <class T> struct alignas(64) line { T x[cells<T>::width]; };

// Sum over the lanes of x y.
double inner_product(const line<double>& x, const line<double>& y) {
    double sum[4];
    for (int k = 0; k < 4; ++k) sum[k] = x.x[k] * y.x[k] + x.x[k + 4] * y.x[k + 4];
    return (sum[0] + sum[1]) + (sum[2] + sum[3]);
}
double inner_product(const line<std::uint32_t>& x, const line<std::uint32_t>& y) { // shares sum up to 1 at most
    std::uint64_t sum = 0;
    for (int k = 0; k < wide_panel; ++k) sum += std::uint64_t{x.x[k]} * y.x[k];
    return static_cast<double>(sum) * (1.0 / (std::uint64_t{1} << (2 * most_levels)));
}

constexpr int ahead = 12; // lines are fetched so many animals before their use

// Animals touched in a run of the sweep up: all, or those in list[from] to list[to-1]; their lines from line `lines`.
struct touched_run {
    bool all = false;
    std::size_t from = 0, to = 0, lines = 0;
};

template <class T> struct panel {
    static constexpr int width = cells<T>::width;
    const sweep_order& o;
    std::vector<T> d{};                   // by place
    std::span<line<T>> up{}, a{}, t{};    // by slot: T'e(y), relationships, shares; `up` is zero between sweeps
    std::span<line<T>> scaled{};          // D T'e(y) of animals touched, in the order of the sweep up
    std::vector<unsigned char> hit{};     // by place: to be visited
    std::vector<unsigned char> sharing{}; // by place: t is not zero
    std::vector<int> touched{};           // places touched in runs where not all are
    std::vector<int> shared{};            // places at which `sharing` is set
    std::vector<touched_run> runs{};      // by run
    std::vector<int> visits{};            // places of the run in hand that are hit
    std::size_t lines = 0;                // in use of `scaled`
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
template <class T>
std::unique_ptr<line<T>[], free_memory> make_lines(std::size_t count) {
    constexpr std::size_t page = std::size_t{1} << 21;
    const std::size_t bytes = (count * sizeof(line<T>) + page - 1) / page * page;
    void* p = std::aligned_alloc(page, bytes);
    if (p == nullptr) throw std::bad_alloc();
#ifdef MADV_HUGEPAGE
    madvise(p, bytes, MADV_HUGEPAGE); // advice only
#endif
    auto* lines = static_cast<line<T>*>(p);
    std::uninitialized_value_construct_n(lines, count);
    return std::unique_ptr<line<T>[], free_memory>(lines);
}

int count_hits(const std::vector<unsigned char>& hit, int from, int to) {
    int count = 0;
    for (int k = from; k < to; ++k) count += hit[k];
    return count;
}

template <class T> void up_animal(panel<T>& w, int place) {
    using c = cells<T>;
    const swept& r = w.o.at[place];
    line<T>& own = w.up[r.slot];
    line<T>& scaled = w.scaled[w.lines++];
    const T d = w.d[place];
    line<T> half;
    for (int k = 0; k < c::width; ++k) {
        // T'e: what an animal has goes on to its parents by halves
        half.x[k] = c::half(own.x[k]);
        scaled.x[k] = c::times(own.x[k], d);
        own.x[k] = T{};
    }
    line<T>& s = w.up[r.sire_slot];
    for (int k = 0; k < c::width; ++k) s.x[k] += half.x[k];
    line<T>& q = w.up[r.dam_slot];
    for (int k = 0; k < c::width; ++k) q.x[k] += half.x[k];
    w.hit[r.sire] = w.hit[r.dam] = 1;
}

// scaled = D T' e(y) for the border animals at [from, to) of the border, but for the first run, whose animals are
// founders: T' e(y) stays in `up` there.
template <class T> void sweep_up(panel<T>& w, std::size_t from, std::size_t to) {
    const sweep_order& o = w.o;
    for (std::size_t k = from; k < to; ++k) {
        w.up[o.at[o.border[k]].slot].x[k - from] = cells<T>::one;
        w.hit[o.border[k]] = 1;
    }
    w.touched.clear();
    w.lines = 0;
    // runs of older animals, the youngest first: within a run nobody is a parent of another
    for (std::size_t r = o.young; r-- > 1;) {
        const int begin = o.run[r], end = o.run[r + 1];
        // runs younger than the border animals in hand are not touched
        const int count = begin > o.border[to - 1] ? 0 : count_hits(w.hit, begin, end);
        // beyond a third all of them are visited: faster than finding the ones that are touched
        w.runs[r] = {count > (end - begin) / 3, w.touched.size(), w.touched.size(), w.lines};
        if (w.runs[r].all) {
            for (int k = begin; k < end; ++k) {
                __builtin_prefetch(&w.up[o.at[std::min(k + ahead, end - 1)].dam_slot]);
                up_animal(w, k);
            }
            std::fill(w.hit.begin() + begin, w.hit.begin() + end, static_cast<unsigned char>(0));
        } else if (count > 0) {
            each_hit(w.hit, begin, end, [&](int k) {
                const swept& x = o.at[k];
                __builtin_prefetch(&w.up[x.slot]);
                __builtin_prefetch(&w.up[x.sire_slot]);
                __builtin_prefetch(&w.up[x.dam_slot]);
                w.touched.push_back(k);
            });
            for (std::size_t k = w.runs[r].from; k < w.touched.size(); ++k) up_animal(w, w.touched[k]);
            w.runs[r].to = w.touched.size();
        }
    }
    // place 0 takes what goes to unknown parents
    w.up[0] = {};
    w.hit[0] = 0;
}

template <class T> void down_animals(panel<T>& w, int begin, int end) {
    const swept* at = w.o.at.data();
    const int last = static_cast<int>(w.o.at.size()) - 1;
    line<T>* a = w.a.data();
    for (int k = begin; k < end; ++k) {
        __builtin_prefetch(a + at[std::min(k + ahead, last)].dam_slot);
        const line<T>&s = a[at[k].sire_slot], &d = a[at[k].dam_slot];
        line<T> x;
        for (int l = 0; l < panel<T>::width; ++l) x.x[l] = cells<T>::half(s.x[l] + d.x[l]);
        a[at[k].slot] = x;
    }
}

// a becomes the relationships of the older animals with the border animals in hand.
template <class T> void sweep_down(panel<T>& w) {
    const sweep_order& o = w.o;
    for (int k = o.run[0]; k < o.run[1]; ++k) {
        w.a[o.at[k].slot] = w.up[o.at[k].slot];
        w.up[o.at[k].slot] = {};
        w.hit[k] = 0;
    }
    for (std::size_t r = 1; r < o.young; ++r) {
        down_animals(w, o.run[r], o.run[r + 1]);
        const touched_run& run = w.runs[r];
        const line<T>* scaled = w.scaled.data() + run.lines;
        // a = D T'e + half of the parents' a
        const auto add = [&](int place) {
            line<T>& x = w.a[o.at[place].slot];
            for (int l = 0; l < panel<T>::width; ++l) x.x[l] += scaled->x[l];
            ++scaled;
        };
        if (run.all)
            for (int k = o.run[r]; k < o.run[r + 1]; ++k) add(k);
        else
            for (std::size_t k = run.from; k < run.to; ++k) add(w.touched[k]);
    }
}

// Notes that the animal at this place has shares, which its offspring inherit.
template <class T> void share(panel<T>& w, int place) {
    w.sharing[place] = 1;
    w.shared.push_back(place);
    for (int at = w.o.start[place]; at < w.o.start[place + 1]; ++at) w.hit[w.o.next[at]] = 1;
}

// A young animal with a parent that has shares of the border animals in hand.
template <class T> void inherit(panel<T>& w, int place, bool hand_on) {
    using c = cells<T>;
    const swept& r = w.o.at[place];
    const line<T>& ts = w.t[w.sharing[r.sire] ? r.sire_slot : 0]; // slot 0 holds zeros
    const line<T>& td = w.t[w.sharing[r.dam] ? r.dam_slot : 0];
    // F is half the relationship of the parents; that part of it which comes in through the border
    w.f[place] += 0.5 * inner_product(w.a[r.dam_slot], ts);
    if (!hand_on) return;
    line<T> x;
    for (int k = 0; k < c::width; ++k) x.x[k] = c::half(ts.x[k]) + c::half(td.x[k]);
    w.t[r.slot] = x;
    share(w, place);
}

// The same for all of a run that are hit.
template <class T> void inherit_run(panel<T>& w, std::size_t run) {
    w.visits.clear();
    each_hit(w.hit, w.o.run[run], w.o.run[run + 1], [&](int k) { w.visits.push_back(k); });
    for (std::size_t k = 0; k < w.visits.size(); ++k) {
        const swept& r = w.o.at[w.visits[std::min(k + ahead, w.visits.size() - 1)]];
        __builtin_prefetch(&w.t[r.sire_slot]);
        __builtin_prefetch(&w.t[r.dam_slot]);
        __builtin_prefetch(&w.a[r.dam_slot]);
        inherit(w, w.visits[k], w.visits[k] < w.o.sharing[run]);
    }
}

template <class T> void sweep_stretch(panel<T>& w, std::size_t from, std::size_t to) {
    const sweep_order& o = w.o;
    for (std::size_t k = from; k < to; ++k) {
        line<T>& t = w.t[o.at[o.border[k]].slot];
        t = {};
        t.x[k - from] = cells<T>::one;
        // a border animal has itself with share 1
        share(w, o.border[k]);
    }
    for (std::size_t r = o.young; r + 1 < o.run.size(); ++r) {
        down_animals(w, o.related[r], o.childless[r]);
        inherit_run(w, r);
    }
    // back to zero for the next panel
    for (const int place : w.shared) w.sharing[place] = 0;
    w.shared.clear();
}

// What one thread sweeps with.
template <class T> struct own_panel {
    explicit own_panel(const sweep_order& o, const std::vector<double>& d) : w{o} {
        const std::size_t slots = static_cast<std::size_t>(o.slots) + 1, places = o.animal.size();
        const std::size_t older = static_cast<std::size_t>(o.run[o.young]);
        w.d.resize(places);
        for (int k = 1; k < o.run[o.young]; ++k)
            w.d[k] = static_cast<T>(d[o.animal[k]] * static_cast<double>(cells<T>::one));
        lines = make_lines<T>(3 * slots + older);
        w.up = {lines.get(), slots};
        w.a = {lines.get() + slots, slots};
        w.t = {lines.get() + 2 * slots, slots};
        w.scaled = {lines.get() + 3 * slots, older};
        // a word of eight flags may reach beyond the last place
        w.hit.resize(places + 8);
        w.sharing.resize(places);
        w.runs.resize(o.young);
    }
    std::unique_ptr<line<T>[], free_memory> lines;
    panel<T> w;
};

// Panels first..end-1 of the border; what comes in through them is left in w.f.
template <class T> void sweep_part(panel<T>& w, std::size_t first, std::size_t end) {
    const std::vector<int>& border = w.o.border;
    w.f.assign(w.o.animal.size(), 0.0);
    for (std::size_t p = first; p < end; ++p) {
        const std::size_t from = p * panel<T>::width, to = std::min(from + panel<T>::width, border.size());
        sweep_up(w, from, to);
        sweep_down(w);
        sweep_stretch(w, from, to);
    }
}

// The border in parts whose sums are added up in their order, by however many threads they were made.
template <class T>
void sweep_panels(const sweep_order& o, const std::vector<double>& d, task_pool& pool, std::vector<double>& f) {
    constexpr std::size_t most_parts = 16;
    const std::size_t panels = (o.border.size() + panel<T>::width - 1) / panel<T>::width;
    const std::size_t parts = std::min(panels, most_parts);
    std::vector<std::unique_ptr<own_panel<T>>> of_slot(pool.threads());
    std::vector<std::vector<double>> sums(parts);
    // only young animals get anything
    const auto add = [&](const std::vector<double>& part) {
        for (std::size_t k = static_cast<std::size_t>(o.run[o.young]); k < part.size(); ++k)
            f[o.animal[k] - 1] += part[k];
    };
    const auto sweep = [&](int i, int slot) {
        auto& mine = of_slot[slot];
        if (!mine) mine = std::make_unique<own_panel<T>>(o, d);
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

} // namespace

void add_through_border(const sweep_order& o, const std::vector<double>& d, int levels, task_pool& pool,
                        std::vector<double>& f) {
    if (o.border.empty()) return;
    if (levels <= most_levels)
        sweep_panels<std::uint32_t>(o, d, pool, f);
    else
        sweep_panels<double>(o, d, pool, f);
}

} // namespace tarvex
