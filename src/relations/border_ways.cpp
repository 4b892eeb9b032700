#include "relations/border_ways.h"

namespace tarvex {

namespace {

// Visits the young animals by run, as heirs of their dams, then of their sires: visit(parent, place, queue).
template <class Visit> void each_heir(const sweep_order& o, Visit visit) {
    for (std::size_t r = o.young; r + 1 < o.run.size(); ++r)
        for (const int by_sire : {0, 1}) {
            const int end = by_sire == 1 ? o.run[r + 1] : o.sharing[r];
            for (int k = o.run[r]; k < end; ++k) {
                const int parent = by_sire == 1 ? o.at[k].sire : o.at[k].dam;
                if (parent > 0) visit(parent, k, 2 * static_cast<int>(r) + by_sire);
            }
        }
}

void list_heirs(const sweep_order& o, way_map& m) {
    m.first.assign(o.animal.size() + 1, 0);
    each_heir(o, [&](int parent, int, int) { ++m.first[parent + 1]; });
    m.first[0] = 1; // place 0 has none
    for (std::size_t p = 1; p < m.first.size(); ++p) m.first[p] += m.first[p - 1];
    m.end.assign(m.first.begin(), m.first.end() - 1);
    m.heirs.resize(m.first.back() + 1); // the one behind the last is looked at, not visited
    m.queue.resize(m.heirs.size());
    // heirs of one parent stay in the order of their queues
    each_heir(o, [&](int parent, int place, int queue) {
        const int k = m.end[parent]++;
        m.heirs[k] = {static_cast<unsigned>(place) & 0x7fffffffU, 0, o.at[place].dam_slot, 0, 0, 0};
        m.queue[k] = queue;
    });
}

} // namespace

way_map map_ways(const sweep_order& o) {
    way_map m;
    list_heirs(o, m);
    std::vector<int> run_of(o.animal.size());
    for (std::size_t r = 0; r + 1 < o.run.size(); ++r)
        for (int k = o.run[r]; k < o.run[r + 1]; ++k) run_of[k] = static_cast<int>(r);
    for (int p = 1; p < o.run.back(); ++p)
        for (int k = m.first[p]; k < m.end[p]; ++k) {
            heir& x = m.heirs[k];
            const int place = static_cast<int>(x.place);
            x.last = k + 1 == m.end[p] || m.queue[k + 1] != m.queue[k];
            if (m.first[place] == m.end[place]) continue;
            x.next = m.first[place];
            x.queue = static_cast<unsigned>(m.queue[x.next]) & 0x7fffffffU;
            x.more = m.queue[m.end[place] - 1] != m.queue[x.next];
        }
    m.up.resize(o.run[o.young]);
    for (std::size_t k = 1; k < m.up.size(); ++k)
        m.up[k] = {o.at[k].sire, o.at[k].dam, run_of[o.at[k].sire], run_of[o.at[k].dam]};
    return m;
}

} // namespace tarvex
