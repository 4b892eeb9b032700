#include "sparse/lsqrank.h"

#include "sparse/order_methods.h"
#include "sparse/symbfact.h"
#include "sparse/takahashi.h"
#include "support/array.h"
#include "support/stop.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <new>
#include <numeric>
#include <queue>
#include <string>
#include <utility>

namespace tarvex {

namespace {

void need_finished(const normal_equations& a, const char* routine) {
    if (a.start.empty()) stop(std::string("programming error: \"") + routine + "\" needs a matrix that is finished");
}

// Structure of the rows `eq` in the given order, with the coefficients in their places.
void lay_out(row_factor& f, const normal_equations& a) {
    std::vector<int> place(a.n, 0);
    for (int k = 1; k <= f.n; ++k) place[f.eq[k]] = k;
    array<int> xadj, adjncy;
    xadj.allocate(f.n + 1);
    // every coefficient between two equations that take part, as element (low, high) of the order
    auto each = [&](auto visit) {
        for (int i = 0; i < a.n; ++i)
            for (auto k = a.start[i]; place[i] > 0 && k < a.start[i + 1]; ++k)
                if (const int j = place[a.col[k]]; j > 0)
                    visit(std::min(place[i], j), std::max(place[i], j), a.value[k]);
    };
    // counts one place further on become starts by summing
    each([&](int low, int, double) { ++xadj(low + 1); });
    xadj(1) = 1;
    for (int i = 1; i <= f.n; ++i) xadj(i + 1) += xadj(i);
    adjncy.allocate(xadj(f.n + 1) - 1);
    array<int> next = xadj;
    each([&](int low, int high, double) { adjncy(next(low)++) = high; });
    int flag = 0;
    ssmbfct(f.n, xadj, adjncy, {}, {}, f.ixvec1, f.maxlnz, f.ixvec2, f.ixsub, f.maxsub, flag);
    if (flag != 0) stop("alloc zhz");
    f.x.assign(f.maxlnz, 0.0);
    each([&](int low, int high, double value) {
        const int c = f.ixvec1(low + 1) - f.ixvec1(low);
        const int* first = f.ixsub.data() + f.ixvec2(low) - 1;
        // subscripts of a row ascend
        const auto at = std::lower_bound(first, first + c, high) - first;
        f.x[f.ixvec1(low) - 1 + at] = value;
    });
}

constexpr double dependency = 1.0e-11; // a pivot below that part of its diagonal is rounding

double threshold(const normal_equations& a, int equation, double limit) {
    return std::max(limit, dependency * a.diag[equation]);
}

// Elimination row by row; a row gathers the updates of all rows in front of it that reach its column.
void eliminate(row_factor& f, const normal_equations& a, double limit) {
    const std::size_t n = f.n + 1;
    f.pivot.assign(n, 0.0);
    f.rhs.assign(n, 0.0);
    f.out.assign(n, 0);
    std::vector<double> temp(n, 0.0);
    std::vector<int> link(n, 0), first(n, 0); // rows by the column that they reach next, and their place there
    // temp is all zero; link[j] chains the rows whose next element stands in column j
    for (int j = 1; j <= f.n; ++j) {
        double dia = a.diag[f.eq[j]], rhs = a.rhs[f.eq[j]];
        for (int k = link[j], next; k > 0; k = next) {
            next = link[k];
            const int p = first[k], end = f.ixvec1(k + 1);
            // A = U'D^-1U: row k takes u(k,j)/d(k) times itself from row j
            const double xj = f.x[p - 1], t = -xj / f.pivot[k];
            dia += t * xj;
            rhs += t * f.rhs[k];
            const int* sub = f.ixsub.data() + f.ixvec2(k) - 1 - f.ixvec1(k);
            for (int q = p + 1; q < end; ++q) temp[sub[q]] += t * f.x[q - 1];
            if (p + 1 < end) {
                first[k] = p + 1;
                link[k] = std::exchange(link[sub[p + 1]], k);
            }
        }
        for (int q = f.ixvec1(j); q < f.ixvec1(j + 1); ++q) f.x[q - 1] += std::exchange(temp[f.sub(j, q)], 0.0);
        f.pivot[j] = dia;
        f.rhs[j] = rhs;
        f.out[j] = dia < threshold(a, f.eq[j], limit) ? 1 : 0;
        // a row that is not used hands nothing on: as if its equation were not there
        if (f.out[j] == 0 && f.ixvec1(j) < f.ixvec1(j + 1)) {
            first[j] = f.ixvec1(j);
            link[j] = std::exchange(link[f.sub(j, first[j])], j);
        }
    }
}

row_factor factorise(const normal_equations& a, std::vector<int> eq, double limit) {
    row_factor f;
    f.n = static_cast<int>(eq.size()) - 1;
    f.eq = std::move(eq);
    try {
        lay_out(f, a);
        eliminate(f, a, limit);
    } catch (const std::bad_alloc&) {
        stop("alloc zhz");
    }
    return f;
}

// Solutions by equation, 0 for rows that were not used.
std::vector<double> back_solution(const row_factor& f, int n) {
    std::vector<double> xsol(n, 0.0);
    for (int j = f.n; j >= 1; --j) {
        // its solution stays 0: one of the many solutions
        if (f.out[j]) continue;
        double s = f.rhs[j];
        for (int q = f.ixvec1(j); q < f.ixvec1(j + 1); ++q) s -= f.x[q - 1] * xsol[f.eq[f.sub(j, q)]];
        xsol[f.eq[j]] = s / f.pivot[j];
    }
    return xsol;
}

// Diagonal of the inverse, for the rows in use: its reciprocals are what the pivots are when all others go before, and
// so the least that they can be in any order.
array<double> inverse_diagonal(const row_factor& f) {
    sparse_store s; // the pattern, and behind it the row of a right-hand side, which is empty
    s.n = f.n + 1;
    s.ixvec1.allocate(s.n + 1);
    std::copy(f.ixvec1.begin(), f.ixvec1.end(), s.ixvec1.begin());
    s.ixvec1(s.n + 1) = s.ixvec1(s.n);
    s.ixvec2 = f.ixvec2;
    s.ixsub = f.ixsub;
    array<double> diag, off;
    diag.allocate(s.n);
    off.allocate(f.maxlnz);
    for (int j = 1; j <= f.n; ++j) {
        // rows that are not used stand alone
        diag(j) = f.out[j] ? 1.0 : f.pivot[j];
        for (int q = f.ixvec1(j); f.out[j] == 0 && q < f.ixvec1(j + 1); ++q)
            off(q) = f.out[f.sub(j, q)] ? 0.0 : f.x[q - 1] / f.pivot[j];
    }
    inverse_columns(s, diag, off, {});
    return diag;
}

// Equations whose pivots leave doubt whether they vanish, or would in another order.
std::vector<int> unclear(const row_factor& f, const normal_equations& a, double limit) {
    std::vector<int> list;
    array<double> inverse; // for the exact look: of those orders above the thresholds
    for (int j = 1; j <= f.n; ++j) {
        const double p = f.pivot[j], d = a.diag[f.eq[j]];
        if (f.out[j]) {
            // left out by the absolute limit, yet more than rounding of its diagonal
            if (std::fabs(p) > dependency * d) list.push_back(f.eq[j]);
        } else if (p < 1.0e4 * limit || p < 1.0e-9 * d) {
            if (!inverse.allocated()) inverse = inverse_diagonal(f);
            if (1.0 < 1.1 * threshold(a, f.eq[j], limit) * inverse(j)) list.push_back(f.eq[j]);
        }
    }
    std::sort(list.begin(), list.end());
    return list;
}

// Null vector in terms of equations scaled to unit diagonal, descending equations.
struct null_vector {
    std::vector<std::pair<int, double>> element;
    double pivot = 0.0, diagonal = 0.0; // of the row from which it was made
};

// Rows that hold an element of each column, and its place.
struct column_lists {
    std::vector<std::size_t> start;
    std::vector<std::pair<int, int>> row_place;
};
column_lists columns(const row_factor& f) {
    column_lists c;
    c.start.assign(f.n + 2, 0);
    c.row_place.resize(f.x.size());
    auto each = [&](auto visit) {
        for (int k = 1; k <= f.n; ++k)
            for (int q = f.ixvec1(k); f.out[k] == 0 && q < f.ixvec1(k + 1); ++q) visit(f.sub(k, q), k, q);
    };
    each([&](int col, int, int) { ++c.start[col + 1]; });
    std::partial_sum(c.start.begin(), c.start.end(), c.start.begin());
    auto next = c.start;
    each([&](int col, int k, int q) { c.row_place[next[col]++] = {k, q}; });
    return c;
}

// One null vector for each row that was not used: 1 there, 0 at the other ones, the rest by back substitution, which
// visits only what is not zero.
std::vector<null_vector> null_vectors(const row_factor& f, const normal_equations& a) {
    constexpr double negligible = 1.0e-12;
    const column_lists cols = columns(f);
    std::vector<double> v(f.n + 1, 0.0);
    std::vector<int> waiting(v.size(), 0);
    std::vector<null_vector> all;
    std::priority_queue<int> rows;
    for (int p = 1; p <= f.n; ++p) {
        if (!f.out[p]) continue;
        null_vector w;
        w.pivot = f.pivot[p];
        w.diagonal = a.diag[f.eq[p]];
        // of length 1 in its own equation, once scaled
        v[p] = 1.0 / std::sqrt(w.diagonal);
        // descending rows: v(i) is complete when i is the largest that waits
        for (rows.push(p); !rows.empty(); rows.pop()) {
            const int i = rows.top();
            waiting[i] = 0;
            double vi = std::exchange(v[i], 0.0);
            // row i of U v = 0
            if (i != p) vi /= -f.pivot[i];
            const double wi = vi * std::sqrt(a.diag[f.eq[i]]);
            if (std::fabs(wi) > negligible) {
                w.element.emplace_back(f.eq[i], wi);
                for (std::size_t k = cols.start[i]; k < cols.start[i + 1]; ++k) {
                    const auto [row, place] = cols.row_place[k];
                    v[row] += vi * f.x[place - 1];
                    if (!std::exchange(waiting[row], 1)) rows.push(row);
                }
            }
        }
        std::sort(w.element.rbegin(), w.element.rend());
        all.push_back(std::move(w));
    }
    return all;
}

constexpr double small_element = 1.0e-8; // of a null vector: the largest are about 1

void drop_small(null_vector& w) {
    std::erase_if(w.element, [](const auto& e) { return std::fabs(e.second) < small_element; });
}

// w -= t u for descending elements; the leading ones cancel.
void subtract(null_vector& w, const null_vector& u) {
    const double t = w.element.front().second / u.element.front().second;
    std::vector<std::pair<int, double>> sum;
    auto i = w.element.begin() + 1;
    for (auto j = u.element.begin() + 1; j != u.element.end(); ++j) {
        for (; i != w.element.end() && i->first > j->first; ++i) sum.push_back(*i);
        if (i != w.element.end() && i->first == j->first)
            sum.emplace_back(j->first, i++->second - t * j->second);
        else
            sum.emplace_back(j->first, -t * j->second);
    }
    sum.insert(sum.end(), i, w.element.end());
    w.element = std::move(sum);
    drop_small(w);
}

// Echelon form: no two vectors end in the same equation. Returned by that equation, descending; fewer vectors than
// given mean that they were not told apart.
std::vector<null_vector> echelon(std::vector<null_vector> all, int n) {
    std::vector<std::vector<null_vector>> ending(n);
    auto file = [&](null_vector&& w) {
        if (!w.element.empty()) ending[w.element.front().first].push_back(std::move(w));
    };
    for (auto& w : all) {
        drop_small(w);
        file(std::move(w));
    }
    std::vector<null_vector> result;
    for (int j = n - 1; j >= 0; --j) {
        auto& here = ending[j];
        if (here.empty()) continue;
        // pivot: the largest of those that end here, so that no factor t exceeds 1
        const auto largest = std::max_element(here.begin(), here.end(), [](const auto& a, const auto& b) {
            return std::fabs(a.element.front().second) < std::fabs(b.element.front().second);
        });
        std::swap(*largest, here.front());
        for (std::size_t k = 1; k < here.size(); ++k) {
            // it ends further in front from now on, and is dealt with there
            subtract(here[k], here.front());
            file(std::move(here[k]));
        }
        result.push_back(std::move(here.front()));
        here.clear();
    }
    return result;
}

// An element of a null vector is uncertain by about the root of the pivot that did not quite vanish, relative to its
// diagonal. True if an equation is chosen by an element that may be nothing but that.
bool doubtful(const std::vector<null_vector>& vectors) {
    double noise = 0.0;
    constexpr double growth = 100.0; // room for that of rounding along a vector
    for (const auto& w : vectors) noise = std::max(noise, growth * std::sqrt(std::fabs(w.pivot) / w.diagonal));
    return std::any_of(vectors.begin(), vectors.end(), [&](const auto& w) {
        double largest = 0.0;
        for (const auto& e : w.element) largest = std::max(largest, std::fabs(e.second));
        return std::fabs(w.element.front().second) < noise * largest;
    });
}

// Moves the solutions to those in which the last equation of every null vector is 0.
void bring_to(std::vector<double>& xsol, const std::vector<null_vector>& vectors, const std::vector<double>& diag) {
    for (const auto& w : vectors) {
        // vectors come by descending ends: a later one has no element at an end that was set to 0 before
        const auto [j, wj] = w.element.front();
        const double t = xsol[j] * std::sqrt(diag[j]) / wj;
        for (const auto& [i, wi] : w.element) xsol[i] -= t * wi / std::sqrt(diag[i]);
        xsol[j] = 0.0;
    }
}

// Equations that take part, in a fill-reducing order or, where the method refuses, as they stand, behind a first entry
// that is not used.
std::vector<int> fill_reducing_order(const normal_equations& a, const std::vector<int>& part) {
    const int n = static_cast<int>(part.size());
    std::vector<int> local(a.n, -1), start{0}, adjacent;
    for (int k = 0; k < n; ++k) local[part[k]] = k;
    for (int i : part) {
        for (auto k = a.start[i]; k < a.start[i + 1]; ++k)
            if (local[a.col[k]] >= 0) adjacent.push_back(local[a.col[k]]);
        // one triangle is enough: the method takes either
        start.push_back(static_cast<int>(adjacent.size()));
    }
    const node_order order = amd_node_order(n, start.data(), adjacent.data());
    if (order.status == out_of_memory) stop("all iwork");
    std::vector<int> eq{0};
    if (static_cast<int>(order.node.size()) < n)
        eq.insert(eq.end(), part.begin(), part.end());
    else
        for (int k : order.node) eq.push_back(part[k]);
    return eq;
}

} // namespace

normal_equations::normal_equations(int size) : n(size), diag(size, 0.0), rhs(size, 0.0) {}

void normal_equations::add(int i, int j, double x) {
    const auto row = static_cast<std::uint64_t>(std::min(i, j)), column = static_cast<std::uint64_t>(std::max(i, j));
    sums_[(row << 32U) | column] += x; // never 0, as column > row
}

void normal_equations::finish() {
    if (sums_.size() >= INT_MAX) stop("alloc zhz");
    std::vector<std::pair<std::uint64_t, double>> all;
    all.reserve(sums_.size());
    sums_.each([&](std::uint64_t key, double x) { all.emplace_back(key, x); });
    sums_ = {};
    std::sort(all.begin(), all.end());
    start.assign(n + 1, 0);
    for (const auto& [key, x] : all) {
        ++start[(key >> 32U) + 1];
        col.push_back(static_cast<int>(key & 0xFFFFFFFFU));
        value.push_back(x);
    }
    std::partial_sum(start.begin(), start.end(), start.begin());
}

row_factor factor_of(const normal_equations& a) {
    need_finished(a, "factor_of");
    std::vector<int> part(a.n);
    std::iota(part.begin(), part.end(), 0);
    return factorise(a, fill_reducing_order(a, part), 0.0);
}

void sample_inverse(const row_factor& f, std::vector<double>& x) {
    // U x = D^(1/2) z, so that var(x) = U^-1 D U^-T = A^-1
    for (int j = f.n; j >= 1; --j) {
        double s = std::sqrt(f.pivot[j]) * x[f.eq[j]];
        for (int q = f.ixvec1(j); q < f.ixvec1(j + 1); ++q) s -= f.x[q - 1] * x[f.eq[f.sub(j, q)]];
        x[f.eq[j]] = s / f.pivot[j];
    }
}

lsq_rank natural_rank(const normal_equations& a, const std::vector<int>& out, double limit) {
    need_finished(a, "natural_rank");
    std::vector<int> eq{0};
    for (int i = 0; i < a.n; ++i)
        if (!out[i]) eq.push_back(i);
    const row_factor f = factorise(a, std::move(eq), limit);
    lsq_rank r;
    r.natural = true;
    r.elements = f.maxlnz;
    for (int j = 1; j <= f.n; ++j)
        if (f.out[j])
            r.dependent.push_back({f.eq[j], f.pivot[j]});
        else
            ++r.rank;
    r.xsol = back_solution(f, a.n);
    return r;
}

namespace {

// Dependent equations of those that take part, where no pivot leaves doubt; false: there are doubts.
bool clear_rank(const normal_equations& a, const std::vector<int>& part, double limit, lsq_rank& r,
                std::vector<int>& doubts) {
    const row_factor f = factorise(a, fill_reducing_order(a, part), limit);
    doubts = unclear(f, a, limit);
    if (!doubts.empty()) return false;
    const std::size_t vanished = std::count(f.out.begin(), f.out.end(), 1);
    const auto vectors = echelon(null_vectors(f, a), a.n);
    // one dependent equation for each vanished pivot, or the vectors are not told apart
    if (vectors.size() != vanished || doubtful(vectors)) return false;
    r.rank = f.n - static_cast<int>(vanished);
    r.elements = f.maxlnz;
    r.xsol = back_solution(f, a.n);
    bring_to(r.xsol, vectors, a.diag);
    for (const auto& w : vectors) r.dependent.push_back({w.element.front().first, w.pivot});
    return true;
}

void take_out(std::vector<int>& part, const std::vector<int>& gone) {
    std::erase_if(part, [&](int i) { return std::find(gone.begin(), gone.end(), i) != gone.end(); });
}

void add_new(std::vector<int>& list, const std::vector<int>& more) {
    list.insert(list.end(), more.begin(), more.end());
    std::sort(list.begin(), list.end());
    list.erase(std::unique(list.begin(), list.end()), list.end());
}

// Pivot that an equation has in natural order: all kept ones in front of it go first.
double natural_pivot(const normal_equations& a, const std::vector<int>& kept, int equation, double limit) {
    std::vector<int> front;
    for (int i : kept)
        if (i < equation) front.push_back(i);
    std::vector<int> eq = fill_reducing_order(a, front);
    eq.push_back(equation);
    // the equation comes last in any order of the others: its pivot is that of the natural order
    const row_factor f = factorise(a, std::move(eq), limit);
    return f.pivot[f.n];
}

// Equations that the factor of the kept ones shows to be dependent, or that may be so in another order.
std::vector<int> suspects(const row_factor& f, const normal_equations& a, const std::vector<int>& known, double limit) {
    std::vector<int> list;
    for (int j = 1; j <= f.n; ++j)
        if (f.out[j]) list.push_back(f.eq[j]);
    for (const null_vector& w : null_vectors(f, a)) // any that would have such a pivot behind the others
        for (const auto& [i, wi] : w.element)
            if (w.pivot / w.diagonal * a.diag[i] < 1.1 * threshold(a, i, limit) * wi * wi) list.push_back(i);
    if (!list.empty()) return list;
    for (int i : unclear(f, a, limit))
        if (std::find(known.begin(), known.end(), i) == known.end()) list.push_back(i);
    return list;
}

// The same with some equations in doubt: the others are settled without them, then each of these by its pivot in
// natural order, until no other is dependent with them. False: that leaves doubts as well.
bool rank_with_doubts(const normal_equations& a, const std::vector<int>& all, std::vector<int> doubts, double limit,
                      lsq_rank& r) {
    // each costs a factorisation of its own: with more of them the natural order is cheaper
    constexpr std::size_t most = 64;
    const lsq_rank empty = r;
    for (std::size_t before = 0; doubts.size() > before && doubts.size() <= most;) {
        before = doubts.size();
        r = empty;
        std::vector<int> part = all, more, gone;
        take_out(part, doubts);
        if (!clear_rank(a, part, limit, r, more)) {
            add_new(doubts, more);
            continue;
        }
        for (const auto& d : r.dependent) gone.push_back(d.row);
        std::sort(gone.begin(), gone.end());
        std::erase_if(part, [&](int i) { return std::binary_search(gone.begin(), gone.end(), i); });
        // ascending, so that the ones kept are in front of the next
        for (int i : doubts) {
            const double p = natural_pivot(a, part, i, limit);
            if (p < threshold(a, i, limit))
                r.dependent.push_back({i, p});
            else
                part.push_back(i);
        }
        std::sort(part.begin(), part.end());
        // all that are kept together: the solutions, and whether anything still looks dependent
        const row_factor f = factorise(a, fill_reducing_order(a, part), limit);
        const std::vector<int> found = suspects(f, a, doubts, limit);
        r.rank = f.n;
        r.elements = f.maxlnz;
        r.xsol = back_solution(f, a.n);
        if (found.empty()) return true;
        add_new(doubts, found);
    }
    return false;
}

} // namespace

lsq_rank fast_rank(const normal_equations& a, const std::vector<int>& out, double limit) {
    need_finished(a, "fast_rank");
    lsq_rank r;
    std::vector<int> part;
    for (int i = 0; i < a.n; ++i) {
        if (out[i]) continue;
        if (a.diag[i] < limit)
            r.dependent.push_back({i, a.diag[i]}); // no records, or of a scale below the limit
        else
            part.push_back(i);
    }
    const lsq_rank empty = r;
    std::vector<int> doubts;
    if (!clear_rank(a, part, limit, r, doubts)) {
        r = empty;
        if (!rank_with_doubts(a, part, doubts, limit, r)) return natural_rank(a, out, limit);
    }
    std::sort(r.dependent.begin(), r.dependent.end(), [](const auto& x, const auto& y) { return x.row < y.row; });
    return r;
}

} // namespace tarvex
