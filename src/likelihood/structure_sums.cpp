#include "likelihood/structure_sums.h"

#include "control/numbers.h"
#include "data/levels.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "likelihood/buildmmm.h"
#include "likelihood/subjectchunks.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "relations/inverse_stream.h"

#include <algorithm>
#include <functional>
#include <memory>

namespace tarvex {

namespace {

bool records_independent() { return numbers.nq == 1 && residualvars.ipeq == 0; }

// X between the equations of a part: full square, and between them and the observations.
struct local_values {
    std::vector<double> x, fy;
    double yy = 0.0;
};

void fetch(const subject_design& d, const pattern_values& v, place_cursor& place, local_values& w) {
    const std::size_t nl = d.nl;
    w.x.resize(nl * nl);
    w.fy.assign(nl, 0.0);
    for (std::size_t l = 0; l < nl; ++l) {
        const int i = d.eq[l];
        for (std::size_t m = 0; m < l; ++m) {
            const int p = place(i, d.eq[m]);
            // off the pattern: never needed, since both equations of a record are linked
            w.x[l * nl + m] = w.x[m * nl + l] = p > 0 ? v.off * v.fo(p) : 0.0;
        }
        w.x[l * nl + l] = v.fd(i);
        // y stands last in the row
        if (v.with_y) w.fy[l] = v.off * v.fo(sparse.ixvec1(i + 1) - 1);
    }
    w.yy = v.with_y ? v.fd(numbers.nsrow) : 0.0;
}

void multiply(const design_part& part, const local_values& w, part_products& out) {
    const subject_design& d = *part.design;
    const std::size_t nl = d.nl;
    const int n = d.nobs;
    out.part = part;
    out.p.assign(nl * n, 0.0);
    out.m.reset(n, records_independent());
    // p(j) = X w_j with y as one more equation; row j of M needs the columns up to j only
    for (int j = 0; j < n; ++j) {
        double* p = out.p.data() + nl * j;
        double q = part.y[j] * w.yy;
        for (std::size_t l = 0; l < nl; ++l) p[l] = part.y[j] * w.fy[l];
        for (int e = d.first[j]; e < d.first[j + 1]; ++e) {
            const double we = d.weight[e];
            const double* row = w.x.data() + nl * d.local[e];
            for (std::size_t l = 0; l < nl; ++l) p[l] += we * row[l];
            q += we * w.fy[d.local[e]];
        }
        for (int i = out.m.diagonal ? j : 0; i <= j; ++i) {
            double s = part.y[i] * q;
            for (int e = d.first[i]; e < d.first[i + 1]; ++e) s += d.weight[e] * p[d.local[e]];
            if (out.m.diagonal)
                out.m.v[i] = s;
            else
                out.m(i + 1, j + 1) = out.m(j + 1, i + 1) = s;
        }
    }
}

// One element of the inverse relationship matrix.
void add_element(int n, const int* ei, const int* ej, bool diagonal_links, double aa, const pattern_values& x,
                 place_cursor& place, array<double, 2>& t) {
    const auto between = [&](int a, int b) {
        const int p = place(a, b);
        return p > 0 ? aa * x.off * x.fo(p) : 0.0;
    };
    for (int r = 0; r < n; ++r) {
        // an element off the diagonal of A^-1 stands for (a,b) and (b,a)
        if (ei == ej) t(r + 1, r + 1) += aa * x.fd(ei[r]);
        if (diagonal_links) {
            if (ei != ej) t(r + 1, r + 1) += 2.0 * between(ei[r], ej[r]);
            continue;
        }
        // within a level only pairs r > s, each for both
        for (int s = 0; s < (ei == ej ? r : n); ++s) {
            const double v = between(ei[r], ej[s]);
            t(r + 1, s + 1) += v;
            t(s + 1, r + 1) += v;
        }
    }
}

// Goes through the parts of the subject in a stream.
struct subject_parts {
    explicit subject_parts(const subject_stream& stream) : parts(stream) {}
    void visit(int chunk, const pattern_values& x, place_cursor& place, const visitor& visit) {
        for (parts.start(); parts.next(part);) {
            fetch(*part.design, x, place, w);
            multiply(part, w, products);
            visit(chunk, products);
        }
    }
    part_splitter parts;
    design_part part{};
    local_values w{};
    part_products products{};
};

// Of one thread.
struct products_worker {
    explicit products_worker(const subject_stream& first) : chunk(first), parts(chunk.stream()) {}
    chunk_stream chunk;
    subject_parts parts;
};

} // namespace

void structure_sums(int irand, const pattern_values& x, array<double, 2>& t) {
    const int n = nfit(irand);
    t.allocate(n, n);
    if (levels.rn_nlev(irand) < 1) return;
    places.blocks.resize(numbers.krand);
    place_cursor place(places.blocks(irand), x.fo);
    const bool diagonal_links = links_diagonal(irand);
    const int* eq = &orders.ieqnew(mmequations.rn_start(irand) + 1);
    inverse_stream elements(irand);
    inverse_element e;
    while (elements.next(e))
        add_element(n, eq + static_cast<std::ptrdiff_t>(e.row - 1) * n, eq + static_cast<std::ptrdiff_t>(e.col - 1) * n,
                    diagonal_links, e.value, x, place, t);
    place.finish();
}

void walk_products(const pattern_values& x, bool with_effects, const visitor& visit) {
    subject_stream stream(with_effects);
    if (const int chunks = shared_chunks(); chunks > 0) {
        share_chunks(
            0, chunks, [&] { return std::make_unique<products_worker>(stream); },
            [&](products_worker& worker, int chunk) {
                // each chunk knows where its pairs begin in the list of places
                place_cursor place(places.subjects, x.fo, places.subjects.marks[chunk]);
                worker.chunk.start(chunk);
                while (worker.chunk.next()) worker.parts.visit(chunk, x, place, visit);
            });
        return;
    }
    place_cursor place(places.subjects, x.fo);
    subject_parts parts(stream);
    for (const int chunks = subject_chunks();;) {
        if (stream.isubj() % places.together == 0) place.mark(stream.place_of_next());
        if (!stream.next()) break;
        parts.visit(std::min(chunk_of(stream.isubj()), chunks - 1), x, place, visit);
    }
    place.finish();
}

void add_products(const part_products& products, vector1<pattern_matrix>& sums) {
    const subject_record& d = *products.part.record;
    pattern_matrix& s = sums(d.icombi);
    if (s.n == 0) s.reset(d.nobs, products.m.diagonal);
    // parts of one record each go to their place, a whole subject fills the matrix
    const std::size_t from = s.diagonal ? products.part.obs : 0;
    for (std::size_t k = 0; k < products.m.v.size(); ++k) s.v[from + k] += products.m.v[k];
}

void add_patterns(const vector1<pattern_matrix>& chunk, vector1<pattern_matrix>& sums) {
    for (int k = 1; k <= chunk.size(); ++k) {
        const pattern_matrix& c = chunk(k);
        pattern_matrix& s = sums(k);
        if (c.n == 0) continue;
        if (s.n == 0)
            s = c;
        else
            std::transform(c.v.begin(), c.v.end(), s.v.begin(), s.v.begin(), std::plus<>());
    }
}

void add_loads(const vector1<array<double, 2>>& chunk, vector1<array<double, 2>>& loads) {
    for (int irand = 1; irand <= chunk.size(); ++irand)
        std::transform(chunk(irand).begin(), chunk(irand).end(), loads(irand).begin(), loads(irand).begin(),
                       std::plus<>());
}

void add_loads(const part_products& products, double factor, vector1<array<double, 2>>& loads) {
    const design_part& part = products.part;
    const subject_design& s = *part.design;
    const std::size_t nl = s.nl;
    std::vector<double> h(nl); // R^-1 X w of record i, by local equation
    for (int i = 0; i < s.nobs; ++i) {
        std::fill(h.begin(), h.end(), 0.0);
        for (int j = part.diagonal ? i : 0; j < (part.diagonal ? i + 1 : s.nobs); ++j) {
            const double r = part.rinv(j, i);
            if (r == 0.0) continue;
            const double* p = products.p.data() + nl * j;
            for (std::size_t l = 0; l < nl; ++l) h[l] += r * p[l];
        }
        for (int e = s.efirst[i]; e < s.efirst[i + 1]; ++e) {
            const design_effect& effect = s.effects[e];
            auto& mine = loads(effect.irand);
            // equations of the factor: element (r,c) meets u_c of the level
            for (int c = 1; c <= model.krfit(effect.irand); ++c) {
                const double g = factor * h[s.local[effect.entry + c - 1]];
                if (!effect.raw) {
                    mine(effect.place, c) += g;
                    continue;
                }
                for (int r = 1; r <= model.kkfit(effect.irand); ++r) mine(r, c) += effect.raw[r - 1] * g;
            }
        }
    }
}

pattern_matrix between_inverses(const pattern_matrix& rinv, const pattern_matrix& m) {
    pattern_matrix k;
    k.reset(m.n, m.diagonal && rinv.diagonal);
    if (k.diagonal) {
        for (int i = 0; i < m.n; ++i) k.v[i] = rinv.v[i] * rinv.v[i] * m.v[i];
        return k;
    }
    if (rinv.diagonal) {
        for (int j = 1; j <= m.n; ++j)
            for (int i = 1; i <= m.n; ++i) k(i, j) = rinv(i, i) * rinv(j, j) * m(i, j);
        return k;
    }
    // R^-1 M first, then times R^-1: n^3 each
    pattern_matrix rm;
    rm.reset(m.n, false);
    for (int j = 1; j <= m.n; ++j)
        for (int l = 1; l <= m.n; ++l)
            for (int i = 1; i <= m.n; ++i) rm(i, j) += rinv(i, l) * m(l, j);
    for (int j = 1; j <= m.n; ++j)
        for (int l = 1; l <= m.n; ++l)
            for (int i = 1; i <= m.n; ++i) k(i, j) += rm(i, l) * rinv(l, j);
    return k;
}

} // namespace tarvex
