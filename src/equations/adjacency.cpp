#include "equations/adjacency.h"

#include "control/filenames.h"
#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/levels.h"
#include "equations/linksources.h"
#include "equations/mmequations.h"
#include "equations/orders.h"
#include "relations/linkedlist.h"
#include "sparse/linkmerge.h"
#include "support/edit_form.h"
#include "support/record_file.h"
#include "support/stop.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>

namespace tarvex {

namespace {

constexpr int kfactor = 100000; // elements in a record of the file

std::vector<int> header() {
    // the second place is for the rows of the pattern, known when it is written or read
    std::vector<int> h{numbers.nq,          0,
                       numbers.nrankx,      numbers.lim1,
                       mmequations.neqns,   mmequations.neq_fix,
                       mmequations.neq_rnd, mmequations.neq_cov};
    for (int irand = 1; irand <= numbers.krand; ++irand) h.push_back(levels.rn_nlev(irand));
    return h;
}

void write_chunks(record_writer& out, const array<int>& a, int n) {
    for (int at = 0; at < n; at += kfactor) out.record(std::span<const int>(a.data() + at, std::min(kfactor, n - at)));
}

bool read_chunks(record_reader& in, array<int>& a, int n, int factor) {
    for (int at = 0; at < n; at += factor) {
        const int chunk = std::min(factor, n - at);
        if (!in.next() || in.bytes_left() != static_cast<std::uint64_t>(chunk) * sizeof(int)) return false;
        if (!in.get(std::span<int>(a.data() + at, chunk))) return false;
    }
    return true;
}

// Chains must visit each element once, columns ascending below the row.
bool sound_chains(int rows) {
    const auto& list = linked_list;
    long long seen = 0;
    for (int i = 1; i <= rows; ++i) {
        if (list.ifirst(i) < 0 || list.ifirst(i) > list.nrczhz) return false;
        int last = 0;
        for (int k = list.ifirst(i); k > 0; k = list.inext(k), ++seen) {
            if (list.ivcol(k) <= last || list.ivcol(k) >= i || list.inext(k) < 0 || list.inext(k) > list.nrczhz)
                return false;
            last = list.ivcol(k);
        }
    }
    return seen == list.nrczhz;
}

bool read_adjacency(record_reader& in) {
    std::vector<int> mine = header(), theirs(mine.size());
    if (!in.next() || in.bytes_left() != mine.size() * sizeof(int) || !in.get(std::span<int>(theirs))) return false;
    int llxrhs = 0;
    if (!in.record(llxrhs) || (llxrhs != 0 && llxrhs != 1)) return false;
    mine[1] = numbers.nbase + llxrhs;
    if (mine != theirs) return false;
    auto& list = linked_list;
    list.ifirst.allocate(mine[1]);
    if (!in.record(list.ifirst.prefix(mine[1]))) return false;
    int kk = 0, factor = 0;
    if (!in.record(list.nrczhz, kk, factor)) return false;
    std::error_code ec;
    // a count is believed only if the file is large enough for it
    const auto bytes = std::filesystem::file_size(filenames.adjacfile, ec);
    if (ec || list.nrczhz < 0 || factor < 1 || kk != list.nrczhz / factor) return false;
    if (static_cast<std::uint64_t>(list.nrczhz) * 2 * sizeof(int) > bytes) return false;
    allocate_large("INEXT", list.inext, list.nrczhz);
    allocate_large("IVCOL", list.ivcol, list.nrczhz);
    if (!read_chunks(in, list.inext, list.nrczhz, factor) || !read_chunks(in, list.ivcol, list.nrczhz, factor))
        return false;
    adjacency.llxrhs = llxrhs == 1;
    return sound_chains(mine[1]);
}

void tell_elements(const link_merge::counts& c, const std::vector<level_links>& blocks, long long capacity) {
    long long sum = c.from_data;
    tell_growth(0, sum, capacity);
    if (options.werbose) write(screen(), "(1x,a,t36,i14)", "Elements in MMM - after data ", sum);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        tell_growth(sum, sum + c.from_block[i], capacity);
        sum += c.from_block[i];
        // as if elements were added source by source: records first, then effect by effect
        if (options.werbose) write(screen(), "(1x,a,i4,t36,i14)", "Elements in MMM - after RE ", blocks[i].irand, sum);
    }
}

// Links of the records and of the levels into the empty linked_list.
void build_pattern() {
    clique_lists data;
    data2adjac(data);
    std::vector<level_links> blocks;
    for (int irand = 1; irand <= numbers.krand; ++irand)
        if (mmequations.rn_start(irand) >= 0) blocks.push_back(covar2adjac(irand));
    link_merge merge(numbers.nbase, data, blocks);
    auto& list = linked_list;
    allocate("alloc ivcol", list.ifirst, numbers.nbase);
    // counted before it is filled: the store is made in one piece, of the size that it needs
    const link_merge::counts c = merge.count();
    // one row more, linked to all others
    const long long capacity = c.total + numbers.nbase; // room for the right-hand side
    if (capacity > maxelements) tvx_noalloc("IVCOL", capacity);
    allocate_large("INEXT", list.inext, capacity);
    allocate_large("IVCOL", list.ivcol, capacity);
    merge.fill(list);
    tell_elements(c, blocks, capacity);
}

} // namespace

