// Row of an animal in the factor L of A = L L': the rows of its known parents by the parts that they pass on, and the
// root of its Mendelian sampling variance on the diagonal. Rows are kept in memory as long as they can serve as
// parents' rows.
#include "relations/cholnrm.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/pedigreelist.h"
#include "parfile/mudmap.h"
#include "relations/animalnrm.h"
#include "relations/inbreeding.h"
#include "relations/nrminverse.h"
#include "relations/pedigreesum.h"
#include "support/record_file.h"

#include <cmath>
#include <cstdint>
#include <string>

namespace tarvex {

namespace {

// Coefficients that are missing, as the inverse was taken over from an earlier run, are computed.
void need_inbreeding(int irun) {
    if (options.siremodel) return; // the rules for sires do without
    if (!nrminverse.ifin.allocated() || irun > nrminverse.ifin.upper())
        stop_with("Inbreeding coefficients not set - cannot calculate NRM ");
    compute_inbreeding(irun);
}

// What an animal has from its parents.
pedigree_rule rule_of(int irun, int ian) {
    const int s = pedigreelist.sire(irun)[ian - 1], d = pedigreelist.dam(irun)[ian - 1];
    if (options.siremodel) return sire_rule(s, d);
    double sum = 0.0;
    for (const int p : {s, d})
        if (p > 0) sum += 1.0 + nrminverse.inbreed(p, irun);
    // D = 1 - (1 + F_s)/4 - (1 + F_d)/4
    return {1.0 - 0.25 * sum, s > 0 ? 0.5 : 0.0, d > 0 ? 0.5 : 0.0};
}

struct factor_row {
    std::vector<int> col;
    std::vector<double> val;
};

// Sum of the rows of parents p and q (0: unknown) by their parts, each row with its diagonal as last element.
void merge_parents(const factor_row& p, const factor_row& q, const pedigree_rule& rule, factor_row& row) {
    row.col.clear();
    row.val.clear();
    std::size_t i = 0, j = 0;
    while (i < p.col.size() || j < q.col.size()) {
        const int ci = i < p.col.size() ? p.col[i] : INT32_MAX, cj = j < q.col.size() ? q.col[j] : INT32_MAX;
        double sum = 0.0;
        // columns ascend in both rows
        if (ci <= cj) sum += rule.by_sire * p.val[i++];
        if (cj <= ci) sum += rule.by_dam * q.val[j++];
        row.col.push_back(std::min(ci, cj));
        row.val.push_back(sum);
    }
}

// Last animal that needs the row of each animal as a parent's row, 0: none.
std::vector<int> last_use(int irun, int nan) {
    std::vector<int> last(nan + 1);
    for (int ian = 1; ian <= nan; ++ian) {
        last[pedigreelist.sire(irun)[ian - 1]] = ian;
        last[pedigreelist.dam(irun)[ian - 1]] = ian;
    }
    return last;
}

void write_factor(record_writer& out, int irun, int nan) {
    const std::vector<int> last = last_use(irun, nan);
    std::vector<factor_row> rows(nan + 1);
    factor_row row;
    std::int64_t nrczhz = 0;
    for (int ian = 1; ian <= nan; ++ian) {
        if (ian % 500 == 0) print_list(screen(), "nrm", ian, nrczhz);
        const int s = pedigreelist.sire(irun)[ian - 1], d = pedigreelist.dam(irun)[ian - 1];
        const pedigree_rule rule = rule_of(irun, ian);
        merge_parents(rows[s], rows[d], rule, row);
        // the limit is for off-diagonals
        nrczhz += static_cast<std::int64_t>(row.col.size());
        if (nrczhz > cholnrm.maxlzhz) stop_with("\"lnkloc\" : dimensions exceeded !!");
        const double zdia = std::sqrt(rule.share);
        // records (row, column, value), the diagonal first
        out.record(std::int32_t{ian}, std::int32_t{ian}, zdia);
        for (std::size_t k = 0; k < row.col.size(); ++k)
            out.record(std::int32_t{ian}, std::int32_t{row.col[k]}, row.val[k]);
        if (last[ian] > ian) {
            row.col.push_back(ian);
            row.val.push_back(zdia);
            rows[ian] = row;
        }
        // nobody needs that row any more
        for (const int p : {s, d})
            if (p > 0 && last[p] == ian) rows[p] = {};
    }
}

digest factor_sum(int irun) {
    digest_maker sum;
    sum.add("factor");
    sum.add(pedigree_sum(irun));
    return sum.value();
}

} // namespace

void cholnrm_animal() {
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (mudmap.kovrnd(irand) != covariance_kind::nrm) continue;
        const int iirand = mudmap.iranno(irand), nan = pedigreelist.nannew(iirand);
        const std::string name = cholnrm_name(iirand);
        const seal s{factor_sum(iirand), {}};
        if (sealed(name, s.made_from)) continue;
        need_inbreeding(iirand);
        record_writer out;
        if (!out.open(name, true)) stop_with("Cannot open file \"" + name + "\"");
        out.record(std::int32_t{nan});
        write_factor(out, iirand, nan);
        if (!out.close(s)) stop_with("Cannot write file \"" + name + "\"");
    }
}

void nrm_product(int irun, const std::vector<double>& x, std::vector<double>& y) {
    need_inbreeding(irun);
    const auto& sire = pedigreelist.sire(irun);
    const auto& dam = pedigreelist.dam(irun);
    const int nan = pedigreelist.nannew(irun);
    y = x;
    // A = T D T': y = T'x from the youngest up, D, then T down
    for (int i = nan; i >= 1; --i) {
        const pedigree_rule rule = rule_of(irun, i);
        if (sire[i - 1] > 0) y[sire[i - 1] - 1] += rule.by_sire * y[i - 1];
        if (dam[i - 1] > 0) y[dam[i - 1] - 1] += rule.by_dam * y[i - 1];
    }
    for (int i = 1; i <= nan; ++i) {
        const pedigree_rule rule = rule_of(irun, i);
        double passed = 0.0;
        if (sire[i - 1] > 0) passed += rule.by_sire * y[sire[i - 1] - 1];
        if (dam[i - 1] > 0) passed += rule.by_dam * y[dam[i - 1] - 1];
        y[i - 1] = rule.share * y[i - 1] + passed;
    }
}

} // namespace tarvex
