// Average information: working variables b_k = dV/dk Py, and b_k'P b_l = b_k'R^-1 b_l - s_k's_l with L s = W'R^-1 b.
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/datavecs.h"
#include "data/levels.h"
#include "data/pedigreelist.h"
#include "dense/general_inverse.h"
#include "dense/inner.h"
#include "dense/numroutines.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "likelihood/derivatives.h"
#include "likelihood/factormmm.h"
#include "likelihood/likelihood.h"
#include "likelihood/solutions.h"
#include "likelihood/subjectchunks.h"
#include "likelihood/subjects.h"
#include "parameters/parvec.h"
#include "parameters/randomvars.h"
#include "parameters/residualvars.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "relations/cholnrm.h"
#include "relations/inverse_stream.h"
#include "sparse/dense_kernels.h"
#include "support/record_file.h"
#include "support/stop.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

namespace tarvex {

namespace {

constexpr int columns_at_once = solve_columns; // working variables in one pass over the factor

// What the working variables of a random effect take from the solutions, by level.
struct effect_vectors {
    int n = 0;            // kkfit
    int rank = 0;         // equations of a level
    array<double, 2> u{}; // (rank, levels) solutions
    array<double, 2> v{}; // (n, levels) full rank: G^-1 u; principal: x = (A x I) Z'R^-1 e
    array<int, 2> par{};  // (n, rank) principal: parameter of element (r,c) of the factor, 0 none
};

// the repeat effect is a part of R: its working variables come with those of the residual
bool fitted(int irand) { return mudmap.kovrnd(irand) != covariance_kind::peq; }

effect_vectors get_solutions(int irand) {
    effect_vectors e;
    e.n = model.kkfit(irand);
    e.rank = nfit(irand);
    e.u.allocate(e.rank, levels.rn_nlev(irand));
    // 0: the equation was taken out, its solution is 0
    for (int k = mmequations.rn_start(irand); double& u : e.u) {
        const int eq = orders.ieqnew(++k);
        u = eq > 0 ? solutions.solns(eq) : 0.0;
    }
    return e;
}

// dV/dG(i,j) Py = Z (E(i,j) x A) Z'Py, and u = (G x A) Z'Py: what stands behind E(i,j) is G^-1 u
void scale_by_inverse(int irand, effect_vectors& e) {
    const int nlev = levels.rn_nlev(irand);
    e.v.allocate(e.n, nlev);
    for (int l = 1; l <= nlev; ++l)
        for (int j = 1; j <= e.n; ++j)
            for (int i = 1; i <= e.n; ++i) e.v(i, l) += randomvars.zig(i, j, irand) * e.u(j, l);
}

void map_factor(int irand, effect_vectors& e) {
    e.par.allocate(e.n, e.rank);
    for (int k = 1; k <= block_size(irand); ++k) {
        const factor_place f = factor_element(irand, 1, k);
        e.par(f.row, f.col) = block_start(irand) + k - 1;
    }
}

// True if x of a principal block has to be had from the data and the relationship matrix.
bool needs_relationships(int irand) { return options.superai || model.krfit(irand) < model.kkfit(irand); }

// x = (I x Q'^-1) u for a square factor. At a valid point no pivot of Q vanishes.
void solve_transposed(int irand, effect_vectors& e) {
    const int n = e.n, nlev = levels.rn_nlev(irand);
    // u = (Q' x I) x
    array<double, 2> inverse;
    inverse.allocate(n, n);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) inverse(i, j) = randomvars.zig(j, i, irand);
    if (!invert_general(inverse, n)) stop("this should not happen");
    e.v.allocate(n, nlev);
    for (int l = 1; l <= nlev; ++l)
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= n; ++j) e.v(i, l) += inverse(i, j) * e.u(j, l);
}

// R^-1 e of the subject in the stream.
void weighted_residuals(const subject_stream& stream, std::vector<double>& ehat, std::vector<double>& re) {
    subject_residuals(stream, ehat);
    const int n = stream.design().nobs;
    re.assign(n, 0.0);
    for (int i = 0; i < n; ++i) {
        if (stream.rinv().diagonal)
            re[i] = stream.rinv(i, i) * ehat[i];
        else
            for (int j = 0; j < n; ++j) re[i] += stream.rinv(i, j) * ehat[j];
    }
}

