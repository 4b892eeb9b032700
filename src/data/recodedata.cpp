// Second pass over the data: subjects become binary records of equation numbers, regression values and observations.
#include "data/recodedata.h"

#include "data/data.h"
#include "data/levels.h"
#include "data/rowlayout.h"
#include "data/subjectpass.h"
#include "data/units.h"

#include "basis/phimatrix.h"
#include "control/filenames.h"
#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <span>
#include <vector>

namespace tarvex {

namespace {

// Level of a code in a list that need not be ascending (supplied codes files).
struct level_finder {
    const code_list* codes = nullptr;
    code_list sorted;   // used if codes is not ascending
    vector1<int> level; // of each of `sorted`
};

void set_finder(level_finder& f, const code_list& codes) {
    f.codes = &codes;
    if (std::is_sorted(codes.begin(), codes.end())) return;
    f.level.resize(codes.size());
    std::iota(f.level.begin(), f.level.end(), 1);
    std::sort(f.level.begin(), f.level.end(), [&](int a, int b) { return codes(a) < codes(b); });
    for (int l : f.level) f.sorted.push_back(codes(l));
}

int find_level(const level_finder& f, std::int64_t icode) {
    if (f.level.empty()) return find_code(icode, *f.codes);
    const int at = find_code(icode, f.sorted);
    return at > 0 ? f.level(at) : 0;
}

// The subject in hand, observations as they come in the file.
struct recoder {
    explicit recoder(const equation_starts& where) : starts(where) {}
    equation_starts starts;
    int mrow = 0, mcov = 0, nmeta = 0, krand = 0;
    int nobs = 0;
    array<double> yvec;          // (maxnr)
    array<int> ynq;              // (maxnr)
    array<int, 2> ieqnr;         // (mrow,maxnr) equations
    array<double, 2> xcov;       // (mcov,maxnr)
    array<int, 2> icov;          // (mcov,maxnr)
    array<int, 2> iraand;        // (krand,maxnr)
    array<int, 2> imeta;         // (nmeta,maxnr)
    array<level_finder> finders; // (krand)
    array<int> ilev;             // (maxfix) levels of the fixed effects of the observation
    array<int> mark;             // (nq) records by trait
    std::vector<int> order;      // observations in trait order
    std::vector<int> jvec;       // equations of the subject
    std::vector<double> real;    // work space of the sort
    std::vector<int> whole;
    record_writer heads, lists;
};

void allocate_recoder(recoder& r) {
    const int maxnr = numbers.maxnr, nq = numbers.nq;
    r.mrow = max_row_length();
    r.mcov = max_covariable_width();
    r.nmeta = options.randreg ? model.nrrc : 0;
    r.krand = numbers.krand;
    allocate("alloc dvec", r.yvec, maxnr);
    allocate("alloc dvec", r.ynq, maxnr);
    allocate("alloc devc2", r.ieqnr, r.mrow, maxnr);
    allocate("alloc devc2", r.xcov, r.mcov, maxnr);
    allocate("alloc devc2", r.icov, r.mcov, maxnr);
    allocate("alloc devc2", r.iraand, r.krand, maxnr);
    allocate("alloc devc2", r.imeta, r.nmeta, maxnr);
    allocate("alloc devc2", r.ilev, maxfix);
    allocate("alloc devc2", r.mark, nq);
    allocate("alloc devc2", r.finders, r.krand);
    for (int irand = 1; irand <= r.krand; ++irand) set_finder(r.finders(irand), levels.rn_codes(irand));
    combinations = {};
    allocate("all combi", combinations.ncomb_pairs, nq * (nq - 1) / 2);
}

int gather_fixed(recoder& r, const array<double>& dvec, int iq, int k) {
    int pos = 0;
    for (int i = 1; i <= model.nfix(iq); ++i) {
        // the code as it was made in the scan: the two of an interaction by one base
        const auto icode = effect_code(dvec, mudmap.fx_dcolno(i, iq), mudmap.fx_dcolno2(i, iq), levels.fx_base(i, iq));
        const int ilev = find_code(icode, levels.fx_codes(i, iq));
        if (ilev == 0) not_found('f', model.fixed(i, iq), icode, levels.fx_nlev(i, iq));
        r.ilev(i) = ilev;
        r.ieqnr(++pos, k) = r.starts.fixed(i, iq) + ilev;
    }
    // positions of the row: fixed effects, mean, random effects; 0 where one is missing
    if (model.fitmean(iq) != 0) r.ieqnr(++pos, k) = r.starts.means(iq);
    return pos;
}

void gather_random(recoder& r, const array<double>& dvec, int iq, int k, int pos) {
    for (int i = 1; i <= model.nrnd(iq); ++i) {
        const int irand = mudmap.rn_irand(i, iq);
        const auto icode = effect_code(dvec, mudmap.rn_dcolno(i, iq), mudmap.rn_dcolno2(i, iq), levels.rn_base(irand));
        const int ilev = find_level(r.finders(irand), icode);
        if (ilev == 0) not_found('r', model.random(i, iq), icode, levels.rn_nlev(irand));
        // two terms of the trait in one block: the first one counts
        if (r.iraand(irand, k) == 0) r.iraand(irand, k) = ilev;
        const int width = position_width(i, iq);
        if (width == 0) continue;
        // equations of the factor: all of them; else that of the trait, or all coefficients
        const int place = options.principal ? 1 : mudmap.rn_place(i, iq);
        const int first = r.starts.random(irand) + (ilev - 1) * nfit(irand) + place;
        for (int c = 0; c < width; ++c) r.ieqnr(++pos, k) = first + c;
    }
}

// Level of the effect in which a covariable is nested, 1 for one that is not.
int nest_level(const recoder& r, const array<double>& dvec, int i, int iq) {
    const int inest = mudmap.cv_nestfix(i, iq);
    if (inest == 0) return 1;
    if (inest > 0) return r.ilev(inest);
    const int j = -inest;
    const auto icode = effect_code(dvec, mudmap.ex_dcolno(j, iq), mudmap.ex_dcolno2(j, iq), levels.ex_base(j, iq));
    const int ilev = find_code(icode, levels.ex_codes(j, iq));
    if (ilev == 0) not_found('e', model.extra(j, iq), icode, levels.ex_nlev(j, iq));
    return ilev;
}

void gather_covariables(recoder& r, const array<double>& dvec, int iq, int k) {
    int pos = 0;
    for (int i = 1; i <= model.ncov(iq); ++i) {
        const int order = mudmap.cv_order(i, iq);
        // + 0.0: no negative zero, which would not be found among the values
        covariable_row(i, iq, dvec(mudmap.cv_dcolno(i, iq)) + 0.0, r.xcov.column(k).subspan(pos));
        const int first = r.starts.covariables(i, iq) + (nest_level(r, dvec, i, iq) - 1) * order;
        for (int c = 1; c <= order; ++c) r.icov(++pos, k) = first + c;
        // largest equation of a covariable: bound for the reader
        combinations.ncov = std::max(combinations.ncov, first + order);
    }
}

void gather_controls(recoder& r, const array<double>& dvec, int iq, int k) {
    for (int irrc = 1; irrc <= r.nmeta; ++irrc) {
        const int i = control_place(irrc, iq);
        // 0: the trait does not have this variable
        if (i == 0) continue;
        const auto icode = effect_code(dvec, mudmap.rr_dcolno(i, iq), 0, 1);
        r.imeta(irrc, k) = find_code(icode, levels.mm_codes(i, iq));
        if (r.imeta(irrc, k) == 0) not_found('m', model.rricontrol(i, iq), icode, levels.mm_nlev(i, iq));
    }
}

// Takes observation y of trait iq into the subject's tables.
void gather(recoder& r, const array<double>& dvec, int iq, double y) {
    if (r.nobs == numbers.maxnr) stop("this should not happen"); // the data have changed since the scan
    const int k = ++r.nobs;
    r.yvec(k) = y / trait_unit(iq);
    r.ynq(k) = iq;
    ++r.mark(iq);
    // columns are used again from subject to subject
    for (auto* a : {&r.ieqnr, &r.icov, &r.iraand, &r.imeta}) std::fill(a->column(k).begin(), a->column(k).end(), 0);
    std::fill(r.xcov.column(k).begin(), r.xcov.column(k).end(), 0.0);
    const int pos = gather_fixed(r, dvec, iq, k);
    gather_random(r, dvec, iq, k, pos);
    gather_covariables(r, dvec, iq, k);
    if (options.randreg) gather_controls(r, dvec, iq, k);
}

// Takes all traits of the record, or the one trait of the line.
void gather2(recoder& r, const array<double>& dvec, int iq) {
    const int first = iq > 0 ? iq : 1, last = iq > 0 ? iq : numbers.nq;
    for (int jq = first; jq <= last; ++jq) {
        const double y = dvec(mudmap.tr_dcolno(jq));
        if (!is_missing(jq, y)) gather(r, dvec, jq, y);
    }
}

template <class T> void sort_columns(const std::vector<int>& order, array<T, 2>& a, std::vector<T>& work) {
    const std::size_t n = a.upper(1);
    work.resize(n * order.size());
    for (std::size_t k = 0; k < order.size(); ++k)
        std::copy_n(a.column(order[k]).begin(), n, work.begin() + static_cast<std::ptrdiff_t>(k * n));
    std::copy(work.begin(), work.end(), a.begin());
}

template <class T> void sort_elements(const std::vector<int>& order, array<T>& a, std::vector<T>& work) {
    work.clear();
    for (int k : order) work.push_back(a(k));
    std::copy(work.begin(), work.end(), a.begin());
}

// Residual inverses know a subject by its counts of records, so its observations have to stand in trait order.
void sort_by_trait(recoder& r) {
    const auto ynq = r.ynq.prefix(r.nobs);
    if (std::is_sorted(ynq.begin(), ynq.end())) return;
    r.order.resize(r.nobs);
    std::iota(r.order.begin(), r.order.end(), 1);
    // records of a trait stay in the order of the file
    std::stable_sort(r.order.begin(), r.order.end(), [&](int a, int b) { return r.ynq(a) < r.ynq(b); });
    sort_columns(r.order, r.ieqnr, r.whole);
    sort_columns(r.order, r.icov, r.whole);
    sort_columns(r.order, r.iraand, r.whole);
    sort_columns(r.order, r.imeta, r.whole);
    sort_columns(r.order, r.xcov, r.real);
    sort_elements(r.order, r.yvec, r.real);
    sort_elements(r.order, r.ynq, r.whole);
}

// Distinct equations of the subject, ascending; ieqnr becomes places in that list.
void new_codes(recoder& r) {
    auto& jvec = r.jvec;
    jvec.clear();
    const auto all = r.ieqnr.prefix(static_cast<std::ptrdiff_t>(r.mrow) * r.nobs);
    for (int ieq : all)
        if (ieq > 0) jvec.push_back(ieq);
    std::sort(jvec.begin(), jvec.end());
    jvec.erase(std::unique(jvec.begin(), jvec.end()), jvec.end());
    // short numbers within the subject: matrices of its order are all that a pass needs
    for (int& ieq : all)
        if (ieq > 0) ieq = static_cast<int>(std::lower_bound(jvec.begin(), jvec.end(), ieq) - jvec.begin()) + 1;
}

void write_head(recoder& r, int icombi) {
    const std::int32_t nobs = r.nobs;
    const auto yvec = r.yvec.prefix(nobs);
    const auto ynq = r.ynq.prefix(nobs);
    const auto imeta = r.imeta.prefix(static_cast<std::ptrdiff_t>(r.nmeta) * nobs);
    // heads hold what varies: pattern, counts and traits only where there can be more than one
    if (options.randreg && numbers.nq == 1)
        r.heads.record(nobs, yvec, imeta);
    else if (options.randreg)
        r.heads.record(icombi, nobs, ynq, yvec, imeta);
    else if (numbers.nq > 1)
        r.heads.record(icombi, nobs, nobs, ynq, yvec);
    else if (numbers.maxnr > 1)
        r.heads.record(icombi, nobs, nobs, yvec);
    else
        r.heads.record(yvec);
}

// icombi as it is read.
void add_sums(recoder& r, int icombi) {
    const auto part = [&](const array<int, 2>& a, int rows) {
        return std::span<const int>(a.prefix(static_cast<std::ptrdiff_t>(rows) * r.nobs));
    };
    const auto xcov = r.xcov.prefix(static_cast<std::ptrdiff_t>(r.mcov) * r.nobs);
    recoded_sums.heads.push_back(
        head_sum({icombi, r.nobs, r.yvec.prefix(r.nobs), xcov, r.ynq.prefix(r.nobs), part(r.imeta, r.nmeta),
                  part(r.icov, r.mcov), part(r.ieqnr, r.mrow), part(r.iraand, options.superai ? r.krand : 0)}));
    recoded_sums.old_lists.push_back(list_sum(r.jvec));
}

// Writes the finished subject and clears the tables.
void recode(recoder& r) {
    ++numbers.nsubject;
    sort_by_trait(r);
    new_codes(r);
    const auto& jvec = r.jvec;
    const int nr = static_cast<int>(jvec.size());
    // longest list of equations: size of the readers' tables
    numbers.maxnreq = std::max(numbers.maxnreq, nr);
    int icombi = 0;
    combination_no(icombi, numbers.nq, r.mark);
    write_head(r, icombi);
    // tables go as they lie in memory, of width mcov, mrow or krand: the reader has the same widths
    if (r.mcov > 0) {
        r.heads.record(r.xcov.prefix(static_cast<std::ptrdiff_t>(r.mcov) * r.nobs));
        r.heads.record(r.icov.prefix(static_cast<std::ptrdiff_t>(r.mcov) * r.nobs));
    }
    r.heads.record(r.ieqnr.prefix(static_cast<std::ptrdiff_t>(r.mrow) * r.nobs));
    if (options.superai) r.heads.record(r.iraand.prefix(static_cast<std::ptrdiff_t>(r.krand) * r.nobs));
    r.lists.record(nr, jvec);
    add_sums(r, options.randreg && numbers.nq == 1 ? 0 : icombi);
    r.nobs = 0;
    r.mark.fill(0);
}

void write_fault(const std::string& name) { stop_with("Error writing file \"" + name + "\""); }

void recode_data(const equation_starts& starts) {
    recoder r(starts);
    allocate_recoder(r);
    // subjects and patterns are counted anew, here and by combination_no
    combinations.neqns = starts.neqns;
    combinations.ncov = 0;
    numbers.nsubject = numbers.maxnreq = 0;
    recoded_sums = {};
    if (!r.heads.open(filenames.recdatfil1)) write_fault(filenames.recdatfil1);
    if (!r.lists.open(filenames.recdatfil2)) write_fault(filenames.recdatfil2);
    subject_pass pass;
    array<double> dvec;
    allocate("alloc dvec", dvec, mudmap.maxcol);
    int iq = 0;
    bool begins = false;
    open_subjects(pass);
    // a subject is written when the next one begins, so the last one is written behind the loop
    while (next_record(pass, dvec, iq, begins)) {
        if (begins && r.nobs > 0) recode(r);
        gather2(r, dvec, iq);
    }
    if (r.nobs > 0) recode(r);
    if (!r.heads.close()) write_fault(filenames.recdatfil1);
    if (!r.lists.close()) write_fault(filenames.recdatfil2);
}

} // namespace

void combination_no(int& icombi, int nq, const array<int>& mark) {
    auto& ncombi = combinations.ncombi;
    auto& nqcombi = combinations.nqcombi;
    // subjects with records of both traits, whatever their numbers
    for (int iq = 1, ij = 0; iq <= nq; ++iq)
        for (int jq = iq + 1; jq <= nq; ++jq) {
            ++ij;
            if (mark(iq) > 0 && mark(jq) > 0) ++combinations.ncomb_pairs(ij);
        }
    const auto counts = mark.prefix(nq);
    const auto same = [&](const vector1<int>& c) { return std::equal(c.begin(), c.end(), counts.begin()); };
    // few patterns: they are searched one by one
    const auto at = std::find_if(nqcombi.begin(), nqcombi.end(), same);
    icombi = static_cast<int>(at - nqcombi.begin()) + 1;
    if (at != nqcombi.end()) {
        ++combinations.ncomb_subj(icombi);
        return;
    }
    if (ncombi == maxcombi) stop("too many combinations");
    ++ncombi;
    nqcombi.push_back({});
    nqcombi.back().assign(counts.begin(), counts.end());
    combinations.ncomb_subj.push_back(1);
    if (!options.details) return;
    std::string text = numbers.maxnr < 10 ? edit("(40i1)", counts) : edit("(40i2)", counts);
    while (!text.empty() && text.back() == '\n') text.pop_back();
    write(screen(), "(a,i5,1x,a,1x,40i3)", "Combination", ncombi, text, counts);
}

int find_code(std::int64_t icode, const vector1<std::int64_t>& list) {
    const auto at = std::lower_bound(list.begin(), list.end(), icode);
    return at != list.end() && *at == icode ? static_cast<int>(at - list.begin()) + 1 : 0;
}

void not_found(char kind, std::string_view name, std::int64_t icode, int nlev) {
    const char* what = kind == 'r'   ? "random effect"
                       : kind == 'f' ? "fixed effect"
                       : kind == 'e' ? "extra effect"
                                     : "RR control variable";
    print_list(screen(), "***** Error : Routine \"find_code\" ");
    print_list(screen(), std::string("      Could not find code for ") + what + " \"" + std::string(name) + "\"");
    print_list(screen(), "      Code in data file =", icode);
    print_list(screen(), "      No. of levels     =", nlev);
    stoptarvex();
}

void data_recode(const equation_starts& starts) {
    if (options.details) print_list(screen(), "Start DATA_RECODE");
    recode_data(starts);
    if (options.verbose)
        print_list(screen(), "No. of \"subjects\" in data", numbers.nsubject, " maxnr =", numbers.maxnr,
                   "  ncombi =", combinations.ncombi);
    if (options.details) print_list(screen(), "End of routine \"data_recode\" ");
}

} // namespace tarvex
