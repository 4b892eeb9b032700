#include "systems.h"

#include "control/numbers.h"
#include "equations/mmmatrix.h"
#include "support/record_file.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <metis.h>
#include <random>
#include <sstream>
#include <vector>

namespace tarvex {

namespace {

using graph = std::vector<std::vector<int>>; // neighbours of each node, from 0

void join(graph& g, const std::vector<int>& clique) {
    for (int a : clique)
        for (int b : clique)
            if (a != b) g[a].push_back(b);
}

void tidy(graph& g) {
    for (auto& row : g) {
        std::sort(row.begin(), row.end());
        row.erase(std::unique(row.begin(), row.end()), row.end());
    }
}

graph grid(int n) {
    graph g(static_cast<std::size_t>(n) * n);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            if (i + 1 < n) join(g, {i * n + j, (i + 1) * n + j});
            if (j + 1 < n) join(g, {i * n + j, i * n + j + 1});
        }
    tidy(g);
    return g;
}

std::vector<std::vector<double>> read_table(const std::string& name) {
    std::ifstream in(name);
    std::vector<std::vector<double>> rows;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::vector<double> row;
        for (double v; fields >> v;) row.push_back(v);
        rows.push_back(row);
    }
    return rows;
}

// Equations are numbered in order of first sight, by effect, level and trait or coefficient.
struct numbering {
    std::map<std::array<int, 3>, int> of;
    int operator()(int effect, int level, int component) {
        return of.try_emplace({effect, level, component}, static_cast<int>(of.size())).first->second;
    }
};

graph case_graph(const std::string& dir) {
    std::string word, kind;
    std::ifstream(dir + "/case.meta") >> word >> kind;
    numbering eq;
    std::vector<std::vector<int>> cliques;
    std::map<int, std::vector<int>> subjects;
    const bool traits = kind == "mt3" || kind == "mt5", rr = kind == "rr", mat = kind == "mat";
    const int nfit = kind == "mt3" || rr ? 3 : kind == "mt5" ? 5 : 1;
    for (const auto& r : read_table(dir + "/data.dat")) {
        std::vector<int> v(r.begin(), r.end());
        if (traits) {
            auto& s = subjects[v[1]];
            s.push_back(eq(0, v[2], v[0]));
            if (v[0] <= 2) {
                s.push_back(eq(1, v[3], v[0]));
                s.push_back(eq(2, 1, v[0]));
            }
            for (int t = 1; t <= nfit; ++t) s.push_back(eq(3, v[1], t));
        } else {
            std::vector<int> s{eq(0, v[rr ? 2 : mat ? 3 : 1], 1), eq(1, v[rr ? 3 : mat ? 4 : 2], 1), eq(2, 1, 1)};
            if (rr) s.push_back(eq(2, 1, 2));
            for (int t = 1; t <= nfit; ++t) s.push_back(eq(3, v[0], t));
            if (rr)
                for (int t = 1; t <= nfit; ++t) s.push_back(eq(5, v[0], t));
            if (mat) {
                s.push_back(eq(4, v[1], 1));
                s.push_back(eq(5, v[1], 1));
            }
            cliques.push_back(s);
        }
    }
    for (const auto& [animal, s] : subjects) cliques.push_back(s);
    for (const auto& r : read_table(dir + "/ped.dat"))
        for (int effect : {3, 4}) {
            if (effect == 4 && !mat) continue;
            std::vector<int> s;
            for (double a : r)
                if (a > 0)
                    for (int t = 1; t <= nfit; ++t) s.push_back(eq(effect, static_cast<int>(a), t));
            cliques.push_back(s);
        }
    graph g(eq.of.size());
    for (const auto& c : cliques) join(g, c);
    tidy(g);
    return g;
}

