#include "support/dense_oracle.h"

#include <Eigen/Dense>
#include <cmath>
#include <limits>

namespace oracle {

dense zeros(std::size_t n, std::size_t m) { return dense(n, vec(m, 0.0)); }

namespace {

using matrix = Eigen::MatrixXd;

matrix to_eigen(const dense& a) {
    matrix m(static_cast<Eigen::Index>(a.size()), static_cast<Eigen::Index>(a.empty() ? 0 : a[0].size()));
    for (std::size_t i = 0; i < a.size(); ++i)
        for (std::size_t j = 0; j < a[i].size(); ++j)
            m(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(j)) = a[i][j];
    return m;
}
dense from_eigen(const matrix& m) {
    dense a = zeros(static_cast<std::size_t>(m.rows()), static_cast<std::size_t>(m.cols()));
    for (std::size_t i = 0; i < a.size(); ++i)
        for (std::size_t j = 0; j < a[i].size(); ++j)
            a[i][j] = m(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(j));
    return a;
}

} // namespace

dense product(const dense& a, const dense& b) { return from_eigen(to_eigen(a) * to_eigen(b)); }

dense transpose(const dense& a) { return from_eigen(to_eigen(a).transpose()); }

dense inverse(const dense& a) {
    const matrix m = to_eigen(a);
    return from_eigen(m.llt().solve(matrix::Identity(m.rows(), m.cols())));
}

double log_det(const dense& a) {
    const Eigen::LLT<matrix> l(to_eigen(a));
    if (l.info() != Eigen::Success) return std::numeric_limits<double>::quiet_NaN();
    return 2.0 * l.matrixLLT().diagonal().array().log().sum();
}

dense cholesky(const dense& a) { return from_eigen(to_eigen(a).llt().matrixL()); }

vec eigenvalues(const dense& a) {
    const Eigen::VectorXd e = Eigen::SelfAdjointEigenSolver<matrix>(to_eigen(a), Eigen::EigenvaluesOnly).eigenvalues();
    return {e.begin(), e.end()};
}

dense eigenvectors(const dense& a) {
    return from_eigen(Eigen::SelfAdjointEigenSolver<matrix>(to_eigen(a)).eigenvectors());
}

vec solve(const dense& a, const vec& b) {
    Eigen::FullPivLU<matrix> lu(to_eigen(a));
    lu.setThreshold(1.0e-10);
    const Eigen::VectorXd x =
        lu.solve(Eigen::Map<const Eigen::VectorXd>(b.data(), static_cast<Eigen::Index>(b.size())));
    return {x.begin(), x.end()};
}

double distance_to_identity(const dense& a, const dense& b) {
    const matrix m = to_eigen(a) * to_eigen(b);
    return (m - matrix::Identity(m.rows(), m.cols())).cwiseAbs().maxCoeff();
}

double trace_of_product(const dense& a, const dense& b) {
    return to_eigen(a).cwiseProduct(to_eigen(b).transpose()).sum();
}

vec times(const dense& a, const vec& x) {
    vec y(a.size(), 0.0);
    for (std::size_t i = 0; i < a.size(); ++i)
        for (std::size_t j = 0; j < x.size(); ++j) y[i] += a[i][j] * x[j];
    return y;
}

double dot(const vec& a, const vec& b) {
    double s = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) s += a[i] * b[i];
    return s;
}

dense tabular(const std::vector<int>& sire, const std::vector<int>& dam) {
    const std::size_t n = sire.size();
    dense a = zeros(n, n);
    const auto at = [&](int i, std::size_t j) { return i > 0 ? a[static_cast<std::size_t>(i - 1)][j] : 0.0; };
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t j = 0; j < i; ++j) a[i][j] = a[j][i] = 0.5 * (at(sire[i], j) + at(dam[i], j));
        a[i][i] = 1.0 + (sire[i] > 0 && dam[i] > 0 ? 0.5 * at(sire[i], static_cast<std::size_t>(dam[i] - 1)) : 0.0);
    }
    return a;
}

dense related_sires(const std::vector<int>& sire, const std::vector<int>& grandsire) {
    const std::size_t n = sire.size();
    dense t = zeros(n, n); // contributions of Mendelian samplings to each sire; A = T D T'
    vec d(n);
    for (std::size_t i = 0; i < n; ++i) {
        const int s = sire[i], m = grandsire[i];
        const double whole = s > 0 ? 0.5 : 0.0, half = m > 0 ? 0.25 : 0.0;
        d[i] = 1.0 - whole * whole - half * half - (s > 0 && s == m ? 2.0 * whole * half : 0.0);
        t[i][i] = 1.0;
        for (std::size_t k = 0; k < i; ++k) {
            if (s > 0) t[i][k] += whole * t[static_cast<std::size_t>(s - 1)][k];
            if (m > 0 && m != s) t[i][k] += half * t[static_cast<std::size_t>(m - 1)][k];
        }
    }
    dense a = zeros(n, n);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < n; ++j)
            for (std::size_t k = 0; k <= std::min(i, j); ++k) a[i][j] += t[i][k] * d[k] * t[j][k];
    return a;
}

