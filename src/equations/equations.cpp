#include "equations/equations.h"

#include "control/filenames.h"
#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/levels.h"
#include "data/recodedata.h"
#include "equations/mmequations.h"
#include "equations/orders.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/record_file.h"
#include "support/screen.h"
#include "support/stop.h"
#include "support/text.h"

#include <algorithm>

namespace tarvex {

namespace {

// Numbers beyond the limit only serve its message.
int cut(long long n) { return static_cast<int>(std::min<long long>(n, maxelements)); }
bool tracing() { return options.devtrace && options.verbose; }

// Coefficients of a covariable, over all levels of the effect in which it is nested.
long long coefficients(int icov, int iq) {
    const long long order = mudmap.cv_order(icov, iq);
    // one curve, or one for each level: of a fixed effect, or (negative) of an extra one
    if (mudmap.cv_nestcolno(icov, iq) <= 0) return order;
    const int i = mudmap.cv_nestfix(icov, iq);
    return order * (i > 0 ? levels.fx_nlev(i, iq) : levels.ex_nlev(-i, iq));
}

void number_covariables(long long& ibegin) {
    for (int iq = 1; iq <= numbers.nq; ++iq)
        for (int icov = 1; icov <= model.ncov(iq); ++icov) {
            mmequations.cv_start(icov, iq) = cut(ibegin);
            ibegin += coefficients(icov, iq);
            if (tracing()) print_list(screen(), "cov", iq, icov, ibegin, mmequations.cv_start(icov, iq));
        }
}

void zero_out(int ieq) {
    auto& list = mmequations.ieqzero;
    if (std::find(list.begin(), list.end(), ieq) == list.end()) list.push_back(ieq);
}

void zero_out_users(int iq) {
    for (int j = 1; j <= zerout.nzerout; ++j) {
        if (zerout.iaddzer2(j) != iq) continue;
        const std::string name = trim(zerout.addzername(j));
        int ifix = 1;
        while (ifix <= model.nfix(iq) && trim(model.fixed(ifix, iq)) != name) ++ifix;
        const std::int64_t code = zerout.iaddzer1(j);
        if (ifix > model.nfix(iq)) not_found('f', name, code, 0);
        const int level = find_code(code, levels.fx_codes(ifix, iq));
        if (level == 0) not_found('f', name, code, levels.fx_nlev(ifix, iq));
        zero_out(mmequations.fx_start(ifix, iq) + level);
        if (tracing()) print_list(screen(), "dep usr", iq, j, mmequations.ieqzero.size(), mmequations.ieqzero.back());
    }
}

void number_fixed(long long& ibegin) {
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        for (int ifix = 1; ifix <= model.nfix(iq); ++ifix) {
            mmequations.fx_start(ifix, iq) = cut(ibegin);
            ibegin += levels.fx_nlev(ifix, iq);
            if (tracing()) print_list(screen(), "fix", iq, ifix, ibegin, mmequations.fx_start(ifix, iq));
        }
        // the first level of every fixed effect but the first: sums over levels are the same for all
        for (int ifix = 2; ifix <= model.nfix(iq); ++ifix) {
            zero_out(mmequations.fx_start(ifix, iq) + 1);
            if (tracing())
                print_list(screen(), "dep 1st", iq, ifix, mmequations.ieqzero.size(), mmequations.ieqzero.back());
        }
        zero_out_users(iq);
    }
}

// Starts of the random effects behind `ibegin`: identity structures first, then relationship matrices.
template <class Size> void number_random(array<int>& start, long long& ibegin, Size size, bool trace) {
    start.fill(-1);
    // -1: no equations of its own
    for (const bool identity : {true, false})
        for (int irand = 1; irand <= numbers.krand; ++irand) {
            const covariance_kind kind = mudmap.kovrnd(irand);
            if (kind == covariance_kind::peq || (kind == covariance_kind::ide) != identity) continue;
            start(irand) = cut(ibegin);
            ibegin += static_cast<long long>(levels.rn_nlev(irand)) * size(irand);
            if (trace && tracing()) print_list(screen(), "rn", irand, ibegin, start(irand));
        }
}

void check_size(long long neqns) {
    if (neqns <= maxeqns) return;
    print_list(screen(), "Max. no. of equations allowed in mixed model exceeded !");
    print_list(screen(), "Current limit is                : ", maxeqns);
    print_list(screen(), "Number required for analysis is : ", neqns);
    stoptarvex();
}

int largest(const array<int>& counts) {
    return counts.size() > 0 ? *std::max_element(counts.begin(), counts.end()) : 0;
}

} // namespace

