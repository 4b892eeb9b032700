#include "sparse/order_methods.h"

#include <algorithm>
#include <amd.h>
#include <metis.h>
#include <numeric>
#include <scotch.h>

namespace tarvex {

namespace {

static_assert(sizeof(idx_t) == sizeof(int), "METIS with 32-bit indices is needed");
static_assert(sizeof(SCOTCH_Num) == sizeof(int), "SCOTCH with 32-bit indices is needed");

void invert(node_order& order) {
    order.place.resize(order.node.size());
    for (std::size_t k = 0; k < order.node.size(); ++k) order.place[order.node[k]] = static_cast<int>(k);
}

// The eight integers are those of METIS 4; METIS 5 has an array of its own.
void metis_options(const metis_settings& m, idx_t* o) {
    METIS_SetDefaultOptions(o);
    o[METIS_OPTION_NUMBERING] = 0;
    // 0: everything else as the library has it
    if (m[0] == 0) return;
    o[METIS_OPTION_CTYPE] = m[1] == 1 ? METIS_CTYPE_RM : METIS_CTYPE_SHEM;
    o[METIS_OPTION_IPTYPE] = m[2] == 1 ? METIS_IPTYPE_EDGE : METIS_IPTYPE_NODE;
    o[METIS_OPTION_RTYPE] = m[3] == 1 ? METIS_RTYPE_SEP2SIDED : METIS_RTYPE_SEP1SIDED;
    o[METIS_OPTION_DBGLVL] = 0;
    o[METIS_OPTION_COMPRESS] = m[5] & 1;
    o[METIS_OPTION_CCORDER] = (m[5] >> 1) & 1;
    o[METIS_OPTION_PFACTOR] = std::max(m[6], 0);
    o[METIS_OPTION_NSEPS] = std::max(m[7], 1);
}

// A graph of SCOTCH, bound to a context of one thread and with fixed random numbers, and what frees it.
struct scotch_graph {
    SCOTCH_Context* context = SCOTCH_contextAlloc();
    SCOTCH_Graph plain, bound;
    SCOTCH_Strat strategy;
    SCOTCH_Ordering ordering;
    bool started = false;

    bool start() {
        if (!context || SCOTCH_contextInit(context) != 0) return false;
        started = true;
        SCOTCH_stratInit(&strategy);
        SCOTCH_graphInit(&plain);
        SCOTCH_graphInit(&bound);
        return SCOTCH_contextOptionSetNum(context, SCOTCH_OPTIONNUMDETERMINISTIC, 1) == 0 &&
               SCOTCH_contextRandomClone(context) == 0 && SCOTCH_contextThreadSpawn(context, 1, nullptr) == 0;
    }
    int order(const order_graph& g, node_order& out) {
        const int edges = g.start.back();
        if (!start()) return 1;
        // one graph, one order: the random numbers begin anew each time
        SCOTCH_contextRandomReset(context);
        if (SCOTCH_graphBuild(&plain, 0, g.n, g.start.data(), nullptr, nullptr, nullptr, edges, g.adjacent.data(),
                              nullptr) != 0)
            return 2;
        if (SCOTCH_contextBindGraph(context, &plain, &bound) != 0) return 3;
        constexpr int levels = 0;         // as many as the library likes
        constexpr double imbalance = 0.2; // how unequal the halves may be
        if (SCOTCH_stratGraphOrderBuild(&strategy, SCOTCH_STRATQUALITY, levels, imbalance) != 0) return 4;
        out.node.resize(g.n);
        out.place.resize(out.node.size());
        return SCOTCH_graphOrder(&bound, &strategy, out.place.data(), out.node.data(), nullptr, nullptr, nullptr);
    }
    ~scotch_graph() {
        if (started) {
            SCOTCH_graphExit(&bound);
            SCOTCH_graphExit(&plain);
            SCOTCH_stratExit(&strategy);
            SCOTCH_contextExit(context);
        }
        if (context) SCOTCH_memFree(context);
    }
};

// The graph between the nodes of which `inner` counts the number, from 0; -1: left out.
order_graph part_of(const order_graph& g, const std::vector<int>& inner) {
    order_graph part;
    for (int i = 0; i < g.n; ++i) {
        if (inner[i] < 0) continue;
        for (int at = g.start[i]; at < g.start[i + 1]; ++at)
            if (inner[g.adjacent[at]] >= 0) part.adjacent.push_back(inner[g.adjacent[at]]);
        part.start.push_back(static_cast<int>(part.adjacent.size()));
        ++part.n;
    }
    return part;
}

} // namespace

node_order metis_order(const order_graph& g, const metis_settings& settings) {
    node_order order;
    if (g.n == 0) return order;
    idx_t o[METIS_NOPTIONS], n = g.n;
    metis_options(settings, o);
    order.node.resize(g.n);
    order.place.resize(order.node.size());
    auto* start = const_cast<int*>(g.start.data()); // read only, but not declared so
    auto* adjacent = const_cast<int*>(g.adjacent.data());
    const int status = METIS_NodeND(&n, start, adjacent, nullptr, o, order.node.data(), order.place.data());
    if (status != METIS_OK) order = {{}, {}, status, 0.0};
    return order;
}

node_order amd_node_order(int n, const int* start, const int* adjacent) {
    node_order order;
    if (n == 0) return order;
    double info[AMD_INFO];
    constexpr int none = 0; // the library takes no null pointer for a graph without edges
    order.node.resize(n);
    const int status = amd_order(n, start, adjacent ? adjacent : &none, order.node.data(), nullptr, info);
    // jumbled: rows that do not ascend, which costs time but is no failure
    if (status == AMD_OUT_OF_MEMORY) return {{}, {}, out_of_memory, 0.0};
    if (status != AMD_OK && status != AMD_OK_BUT_JUMBLED) return {{}, {}, status, 0.0};
    invert(order);
    order.fill = info[AMD_LNZ];
    return order;
}

node_order scotch_order(const order_graph& g) {
    node_order order;
    if (g.n == 0) return order;
    scotch_graph graph;
    const int status = graph.order(g, order);
    if (status != 0) order = {{}, {}, status, 0.0};
    return order;
}

node_order heavy_last_order(const order_graph& g, const metis_settings& settings, int times) {
    if (g.n == 0) return {};
    std::vector<int> degree(g.n);
    for (int i = 0; i < g.n; ++i) degree[i] = g.start[i + 1] - g.start[i];
    std::vector<int> sorted = degree;
    // the lower median
    const auto middle = sorted.begin() + (g.n - 1) / 2;
    std::nth_element(sorted.begin(), middle, sorted.end());
    const long long most = static_cast<long long>(times) * *middle;
    std::vector<int> light, heavy, inner(degree.size(), -1);
    for (int i = 0; i < g.n; ++i)
        if (degree[i] > most)
            heavy.push_back(i);
        else {
            inner[i] = static_cast<int>(light.size());
            light.push_back(i);
        }
    if (heavy.empty() || light.empty()) return {};
    node_order order = metis_order(part_of(g, inner), settings);
    if (order.node.empty()) return order;
    for (int& k : order.node) k = light[k];
    // stable: the order must not depend on the library of the machine
    std::stable_sort(heavy.begin(), heavy.end(), [&](int i, int j) { return degree[i] < degree[j]; });
    order.node.insert(order.node.end(), heavy.begin(), heavy.end());
    invert(order);
    return order;
}

} // namespace tarvex