dense variance(const analysis& m, const point& at) {
    const std::size_t n = m.obs.size();
    dense v = zeros(n, n);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j <= i; ++j) {
            const observation &o = m.obs[i], &w = m.obs[j];
            double s = 0.0;
            for (std::size_t k = 0; k < m.a.size(); ++k) {
                if (at.g[k].empty()) continue;
                for (const term& e : o.terms[k])
                    for (const term& f : w.terms[k]) {
                        const vec& row = m.a[k][static_cast<std::size_t>(e.level - 1)];
                        const double a = row[static_cast<std::size_t>(f.level - 1)];
                        if (a != 0.0) s += a * dot(e.z, times(at.g[k], f.z));
                    }
            }
            if (o.subject == w.subject) {
                const auto q = static_cast<std::size_t>(o.trait - 1), p = static_cast<std::size_t>(w.trait - 1);
                const dense& r = at.r[static_cast<std::size_t>(o.iclass - 1)];
                if (m.randreg) {
                    if (o.age == w.age) s += r[q][p];
                } else if (i == j) {
                    s += r[q][p];
                } else {
                    if (q != p) s += r[q][p];
                    if (!at.b.empty()) s += at.b[q][p];
                }
            }
            v[i][j] = v[j][i] = s;
        }
    return v;
}

reml evaluate(const analysis& m, const dense& v) {
    const std::size_t n = m.obs.size(), k = m.obs[0].x.size();
    reml e;
    dense x = zeros(n, k);
    vec y(n);
    for (std::size_t i = 0; i < n; ++i) {
        x[i] = m.obs[i].x;
        y[i] = m.obs[i].y;
    }
    e.vinv = inverse(v);
    const dense vx = product(e.vinv, x), xvx = product(transpose(x), vx);
    const dense inv = k > 0 ? inverse(xvx) : dense{};
    e.p = e.vinv;
    if (k > 0) {
        const dense w = product(vx, product(inv, transpose(vx)));
        for (std::size_t i = 0; i < n; ++i)
            for (std::size_t j = 0; j < n; ++j) e.p[i][j] -= w[i][j];
        e.beta = times(inv, times(transpose(vx), y));
    }
    e.py = times(e.p, y);
    e.logl = -0.5 * (log_det(v) + (k > 0 ? log_det(xvx) : 0.0) + dot(y, e.py));
    return e;
}

double reml_logl(const dense& v, const dense& x, const vec& y) {
    const auto n = static_cast<Eigen::Index>(y.size());
    matrix w(n, static_cast<Eigen::Index>(x.empty() ? 0 : x[0].size()) + 1); // X and y
    if (!x.empty()) w.leftCols(w.cols() - 1) = to_eigen(x);
    w.rightCols(1) = Eigen::Map<const Eigen::VectorXd>(y.data(), n);
    const Eigen::LLT<matrix> l(to_eigen(v));
    l.matrixL().solveInPlace(w);
    const matrix l2 = (w.transpose() * w).eval().llt().matrixL(); // last pivot: square root of y'Py
    const Eigen::Index p = w.cols() - 1;
    const double log_x = 2.0 * l2.diagonal().head(p).array().log().sum();
    const double log_v = 2.0 * l.matrixLLT().diagonal().array().log().sum();
    return -0.5 * (log_v + log_x + l2(p, p) * l2(p, p));
}

double gradient(const reml& e, const dense& dv) {
    return -0.5 * (trace_of_product(e.p, dv) - dot(e.py, times(dv, e.py)));
}

double information(const reml& e, const dense& dv, const dense& dw) {
    return 0.5 * dot(times(dv, e.py), times(e.p, times(dw, e.py)));
}

dense blup(const analysis& m, const point& at, const reml& e, std::size_t k) {
    const std::size_t nlev = m.a[k].size(), q = at.g[k].size();
    dense zpy = zeros(nlev, q);
    for (std::size_t i = 0; i < m.obs.size(); ++i)
        for (const term& t : m.obs[i].terms[k])
            for (std::size_t r = 0; r < q; ++r) zpy[static_cast<std::size_t>(t.level - 1)][r] += t.z[r] * e.py[i];
    return product(product(m.a[k], zpy), at.g[k]);
}

} // namespace oracle
