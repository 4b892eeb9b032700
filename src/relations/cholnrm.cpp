// Row of an animal in the factor L of A = L L': half the sum of the rows of its known parents, and the root of its
// Mendelian sampling variance on the diagonal. Rows are kept in memory as long as they can serve as parents' rows.
#include "relations/cholnrm.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/tvxroutines.h"
#include "data/pedigreelist.h"
#include "parfile/mudmap.h"
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
    if (!nrminverse.ifin.allocated() || irun > nrminverse.ifin.upper())
        stop_with("Inbreeding coefficients not set - cannot calculate NRM ");
    compute_inbreeding(irun);
}

double mendelian(int irun, int ian) {
    double sum = 0.0;
    for (const int p : {pedigreelist.sire(irun)[ian - 1], pedigreelist.dam(irun)[ian - 1]})
        if (p > 0) sum += 1.0 + nrminverse.inbreed(p, irun);
    return 1.0 - 0.25 * sum;
}

struct factor_row {
    std::vector<int> col;
    std::vector<double> val;
};

// Half the sum of the rows of parents p and q (0: unknown), each with its diagonal as last element.
void merge_parents(const factor_row& p, const factor_row& q, factor_row& row) {
    row.col.clear();
    row.val.clear();
    std::size_t i = 0, j = 0;
    while (i < p.col.size() || j < q.col.size()) {
        const int ci = i < p.col.size() ? p.col[i] : INT32_MAX, cj = j < q.col.size() ? q.col[j] : INT32_MAX;
        double sum = 0.0;
        if (ci <= cj) sum += p.val[i++];
        if (cj <= ci) sum += q.val[j++];
        row.col.push_back(std::min(ci, cj));
        row.val.push_back(0.5 * sum);
    }
}

// Last animal that needs the row of each animal as a parent's row, 0: none.
std::vector<int> last_use(int irun, int nan) {
    std::vector<int> last(static_cast<std::size_t>(nan) + 1);
    for (int ian = 1; ian <= nan; ++ian) {
        last[pedigreelist.sire(irun)[ian - 1]] = ian;
        last[pedigreelist.dam(irun)[ian - 1]] = ian;
    }
    return last;
}

void write_factor(record_writer& out, int irun, int nan) {
    const std::vector<int> last = last_use(irun, nan);
    std::vector<factor_row> rows(static_cast<std::size_t>(nan) + 1);
    factor_row row;
    std::int64_t nrczhz = 0;
    for (int ian = 1; ian <= nan; ++ian) {
        if (ian % 500 == 0) print_list(screen(), "nrm", ian, nrczhz);
        const int s = pedigreelist.sire(irun)[ian - 1], d = pedigreelist.dam(irun)[ian - 1];
        merge_parents(rows[s], rows[d], row);
        nrczhz += static_cast<std::int64_t>(row.col.size());
        if (nrczhz > cholnrm.maxlzhz) stop_with("\"lnkloc\" : dimensions exceeded !!");
        const double zdia = std::sqrt(mendelian(irun, ian));
        out.record(std::int32_t{ian}, std::int32_t{ian}, zdia);
        for (std::size_t k = 0; k < row.col.size(); ++k)
            out.record(std::int32_t{ian}, std::int32_t{row.col[k]}, row.val[k]);
        if (last[ian] > ian) {
            row.col.push_back(ian);
            row.val.push_back(zdia);
            rows[ian] = row;
        }
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
        if (mudmap.kovrnd(irand) != "NRM") continue;
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
    for (int i = nan; i >= 1; --i)
        for (const int p : {sire[i - 1], dam[i - 1]})
            if (p > 0) y[p - 1] += 0.5 * y[i - 1];
    for (int i = 1; i <= nan; ++i) {
        double half = 0.0;
        for (const int p : {sire[i - 1], dam[i - 1]})
            if (p > 0) half += 0.5 * y[p - 1];
        y[i - 1] = mendelian(irun, i) * y[i - 1] + half;
    }
}

} // namespace tarvex