bool find_adjacency() {
    record_reader in;
    adjacency.llxrhs = false;
    if (sealed(filenames.adjacfile, orders.links) && in.open(filenames.adjacfile) && read_adjacency(in)) return true;
    linked_list = {};
    adjacency.llxrhs = false;
    return false;
}

void write_adjacency() {
    record_writer out;
    if (!out.open(filenames.adjacfile, true)) return;
    auto& list = linked_list;
    const int rows = static_cast<int>(list.ifirst.size());
    auto head = header();
    head[1] = rows;
    out.record(head);
    out.record(static_cast<int>(adjacency.llxrhs));
    out.record(list.ifirst.prefix(rows));
    out.record(list.nrczhz, list.nrczhz / kfactor, kfactor);
    write_chunks(out, list.inext, list.nrczhz);
    write_chunks(out, list.ivcol, list.nrczhz);
    out.close({orders.links, {}});
}

void adjacency1(bool lnew) {
    linked_list = {};
    adjacency.llxrhs = false;
    adjacency.found = lnew && find_adjacency();
    if (!adjacency.found) build_pattern();
    if (options.details) print_list(screen(), "End ADJACENCY", linked_list.nrczhz);
}

bool adjacency2() {
    const int nbase = numbers.nbase;
    auto& list = linked_list;
    if (adjacency.llxrhs) return false;
    const long long before = list.nrczhz, total = before + nbase;
    if (total > maxelements) tvx_noalloc("IVCOL", total);
    try {
        list.ifirst.resize(numbers.nsrow);
        // build_pattern has left room; a store that was read from the file grows
        if (list.inext.size() < total) list.inext.resize(total);
        if (list.ivcol.size() < total) list.ivcol.resize(total);
    } catch (const std::bad_alloc&) {
        tvx_noalloc("IVCOL", total);
    }
    // row nsrow: a chain through all columns, in consecutive places
    for (int k = 1; k <= nbase; ++k) {
        const auto at = static_cast<int>(before + k);
        list.ivcol(at) = k;
        list.inext(at) = k < nbase ? at + 1 : 0;
    }
    list.ifirst(numbers.nsrow) = nbase > 0 ? static_cast<int>(before) + 1 : 0;
    list.nrczhz = static_cast<int>(total);
    adjacency.llxrhs = true;
    tell_growth(before, total, total);
    print_list(screen(), "Elements in MMM - after RHS ", total);
    return true;
}

} // namespace tarvex
