// First scan of the data: moments and ranges by updating means (Welford, 1962), codes of all effects, pairs of traits
// and the largest subject.
#include "data/codeset.h"
#include "data/data.h"
#include "data/levels.h"
#include "data/pedigreelist.h"
#include "data/subjectpass.h"
#include "data/units.h"
#include "dense/numroutines.h"

#include "basis/legendre.h"
#include "basis/phimatrix.h"
#include "basis/splines.h"
#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "control/warnings.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/screen.h"
#include "support/stop.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace tarvex {

namespace {

constexpr double above_codes = 2147483648.0; // they have 31 bits

struct moments {
    int n = 0;
    double mean = 0.0, squares = 0.0, lowest = 1000000000000.0, highest = -1000000000000.0;
    void add(double x) {
        ++n;
        const double d = x - mean;
        mean += d / n;
        squares += d * (x - mean);
        lowest = std::min(lowest, x);
        highest = std::max(highest, x);
    }
    double sdev() const { return n > 1 ? std::sqrt(squares / (n - 1)) : 0.0; }
};

struct scan_state {
    subject_pass pass;
    array<double> dvec;
    array<moments> tr;
    array<moments, 2> cv, mm;
    array<code_set, 2> fx, ex, meta, values; // values: bits of the covariables' values
    array<code_set> rn;
    int nobs = 0;         // observations of the subject in hand
    array<int> counts;    // (nq) its records by trait
    bool repeats = false; // some subject has several records of a trait
    int subject = 0;      // the one in hand
    // levels of the repeat effect (PEQ) with the subject that each was met in, and the level of the subject in hand
    std::map<std::int64_t, int> repeat_levels;
    std::optional<std::int64_t> repeat_level;
    bool other_levels = false; // they are not the subjects
};

// An effect of a trait in the data.
struct effect_columns {
    const std::string& name;
    int i, iq;         // effect and trait
    int icol, icol2;   // columns, the second of an interaction
    int least;         // smallest code allowed
    std::int64_t mlev; // largest number of levels
};

[[noreturn]] void too_many_levels(const effect_columns& e, const std::string& code, int ndatrec) {
    print_list(screen(), "***** ERROR scanning data : too many levels ! *****");
    print_list(screen(), "  Effect : \"" + e.name + "\";  Code : ", code);
    print_list(screen(), "  Trait no. :", e.iq, ";  Effect no. :", e.i);
    print_list(screen(), "  Record no. ", ndatrec);
    print_list(screen(), "  Max.  no. of levels allowed : ", e.mlev);
    if (e.mlev < 1) {
        print_list(screen(), "  Could you have forgotten to specify the maximum no. of ");
        print_list(screen(), "  levels in the parameter file (description of data) ??? ");
    }
    stoptarvex();
}

// Code of an effect, or the two codes of an interaction in one word until its base is known.
std::int64_t checked_code(const scan_state& s, const effect_columns& e) {
    constexpr std::int64_t word = std::int64_t{1} << 31;
    const std::int64_t icode = effect_code(s.dvec, e.icol, 0, 1);
    // two codes of 31 bits each
    const std::int64_t icode2 = e.icol2 > 0 ? effect_code(s.dvec, e.icol2, 0, 1) : 0;
    const bool valid = e.icol2 > 0 ? icode >= 0 && icode2 >= 0 && icode + icode2 >= e.least : icode >= e.least;
    if (!valid) {
        print_list(screen(), "Invalid effect code : ", e.name, s.dvec(e.icol), icode);
        for (const int icol : {e.icol, e.icol2})
            if (icol > 0 && s.dvec(icol) >= above_codes)
                print_list(screen(), "      Code is above the largest one allowed : 2147483647");
        data_error(s.pass.reader.ndatrec);
    }
    return e.icol2 > 0 ? icode * word + icode2 : icode;
}

void accum_code(scan_state& s, const effect_columns& e, std::int64_t icode, code_set& set) {
    // only a new code can be one too many
    if (!set.insert(icode) || set.size() <= e.mlev) return;
    const std::int64_t word = std::int64_t{1} << 31;
    too_many_levels(e, e.icol2 > 0 ? list_item(icode / word) + "*" + list_item(icode % word) : list_item(icode),
                    s.pass.reader.ndatrec);
}

void accum_levels(scan_state& s, const effect_columns& e, code_set& set) { accum_code(s, e, checked_code(s, e), set); }

// Values of control variables have either sign; a negative one that stands for a missing record is none.
void accum_control(scan_state& s, const effect_columns& e, code_set& set) {
    const double x = s.dvec(e.icol);
    const bool negative = x > -above_codes && x <= -1.0 && !is_missing(e.iq, std::trunc(x));
    accum_code(s, e, negative ? effect_code(s.dvec, e.icol, 0, 1) : checked_code(s, e), set);
}

void check_pedlist(std::int64_t icode, int ndatrec) {
    const auto ids = pedigreelist.idvec.prefix(pedigreelist.nanim);
    if (std::binary_search(ids.begin(), ids.end(), icode)) return;
    print_list(screen(), "Genetic effect code in data not found in pedigree list !");
    print_list(screen(), "   ID in data :", icode, ";  Record no. :", ndatrec);
    stoptarvex();
}

void allocate_scan(scan_state& s) {
    const int nq = numbers.nq;
    allocate("alloc dvec", s.dvec, mudmap.maxcol);
    allocate("alloc dvec", s.tr, nq);
    allocate("alloc dvec", s.counts, nq);
    allocate("alloc dvec", s.cv, maxcov, nq);
    allocate("alloc dvec", s.values, maxcov, nq);
    allocate("alloc dvec-mm", s.mm, maxmeta, nq);
    allocate("alloc dvec-mm", s.meta, maxmeta, nq);
    allocate("alloc dvec-fx/rn", s.fx, maxfix, nq);
    allocate("alloc dvec-fx/rn", s.rn, numbers.krand);
    allocate("alloc dvec-ex", s.ex, maxext, nq);
    allocate("alloc dvec", means.pairs, triangle(nq));
    numbers.maxnr = 0;
}

// Ends the subject in hand: its size, and its pairs of records.
void close_subject(scan_state& s) {
    const int nq = numbers.nq;
    numbers.maxnr = std::max(numbers.maxnr, s.nobs);
    for (int iq = 1, ij = 0; iq <= nq; ++iq)
        // pairs of a subject: as many as the rarer of the two has
        for (int jq = iq; jq <= nq; ++jq) means.pairs(++ij) += std::min(s.counts(iq), s.counts(jq));
    s.repeats = s.repeats || std::any_of(s.counts.begin(), s.counts.end(), [](int n) { return n > 1; });
    s.counts.fill(0);
    s.nobs = 0;
}

void warn_repeats(const scan_state& s) {
    if (!s.repeats || numbers.nq == 1 || mudmap.subject == subject_rule::line) return;
    print_list(screen(), "WARNING : subjects with several records of a trait - the residual of each is correlated with "
                         "those of all their records of other traits; see \"SUBject\" in the user's guide");
}

// A repeat effect is one of the subject, whatever its column holds.
void compare_with_subject(scan_state& s, std::int64_t level) {
    const int met = s.repeat_levels.emplace(level, s.subject).first->second;
    s.other_levels = s.other_levels || met != s.subject || (s.repeat_level && *s.repeat_level != level);
    s.repeat_level = level;
}

void warn_other_levels(const scan_state& s) {
    for (int irand = 1; irand <= numbers.krand && s.other_levels; ++irand)
        if (mudmap.kovrnd(irand) == covariance_kind::peq)
            warn("repeat effect of other levels than subjects",
                 "levels of \"" + model.krandom(irand) +
                     "\" are not the subjects : PEQ fits an effect of each subject");
}

void scan_random(scan_state& s, int iq) {
    const auto& m = mudmap;
    for (int i = 1; i <= model.nrnd(iq); ++i) {
        const int irand = m.rn_irand(i, iq);
        const bool nrm = m.kovrnd(irand) == covariance_kind::nrm;
        const effect_columns e{
            // levels of a genetic effect are those of the pedigree: no limit for the data
            model.random(i, iq), i, iq, m.rn_dcolno(i, iq), m.rn_dcolno2(i, iq), 1, nrm ? INT64_MAX : m.rn_mlev(i, iq)};
        if (nrm)
            check_pedlist(checked_code(s, e), s.pass.reader.ndatrec);
        else
            accum_levels(s, e, s.rn(irand));
        if (m.kovrnd(irand) == covariance_kind::peq) compare_with_subject(s, checked_code(s, e));
    }
}

void scan_covariables(scan_state& s, int iq) {
    for (int i = 1; i <= model.ncov(iq); ++i) {
        const double x = s.dvec(mudmap.cv_dcolno(i, iq)) + 0.0; // no negative zero
        s.cv(i, iq).add(x);
        // splines need the distinct values: equal to the bit
        s.values(i, iq).insert(std::bit_cast<std::int64_t>(x));
    }
    for (int i = 1; i <= model.nmeta(iq); ++i) {
        const int icol = mudmap.rr_dcolno(i, iq);
        s.mm(i, iq).add(s.dvec(icol));
        accum_control(s, {model.rricontrol(i, iq), i, iq, icol, 0, 0, mudmap.mm_mlev(i, iq)}, s.meta(i, iq));
        if (s.meta(i, iq).size() > maxage) stop_with("Max. no. of values of a control variable exceeded !");
    }
}

// Takes in trait iq of the record.
void scan_trait(scan_state& s, int iq, double y) {
    const auto& m = mudmap;
    s.tr(iq).add(y);
    ++s.counts(iq);
    if (++s.nobs > maxobs) stop_with("Max. no. of observations of a subject exceeded !");
    scan_covariables(s, iq);
    for (int i = 1; i <= model.nfix(iq); ++i)
        accum_levels(s, {model.fixed(i, iq), i, iq, m.fx_dcolno(i, iq), m.fx_dcolno2(i, iq), 0, m.fx_mlev(i, iq)},
                     s.fx(i, iq));
    scan_random(s, iq);
    for (int i = 1; i <= model.nextra(iq); ++i)
        accum_levels(s, {model.extra(i, iq), i, iq, m.ex_dcolno(i, iq), m.ex_dcolno2(i, iq), 0, m.ex_mlev(i, iq)},
                     s.ex(i, iq));
}

void scan_records(scan_state& s) {
    open_subjects(s.pass);
    int iq = 0;
    bool starts = false;
    while (next_record(s.pass, s.dvec, iq, starts)) {
        if (starts) {
            close_subject(s);
            ++s.subject;
            s.repeat_level.reset();
        }
        // iq 0: a line with all traits
        const int first = iq > 0 ? iq : 1, last = iq > 0 ? iq : numbers.nq;
        for (int jq = first; jq <= last; ++jq) {
            const double y = s.dvec(mudmap.tr_dcolno(jq));
            if (!is_missing(jq, y)) scan_trait(s, jq, y);
        }
    }
    close_subject(s);
    warn_repeats(s);
    warn_other_levels(s);
}

// Final codes of an effect. Those of an interaction become first * base + second, with the smallest power of ten that
// holds every second code.
std::int64_t final_codes(const code_set& set, bool interaction, code_list& codes) {
    const auto sorted = set.sorted();
    codes.assign(sorted.begin(), sorted.end());
    if (!interaction) return 1;
    constexpr std::int64_t word = std::int64_t{1} << 31;
    // largest second code; codes stay in order, since the base is above it
    std::int64_t largest = 0, base = 10;
    for (const auto code : codes) largest = std::max(largest, code % word);
    while (base <= largest) base *= 10;
    for (auto& code : codes) {
        // first * base + second must fit into 64 bits
        if (code / word > (INT64_MAX - base) / base) stop_with("Codes of an interaction are too large !");
        code = code / word * base + code % word;
    }
    return base;
}

void set_moments(array<int, 2>& n, array<double, 2>& xbar, array<double, 2>& var, array<double, 2>& lowest,
                 array<double, 2>& highest, const array<moments, 2>& s) {
    n.allocate(s.upper(1), s.upper(2));
    for (auto* a : {&xbar, &var, &lowest, &highest}) a->allocate(s.upper(1), s.upper(2));
    for (int iq = 1; iq <= s.upper(2); ++iq)
        for (int i = 1; i <= s.upper(1); ++i) {
            n(i, iq) = s(i, iq).n;
            xbar(i, iq) = s(i, iq).mean;
            var(i, iq) = s(i, iq).sdev();
            lowest(i, iq) = s(i, iq).lowest;
            highest(i, iq) = s(i, iq).highest;
        }
}

void set_means(const scan_state& s) {
    const int nq = numbers.nq;
    means.nrec.allocate(nq);
    for (auto* a : {&means.tr_xbar, &means.tr_var, &means.tr_min, &means.tr_max}) a->allocate(nq);
    for (int iq = 1; iq <= nq; ++iq) {
        const moments& t = s.tr(iq);
        if (t.n == 0) stop_with("No records found for trait \"" + model.trait(iq) + "\"");
        means.nrec(iq) = t.n;
        means.tr_xbar(iq) = t.mean;
        means.tr_var(iq) = t.sdev();
        means.tr_min(iq) = t.lowest;
        means.tr_max(iq) = t.highest;
    }
    set_units();
    auto& c = covmeans;
    set_moments(c.cv_nrec, c.cv_xbar, c.cv_var, c.cv_min, c.cv_max, s.cv);
    set_moments(c.mm_nrec, c.mm_xbar, c.mm_var, c.mm_min, c.mm_max, s.mm);
    c.cv_values.allocate(maxcov, nq);
    for (int iq = 1; iq <= nq; ++iq)
        for (int i = 1; i <= model.ncov(iq); ++i) {
            auto& values = c.cv_values(i, iq);
            for (const auto bits : s.values(i, iq).sorted()) values.push_back(std::bit_cast<double>(bits));
            // bits of doubles do not sort as numbers where signs differ
            std::sort(values.begin(), values.end());
        }
}

void set_fixed_levels(const scan_state& s) {
    const int nq = numbers.nq;
    auto& l = levels;
    allocate("alloc dvec-fx/rn", l.fx_codes, maxfix, nq);
    allocate("alloc dvec-fx/rn", l.fx_nlev, maxfix, nq);
    allocate("alloc dvec-fx/rn", l.fx_base, maxfix, nq);
    allocate("alloc dvec-ex", l.ex_codes, maxext, nq);
    allocate("alloc dvec-ex", l.ex_nlev, maxext, nq);
    allocate("alloc dvec-ex", l.ex_base, maxext, nq);
    for (int iq = 1; iq <= nq; ++iq) {
        for (int i = 1; i <= model.nfix(iq); ++i) {
            l.fx_base(i, iq) = final_codes(s.fx(i, iq), mudmap.fx_dcolno2(i, iq) > 0, l.fx_codes(i, iq));
            l.fx_nlev(i, iq) = static_cast<int>(l.fx_codes(i, iq).size());
        }
        for (int i = 1; i <= model.nextra(iq); ++i) {
            l.ex_base(i, iq) = final_codes(s.ex(i, iq), mudmap.ex_dcolno2(i, iq) > 0, l.ex_codes(i, iq));
            l.ex_nlev(i, iq) = static_cast<int>(l.ex_codes(i, iq).size());
        }
    }
}

// The traits that share a control variable get one list of its values.
void set_control_levels(const scan_state& s) {
    allocate("alloc dvec-mm", levels.mm_codes, maxmeta, numbers.nq);
    allocate("alloc dvec-mm", levels.mm_nlev, maxmeta, numbers.nq);
    phimat.control_values.clear();
    for (int irrc = 1; irrc <= model.nrrc; ++irrc) {
        code_list all;
        for (int iq = 1; iq <= numbers.nq; ++iq)
            // 0: the trait does not have the variable
            if (const int i = control_place(irrc, iq); i > 0)
                for (const auto code : s.meta(i, iq).sorted()) all.push_back(code);
        std::sort(all.begin(), all.end());
        all.resize(std::unique(all.begin(), all.end()) - all.begin());
        if (all.size() > maxage) stop_with("Max. no. of values of a control variable exceeded !");
        for (int iq = 1; iq <= numbers.nq; ++iq)
            if (const int i = control_place(irrc, iq); i > 0) {
                levels.mm_codes(i, iq) = all;
                levels.mm_nlev(i, iq) = static_cast<int>(all.size());
            }
        phimat.control_values.push_back(std::move(all));
    }
}

// Levels of the random effects: all animals of the pruned pedigree, or the codes of the data.
void set_random_levels(const scan_state& s) {
    const int krand = numbers.krand;
    auto& l = levels;
    allocate("alloc dvec-fx/rn", l.rn_codes, krand);
    allocate("alloc dvec-fx/rn", l.rn_nlev, krand);
    allocate("alloc dvec-fx/rn", l.rn_maxlev, krand);
    allocate("alloc dvec-fx/rn", l.rn_base, krand);
    array<int> interaction;
    interaction.allocate(krand);
    for (int iq = 1; iq <= numbers.nq; ++iq)
        for (int i = 1; i <= model.nrnd(iq); ++i) {
            const int irand = mudmap.rn_irand(i, iq);
            if (mudmap.rn_dcolno2(i, iq) > 0) interaction(irand) = 1;
            l.rn_maxlev(irand) = std::max(l.rn_maxlev(irand), mudmap.rn_mlev(i, iq));
        }
    for (int irand = 1; irand <= krand; ++irand) {
        l.rn_base(irand) = final_codes(s.rn(irand), interaction(irand) != 0, l.rn_codes(irand));
        // also those without records: all are predicted
        if (mudmap.kovrnd(irand) == covariance_kind::nrm) {
            const int irun = mudmap.iranno(irand);
            const auto& ids = pedigreelist.idwec(irun);
            // ascending, as they were numbered
            l.rn_codes(irand).assign(ids.begin(), ids.end());
            l.rn_maxlev(irand) = maxan;
        }
        l.rn_nlev(irand) = static_cast<int>(l.rn_codes(irand).size());
    }
}

// Variables that have to be scaled to a range must have one.
void check_ranges() {
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        for (int i = 1; i <= model.ncov(iq); ++i)
            if (mudmap.cv_type(i, iq) != basis_kind::pol && covmeans.cv_min(i, iq) == covmeans.cv_max(i, iq))
                stop_with("Covariable has a single value only : \"" + model.covar(i, iq) + "\"");
        if (!options.randreg) continue;
        for (int i = 1; i <= model.nmeta(iq); ++i)
            if (levels.mm_nlev(i, iq) < 2)
                stop_with("Control variable has a single value only : \"" + model.rricontrol(i, iq) + "\"");
    }
}