// The factor of the relationship matrix that belongs to effect irand must be of this pedigree.
void check_cholnrm(int irand) {
    // number of the pedigree of this effect
    const int iirand = mudmap.iranno(irand);
    const std::string name = cholnrm_name(iirand);
    const int expected = pedigreelist.nannew(iirand);
    int found = -1;
    record_reader in;
    if (in.open(name) && in.next() && in.get(found) && found == expected) return;
    print_list(screen(), name, found, iirand, expected);
    stoptarvex();
}

// y = S x for the supplied inverse S of effect irand.
void multiply_given(int irand, const std::vector<double>& x, std::vector<double>& y) {
    y.assign(x.size(), 0.0);
    inverse_stream elements(irand);
    // elements of one triangle
    for (inverse_element e; elements.next(e);) {
        y[e.row - 1] += e.value * x[e.col - 1];
        if (e.row != e.col) y[e.col - 1] += e.value * x[e.row - 1];
    }
}

std::vector<double> given_diagonal(int irand) {
    std::vector<double> d(levels.rn_nlev(irand), 0.0);
    inverse_stream elements(irand);
    for (inverse_element e; elements.next(e);)
        if (e.row == e.col) d[e.row - 1] += e.value;
    return d;
}

constexpr double solved = 1.0e-26; // squared length of what is left against that of the right-hand side: 13 digits
constexpr std::size_t turns_per_row = 3, least_turns = 100; // exact arithmetic needs one a row

// x += S^-1 r by conjugate gradients, scaled by the diagonal (Hestenes and Stiefel 1952). r becomes what is left of it.
void conjugate_gradients(int irand, const std::vector<double>& diagonal, double goal, std::vector<double>& r,
                         std::vector<double>& x) {
    const std::size_t n = r.size();
    std::vector<double> p(n), h(n), s;
    double rho = 0.0;
    for (std::size_t turn = 0; turn < turns_per_row * n + least_turns && inner(r, r) > goal; ++turn) {
        for (std::size_t i = 0; i < n; ++i) h[i] = r[i] / diagonal[i];
        // rho = r'h; p is conjugate to all directions before it
        const double next = inner(r, h), beta = turn == 0 ? 0.0 : next / rho;
        rho = next;
        for (std::size_t i = 0; i < n; ++i) p[i] = h[i] + beta * p[i];
        multiply_given(irand, p, s);
        const double curvature = inner(p, s);
        // S is not positive definite, or r is exhausted
        if (!(curvature > 0.0)) return;
        const double step = rho / curvature;
        for (std::size_t i = 0; i < n; ++i) {
            x[i] += step * p[i];
            r[i] -= step * s[i];
        }
    }
}

// x = S^-1 z.
void solve_given(int irand, const std::vector<double>& z, std::vector<double>& x) {
    const std::vector<double> diagonal = given_diagonal(irand);
    x.assign(z.size(), 0.0);
    std::vector<double> r = z, s;
    for (int pass = 1; pass <= 2; ++pass) { // the second starts from the residual as it is, not as it was updated
        conjugate_gradients(irand, diagonal, solved * inner(z, z), r, x);
        multiply_given(irand, x, s);
        for (std::size_t i = 0; i < r.size(); ++i) r[i] = z[i] - s[i];
    }
}

// A z by place of the block.
void multiply_relationships(int irand, effect_vectors& e) {
    if (mudmap.kovrnd(irand) == covariance_kind::ide) return;
    const bool given = mudmap.kovrnd(irand) == covariance_kind::gin;
    if (options.write_factor && !given) check_cholnrm(irand);
    const int nlev = levels.rn_nlev(irand);
    // the columns of a level stand together in v: one place at a time over all levels
    std::vector<double> z(nlev), az;
    for (int p = 1; p <= e.n; ++p) {
        for (int l = 1; l <= nlev; ++l) z[l - 1] = e.v(p, l);
        if (given)
            solve_given(irand, z, az);
        else
            nrm_product(mudmap.iranno(irand), z, az);
        for (int l = 1; l <= nlev; ++l) e.v(p, l) = az[l - 1];
    }
}

// z = Z'R^-1 e of all blocks that need it, by one pass over the data.
void collect_z(vector1<effect_vectors>& all) {
    subject_stream stream(true);
    std::vector<double> ehat, re;
    while (stream.next()) {
        const subject_design& d = stream.design();
        weighted_residuals(stream, ehat, re);
        // raw: the basis values of the record; without them the record is of one place, with weight 1
        for (int i = 0; i < d.nobs; ++i)
            for (int k = d.efirst[i]; k < d.efirst[i + 1]; ++k) {
                const design_effect& f = d.effects[k];
                effect_vectors& e = all(f.irand);
                if (!needs_relationships(f.irand)) continue;
                if (!f.raw)
                    e.v(f.place, f.level) += re[i];
                else
                    for (int p = 1; p <= e.n; ++p) e.v(p, f.level) += f.raw[p - 1] * re[i];
            }
    }
}

