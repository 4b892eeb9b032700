#include "equations/symfacfile.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "support/edit_form.h"
#include "support/record_file.h"
#include "support/stop.h"

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

namespace tarvex {

namespace {

constexpr int steps = 100000; // subscripts in a record of the file

// True if ixvec1, ixvec2, ixsub are a possible structure: ascending subscripts behind each row, all within bounds.
bool sound_structure(int n, int maxlnz, int maxsub, const array<int>& ixvec1, const array<int>& ixvec2,
                     const array<int>& ixsub) {
    if (ixvec1(1) != 1 || ixvec1(n + 1) - 1 != maxlnz) return false;
    // a list is sound if no break lies within it: one pass for all rows, whatever they share
    std::vector<int> breaks(maxsub + 1); // places up to i not above the one before
    for (int i = 1; i <= maxsub; ++i) {
        if (ixsub(i) < 1 || ixsub(i) > n) return false;
        breaks[i] = breaks[i - 1] + (i > 1 && ixsub(i) <= ixsub(i - 1) ? 1 : 0);
    }
    for (int i = 1; i <= n; ++i) {
        const long long c = static_cast<long long>(ixvec1(i + 1)) - ixvec1(i);
        if (c == 0) continue;
        const long long first = ixvec2(i), last = first + c - 1;
        if (c < 0 || first < 1 || last > maxsub || ixsub(first) <= i || breaks[last] != breaks[first]) return false;
    }
    return true;
}

template <class T> bool get_whole(record_reader& in, array<T>& a) {
    return in.next() && in.bytes_left() == static_cast<std::uint64_t>(a.size()) * sizeof(T) &&
           in.get(a.prefix(a.size()));
}

// Takes the place of the structure only when all of it could be read.
bool read_structure(record_reader& in) {
    const int n = numbers.nsrow;
    int keqns, ksrow, kaxlnz, kaxsub, ksteps;
    if (!in.record(keqns, ksrow, kaxlnz, kaxsub, ksteps)) return false;
    if (keqns != mmequations.neqns || ksrow != n || kaxlnz < 0 || kaxsub < 0 || ksteps < 1) return false;
    array<int> ieqnew, ivperm;
    ieqnew.allocate(keqns + 1);
    ivperm.allocate(n);
    if (!get_whole(in, ieqnew) || !get_whole(in, ivperm)) return false;
    // the order must be the one in hand, not only one of the same pattern
    if (!std::equal(ieqnew.begin(), ieqnew.end(), orders.ieqnew.begin())) return false;
    if (!std::equal(ivperm.begin(), ivperm.end() - 1, orders.ivperm.begin()) || ivperm(n) != n) return false;
    allocate("all ixvec1 symb", sparse.ixvec1, n + 1);
    allocate("all ixvec2 symb", sparse.ixvec2, n);
    if (!get_whole(in, sparse.ixvec1) || !get_whole(in, sparse.ixvec2)) return false;
    sparse.ixsub.deallocate();
    for (int got = 0; got < kaxsub;) { // a chunk is allocated once the file has shown that it is there
        const int chunk = std::min(ksteps, kaxsub - got);
        if (!in.next() || in.bytes_left() != static_cast<std::uint64_t>(chunk) * sizeof(int)) return false;
        if (got + chunk > sparse.ixsub.size())
            sparse.ixsub.resize(std::min<long long>(kaxsub, std::max<long long>(got + chunk, 2 * sparse.ixsub.size())));
        if (!in.get(std::span<int>(sparse.ixsub.data() + got, chunk))) return false;
        got += chunk;
    }
    if (!sound_structure(n, kaxlnz, kaxsub, sparse.ixvec1, sparse.ixvec2, sparse.ixsub)) return false;
    sparse.n = n;
    sparse.state = store_state::empty;
    sparse.maxlnz = kaxlnz;
    sparse.maxsub = kaxsub;
    return true;
}

// A structure belongs to a pattern and an order.
digest structure_sum() {
    digest_maker sum;
    sum.add(orders.links);
    sum.add(orders.ieqnew.prefix(mmequations.neqns + 1));
    sum.add(orders.ivperm.prefix(numbers.nsrow - 1));
    return sum.value();
}

} // namespace

void write_symfac() {
    record_writer out;
    if (!out.open(filenames.symfacfile, true)) return;
    const int n = numbers.nsrow;
    out.record(mmequations.neqns, n, sparse.maxlnz, sparse.maxsub, steps);
    out.record(orders.ieqnew.prefix(mmequations.neqns + 1));
    // the right-hand side, last
    out.record(orders.ivperm.prefix(n - 1), n);
    out.record(sparse.ixvec1.prefix(n + 1));
    out.record(sparse.ixvec2.prefix(n));
    for (int got = 0; got < sparse.maxsub; got += steps) {
        const int chunk = std::min(steps, sparse.maxsub - got);
        out.record(std::span<const int>(sparse.ixsub.data() + got, chunk));
    }
    out.close({structure_sum(), {}});
}

void read_symfac(bool& lfound) {
    record_reader in;
    lfound = sealed(filenames.symfacfile, structure_sum()) && in.open(filenames.symfacfile) && read_structure(in);
    if (!lfound) {
        sparse.ixsub.deallocate();
        sparse.maxlnz = sparse.maxsub = 0;
        return;
    }
    if (options.werbose) write(screen(), "(1x,2a)", "Read previous symbolic factorisation ", " info successfully ");
}

} // namespace tarvex