void equation_nos() {
    const int nq = numbers.nq;
    allocate("alloc start", mmequations.rn_start, numbers.krand);
    allocate("alloc start", mmequations.cv_start, std::max(1, largest(model.ncov)), nq);
    allocate("alloc start", mmequations.fx_start, std::max(1, largest(model.nfix)), nq);
    allocate("alloc start", mmequations.ieq_trait, nq);
    mmequations.ieqzero.clear();
    // in this order: covariables, fixed effects, random effects, means
    long long ibegin = 0;
    number_covariables(ibegin);
    mmequations.neq_cov = cut(ibegin);
    number_fixed(ibegin);
    mmequations.neq_fix = static_cast<int>(ibegin - mmequations.neq_cov);
    const long long nfixed = ibegin;
    number_random(mmequations.rn_start, ibegin, nfit, true);
    long long neqns = ibegin;
    for (int iq = 1; iq <= nq; ++iq)
        // a mean is one equation, behind all others
        if (model.fitmean(iq)) mmequations.ieq_trait(iq) = cut(++neqns);
    check_size(neqns);
    mmequations.neq_rnd = static_cast<int>(ibegin - nfixed);
    mmequations.neqns = static_cast<int>(neqns);
    numbers.lim1 = 0;
    if (tracing()) {
        print_list(screen(), mmequations.neqns, mmequations.neq_rnd, mmequations.neq_fix, mmequations.neq_cov);
        print_list(screen(), "lim1", numbers.lim1);
    }
}

equation_starts starts_of_equations() {
    const auto& m = mmequations;
    return {m.cv_start, m.fx_start, m.rn_start, m.ieq_trait, m.neqns};
}

void new_eqnnos() {
    record_reader in;
    record_writer out;
    if (!in.open(filenames.recdatfil2)) stop_with("Cannot open file \"" + filenames.recdatfil2 + "\"");
    if (!out.open(filenames.recdatfil3)) stop_with("Cannot open file \"" + filenames.recdatfil3 + "\"");
    array<int> jvec;
    allocate("alloc jvec", jvec, std::max(1, numbers.maxnreq));
    recoded_sums.new_lists.clear();
    int n = 0;
    // every number is looked at: the file may be another run's, or torn
    while (in.next()) {
        int nr = 0;
        ++n;
        if (!in.get(nr) || nr < 0 || nr > jvec.size() || !in.get(jvec.prefix(nr)))
            stop_with("Error reading file \"" + filenames.recdatfil2 + "\"");
        const std::size_t k = n - 1;
        // the file may have changed since it was written
        const auto& sums = recoded_sums.old_lists;
        if (k < sums.size() && !same_sum(sums[k], list_sum(jvec.prefix(nr))))
            stop_with("Error reading file \"" + filenames.recdatfil2 + "\"");
        for (int& e : jvec.prefix(nr)) {
            if (e < 1 || e > mmequations.neqns) stop_with("Error reading file \"" + filenames.recdatfil2 + "\"");
            // 0 for an equation that was taken out
            e = orders.ieqnew(e);
        }
        out.record(nr, jvec.prefix(nr));
        recoded_sums.new_lists.push_back(list_sum(jvec.prefix(nr)));
    }
    if (in.failed() || n != numbers.nsubject) stop_with("Error reading file \"" + filenames.recdatfil2 + "\"");
    if (!out.close()) stop_with("Error writing file \"" + filenames.recdatfil3 + "\"");
    orders.nlisted = orders.nsymb;
}

} // namespace tarvex