vector1<effect_vectors> set_bmat() {
    vector1<effect_vectors> all(numbers.krand);
    bool wanted = false;
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (!fitted(irand)) continue;
        effect_vectors& e = all(irand);
        e = get_solutions(irand);
        if (!options.principal) {
            scale_by_inverse(irand, e);
            continue;
        }
        map_factor(irand, e);
        if (!needs_relationships(irand)) {
            // a square factor gives x from the solutions alone
            solve_transposed(irand, e);
            continue;
        }
        wanted = true;
        e.v.allocate(e.n, levels.rn_nlev(irand));
    }
    if (!wanted) return all;
    collect_z(all);
    for (int irand = 1; irand <= numbers.krand; ++irand)
        if (fitted(irand) && needs_relationships(irand)) multiply_relationships(irand, all(irand));
    return all;
}

// The parameters of each record together.
struct parameter_rows {
    std::vector<double> v{};
    void reset(int records) { v.assign(std::ptrdiff_t{records} * estimates.nparm, 0.0); }
    double* row(int i) { return v.data() + std::ptrdiff_t{i} * estimates.nparm; }
};

// Working variables of the records of a subject.
class working_variables {
public:
    explicit working_variables(const vector1<effect_vectors>& effects) : effects_(effects) {}

    void form(const subject_stream& stream) {
        const subject_design& d = stream.design();
        b.reset(d.nobs);
        weighted_residuals(stream, ehat_, re_);
        residual_columns(stream.record());
        // b(i) is row i of B: the residual part stands, the effects of the record are added
        for (int i = 0; i < d.nobs; ++i)
            for (int k = d.efirst[i]; k < d.efirst[i + 1]; ++k) {
                const design_effect& f = d.effects[k];
                const effect_vectors& e = effects_(f.irand);
                for (int p = 1; p <= e.n; ++p) {
                    const double z = f.raw ? f.raw[p - 1] : p == f.place ? 1.0 : 0.0;
                    if (z == 0.0) continue;
                    if (options.principal)
                        factor_columns(f, e, p, z, b.row(i));
                    else
                        full_columns(f, e, p, z, b.row(i));
                }
            }
    }
    parameter_rows b;

private:
    // dR R^-1 e.
    void residual_columns(const subject_record& d) {
        const int nobs = d.nobs;
        if (options.randreg) residual_classes(d, age_, iclass_);
        int pars[2];
        // one trait without a repeat effect: R is diagonal
        const bool independent = numbers.nq == 1 && residualvars.ipeq == 0;
        for (int i = 0; i < nobs; ++i)
            for (int j = i; j < (independent ? i + 1 : nobs); ++j) {
                if (options.randreg && age_(i + 1) != age_(j + 1)) continue;
                const int c = options.randreg ? iclass_(i + 1) : 1;
                const int n = residual_pars(d.ynq(i + 1), d.ynq(j + 1), c, i == j, pars);
                for (int k = 0; k < n; ++k) {
                    // dR has 1 at (i,j) and (j,i)
                    b.row(i)[pars[k] - 1] += re_[j];
                    if (i != j) b.row(j)[pars[k] - 1] += re_[i];
                }
            }
    }
    // Covariance (p,j): z v(j), and the same from the record's own place j for p.
    void full_columns(const design_effect& f, const effect_vectors& e, int p, double z, double* row) const {
        const double* v = e.v.column(f.level).data();
        const int from = block_start(f.irand);
        if (model.diagonal(f.irand)) {
            row[from + p - 2] += z * v[p - 1];
            return;
        }
        for (int j = 1; j <= e.n; ++j) row[from + packed_place(p, j, e.n) - 2] += z * v[j - 1];
    }
    // Q(r,c): z u(c) where p is r, and z Q(p,c) x(r).
    void factor_columns(const design_effect& f, const effect_vectors& e, int p, double z, double* row) const {
        const double* u = e.u.column(f.level).data();
        const double* x = e.v.column(f.level).data();
        for (int c = 1; c <= e.rank; ++c) {
            const double q = z * randomvars.zig(p, c, f.irand);
            for (int r = 1; r <= e.n; ++r) {
                const int par = e.par(r, c);
                if (par == 0) continue;
                row[par - 1] += q * x[r - 1] + (r == p ? z * u[c - 1] : 0.0);
            }
        }
    }