void setup_bases() {
    int nord = 0;
    bool spline = false;
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        for (int i = 1; i <= model.ncov(iq); ++i) {
            // degree 0 is computed though a covariable does without
            if (mudmap.cv_type(i, iq) == basis_kind::leg) nord = std::max(nord, mudmap.cv_order(i, iq) + 1);
            if (mudmap.cv_type(i, iq) == basis_kind::bsp) spline = true;
        }
        for (int i = 1; options.randreg && i <= model.nrnd(iq); ++i) {
            if (mudmap.irropt(i, iq) == basis_kind::leg) nord = std::max(nord, mudmap.kfitrnd(i, iq));
            if (mudmap.irropt(i, iq) == basis_kind::bsp) spline = true;
        }
    }
    if (nord > 0) setup_legendre(nord);
    if (spline) setup_bsplines(covmeans.cv_values);
}

} // namespace

void data_scan1st() {
    if (options.details) print_list(screen(), "Start \"DATA_SCAN1ST\" ");
    scan_state s;
    allocate_scan(s);
    scan_records(s);
    set_means(s);
    set_fixed_levels(s);
    set_random_levels(s);
    set_control_levels(s);
    check_ranges();
    setup_bases();
    if (options.randreg) mm2ages();
    if (options.details) print_list(screen(), "END data_scan1st");
}

} // namespace tarvex
