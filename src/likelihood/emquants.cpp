#include "likelihood/emquants.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/datavecs.h"
#include "dense/numroutines.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "likelihood/buildmmm.h"
#include "likelihood/factormmm.h"
#include "likelihood/likelihood.h"
#include "likelihood/solutions.h"
#include "likelihood/subjectchunks.h"
#include "parameters/parvec.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <utility>

namespace tarvex {

namespace {

// Gathers the coefficient matrix of the expansion over the records of a part:
// sum over records of R^-1(r,s) z_r(i) z_s(k) E(u_j(level of r) u_l(level of s)).
class expansion_sums {
public:
    expansion_sums(const em_request& request, em_quantities& q) : request_(request), q_(q) {
        // unknowns: element (i,c) of a block's expansion, c fastest; first_: -1 if the block has none
        first_.assign(numbers.krand, -1);
        q.unknowns.clear();
        for (int irand = 1; irand <= numbers.krand; ++irand) {
            if (!wanted(irand)) continue;
            first_(irand) = static_cast<int>(q.unknowns.size());
            for (int i = 1; i <= model.kkfit(irand); ++i)
                for (int c = 1; c <= nfit(irand); ++c) q.unknowns.push_back({irand, i, c});
        }
        q.lhs.allocate(q.unknowns.size(), q.unknowns.size());
    }
    bool any() const { return !q_.unknowns.empty(); }

    void add(const design_part& part) {
        const subject_design& d = *part.design;
        collect_levels(d);
        for (int r = 0; r < d.nobs; ++r)
            for (int s = part.diagonal ? r : 0; s < (part.diagonal ? r + 1 : d.nobs); ++s) {
                const double rinv = part.rinv(r, s);
                if (rinv != 0.0) add_pair(d, r, s, rinv);
            }
    }

private:
    bool wanted(int irand) const { return request_.expand(irand) != 0 && mudmap.kovrnd(irand) != covariance_kind::peq; }

    // Distinct levels of the wanted effects in the part, and E(uu') between all their components.
    void collect_levels(const subject_design& d) {
        slots_.clear();
        slot_of_.assign(d.effects.size(), -1);
        eq_.clear();
        for (int e = d.efirst[0]; e < d.efirst[d.nobs]; ++e) {
            const design_effect& f = d.effects[e];
            if (!wanted(f.irand)) continue;
            int slot = 0;
            // a part has few levels: they are searched one by one
            while (slot < static_cast<int>(slots_.size()) &&
                   (slots_[slot].irand != f.irand || slots_[slot].level != f.level))
                ++slot;
            if (slot == static_cast<int>(slots_.size())) {
                slots_.push_back({f.irand, f.level, static_cast<int>(eq_.size())});
                const int n = nfit(f.irand), start = mmequations.rn_start(f.irand) + (f.level - 1) * n;
                for (int c = 1; c <= n; ++c) eq_.push_back(orders.ieqnew(start + c));
            }
            slot_of_[e] = slot;
        }
        const std::size_t n = eq_.size();
        expect_.assign(n * n, 0.0);
        for (std::size_t a = 0; a < n; ++a) {
            // E(uu') = C^-1 + xx' = 2X; F is 2X off the diagonal and X on it
            expect_[a * n + a] = 2.0 * sparse.diag(eq_[a]);
            for (std::size_t b = 0; b < a; ++b) expect_[a * n + b] = expect_[b * n + a] = expectation(eq_[a], eq_[b]);
        }
    }
    // Outside the pattern only the solutions are at hand.
    double expectation(int a, int b) const {
        const int place = locate(a, b);
        if (place > 0) return sparse.xspars(place);
        return solutions.solns(a) * solutions.solns(b);
    }

    void add_pair(const subject_design& d, int r, int s, double rinv) {
        for (int e = d.efirst[r]; e < d.efirst[r + 1]; ++e)
            // separate expansions: products of two effects stay out
            for (int f = d.efirst[s]; f < d.efirst[s + 1]; ++f) {
                if (slot_of_[e] < 0 || slot_of_[f] < 0) continue;
                if (!request_.joint && d.effects[e].irand != d.effects[f].irand) continue;
                add_effects(d.effects[e], slots_[slot_of_[e]], d.effects[f], slots_[slot_of_[f]], rinv);
            }
    }

    struct level_slot {
        int irand, level, from;
    };

    void add_effects(const design_effect& e, const level_slot& es, const design_effect& f, const level_slot& fs,
                     double rinv) {
        const int ke = model.kkfit(e.irand), kf = model.kkfit(f.irand), ne = nfit(e.irand), nf = nfit(f.irand);
        const std::size_t n = eq_.size();
        for (int i = 1; i <= ke; ++i) {
            const double zi = e.raw ? e.raw[i - 1] : i == e.place ? 1.0 : 0.0;
            if (zi == 0.0) continue;
            for (int k = 1; k <= kf; ++k) {
                const double zk = f.raw ? f.raw[k - 1] : k == f.place ? 1.0 : 0.0;
                if (zk == 0.0) continue;
                // normal equations of y on the products z(i) u(j)
                const int row = first_(e.irand) + (i - 1) * ne, col = first_(f.irand) + (k - 1) * nf;
                for (int j = 0; j < ne; ++j)
                    for (int l = 0; l < nf; ++l)
                        q_.lhs(row + j + 1, col + l + 1) += rinv * zi * zk * expect_[n * (es.from + j) + fs.from + l];
            }
        }
    }