    const vector1<effect_vectors>& effects_;
    std::vector<double> ehat_, re_;
    vector1<int> age_, iclass_;
};

// What the subjects of a chunk add to aimat, and, where others are at work, what they will add to W'R^-1 B: for each
// record a row of R^-1 B, its equations and their weights.
struct information_sums {
    std::vector<double> aimat{};
    std::vector<double> rows{};
    std::vector<int> entries{}, eq{}; // entries of each record
    std::vector<double> weight{};
};

// Row i of R^-1 B, for each equation of the record, to the columns of brx, which has the parameters of an equation
// together.
void add_row(const int* eq, const double* weight, int count, const double* row, array<double>& brx) {
    const int np = estimates.nparm;
    for (int e = 0; e < count; ++e) {
        double* column = brx.data() + static_cast<std::ptrdiff_t>(eq[e] - 1) * np;
        for (int k = 0; k < np; ++k) column[k] += weight[e] * row[k];
    }
}

// A subject's part: B'R^-1 B to the sums of its chunk, W'R^-1 B to brx or, if there is none, behind the rows.
class subject_information {
public:
    explicit subject_information(const vector1<effect_vectors>& effects) : work_(effects) {}

    void add(const subject_stream& stream, information_sums& sums, array<double>* brx) {
        work_.form(stream);
        const subject_design& d = stream.design();
        const int np = estimates.nparm;
        parameter_rows& b = work_.b;
        rb_.reset(d.nobs);
        for (int i = 0; i < d.nobs; ++i)
            for (int j = 0; j < d.nobs; ++j) {
                const double r = stream.rinv(i, j);
                if (r == 0.0) continue;
                const double* bj = b.row(j);
                double* ri = rb_.row(i);
                for (int k = 0; k < np; ++k) ri[k] += r * bj[k];
            }
        for (int i = 0; i < d.nobs; ++i) {
            const double *bi = b.row(i), *ri = rb_.row(i);
            // a: row k of the packed triangle, from its diagonal on
            double* a = sums.aimat.data();
            for (int k = 0; k < np; a += np - k, ++k) {
                if (bi[k] == 0.0) continue;
                for (int l = k; l < np; ++l) a[l - k] += bi[k] * ri[l];
            }
            const int from = d.first[i], count = d.first[i + 1] - from;
            eq_.clear();
            for (int e = from; e < from + count; ++e) eq_.push_back(d.eq[d.local[e]]);
            if (brx) {
                add_row(eq_.data(), d.weight.data() + from, count, ri, *brx);
                continue;
            }
            sums.entries.push_back(count);
            sums.eq.insert(sums.eq.end(), eq_.begin(), eq_.end());
            sums.weight.insert(sums.weight.end(), d.weight.begin() + from, d.weight.begin() + from + count);
            sums.rows.insert(sums.rows.end(), ri, ri + np);
        }
    }

private:
    working_variables work_;
    parameter_rows rb_;
    std::vector<int> eq_;
};

struct information_worker {
    information_worker(const subject_stream& first, const vector1<effect_vectors>& effects)
        : chunk(first), subject(effects) {}
    chunk_stream chunk;
    subject_information subject;
};

// The sums of a chunk to those of all, records in their order.
void take_over(const information_sums& sums, array<double>& brx) {
    std::transform(sums.aimat.begin(), sums.aimat.end(), derivs.aimat.begin(), derivs.aimat.begin(), std::plus<>());
    const double* row = sums.rows.data();
    std::size_t from = 0;
    for (const int entries : sums.entries) {
        add_row(sums.eq.data() + from, sums.weight.data() + from, entries, row, brx);
        from += entries;
        row += estimates.nparm;
    }
}

// Some chunks at a time, since what they leave takes memory.
void add_shared(const subject_stream& stream, const vector1<effect_vectors>& effects, int chunks, array<double>& brx) {
    // twice the threads: who is done early finds another one
    const int wave = 2 * threads_at_work()->threads();
    for (int first = 0; first < chunks; first += wave) {
        const int end = std::min(chunks, first + wave);
        std::vector<information_sums> sums(end - first);
        share_chunks(
            first, end, [&] { return std::make_unique<information_worker>(stream, effects); },
            [&](information_worker& worker, int chunk) {
                information_sums& mine = sums[chunk - first];
                mine.aimat.assign(derivs.aimat.size(), 0.0);
                worker.chunk.start(chunk);
                while (worker.chunk.next()) worker.subject.add(worker.chunk.stream(), mine, nullptr);
            });
        for (const information_sums& s : sums) take_over(s, brx);
    }
}