// Pattern of the factor in the order of METIS, the row of the right-hand sides added.
void factorise_pattern(const graph& g) {
    int n = static_cast<int>(g.size());
    std::vector<int> xadj{0}, adjncy, perm(n), place(n);
    for (const auto& row : g) {
        adjncy.insert(adjncy.end(), row.begin(), row.end());
        xadj.push_back(static_cast<int>(adjncy.size()));
    }
    if (METIS_NodeND(&n, xadj.data(), adjncy.data(), nullptr, nullptr, perm.data(), place.data()) != METIS_OK)
        std::exit(1);
    numbers.nsrow = sparse.n = n + 1;
    sparse.ixvec1.allocate(n + 2);
    sparse.ixvec2.allocate(n + 1);
    std::vector<int> sub, mark(n + 2, 0), list;
    std::vector<std::vector<int>> children(n + 2);
    sparse.ixvec1(1) = 1;
    for (int k = 1; k <= n + 1; ++k) {
        list.clear();
        auto add = [&](int i) {
            if (i > k && mark[i] != k) {
                mark[i] = k;
                list.push_back(i);
            }
        };
        if (k <= n)
            for (int i : g[perm[k - 1]]) add(place[i] + 1);
        add(n + 1);
        for (int c : children[k])
            for (int q = 0; q < sparse.ixvec1(c + 1) - sparse.ixvec1(c); ++q) add(sub[sparse.ixvec2(c) - 1 + q]);
        std::sort(list.begin(), list.end());
        sparse.ixvec1(k + 1) = sparse.ixvec1(k) + static_cast<int>(list.size());
        if (list.size() > sub.size() || !std::equal(list.begin(), list.end(), sub.end() - list.size()))
            sub.insert(sub.end(), list.begin(), list.end());
        sparse.ixvec2(k) = static_cast<int>(sub.size() - list.size()) + 1;
        if (!list.empty()) children[list.front()].push_back(k);
    }
    sparse.maxsub = static_cast<int>(sub.size());
    sparse.ixsub.allocate(sparse.maxsub);
    std::copy(sub.begin(), sub.end(), sparse.ixsub.begin());
}

bool read_structure(const std::string& name) {
    record_reader in;
    int neqns = 0, steps = 0;
    if (!in.open(name) || !in.next()) return false;
    if (!in.get(neqns) || !in.get(numbers.nsrow) || !in.get(sparse.maxlnz) || !in.get(sparse.maxsub) || !in.get(steps))
        return false;
    sparse.ixvec1.allocate(numbers.nsrow + 1);
    sparse.ixvec2.allocate(numbers.nsrow);
    sparse.ixsub.allocate(sparse.maxsub);
    if (!in.next() || !in.next() || !in.next() || !in.get(sparse.ixvec1.prefix(sparse.ixvec1.size()))) return false;
    if (!in.next() || !in.get(sparse.ixvec2.prefix(sparse.ixvec2.size()))) return false;
    for (int done = 0; done < sparse.maxsub; done += steps) {
        const int count = std::min(steps, sparse.maxsub - done);
        if (!in.next() || !in.get(std::span<int>(sparse.ixsub.data() + done, static_cast<std::size_t>(count))))
            return false;
    }
    return true;
}

} // namespace

void load_structure(const std::string& source) {
    if (source.starts_with("grid:"))
        factorise_pattern(grid(std::atoi(source.c_str() + 5)));
    else if (source.ends_with(".bin")) {
        if (!read_structure(source)) {
            std::fprintf(stderr, "no structure in %s\n", source.c_str());
            std::exit(1);
        }
    } else
        factorise_pattern(case_graph(source));
    sparse.n = numbers.nsrow;
    sparse.maxlnz = sparse.ixvec1(numbers.nsrow + 1) - 1;
    sparse.diag.allocate(numbers.nsrow);
    sparse.xspars.allocate(sparse.maxlnz);
}

void set_values() {
    const int n = numbers.nsrow;
    std::uint64_t state = 12345;
    sparse.diag.fill(0.01);
    for (int i = 1; i <= n; ++i) {
        const int shift = sparse.ixvec2(i) - sparse.ixvec1(i);
        for (int q = sparse.ixvec1(i); q < sparse.ixvec1(i + 1); ++q) {
            state = state * 6364136223846793005u + 1442695040888963407u;
            const double v = static_cast<double>(state >> 40) * 0x1p-23 - 1.0;
            sparse.xspars(q) = v;
            sparse.diag(i) += 1.05 * std::fabs(v);
            sparse.diag(sparse.ixsub(q + shift)) += 1.05 * std::fabs(v);
        }
    }
    sparse.state = store_state::assembled;
}

} // namespace tarvex
