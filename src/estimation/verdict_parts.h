// What a verdict is made of: the point, the directions in which it may move, and what has been found so far. Internal
// to the verdict.
#pragma once
#include "dense/numroutines.h"
#include "estimation/verdict.h"
#include "support/vector1.h"

#include <string>
#include <utility>
#include <vector>

namespace tarvex {

struct share { // change `coef` of parameter `par` for one unit along the direction
    int par;
    double coef;
};
// A way in which the point may move.
struct direction {
    std::vector<share> shares;
    double curvature = 0.0;    // of the border, beyond that of the likelihood
    double least = -1.0e36;    // how far it leads before something vanishes
    std::string vanishes = {}; // what does so, in words
};

struct judgement {
    const judged_point& point;
    search_verdict verdict;
    vector1<direction> free;
    bool matrices_only = false; // there is no gradient
    int size() const { return static_cast<int>(point.gradient.size()); }
    double information(int i, int j) const { return point.information(packed_place(i, j, size())); }
    double slope(const direction& d) const {
        double s = 0.0;
        if (matrices_only) return s;
        for (const share& x : d.shares) s += x.coef * point.gradient(x.par);
        return s;
    }
    // Information times the direction.
    vector1<double> image(const direction& d) const {
        vector1<double> h(size());
        for (const share& x : d.shares)
            for (int i = 1; i <= size(); ++i) h(i) += x.coef * information(i, x.par);
        return h;
    }
};

// Number of covariance (i,j) in b.cov; a diagonal block has those of i = j alone.
inline int packed(const judged_block& b, int i, int j) { return b.diagonal ? i : packed_place(i, j, b.order()); }

// Judges the covariance matrices and the parameters that stand for themselves: what is at the border goes into the
// verdict, all other directions into free.
void judge_blocks(judgement& j);

} // namespace tarvex
