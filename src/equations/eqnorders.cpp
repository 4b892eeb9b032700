// Trial orders, their operation counts, and the files in which the best order and its structure stay for later runs.
#include "equations/eqnorders.h"
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "equations/adjacency.h"
#include "equations/equations.h"
#include "equations/find_order.h"
#include "equations/linksources.h"
#include "equations/mmequations.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "equations/symfacfile.h"
#include "parfile/model.h"
#include "relations/linkedlist.h"
#include "sparse/order_race.h"
#include "sparse/symbfact.h"
#include "support/edit_form.h"
#include "support/record_file.h"
#include "support/stop.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <span>

namespace tarvex {

namespace {

constexpr double no_order = 999999999999999.0; // operations of an order that any other beats
constexpr double stale_order = 1.0e36;

// What eqnsorder.bin holds.
struct stored_order {
    int nofsub = 0, maxlnz = 0, kortype = 0;
    double kkops = no_order;
    std::array<int, 8> ketis_opts{};
    array<int> invprm, ivperm;
};
enum class order_file { none, unreadable, foreign, fits };

bool is_metis(int type) { return has_settings(order_code{std::abs(type)}); }

std::vector<int> order_header() {
    std::vector<int> h{numbers.nq, numbers.nsrow, numbers.nrankx, numbers.lim1, numbers.krand};
    for (int irand = 0; irand <= numbers.krand; ++irand) h.push_back(model.krfit(irand));
    return h;
}

bool inverse_pair(const array<int>& invprm, const array<int>& ivperm) {
    const int n = static_cast<int>(invprm.size());
    for (int i = 1; i <= n; ++i)
        if (invprm(i) < 1 || invprm(i) > n || ivperm(invprm(i)) != i) return false;
    return true;
}

bool read_maps(record_reader& in, stored_order& s) {
    if (!in.record(s.nofsub, s.maxlnz, s.kkops, s.kortype)) return false;
    if (s.kortype < 1 || s.kortype > last_order_code || !(s.kkops >= 0.0)) return false;
    if (is_metis(s.kortype) && !in.record(std::span<int>(s.ketis_opts))) return false;
    s.invprm.allocate(numbers.nbase);
    s.ivperm.allocate(numbers.nbase);
    // lengths first: nothing is read into a map of another size
    for (auto* map : {&s.invprm, &s.ivperm})
        if (!in.next() || in.bytes_left() != static_cast<std::uint64_t>(map->size()) * sizeof(int) ||
            !in.get(map->prefix(map->size())))
            return false;
    return inverse_pair(s.invprm, s.ivperm);
}

order_file read_order(stored_order& s) {
    record_reader in;
    if (!in.open(filenames.ordersfile)) return order_file::none;
    seal sums;
    if (!read_seal(filenames.ordersfile, sums)) return order_file::unreadable;
    if (sums.made_from != orders.links) return order_file::foreign;
    const std::vector<int> sizes{mmequations.neqns, mmequations.neq_fix, mmequations.neq_rnd, mmequations.neq_cov};
    const std::vector<int> head = order_header();
    std::vector<int> ksizes(4), khead(head.size());
    if (!in.record(std::span<int>(ksizes)) || !in.next()) return order_file::unreadable;
    if (ksizes != sizes || in.bytes_left() != head.size() * sizeof(int)) return order_file::foreign;
    if (!in.get(std::span<int>(khead))) return order_file::unreadable;
    if (khead != head) return order_file::foreign;
    return read_maps(in, s) ? order_file::fits : order_file::unreadable;
}

void write_order(int nofsub, double nnops) {
    record_writer out;
    if (!out.open(filenames.ordersfile, true)) return;
    out.record(mmequations.neqns, mmequations.neq_fix, mmequations.neq_rnd, mmequations.neq_cov);
    out.record(order_header());
    out.record(nofsub, sparse.maxlnz, nnops, std::abs(orders.order_type));
    if (is_metis(orders.order_type)) out.record(std::span<const int>(orders.metis_opts));
    out.record(orders.invprm.prefix(numbers.nbase));
    out.record(orders.ivperm.prefix(numbers.nbase));
    out.close({orders.links, {}});
}

void adopt(const stored_order& s) {
    orders.invprm = s.invprm;
    orders.ivperm = s.ivperm;
    orders.order_type = s.kortype;
    if (is_metis(s.kortype)) orders.metis_opts = s.ketis_opts;
}

// jeq: running number of the equations that stay, 0 for those taken out.
void set_jeq() {
    allocate("alloc jeq", orders.jeq, mmequations.neqns);
    for (int e : mmequations.ieqzero) orders.jeq(e) = -1;
    numbers.nbase = 0;
    for (int& j : orders.jeq) j = j < 0 ? 0 : ++numbers.nbase;
    numbers.nsrow = numbers.nbase + 1;
    if (options.verbose) print_list(screen(), "No. of equations in full rank submatrix =", numbers.nbase);
}

// The search over METIS options (metis_settings): separators a level from fewest to most, matching and refinement of
// either kind, without and with pruning of rows above that many tenths of the mean degree.
constexpr int fewest_separators = 5, most_separators = 15, pruned_above = 200;

// Next setting of the search; false at its end.
bool next_setting() {
    auto& m = orders.metis_opts;
    // separators a level go round fastest, then matching and refinement, then pruning
    if (++m[7] <= most_separators) return true;
    m[7] = fewest_separators;
    if (m[1] < 3) {
        m[1] = 3;
        m[3] = 2;
        return true;
    }
    if (m[6] != 0) return false;
    m[6] = pruned_above;
    m[1] = m[3] = 1;
    return true;
}

// Maps between old and new equation numbers, the right-hand side last.
void set_maps() {
    const int neqns = mmequations.neqns, nsrow = numbers.nsrow;
    orders.ieqnew.fill(0);
    orders.ieqold.fill(0);
    // 0: taken out
    for (int e = 1; e <= neqns; ++e)
        if (orders.jeq(e) > 0) {
            orders.ieqnew(e) = orders.invprm(orders.jeq(e));
            orders.ieqold(orders.ieqnew(e)) = e;
        }
    orders.ieqnew(neqns + 1) = nsrow;
    orders.ieqold(nsrow) = neqns + 1;
}

// Pattern of the row store in the order in hand: every element at its smaller number, and the right-hand side.
void renumbered_pattern(array<int>& xadj, array<int>& adjncy) {
    const auto& list = linked_list;
    const int n = numbers.nsrow;
    // equations are ordered, the right-hand side stays last
    auto place = [&](int i) { return i == n ? n : orders.invprm(i); };
    // counts one place further on, then sums: xadj(i) is where row i starts
    xadj.allocate(n + 1);
    for (int i = 1; i <= n; ++i)
        for (int k = list.ifirst(i); k > 0; k = list.inext(k)) ++xadj(std::min(place(i), place(list.ivcol(k))) + 1);
    xadj(1) = 1;
    for (int i = 1; i <= n; ++i) xadj(i + 1) += xadj(i);
    allocate_large("ADJNCY", adjncy, xadj(n + 1) - 1);
    // next(i): first free place of row i
    array<int> next = xadj;
    for (int i = 1; i <= n; ++i)
        for (int k = list.ifirst(i); k > 0; k = list.inext(k)) {
            const int a = place(i), b = place(list.ivcol(k));
            adjncy(next(std::min(a, b))++) = std::max(a, b);
        }
}

// Structure of the factor in the order in hand. False: more than the counts hold.
bool lay_out() {
    array<int> xadj, adjncy;
    renumbered_pattern(xadj, adjncy);
    int flag = 0;
    sparse.n = numbers.nsrow;
    sparse.state = store_state::empty;
    try {
        ssmbfct(numbers.nsrow, xadj, adjncy, {}, {}, sparse.ixvec1, sparse.maxlnz, sparse.ixvec2, sparse.ixsub,
                sparse.maxsub, flag);
        // it grew by halves
        if (flag == 0 && sparse.ixsub.size() > sparse.maxsub) { // cut to what is needed
            array<int> exact;
            exact.allocate(sparse.maxsub);
            std::copy_n(sparse.ixsub.begin(), sparse.maxsub, exact.begin());
            sparse.ixsub = std::move(exact);
        }
    } catch (const std::bad_alloc&) {
        tvx_noalloc("IXSUB", sparse.maxsub);
    }
    return flag == 0 && sparse.maxsub <= orders.maxspa;
}

[[noreturn]] void too_many_subscripts() {
    print_list(screen(), "routine \"SMBFCT\" : too many subscripts !");
    print_list(screen(), "max. allowed   =", orders.maxspa);
    print_list(screen(), "no. required   >", sparse.maxsub);
    print_list(screen(), "reset parameter \"maxspa\" !");
    stoptarvex();
}

// Adds a line for the order of this method and these counts to OperationCounts.
void append_counts(int type, const metis_settings& m, long long maxlnz, double nnops) {
    text_out out;
    if (!out.open_append("OperationCounts")) return;
    if (std::abs(type) == 5)
        write(out, "(a,i4,i6,2i3,t23,i14,f20.0)", "Heavy", m[7], m[4], m[1], m[3], maxlnz, nnops);
    else if (is_metis(type))
        write(out, "(a,i4,i6,2i3,t23,i14,f20.0)", "Metis", m[7], m[6], m[1], m[3], maxlnz, nnops);
    else
        write(out, "(a,t23,i14,f20.0)", type == 1 ? "MMD" : type == 2 ? "AMD" : "Scotch", maxlnz, nnops);
}

constexpr double many_operations = 1.0e9; // of one factorisation: the user is told

// Operations of the structure in hand, told.
double tell_operations(double kkops) {
    const double nnops = count_operations(numbers.nsrow, sparse.ixvec1);
    if (options.verbose) {
        write(screen(), "(1x,a,t33,i17)", "End of \"SMBFCT\": maxsub", sparse.maxsub);
        write(screen(), "(1x,a,t33,i17)", "                 maxlnz", sparse.maxlnz);
        write(screen(), "(1x,a,t33,2f18.0)", "                 nnops", nnops, kkops);
    }
    if (nnops > many_operations && !options.terse)
        write(screen(), "(1x,2a,i4,a)", "***** NB : Factorisation  of the MMM ", "requires more than",
              static_cast<long long>(nnops * 1.0e-9), " billion operations !");
    return nnops;
}

// The same, with a line in OperationCounts.
double count_and_tell(double kkops) {
    const double nnops = tell_operations(kkops);
    append_counts(orders.order_type, orders.metis_opts, sparse.maxlnz, nnops);
    return nnops;
}

void tell_worse(std::string_view text, double kkops, double nnops) {
    print_list(screen(), text);
    write(screen(), "(2(a,f15.0))", "No. of operations : old =", kkops, "  new =", nnops);
}

// State of the choice of an order.
struct trial_state {
    stored_order old;
    double kkops = no_order;
    bool preselected = false;
    bool automatic = false; // no method was named: further orders may be tried
    bool raced = false;     // they were, and OperationCounts has their lines
    bool pattern = false;   // the row store holds the pattern
    bool store = false;     // symbfact.bin does not hold the structure of the order in eqnsorder.bin
    int nofsub = 0;
};

void need_pattern(trial_state& t) {
    if (t.pattern) return;
    adjacency1(true);
    t.pattern = true;
}

// The right-hand side into the pattern; the first time that this is complete it goes to adjacency.bin.
void complete_pattern() {
    if (adjacency2()) write_adjacency();
}

// Structure of an order of an earlier run: its file, or the pattern once more.
void take_old(trial_state& t) {
    adopt(t.old);
    t.nofsub = t.old.nofsub;
    set_maps();
    bool lfound = false;
    read_symfac(lfound);
    t.store = !lfound;
    if (lfound) return;
    need_pattern(t);
    complete_pattern();
    if (!lay_out()) too_many_subscripts();
}

// An order that fails drops out, with a line.
node_order try_order(const order_graph& g, const entrant& e) {
    node_order order;
    try {
        order = order_by(g, e.code, e.settings);
    } catch (const std::bad_alloc&) {
        order.status = out_of_memory;
    }
    if (order.status != 0)
        print_list(screen(), "Ordering method dropped :", e.code == order_code::scotch ? "SCOTCH" : "METIS",
                   " status =", order.status);
    return order;
}

// Races the order in hand against further ones, the best of which stays in hand. False: it is the only one, and has
// not been told.
bool race(trial_state& t) {
    const order_graph g = equations_graph();
    std::vector<int> node(orders.ivperm.begin(), orders.ivperm.end()),
        place(orders.invprm.begin(), orders.invprm.end());
    // from 0 in the race
    for (auto* map : {&node, &place})
        for (int& k : *map) --k;
    // counts of the factor without laying it out: the race costs its orders alone
    factor_counts best = count_factor(g, node, place);
    if (best.operations < orders.race_from) return false;
    append_counts(orders.order_type, orders.metis_opts, best.elements, best.operations);
    node_order winner;
    double spent = 0.0;
    // one that would cost more than it can save is passed over (order_race.h)
    for (const entrant& e : entrants()) {
        if (orders.race_price > 0.0 && !affordable(e, best.operations, spent, g.n)) continue;
        spent += orders.race_price * e.cost * g.n;
        const node_order order = try_order(g, e);
        const int type = static_cast<int>(e.code);
        if (order.node.empty()) continue;
        const factor_counts c = count_factor(g, order.node, order.place);
        append_counts(type, e.settings, c.elements, c.operations);
        if (options.verbose)
            write(screen(), "(1x,a,i2,2x,a,f20.0)", "Order tried : type =", type, "Operation count =", c.operations);
        if (c.operations >= best.operations) continue;
        best = c;
        winner = order;
        orders.order_type = type;
        orders.metis_opts = e.settings;
        t.nofsub = 0;
    }
    if (!winner.node.empty()) take_order(winner);
    return true;
}

bool take_new(trial_state& t) {
    need_pattern(t);
    find_order(t.nofsub);
    t.raced = t.automatic && race(t);
    complete_pattern();
    set_maps();
    return lay_out();
}

// The order of an earlier run: true if it is to be used as it is.
bool find_old(trial_state& t) {
    switch (read_order(t.old)) {
    case order_file::none:
        return false;
    case order_file::unreadable:
        if (options.werbose) print_list(screen(), "Error reading previous ordering");
        // what had been read of it is forgotten
        t = {{}, stale_order, t.preselected, t.automatic};
        return false;
    case order_file::foreign:
        t.kkops = stale_order;
        break;
    case order_file::fits:
        t.kkops = t.old.kkops; // to be beaten, also by another method
        if (!t.preselected || (t.old.kortype == orders.order_type &&
                               (!is_metis(t.old.kortype) || t.old.ketis_opts == orders.metis_opts))) {
            write(screen(), "(1x,a,i2,2x,a,f20.0)", "Previous equation ordering found : Order type =", t.old.kortype,
                  "Operation count =", t.old.kkops);
            return true;
        }
    }
    if (options.werbose) print_list(screen(), "Previous equation ordering found, but no match");
    return false;
}

void keep_better(trial_state& t, double nnops) {
    if (nnops >= t.kkops) return;
    write_order(t.nofsub, nnops);
    t.kkops = nnops;
    t.store = true;
}

// Search over METIS settings, the best of which ends up in the file and in hand.
void search_settings(trial_state& t) {
    do {
        if (take_new(t)) keep_better(t, count_and_tell(t.kkops));
    } while (next_setting());
    orders.order_type = 3;
    if (read_order(t.old) == order_file::fits) {
        adopt(t.old);
        t.nofsub = t.old.nofsub;
    }
    complete_pattern();
    set_maps();
    if (!lay_out()) too_many_subscripts();
}

// One new order; the one in the file is used in its place where that is better.
void try_method(trial_state& t) {
    const bool fits = take_new(t), another = t.old.invprm.allocated();
    if (!fits && !another) too_many_subscripts();
    const double nnops = !fits ? stale_order : t.raced ? tell_operations(t.kkops) : count_and_tell(t.kkops);
    // equal counts: the order just made is in hand, the files keep theirs
    if (fits && nnops <= t.kkops) {
        keep_better(t, nnops); // a tie leaves the files as they are
        return;
    }
    if (!another) return; // dearer than any, but there is nothing else
    tell_worse("Previous ordering better - using that !", t.kkops, nnops);
    if (t.preselected) {
        print_list(screen(), "\"Bad\" ordering scheme has been pre-selected !");
        print_list(screen(), " Continue ? (using previously best order)");
        pause_for_operator();
    }
    take_old(t);
    t.kkops = count_and_tell(t.kkops);
}

// The structure is settled: what was kept for the old one goes.
void settle() {
    linked_list = {};
    adjacency = {};
    // made anew from the structure; places of the assembly belong to one nsymb
    kernels.work.tree = {};
    ++orders.nsymb;
}

} // namespace

// Equations from which a method takes over from the one before: minimum degree fills in least where there are few,
// nested dissection where there are many, and its settings save time where there are very many (limits by experience
// with pedigrees; what a large system really takes is found by the race, order_race.h).
constexpr int amd_from = 25000, metis_from = 50000, metis_wide_from = 200000, metis_quick_from = 750000;

bool choose_method() {
    const int n = mmequations.neqns;
    if (orders.order_type == -3) {
        orders.metis_opts = {3, 1, 2, 1, 0, 1, 0, 5};
        return false;
    }
    if (orders.order_type != 0) return true;
    // the method by size alone: what it takes is not known before
    orders.order_type = n < amd_from ? 1 : n < metis_from ? 2 : 3;
    if (n >= metis_quick_from)
        orders.metis_opts = {3, 3, 1, 2, 0, 1, 0, 14};
    else if (n >= metis_from)
        orders.metis_opts = {3, 1, 2, 1, 0, 1, 0, n < metis_wide_from ? 5 : 10};
    return false;
}

void eqnorders() {
    set_jeq();
    allocate("alloc ifirst", orders.ieqnew, mmequations.neqns + 1);
    allocate("alloc ifirst", orders.ieqold, mmequations.neqns + 1);
    orders.links = links_sum(true);
    trial_state t;
    t.automatic = orders.order_type == 0;
    t.preselected = choose_method();
    // an order of an earlier run serves if it was made from the same links (orders.links)
    if (find_old(t)) {
        take_old(t);
        count_and_tell(t.kkops);
    } else if (orders.order_type == -3)
        search_settings(t);
    else
        try_method(t);
    if (t.store) write_symfac();
    settle();
    if (options.verbose) print_list(screen(), "END \"eqnorders\" ");
}

order_made redo_eqnorders() {
    if (options.verbose) print_list(screen(), "BEGIN \"redo_eqnorders\" ");
    // as large as the new one: they are not held together
    sparse.ixsub.deallocate();
    // covariances that have become free link records: the residual inverses in hand say which
    orders.links = links_sum(false);
    adjacency1(false);
    order_made made;
    find_order(made.nofsub);
    adjacency2();
    set_maps();
    if (!lay_out()) too_many_subscripts();
    settle();
    made.operations = tell_operations(no_order);
    if (made.operations > no_order)
        tell_worse("Previous ordering better - orders file not overwritten", no_order, made.operations);
    if (options.verbose) print_list(screen(), "END \"redo_eqnorders\" ");
    return made;
}

void keep_order(const order_made& made) {
    new_eqnnos();
    append_counts(orders.order_type, orders.metis_opts, sparse.maxlnz, made.operations);
    if (made.operations > no_order) return;
    write_order(made.nofsub, made.operations);
    write_symfac();
}

} // namespace tarvex