    const em_request& request_;
    em_quantities& q_;
    vector1<int> first_;
    std::vector<level_slot> slots_;
    std::vector<int> slot_of_, eq_;
    std::vector<double> expect_;
};

class residual_sums {
public:
    explicit residual_sums(em_quantities& q) : q_(q) {
        if (options.randreg) {
            q.class_ss.assign(model.rr_resteps, 0.0);
            q.class_n.assign(model.rr_resteps, 0.0);
        } else
            q.residuals = vector1<pattern_matrix>(combinations.ncombi);
    }
    void add(const part_products& p) {
        if (!options.randreg) return add_products(p, q_.residuals);
        residual_classes(*p.part.record, age_, class_);
        // independent records with a variance for each class
        for (int i = 0; i < p.part.design->nobs; ++i) {
            const int c = class_(p.part.obs + i + 1);
            q_.class_ss(c) += 2.0 * p.m(i + 1, i + 1);
            q_.class_n(c) += 1.0;
        }
    }
    void finish() {
        if (options.randreg) return;
        for (auto& s : q_.residuals)
            // E(e e') = 2 M, for M was made with X
            for (double& x : s.v) x *= 2.0;
    }

private:
    em_quantities& q_;
    vector1<int> age_, class_;
};

// What a chunk of subjects adds up; request: null for the residuals alone.
struct em_chunk {
    em_quantities q;
    residual_sums residual;
    std::unique_ptr<expansion_sums> expansion;

    explicit em_chunk(const em_request* request) : residual(q) {
        q.loads = vector1<array<double, 2>>(numbers.krand);
        if (!request) return;
        if (options.principal)
            for (int irand = 1; irand <= numbers.krand; ++irand)
                q.loads(irand).allocate(model.kkfit(irand), model.krfit(irand));
        expansion = std::make_unique<expansion_sums>(*request, q);
    }
    void add(const em_chunk& next) {
        add_loads(next.q.loads, q.loads);
        add_patterns(next.q.residuals, q.residuals);
        const auto add_each = [](const auto& from, auto& to) {
            std::transform(from.begin(), from.end(), to.begin(), to.begin(), std::plus<>());
        };
        add_each(next.q.class_ss, q.class_ss);
        add_each(next.q.class_n, q.class_n);
        add_each(next.q.lhs, q.lhs);
    }
};

std::vector<std::unique_ptr<em_chunk>> make_chunks(const em_request* request) {
    std::vector<std::unique_ptr<em_chunk>> chunks(subject_chunks());
    for (auto& c : chunks) c = std::make_unique<em_chunk>(request);
    return chunks;
}

// The sums over all, in the first.
em_chunk& add_up(std::vector<std::unique_ptr<em_chunk>>& chunks) {
    for (std::size_t c = 1; c < chunks.size(); ++c) chunks.front()->add(*chunks[c]);
    return *chunks.front();
}

void take_residuals(em_chunk& all, em_quantities& q) {
    all.residual.finish();
    q.residuals = std::move(all.q.residuals);
    q.class_ss = std::move(all.q.class_ss);
    q.class_n = std::move(all.q.class_n);
}

} // namespace

void em_expectations(const em_request& request, em_quantities& q) {
    need_evaluation("em_expectations");
    autodiff_in_place();
    const pattern_values x{sparse.diag, sparse.xspars, 0.5, true};
    q.quads = vector1<array<double, 2>>(numbers.krand);
    std::vector<std::unique_ptr<em_chunk>> chunks = make_chunks(&request);
    // X = F/2 as for the gradient: here all sums are twice those of it
    const bool with_effects = options.principal || chunks.front()->expansion->any();
    walk_products(x, with_effects, [&](int chunk, const part_products& p) {
        em_chunk& mine = *chunks[chunk];
        mine.residual.add(p);
        if (options.principal) add_loads(p, -2.0, mine.q.loads);
        if (mine.expansion->any()) mine.expansion->add(p.part);
    });
    em_chunk& all = add_up(chunks);
    q.loads = std::move(all.q.loads);
    q.unknowns = std::move(all.q.unknowns);
    q.lhs = std::move(all.q.lhs);
    take_residuals(all, q);
    if (options.principal) return;
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (mudmap.kovrnd(irand) == covariance_kind::peq) continue;
        // E(u'A^-1 u) by pairs of components
        auto& t = q.quads(irand);
        structure_sums(irand, x, t);
        for (double& v : t) v *= 2.0;
    }
}

void em_residuals(em_quantities& q) {
    need_state(sparse, store_state::derivative, "em_residuals");
    const pattern_values x{sparse.diag, sparse.xspars, 0.5, true};
    std::vector<std::unique_ptr<em_chunk>> chunks = make_chunks(nullptr);
    walk_products(x, false, [&](int chunk, const part_products& p) { chunks[chunk]->residual.add(p); });
    take_residuals(add_up(chunks), q);
}

} // namespace tarvex
