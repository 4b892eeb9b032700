#include "data/nrmcodes.h"

#include "control/numbers.h"
#include "control/tvxroutines.h"
#include "data/data.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/stop.h"

#include <vector>

namespace tarvex {

namespace {

struct nrm_column {
    int irun, icol;
};

// The columns of animal codes, by trait.
std::vector<std::vector<nrm_column>> nrm_columns() {
    std::vector<std::vector<nrm_column>> columns(numbers.nq);
    for (int iq = 1; iq <= numbers.nq; ++iq)
        for (int i = 1; i <= model.nrnd(iq); ++i) {
            const int irand = mudmap.rn_irand(i, iq);
            if (irand < 1 || mudmap.kovrnd(irand) != covariance_kind::nrm) continue;
            columns[iq - 1].push_back({mudmap.iranno(irand), mudmap.rn_dcolno(i, iq)});
        }
    return columns;
}

// A record needs an animal for each genetic effect: an unknown dam has no level.
[[noreturn]] void no_animal(int ndatrec, int icol, std::int64_t code) {
    print_list(screen(), "No animal for a genetic effect : record", ndatrec, "column", icol, "code", code);
    print_list(screen(), "      Give an unknown dam a code and a line in the pedigree, or leave the record out");
    stop_with("Error reading pedigrees : invalid animal ID");
}

} // namespace

void visit_nrm_codes(const std::function<void(int, std::int64_t)>& visit, bool all_known) {
    const auto columns = nrm_columns();
    array<double> dvec;
    allocate("alloc dvec", dvec, mudmap.maxcol);
    data_reader reader;
    open_datfile(reader);
    int iq = 0;
    bool iskip = false;
    while (getrec_dvec(reader, dvec, iq, iskip)) {
        if (iskip) continue;
        const int first = iq > 0 ? iq : 1, last = iq > 0 ? iq : numbers.nq;
        for (int jq = first; jq <= last; ++jq) {
            // a line with all traits: those without an observation need no animal
            if (iq == 0 && is_missing(jq, dvec(mudmap.tr_dcolno(jq)))) continue;
            for (const auto& c : columns[jq - 1]) {
                const std::int64_t icode = effect_code(dvec, c.icol, 0, 1);
                // told once, by the pass that asks for it
                if (all_known && icode < 1) no_animal(reader.ndatrec, c.icol, icode);
                visit(c.irun, icode);
            }
        }
    }
}

} // namespace tarvex
