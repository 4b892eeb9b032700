// Counts of the factor of a graph in some order, without its structure.
//
// Gilbert, J.R., Ng, E.G. & Peyton, B.W. (1994), SIAM J. Matrix Anal. Appl. 15, 1075-1091; elimination tree: Liu,
// J.W.H. (1990), SIAM J. Matrix Anal. Appl. 11, 134-172.
#pragma once
#include <vector>

namespace tarvex {

// Undirected graph of n nodes from 0: the neighbours of node j are adjacent[start[j]] to adjacent[start[j+1]-1], both
// directions of each edge, no node its own neighbour.
struct order_graph {
    int n = 0;
    std::vector<int> start{0}, adjacent;
};

struct factor_counts {
    long long elements = 0;  // off-diagonals
    double operations = 0.0; // multiply-adds: sum over columns of c(c+3)/2 for c off-diagonals
};

// Parent of each place in the elimination tree, -1: root. node[k] stands at place k, and place[] is the inverse.
std::vector<int> elimination_tree(const order_graph& g, const std::vector<int>& node, const std::vector<int>& place);

// Off-diagonals of each column of the factor, nearly linear in the number of edges.
std::vector<int> column_counts(const order_graph& g, const std::vector<int>& node, const std::vector<int>& place);

// Counts with one row more, that of the right-hand side, which is last and linked to all others.
factor_counts count_factor(const order_graph& g, const std::vector<int>& node, const std::vector<int>& place);

} // namespace tarvex
