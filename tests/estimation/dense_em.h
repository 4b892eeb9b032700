// EM and PX-EM updates by dense algebra: expectations from V and P, or from the inverse of the dense equations.
#pragma once
#include "support/dense_oracle.h"

#include <cstddef>
#include <vector>

namespace oracle {

// P y y'P - P.
inline dense score_matrix(const reml& e) {
    dense h = e.p;
    for (std::size_t i = 0; i < h.size(); ++i)
        for (std::size_t j = 0; j < h.size(); ++j) h[i][j] = e.py[i] * e.py[j] - e.p[i][j];
    return h;
}

inline dense plus(dense a, const dense& b, double f = 1.0) {
    for (std::size_t i = 0; i < a.size(); ++i)
        for (std::size_t j = 0; j < a[i].size(); ++j) a[i][j] += f * b[i][j];
    return a;
}

// G + G Z'(Pyy'P - P)Z G / nlev, summed over relationships.
inline dense em_effect(const analysis& m, const point& at, const dense& h, std::size_t k, double nlev) {
    const std::size_t q = at.g[k].size();
    dense s = zeros(q, q);
    for (std::size_t o = 0; o < m.obs.size(); ++o)
        for (std::size_t w = 0; w < m.obs.size(); ++w) {
            for (const term& a : m.obs[o].terms[k])
                for (const term& b : m.obs[w].terms[k]) {
                    const double f =
                        h[o][w] * m.a[k][static_cast<std::size_t>(a.level - 1)][static_cast<std::size_t>(b.level - 1)];
                    if (f == 0.0) continue;
                    for (std::size_t i = 0; i < q; ++i)
                        for (std::size_t j = 0; j < q; ++j) s[i][j] += f * a.z[i] * b.z[j];
                }
        }
    return plus(at.g[k], product(product(at.g[k], s), at.g[k]), 1.0 / nlev);
}

// Residual matrix with the missing records of a subject completed; one record a trait.
inline dense em_residual(const analysis& m, const dense& r, const dense& h) {
    const std::size_t q = r.size();
    dense s = zeros(q, q);
    int subjects = 0, last = -1;
    for (std::size_t o = 0; o < m.obs.size(); ++o) {
        if (m.obs[o].subject != last) ++subjects;
        last = m.obs[o].subject;
        for (std::size_t w = 0; w < m.obs.size(); ++w)
            if (m.obs[w].subject == last)
                s[static_cast<std::size_t>(m.obs[o].trait - 1)][static_cast<std::size_t>(m.obs[w].trait - 1)] +=
                    h[o][w];
    }
    return plus(r, product(product(r, s), r), 1.0 / subjects);
}

// Expected log density of the residuals at r, with the expectations taken at r0; one record a trait.
inline double residual_expectation(const analysis& m, const dense& r, const dense& r0, const dense& h) {
    double q = 0.0;
    for (std::size_t o = 0; o < m.obs.size();) {
        std::vector<std::size_t> mine;
        for (std::size_t w = o; w < m.obs.size() && m.obs[w].subject == m.obs[o].subject; ++w) mine.push_back(w);
        const std::size_t n = mine.size();
        dense now = zeros(n, n), then = zeros(n, n), hs = zeros(n, n);
        for (std::size_t i = 0; i < n; ++i)
            for (std::size_t j = 0; j < n; ++j) {
                const auto a = static_cast<std::size_t>(m.obs[mine[i]].trait - 1);
                const auto b = static_cast<std::size_t>(m.obs[mine[j]].trait - 1);
                now[i][j] = r[a][b];
                then[i][j] = r0[a][b];
                hs[i][j] = h[mine[i]][mine[j]];
            }
        const dense s = plus(then, product(product(then, hs), then));
        q -= 0.5 * (log_det(now) + trace_of_product(inverse(now), s));
        o += n;
    }
    return q;
}

// Mean square of independent residuals, by class.
inline vec em_classes(const analysis& m, const point& at, const dense& h) {
    vec sum(at.r.size(), 0.0), n(at.r.size(), 0.0);
    for (std::size_t o = 0; o < m.obs.size(); ++o) {
        const auto c = static_cast<std::size_t>(m.obs[o].iclass - 1);
        const double r = at.r[c][0][0];
        sum[c] += r + r * r * h[o][o];
        n[c] += 1.0;
    }
    for (std::size_t c = 0; c < sum.size(); ++c) sum[c] = n[c] > 0.0 ? sum[c] / n[c] : at.r[c][0][0];
    return sum;
}

// Residual covariances only.
inline dense within(const analysis& m, point at) {
    at.g.assign(m.a.size(), {});
    return variance(m, at);
}

// Scoring step for the upper triangles of r[0] and, where there is one, b: the residual matrix is linear in them.
inline vec em_scoring(const analysis& m, const point& at, const dense& h) {
    const dense w0 = within(m, at);
    const std::size_t n = m.obs.size();
    std::vector<dense> slopes;
    vec old;
    const auto add = [&](bool peq) {
        const std::size_t q = peq ? at.b.size() : at.r[0].size();
        for (std::size_t i = 0; i < q; ++i)
            for (std::size_t j = i; j < q; ++j) {
                point up = at;
                dense& t = peq ? up.b : up.r[0];
                old.push_back(t[i][j]);
                t[i][j] += 1.0;
                if (i != j) t[j][i] += 1.0;
                slopes.push_back(plus(within(m, up), w0, -1.0));
            }
    };
    add(false);
    add(true);
    const dense winv = inverse(w0);
    const std::size_t np = old.size();
    dense f = zeros(np, np);
    vec g(np, 0.0);
    std::vector<dense> ww;
    for (const auto& s : slopes) ww.push_back(product(winv, s));
    for (std::size_t k = 0; k < np; ++k) {
        for (std::size_t i = 0; i < n; ++i)
            for (std::size_t j = 0; j < n; ++j)
                if (m.obs[i].subject == m.obs[j].subject) g[k] += slopes[k][i][j] * h[i][j];
        for (std::size_t l = 0; l < np; ++l) f[k][l] = trace_of_product(ww[k], ww[l]);
    }
    const vec d = solve(f, g);
    for (std::size_t k = 0; k < np; ++k) old[k] += d[k];
    return old;
}

// Equations with loadings: u_k = Q_k u*_k for levels x columns standardised effects (var A x I), or u itself with prior
// G.
struct equations {
    std::vector<std::size_t> start, nfit; // of each effect
    vec solution;
    dense cinv, rinv;
    std::size_t place(std::size_t k, int level, std::size_t c) const {
        return start[k] + static_cast<std::size_t>(level - 1) * nfit[k] + c;
    }
    double expectation(std::size_t i, std::size_t j) const { return solution[i] * solution[j] + cinv[i][j]; }
};

inline equations dense_equations(const analysis& m, const point& at, const std::vector<dense>& loadings) {
    equations e;
    std::size_t n = m.obs[0].x.size();
    const bool standard = !loadings.empty();
    for (std::size_t k = 0; k < m.a.size(); ++k) {
        e.start.push_back(n);
        e.nfit.push_back(standard ? loadings[k][0].size() : at.g[k].size());
        n += at.g[k].empty() ? 0 : m.a[k].size() * e.nfit[k];
    }
    dense w = zeros(m.obs.size(), n);
    vec y;
    for (std::size_t o = 0; o < m.obs.size(); ++o) {
        const auto& r = m.obs[o];
        y.push_back(r.y);
        for (std::size_t i = 0; i < r.x.size(); ++i) w[o][i] = r.x[i];
        for (std::size_t k = 0; k < m.a.size(); ++k) {
            if (at.g[k].empty()) continue;
            for (const term& t : r.terms[k])
                for (std::size_t c = 0; c < e.nfit[k]; ++c)
                    for (std::size_t i = 0; i < t.z.size(); ++i)
                        w[o][e.place(k, t.level, c)] += t.z[i] * (standard ? loadings[k][i][c] : i == c ? 1.0 : 0.0);
        }
    }
    e.rinv = inverse(within(m, at));
    const dense wr = product(transpose(w), e.rinv);
    dense c = product(wr, w);
    for (std::size_t k = 0; k < m.a.size(); ++k) {
        if (at.g[k].empty()) continue;
        const dense ainv = inverse(m.a[k]);
        dense prior = zeros(e.nfit[k], e.nfit[k]);
        for (std::size_t i = 0; i < e.nfit[k]; ++i) prior[i][i] = 1.0;
        if (!standard) prior = inverse(at.g[k]);
        for (std::size_t a = 0; a < ainv.size(); ++a)
            for (std::size_t b = 0; b < ainv.size(); ++b)
                for (std::size_t i = 0; i < e.nfit[k]; ++i)
                    for (std::size_t j = 0; j < e.nfit[k]; ++j)
                        c[e.place(k, static_cast<int>(a) + 1, i)][e.place(k, static_cast<int>(b) + 1, j)] +=
                            ainv[a][b] * prior[i][j];
    }
    e.cinv = inverse(c);
    e.solution = times(e.cinv, times(wr, y));
    return e;
}

// E(uu') of standardised effect k over its relationship inverse and nlev levels: levels of no consequence for the data,
// which the program may have pruned, add an identity each and are left out.
inline dense moments(const analysis& m, const equations& e, std::size_t k, double nlev) {
    const dense ainv = inverse(m.a[k]);
    dense t = zeros(e.nfit[k], e.nfit[k]);
    for (std::size_t i = 0; i < e.nfit[k]; ++i) t[i][i] = 1.0 - static_cast<double>(ainv.size()) / nlev;
    for (std::size_t a = 0; a < ainv.size(); ++a)
        for (std::size_t b = 0; b < ainv.size(); ++b)
            for (std::size_t i = 0; i < e.nfit[k]; ++i)
                for (std::size_t j = 0; j < e.nfit[k]; ++j)
                    t[i][j] +=
                        ainv[a][b] / nlev *
                        e.expectation(e.place(k, static_cast<int>(a) + 1, i), e.place(k, static_cast<int>(b) + 1, j));
    return t;
}

// Coefficient matrix of the regression on the effects of the blocks: unknown (k,i,c) in this order.
struct regression {
    std::vector<std::size_t> block, row, col;
    dense lhs;
    vec rhs; // E(z_i' R^-1 (y - Xb) u_c)
};

inline regression loadings_regression(const analysis& m, const point& at, const equations& e,
                                      const std::vector<std::size_t>& blocks) {
    regression q;
    for (std::size_t k : blocks)
        for (std::size_t i = 0; i < at.g[k].size(); ++i)
            for (std::size_t c = 0; c < e.nfit[k]; ++c) {
                q.block.push_back(k);
                q.row.push_back(i);
                q.col.push_back(c);
            }
    const std::size_t n = q.block.size(), nobs = m.obs.size();
    q.lhs = zeros(n, n);
    q.rhs.assign(n, 0.0);
    for (std::size_t o = 0; o < nobs; ++o)
        for (std::size_t w = 0; w < nobs; ++w) {
            const double r = e.rinv[o][w];
            if (r == 0.0) continue;
            const auto &p = m.obs[o], &s = m.obs[w];
            for (std::size_t a = 0; a < n; ++a)
                for (const term& t : p.terms[q.block[a]]) {
                    const double za = t.z[q.row[a]];
                    if (za == 0.0) continue;
                    const std::size_t ia = e.place(q.block[a], t.level, q.col[a]);
                    double resid = s.y * e.solution[ia];
                    for (std::size_t f = 0; f < s.x.size(); ++f) resid -= s.x[f] * e.expectation(f, ia);
                    q.rhs[a] += r * za * resid;
                    for (std::size_t b = 0; b < n; ++b)
                        for (const term& u : s.terms[q.block[b]])
                            q.lhs[a][b] +=
                                r * za * u.z[q.row[b]] * e.expectation(ia, e.place(q.block[b], u.level, q.col[b]));
                }
        }
    return q;
}

// Full-rank expansion of effect k: alpha G_EM alpha'.
inline dense px_effect(const analysis& m, const point& at, const dense& h, std::size_t k, double nlev) {
    const equations e = dense_equations(m, at, {});
    const dense gem = em_effect(m, at, h, k, nlev);
    const std::size_t q = gem.size();
    const regression r = loadings_regression(m, at, e, {k});
    const dense x = product(inverse(at.g[k]), gem);
    vec rhs;
    for (std::size_t i = 0; i < q; ++i)
        for (std::size_t j = 0; j < q; ++j) rhs.push_back(nlev * (x[i][j] - (i == j ? 1.0 : 0.0)));
    const vec d = solve(r.lhs, rhs);
    dense alpha = zeros(q, q);
    for (std::size_t i = 0; i < q; ++i)
        for (std::size_t j = 0; j < q; ++j) alpha[i][j] = (i == j ? 1.0 : 0.0) + d[i * q + j];
    return product(product(alpha, gem), transpose(alpha));
}

} // namespace oracle