// aimat = B'R^-1 B and brx = W'R^-1 B.
void b_matrix(const vector1<effect_vectors>& effects, array<double>& brx) {
    subject_stream stream(true);
    if (const int chunks = shared_chunks(); chunks > 0) return add_shared(stream, effects, chunks, brx);
    subject_information subject(effects);
    information_sums sums;
    const std::size_t size = derivs.aimat.size();
    sums.aimat.assign(size, 0.0);
    while (stream.next()) {
        subject.add(stream, sums, &brx);
        // sums of a chunk are closed where threads would close them: the digits are the same
        if (stream.isubj() % places.together != 0) continue;
        take_over(sums, brx);
        sums.aimat.assign(size, 0.0);
    }
    take_over(sums, brx);
}

// L s = W'R^-1 B, some columns at a time, in place of brx.
void substitute(array<double>& brx) {
    const int np = estimates.nparm, n = numbers.nsrow - 1;
    array<double, 2> block;
    for (int from = 0; from < np; from += columns_at_once) {
        const int k = std::min(columns_at_once, np - from);
        // the last block may be narrower
        if (block.upper(2) != k) block.allocate(numbers.nsrow, k);
        // brx has the parameters of an equation together, the solves want the equations of a parameter
        for (int i = 1; i <= n; ++i)
            for (int c = 1; c <= k; ++c) block(i, c) = brx(static_cast<std::ptrdiff_t>(i - 1) * np + from + c);
        forward_columns(block);
        for (int i = 1; i <= n; ++i)
            for (int c = 1; c <= k; ++c) brx(static_cast<std::ptrdiff_t>(i - 1) * np + from + c) = block(i, c);
    }
}

void subtract_products(const array<double>& brx) {
    const int np = estimates.nparm, n = numbers.nsrow - 1;
    for (int i = 1; i <= n; ++i) {
        const double* s = brx.data() + static_cast<std::ptrdiff_t>(i - 1) * np;
        double* a = derivs.aimat.data();
        // sparse right-hand sides leave many zeros in s
        for (int k = 0; k < np; a += np - k, ++k) {
            if (s[k] == 0.0) continue;
            for (int l = k; l < np; ++l) a[l - k] -= s[k] * s[l];
        }
    }
}

bool repeat_block_reduced() {
    const int irand = residualvars.ipeq;
    return irand > 0 && model.krfit(irand) < model.kkfit(irand);
}

} // namespace

void check_repeat_block() {
    if (repeat_block_reduced()) tvx_notyet();
}

bool average_info_available() {
    if (repeat_block_reduced()) return false;
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        // A is needed as such in what follows
        if (!fitted(irand) || !options.principal || !needs_relationships(irand)) continue;
        if (mudmap.kovrnd(irand) == covariance_kind::nrm && options.pseudofix) return false;
        if (mudmap.kovrnd(irand) != covariance_kind::gin) continue;
        const std::vector<double> d = given_diagonal(irand); // every level needs a variance
        if (!std::all_of(d.begin(), d.end(), [](double x) { return x > 0.0; })) return false;
    }
    return true;
}

void check_average_info() {
    if (!average_info_available()) tvx_notyet();
}

void average_info() {
    const int np = estimates.nparm;
    check_average_info();
    need_evaluation("average_info");
    allocate("all zre", derivs.aimat, triangle(np));
    allocate("all zre", derivs.devl2, triangle(np));
    array<double> brx;
    // parameters of an equation stand together: a record adds a row to each of its equations
    allocate_large("brx", brx, static_cast<long long>(numbers.nsrow) * np);
    const vector1<effect_vectors> effects = set_bmat();
    b_matrix(effects, brx);
    substitute(brx);
    subtract_products(brx);
    // second derivatives of log L: minus one half of b'Pb
    for (int k = 1; k <= derivs.aimat.upper(); ++k) derivs.devl2(k) = -0.5 * derivs.aimat(k);
    derivs.information_at = estimates.parvec;
    if (options.print_times) tvxtimes(2, "AI");
}

} // namespace tarvex
