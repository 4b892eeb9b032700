#include "likelihood/buildmmm.h"

#include "control/numbers.h"
#include "control/options.h"
#include "data/datavecs.h"
#include "data/levels.h"
#include "dense/numroutines.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "likelihood/subjectchunks.h"
#include "likelihood/subjects.h"
#include "parameters/randomvars.h"
#include "parameters/residualvars.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "relations/inverse_stream.h"
#include "support/screen.h"
#include "support/stop.h"

#include <algorithm>

namespace tarvex {

namespace {

// All stores together: unless places.most says how many, an eighth of the factor's bytes and 48 MB more, in all at most
// 192 MB (four bytes a pair).
constexpr std::size_t places_limit = 48'000'000, places_base = 12'000'000;
std::size_t most_places() {
    if (places.most > 0) return places.most;
    return std::min<std::size_t>(places_limit, places_base + sparse.maxlnz / 4);
}

std::size_t places_held() {
    std::size_t n = places.subjects.place.size();
    for (const place_store& s : places.blocks) n += s.place.size();
    return n;
}

// Local matrix of a part: packed lower triangle by rows, right-hand side, and one row of R^-1 times the design.
struct local_matrix {
    std::vector<double> a, b, t;
    double yy = 0.0;
};

double& lower(std::vector<double>& a, int l, int m) {
    if (l < m) std::swap(l, m);
    return a[triangle<std::size_t>(l) + m];
}

// Independent records: each adds r w w' alone. A record may name an equation twice: both orders of such a pair fall on
// the diagonal.
void add_diagonal(const design_part& part, local_matrix& w) {
    const subject_design& d = *part.design;
    for (int i = 0; i < d.nobs; ++i) {
        const double r = part.r[i], y = part.y[i];
        w.yy += r * y * y;
        for (int e = d.first[i]; e < d.first[i + 1]; ++e) {
            const int l = d.local[e];
            const double wl = r * d.weight[e];
            w.b[l] += wl * y;
            lower(w.a, l, l) += wl * d.weight[e];
            for (int f = d.first[i]; f < e; ++f) {
                const int m = d.local[f];
                lower(w.a, l, m) += (l == m ? 2.0 : 1.0) * wl * d.weight[f];
            }
        }
    }
}

// Row i of R^-1 times the design first (t), then the design of record i times t: n instead of n^2 products of rows.
// Only the lower triangle of a is formed: the symmetric partner comes with the row of the other record.
void add_full(const design_part& part, local_matrix& w) {
    const subject_design& d = *part.design;
    for (int i = 0; i < d.nobs; ++i) {
        // t = sum over j of R^-1(i,j) times row j of the design, ty the same for y
        w.t.assign(d.nl, 0.0);
        double ty = 0.0;
        for (int j = 0; j < d.nobs; ++j) {
            const double r = part.rinv(j, i);
            if (r == 0.0) continue;
            ty += r * part.y[j];
            for (int e = d.first[j]; e < d.first[j + 1]; ++e) w.t[d.local[e]] += r * d.weight[e];
        }
        w.yy += part.y[i] * ty;
        for (int e = d.first[i]; e < d.first[i + 1]; ++e) {
            const int l = d.local[e];
            const double wl = d.weight[e];
            // row l of W'R^-1 (W, y): record i gives its weight times t
            w.b[l] += wl * ty;
            double* row = w.a.data() + triangle<std::size_t>(l);
            for (int m = 0; m <= l; ++m) row[m] += wl * w.t[m];
        }
    }
}

// Of the part: rows and columns d.eq, in w.
void form_part(const design_part& part, local_matrix& w) {
    const int nl = part.design->nl;
    w.a.assign(triangle<std::size_t>(nl), 0.0);
    w.b.assign(nl, 0.0);
    w.yy = 0.0;
    if (part.diagonal)
        add_diagonal(part, w);
    else
        add_full(part, w);
}

// Adds a local matrix, a and b of which stand as in local_matrix, to the store; false: an element has no place.
bool scatter(int nl, const int* eq, const double* a, const double* b, double yy, place_cursor& place) {
    auto& diag = sparse.diag;
    auto& xspars = sparse.xspars;
    for (int l = 0; l < nl; ++l) {
        const int i = eq[l];
        // a walks through the packed triangle; the cursor counts every pair, also those without a value
        for (int m = 0; m < l; ++m, ++a) {
            const int p = place(i, eq[m]);
            if (*a == 0.0) continue;
            if (p == 0) return false;
            xspars(p) += *a;
        }
        // a stands at the diagonal element now
        diag(i) += *a++;
        sparse.xrhs(i) += b[l];
    }
    diag(numbers.nsrow) += yy;
    return true;
}

// Local matrices of a chunk of subjects, one after the other, until their turn comes.
struct formed_chunk {
    std::vector<int> nl, eq;
    std::vector<double> values; // a, b, yy of each
    std::vector<double> ldet;   // of each subject (random regression)

