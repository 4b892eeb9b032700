#include "critical_path.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace tarvex {

namespace {

double cube(double x) { return x * x * x; }

} // namespace

chain_of_work chain_of(const sparse_store& s, const supernode_tree& tree) {
    const std::size_t ns = tree.parent.size();
    chain_of_work c;
    std::vector<double> own(ns), chain(ns, 0.0);
    for (std::size_t k = 0; k < ns; ++k) { // children come before their parents
        const int width = tree.start[k + 1] - tree.start[k], below = below_of(s, tree, static_cast<int>(k));
        own[k] = (cube(width + below) - cube(below)) / 6.0;
        c.all += own[k];
        chain[k] += own[k];
        c.whole_fronts = std::max(c.whole_fronts, chain[k]);
        if (const int p = tree.parent[k]; p >= 0) chain[p] = std::max(chain[p], chain[k]);
    }
    for (const auto& step : tree.steps) {
        double sum = 0.0;
        for (int k = step.first; k < step.end; ++k) sum += own[k];
        if (step.piece) {
            c.largest_piece = std::max(c.largest_piece, sum);
            continue;
        }
        c.top += sum;
        const double width = tree.start[step.end] - tree.start[step.first];
        c.divided_fronts += width * block * block / 6.0;
    }
    c.divided_fronts += c.largest_piece;
    return c;
}

double most_speed_up(double all, double chain, int threads) { return std::min<double>(threads, all / chain); }

void print_chain(const chain_of_work& c) {
    std::printf("path operations %.0f\npath whole_fronts %.4f\npath divided_fronts %.4f\npath largest_piece %.4f\n"
                "path top %.4f\n",
                c.all, c.whole_fronts / c.all, c.divided_fronts / c.all, c.largest_piece / c.all, c.top / c.all);
    for (int threads : {2, 8, 16, 64})
        std::printf("path speed_up_%d %.2f\n", threads, most_speed_up(c.all, c.divided_fronts, threads));
}

} // namespace tarvex
