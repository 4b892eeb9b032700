#include "relations/sweep_order.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <queue>

namespace tarvex {

namespace {

struct order_maker {
    const std::vector<int>&sire, &dam;
    int first, last;
    sweep_order o{};
    std::vector<char> parent, border, sires, dams; // by animal: parent of somebody listed, of the stretch, ..
    std::vector<char> grandparent;                 // by animal: parent of a parent or of the border
    std::vector<int> uses;                         // by animal: offspring still to come
    std::priority_queue<int, std::vector<int>, std::greater<>> free{};
    std::vector<int> freed{}; // in the run in hand
    // of the run in hand: class and place of the sire, place of the dam and number
    std::vector<std::array<std::uint64_t, 2>> keys{};
};

// Parents of those listed, and young animals with two known parents.
bool listed(const order_maker& w, int i) {
    return w.parent[i] || (i >= w.first && w.sire[i - 1] > 0 && w.dam[i - 1] > 0);
}

// Marks the parents of the stretch and all older ancestors.
void mark_parents(order_maker& w) {
    // offspring have larger numbers: by the time an animal is met all that list it are marked
    for (int i = w.last; i > 0; --i) {
        if (!listed(w, i)) continue;
        for (const int p : {w.sire[i - 1], w.dam[i - 1]}) {
            w.parent[p] = 1;
            if (i >= w.first && p < w.first) w.border[p] = 1;
        }
        if (w.parent[i]) w.grandparent[w.sire[i - 1]] = w.grandparent[w.dam[i - 1]] = 1;
        w.sires[w.sire[i - 1]] = w.dams[w.dam[i - 1]] = 1;
    }
    w.parent[0] = w.border[0] = 0;
}

// Lists the animals in runs, and counts the offspring that use each column.
void list_runs(order_maker& w) {
    std::vector<int> run_of(w.uses.size(), -1);
    int run = -1;
    w.o.animal.push_back(0);
    for (int i = 1; i <= w.last; ++i) {
        const int s = w.sire[i - 1], d = w.dam[i - 1];
        if (!listed(w, i)) continue;
        const bool stretch_begins = i >= w.first && w.o.young == 0;
        // a run ends where a parent would fall into it: within a run the order is free
        if (run < 0 || stretch_begins || (s > 0 && run_of[s] == run) || (d > 0 && run_of[d] == run)) {
            ++run;
            w.o.run.push_back(static_cast<int>(w.o.animal.size()));
            if (stretch_begins) w.o.young = run + 1; // from 1 while it is looked for
        }
        run_of[i] = run;
        ++w.uses[s], ++w.uses[d];
        w.o.animal.push_back(i);
    }
    w.o.run.push_back(static_cast<int>(w.o.animal.size()));
    w.o.young = w.o.young > 0 ? w.o.young - 1 : w.o.run.size() - 1;
}

// Sires whose offspring have none, other sires, dams, dams whose offspring have none, animals without offspring. An
// animal that is both sire and dam counts as a dam with grandchildren.
int place_class(const order_maker& w, int i) {
    if (!w.parent[i]) return 4;
    if (w.grandparent[i] || (w.dams[i] && w.sires[i])) return w.dams[i] ? 2 : 1;
    return w.dams[i] ? 3 : 0;
}

// Brothers and full sibs stand together.
void sort_run(order_maker& w, std::size_t r) {
    w.keys.clear();
    for (int k = w.o.run[r]; k < w.o.run[r + 1]; ++k) {
        const int i = w.o.animal[k];
        const auto both = [](int x, int y) {
            return static_cast<std::uint64_t>(x) << 32 | static_cast<std::uint64_t>(y);
        };
        w.keys.push_back({both(place_class(w, i), w.o.place[w.sire[i - 1]]), both(w.o.place[w.dam[i - 1]], i)});
    }
    std::sort(w.keys.begin(), w.keys.end());
    for (std::size_t k = 0; k < w.keys.size(); ++k)
        w.o.animal[w.o.run[r] + k] = static_cast<int>(w.keys[k][1] & 0x7fffffffU);
}

// Gives the animals of run r, which is sorted, their slots.
void place_run(order_maker& w, std::size_t r) {
    sweep_order& o = w.o;
    for (int k = o.run[r]; k < o.run[r + 1]; ++k) {
        const int i = o.animal[k], s = o.place[w.sire[i - 1]], d = o.place[w.dam[i - 1]];
        o.place[i] = k;
        o.at[k] = {0, o.at[s].slot, o.at[d].slot, s, d};
        // the last offspring gives the slot of the column back, to be used from the next run on
        for (const int p : {w.sire[i - 1], w.dam[i - 1]})
            if (p > 0 && --w.uses[p] == 0) w.freed.push_back(o.at[o.place[p]].slot);
        if (w.border[i]) o.border.push_back(k);
        const int kind = place_class(w, i);
        if (kind == 0) o.related[r] = k + 1;
        if (kind < 3) o.sharing[r] = k + 1;
        if (kind < 4) o.childless[r] = k + 1;
        // without offspring: no column is needed
        if (kind == 4) continue;
        if (w.free.empty()) {
            o.at[k].slot = ++o.slots;
        } else {
            o.at[k].slot = w.free.top();
            w.free.pop();
        }
    }
    for (const int slot : w.freed) w.free.push(slot);
    w.freed.clear();
}

} // namespace

sweep_order order_stretch(const std::vector<int>& sire, const std::vector<int>& dam, int first, int last) {
    const std::size_t m = last + 1;
    const std::vector<char> no(m);
    order_maker w{sire, dam, first, last, {}, no, no, no, no, no, std::vector<int>(m)};
    mark_parents(w);
    list_runs(w);
    w.o.place.resize(m);
    w.o.at.resize(w.o.animal.size());
    w.o.related.assign(w.o.run.begin(), w.o.run.end() - 1);
    w.o.childless = w.o.sharing = w.o.related;
    for (std::size_t r = 0; r + 1 < w.o.run.size(); ++r) {
        sort_run(w, r);
        place_run(w, r);
    }
    return std::move(w.o);
}

} // namespace tarvex