    void form(chunk_stream& chunk) {
        // vectors keep their memory: chunks are of one size
        for (auto* v : {&nl, &eq}) v->clear();
        for (auto* v : {&values, &ldet}) v->clear();
        local_matrix w;
        part_splitter parts(chunk.stream());
        design_part part;
        while (chunk.next()) {
            if (options.randreg) ldet.push_back(chunk.stream().ldet());
            for (parts.start(); parts.next(part);) {
                form_part(part, w);
                const auto& of = part.design->eq;
                nl.push_back(part.design->nl);
                eq.insert(eq.end(), of.begin(), of.begin() + part.design->nl);
                values.insert(values.end(), w.a.begin(), w.a.end());
                values.insert(values.end(), w.b.begin(), w.b.end());
                values.push_back(w.yy);
            }
        }
    }
    bool add(place_cursor& place) const {
        for (double d : ldet) residualvars.detres(1) += d;
        const int* e = eq.data();
        const double* v = values.data();
        for (int n : nl) {
            const std::size_t size = triangle<std::size_t>(n);
            if (!scatter(n, e, v, v + size, v[size + n], place)) return false;
            e += n;
            v += size + n + 1;
        }
        return true;
    }
};

// Threads form the local matrices of as many chunks as they are; these are added in the order of the subjects.
bool add_by_chunks(int chunks, const subject_stream& stream, place_cursor& place) {
    const int threads = threads_at_work()->threads();
    std::vector<formed_chunk> formed(threads);
    for (int first = 0; first < chunks; first += threads) {
        // as many chunks as there are threads: none waits for long, and no more than these are held
        const int end = std::min(chunks, first + threads);
        share_chunks(
            first, end, [&] { return std::make_unique<chunk_stream>(stream); },
            [&](chunk_stream& own, int chunk) {
                own.start(chunk);
                formed[chunk - first].form(own);
            });
        for (int chunk = first; chunk < end; ++chunk)
            if (!formed[chunk - first].add(place)) return false;
    }
    return true;
}

bool add_in_turn(subject_stream& stream, place_cursor& place) {
    local_matrix w;
    part_splitter parts(stream);
    design_part part;
    // chunks begin where they do with threads, so that sums are formed in one order
    for (;;) {
        if (stream.isubj() % places.together == 0) place.mark(stream.place_of_next());
        if (!stream.next()) return true;
        if (options.randreg) residualvars.detres(1) += stream.ldet();
        for (parts.start(); parts.next(part);) {
            form_part(part, w);
            if (!scatter(part.design->nl, part.design->eq.data(), w.a.data(), w.b.data(), w.yy, place)) return false;
        }
    }
}

void mmm_data(int& iflag) {
    subject_stream stream;
    place_cursor place(places.subjects, sparse.xspars);
    // random regression: log|R| is the sum over subjects; otherwise rinverse has it by patterns
    if (options.randreg) residualvars.detres(1) = 0.0;
    const int chunks = shared_chunks();
    if (!(chunks > 0 ? add_by_chunks(chunks, stream, place) : add_in_turn(stream, place))) {
        iflag = 1;
        return;
    }
    place.finish();
}

// The right-hand sides go to the last element of each row.
void xrhs2spar() {
    for (int i = 1; i < numbers.nsrow; ++i)
        // row n is linked to every row and comes last in it
        if (sparse.xrhs(i) != 0.0) sparse.xspars(sparse.ixvec1(i + 1) - 1) = sparse.xrhs(i);
}

[[noreturn]] void no_place(int a, int b) {
    const auto original = [](int e) { return e > 0 ? orders.ieqold(e) : 0; };
    print_list(screen(), "***** ERROR : cannot locate element in compressed array");
    print_list(screen(), "      Recoded row and column no. =", a, b);
    print_list(screen(), "      Original equation no.s     =", original(a), original(b));
    stop("this should not happen");
}

// Random effect in hand: its block and the place of its equations.
struct block_adder {
    int irand, n;
    bool diagonal_links;
    array<double, 2> ww{}; // (n,n)
    const int* eq;         // eq[(l-1)*n + r-1]: equation of component r of level l
    place_cursor place;
    bool missing = false;

