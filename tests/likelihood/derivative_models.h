// Models of the tests of derivatives, and what their derivatives are compared with.
#pragma once
#include "control/options.h"
#include "estimation/covs2parvec.h"
#include "estimation/estimates.h"
#include "likelihood/derivatives.h"
#include "likelihood/likelihood.h"
#include "support/small_models.h"

#include <cstddef>
#include <utility>
#include <vector>

namespace tarvex {

inline small_model traits(int nq, std::vector<double> g, std::vector<double> r, int repeats = 1) {
    return traits_model(nq, std::move(g), std::move(r), repeats, 20);
}

inline small_model two_effects() {
    small_model m = traits(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9});
    m.random.push_back({"dam", "IDE", 2, 0, {0.9, 0.1, 0.8}});
    return m;
}

inline void derivatives_here() {
    program_logl(estimates.parvec, 1);
    average_info();
    derivatives_mmm();
    jacob_var2chol(0);
}

inline void on_original_scale() {
    options.emalgorithm = true;
    covs2parvec();
    forget_likelihoods();
}

// Derivatives of V with respect to the parameters, by differences of V itself.
inline std::vector<oracle::dense> variance_slopes(const small_model& m) {
    const oracle::analysis a = m.dense();
    std::vector<oracle::dense> list;
    for (int i = 1; i <= estimates.nparm; ++i) {
        const auto v = [&](double step) {
            array<double> p = estimates.parvec;
            p(i) += step;
            return oracle::variance(a, point_at(m, p));
        };
        const double h = 1.0e-3;
        const oracle::dense a1 = v(h), a2 = v(-h), b1 = v(0.5 * h), b2 = v(-0.5 * h);
        oracle::dense d = a1;
        for (std::size_t r = 0; r < d.size(); ++r)
            for (std::size_t c = 0; c < d.size(); ++c)
                d[r][c] = (4.0 * (b1[r][c] - b2[r][c]) / h - (a1[r][c] - a2[r][c]) / (2.0 * h)) / 3.0;
        list.push_back(d);
    }
    return list;
}

} // namespace tarvex
