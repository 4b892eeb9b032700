// Reading passes over the recoded subjects.
#include "data/recodedata.h"

#include "basis/phimatrix.h"
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/levels.h"
#include "data/rowlayout.h"
#include "parfile/model.h"
#include "support/stop.h"

#include <algorithm>
#include <cstdint>
#include <span>

namespace tarvex {

namespace {

[[noreturn]] void read_fault(const std::string& name) { stop_with("Error reading file \"" + name + "\""); }

void setup_tables(subject_record& d) {
    const int maxnr = numbers.maxnr;
    d.mrow = max_row_length();
    d.mcov = max_covariable_width();
    d.nmeta = options.randreg ? model.nrrc : 0;
    allocate("alloc 52", d.yvec, maxnr);
    allocate("alloc 52", d.ynq, maxnr);
    // one trait: the file does not name it
    d.ynq.fill(1);
    allocate("alloc 52", d.ieqnr, d.mrow, maxnr);
    allocate("alloc 52", d.xcov, d.mcov, maxnr);
    allocate("alloc 52", d.icov, d.mcov, maxnr);
    allocate("alloc 52", d.jvec, numbers.maxnreq);
    allocate("all 52b", d.imeta, d.nmeta, maxnr);
}

template <class T> std::span<T> columns(array<T, 2>& a, int rows, int n) {
    return a.prefix(static_cast<std::ptrdiff_t>(rows) * n);
}

// rows: of effect codes, one for each observation.
bool sizes_fit(const subject_record& d, int rows) { return d.nobs >= 1 && d.nobs <= numbers.maxnr && rows == d.nobs; }

// The rest of the head behind the counts.
bool get_head(record_reader& in, subject_record& d) {
    d.icombi = 0;
    // one record a subject: the file does not count it
    d.nobs = 1;
    if (!options.randreg && numbers.nq == 1 && numbers.maxnr == 1) {
        d.icombi = 1;
        return in.get(d.yvec(1));
    }
    if (!(options.randreg && numbers.nq == 1) && !in.get(d.icombi)) return false;
    if (!in.get(d.nobs)) return false;
    int rows = d.nobs;
    if (!options.randreg && !in.get(rows)) return false;
    if (!sizes_fit(d, rows)) return false;
    if (numbers.nq > 1 && !in.get(d.ynq.prefix(d.nobs))) return false;
    if (!in.get(d.yvec.prefix(d.nobs))) return false;
    return !options.randreg || in.get(columns(d.imeta, d.nmeta, d.nobs));
}

bool get_list(record_reader& in, subject_record& d) {
    return in.next() && in.get(d.nr) && d.nr >= 0 && d.nr <= d.jvec.upper() && in.get(d.jvec.prefix(d.nr));
}

bool within(std::span<const int> values, int least, int most) {
    return std::all_of(values.begin(), values.end(), [&](int x) { return x >= least && x <= most; });
}
std::span<const int> part(const array<int, 2>& a, int rows, int n) {
    return a.prefix(static_cast<std::ptrdiff_t>(rows) * n);
}

// Levels of each control variable, traits without it aside.
std::vector<int> control_levels(int nmeta) {
    std::vector<int> most(nmeta);
    for (int irrc = 1; irrc <= nmeta; ++irrc)
        for (int iq = 1; iq <= numbers.nq; ++iq)
            if (const int i = control_place(irrc, iq); i > 0) most[irrc - 1] = levels.mm_nlev(i, iq);
    return most;
}

// A trait has a level of each control variable that it has, and 0 of others.
bool controls_fit(const subject_record& d, const std::vector<int>& most) {
    for (int k = 1; k <= d.nobs; ++k)
        for (int irrc = 1; irrc <= d.nmeta; ++irrc) {
            const int least = control_place(irrc, d.ynq(k)) > 0 ? 1 : 0;
            if (d.imeta(irrc, k) < least || d.imeta(irrc, k) > most[irrc - 1]) return false;
        }
    return true;
}

// The pattern of records that the subject is said to have is that of its traits.
bool pattern_fits(const subject_record& d) {
    if (options.randreg) return d.icombi >= 0 && d.icombi <= combinations.ncombi;
    if (d.icombi < 1 || d.icombi > combinations.ncombi) return false;
    const auto& counts = combinations.nqcombi(d.icombi);
    const auto ynq = d.ynq.prefix(d.nobs);
    for (int iq = 1; iq <= numbers.nq; ++iq)
        if (std::count(ynq.begin(), ynq.end(), iq) != counts(iq)) return false;
    return std::is_sorted(ynq.begin(), ynq.end());
}

// Every index that the passes over the data use without a look. Equations have numbers up to that of the right-hand
// side, which comes behind them all.
bool indices_fit(const recdata_pass& pass) {
    const auto& d = pass.record;
    return within(part(d.ieqnr, d.mrow, d.nobs), 0, d.nr) &&
           within(part(d.icov, d.mcov, d.nobs), 0, combinations.ncov) && within(d.jvec.prefix(d.nr), 0, pass.most) &&
           within(d.ynq.prefix(d.nobs), 1, numbers.nq) && controls_fit(d, pass.controls) && pattern_fits(d);
}

// The subject is what was written; the first pass that meets it looks at its indices too.
bool subject_fits(const recdata_pass& pass) {
    const auto& d = pass.record;
    const std::size_t k = pass.nsubject - 1;
    auto &heads = recoded_sums.heads, &lists = *pass.list_sums;
    // files of another run of the program: there are no sums to go by
    if (k >= heads.size() || k >= lists.size()) return indices_fit(pass);
    const std::uint64_t head = head_sum(
        {d.icombi, d.nobs, d.yvec.prefix(d.nobs), d.xcov.prefix(std::ptrdiff_t{d.mcov} * d.nobs), d.ynq.prefix(d.nobs),
         part(d.imeta, d.nmeta, d.nobs), part(d.icov, d.mcov, d.nobs), part(d.ieqnr, d.mrow, d.nobs), pass.iraand});
    const std::uint64_t list = list_sum(d.jvec.prefix(d.nr));
    if (!same_sum(heads[k], head) || !same_sum(lists[k], list)) return false;
    // bit 0: indices have been looked at; sums leave it free
    if ((heads[k] & lists[k] & 1) != 0) return true;
    if (!indices_fit(pass)) return false;
    heads[k] |= 1;
    lists[k] |= 1;
    return true;
}

} // namespace

void setup_recdata(recdata_pass& pass, const std::string& lists_file) {
    setup_tables(pass.record);
    pass.nsubject = 0;
    pass.controls = control_levels(pass.record.nmeta);
    const bool ordered = lists_file == filenames.recdatfil3;
    // new numbers end with the right-hand side; old ones may name it too
    pass.most = ordered ? numbers.nsrow : combinations.neqns + 1;
    pass.list_sums = ordered ? &recoded_sums.new_lists : &recoded_sums.old_lists;
    if (!pass.heads.open(filenames.recdatfil1)) read_fault(filenames.recdatfil1);
    if (!pass.lists.open(lists_file)) read_fault(lists_file);
    pass.lists_name = lists_file;
}

recdata_place place_of_next(const recdata_pass& pass) {
    return {pass.heads.position(), pass.lists.position(), pass.nsubject};
}

void go_to(recdata_pass& pass, const recdata_place& place) {
    if (!pass.heads.go_to(place.heads)) read_fault(filenames.recdatfil1);
    if (!pass.lists.go_to(place.lists)) read_fault(pass.lists_name);
    pass.nsubject = place.nsubject;
}

bool next_subject(recdata_pass& pass) {
    auto& d = pass.record;
    auto& in = pass.heads;
    if (!in.next()) {
        // fewer subjects than the run has counted: the file is cut
        if (in.failed() || pass.nsubject != numbers.nsubject) stop_with("Error reading recoded data !");
        return false;
    }
    ++pass.nsubject;
    bool good = get_head(in, d);
    if (good && d.mcov > 0)
        good = in.record(columns(d.xcov, d.mcov, d.nobs)) && in.record(columns(d.icov, d.mcov, d.nobs));
    good = good && in.record(columns(d.ieqnr, d.mrow, d.nobs));
    if (good && options.superai) {
        pass.iraand.resize(std::ptrdiff_t{numbers.krand} * d.nobs);
        good = in.record(std::span<int>(pass.iraand));
    }
    good = good && get_list(pass.lists, d);
    if (!good || !subject_fits(pass)) stop_with("Error reading recoded data !");
    return true;
}

} // namespace tarvex