    explicit block_adder(int ir)
        : irand(ir), n(nfit(ir)), diagonal_links(links_diagonal(ir)), eq(&orders.ieqnew(mmequations.rn_start(ir) + 1)),
          place(places.blocks(ir), sparse.xspars) {
        ww.allocate(n, n);
        for (int r = 1; r <= n; ++r)
            for (int s = 1; s <= n; ++s)
                ww(s, r) = options.principal ? (r == s ? 1.0 : 0.0) : randomvars.zig(r, s, irand);
    }
    void add(int a, int b, double value) {
        if (a < 1 || b < 1) no_place(a, b);
        const int p = place(a, b);
        if (value == 0.0) return;
        // no place: a covariance that was zero when the structure was laid out
        if (p > 0)
            sparse.xspars(p) += value;
        else if (places.lenient)
            missing = true;
        else
            no_place(a, b);
    }
    // Adds aa times the block at levels ii, jj: ww is G^-1, or the identity where the equations are those of the
    // factor.
    void add_block(int ii, int jj, double aa) {
        const int* ei = eq + static_cast<std::ptrdiff_t>(ii - 1) * n;
        const int* ej = eq + static_cast<std::ptrdiff_t>(jj - 1) * n;
        for (int r = 0; r < n; ++r) {
            const std::span<const double> w = ww.column(r + 1);
            if (ii == jj) {
                if (ei[r] < 1) no_place(ei[r], ei[r]);
                sparse.diag(ei[r]) += aa * w[r];
                if (diagonal_links) continue;
                for (int s = 0; s < r; ++s) add(ei[r], ei[s], aa * w[s]);
            } else if (diagonal_links) {
                add(ei[r], ej[r], aa * w[r]);
            } else {
                for (int s = 0; s < n; ++s) add(ei[r], ej[s], aa * w[s]);
            }
        }
    }
};

void mmm_peds_muv(int& iflag) {
    places.blocks.resize(numbers.krand);
    if (!randomvars.detl.allocated()) allocate("alloc zig", randomvars.detl, numbers.krand);
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (mudmap.kovrnd(irand) == covariance_kind::peq || levels.rn_nlev(irand) < 1) continue;
        block_adder block(irand);
        inverse_stream elements(irand);
        // log|A| stands at the head of the file of the inverse
        randomvars.detl(irand) = elements.logdet();
        inverse_element e;
        while (elements.next(e)) block.add_block(e.row, e.col, e.value);
        block.place.finish();
        if (block.missing) iflag = 1;
    }
}

} // namespace

place_cursor::place_cursor(place_store& store, const array<double>& values)
    : store_(store), filling_(&store), values_(values.data()) {
    // places are those of one structure
    if (store.nsymb != orders.nsymb) {
        store = {};
        store.nsymb = orders.nsymb;
    }
    reading_ = store.complete;
    if (!reading_) std::vector<int>().swap(store.place);
    if (!store.marked) store.marks.clear();
}

int place_cursor::find(int a, int b) {
    const int p = locate(a, b);
    // while the list is filled each pair is searched for once; passes after that read it
    if (reading_ || store_.dropped || !filling_) return p;
    filling_->place.push_back(p);
    if (store_.place.size() % places.look_every == 0 && places_held() > most_places()) {
        filling_->dropped = true;
        std::vector<int>().swap(filling_->place);
    }
    return p;
}

void place_cursor::mark(const recdata_place& files) {
    if (!store_.marked) filling_->marks.push_back({files, store_.place.size()});
}

void place_cursor::finish() {
    filling_->marked = true;
    if (!reading_ && !store_.dropped) {
        filling_->place.shrink_to_fit();
        filling_->complete = true;
    }
}

int locate(int a, int b) {
    // an element stands in the row of the equation that comes first
    const int i = std::min(a, b), j = std::max(a, b);
    const int from = sparse.ixvec1(i), n = sparse.ixvec1(i + 1) - from;
    if (n == 0) return 0;
    const int* first = &sparse.ixsub(sparse.ixvec2(i));
    const int* found = std::lower_bound(first, first + n, j);
    return found != first + n && *found == j ? from + static_cast<int>(found - first) : 0;
}

bool links_diagonal(int irand) { return options.principal || model.diagonal(irand) != 0; }

void build_mmm(int& iflag) {
    iflag = 0;
    if (model.anal_type < 1 || model.anal_type > 4) stop("error mmm_data");
    // half assembled is nothing: the state comes at the end
    sparse.state = store_state::empty;
    sparse.diag.fill(0.0);
    sparse.xspars.fill(0.0);
    if (sparse.xrhs.size() != numbers.nsrow) allocate("alloc sparse", sparse.xrhs, numbers.nsrow);
    sparse.xrhs.fill(0.0);
    mmm_data(iflag);
    if (iflag) return;
    xrhs2spar();
    mmm_peds_muv(iflag);
    if (iflag == 0) sparse.state = store_state::assembled;
}

} // namespace tarvex
