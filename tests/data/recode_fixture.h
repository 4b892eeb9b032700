// Fixture for tests of scan, recoding and tables: a model, its data, a pedigree of founders and equation numbers that
// are laid out here independently.
#pragma once
#include "data/data.h"
#include "data/levels.h"
#include "data/pedigreelist.h"
#include "data/recodedata.h"
#include "data/rowlayout.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "equations/equations.h"
#include "equations/mmequations.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "parfile/mudmap_build.h"
#include "parfile/readparfile.h"
#include "support/fixture.h"
#include "support/record_file.h"

#include <numeric>

namespace tarvex {

class recode_test : public tarvex_test {
protected:
    // Reads model and maps it to the data. Animals 1 to nanim make the pedigree of every relationship matrix.
    void prepare(const std::string& par, const std::string& data, int nanim = 0) {
        write_file("t.par", par);
        write_file("t.dat", data);
        filenames.parfile = "t.par";
        read_parfile();
        model2mudmap();
        auto& p = pedigreelist;
        p.nanim = nanim;
        p.idvec.allocate(nanim);
        std::iota(p.idvec.begin(), p.idvec.end(), 1);
        p.idwec.allocate(mudmap.nrunno);
        p.nannew.allocate(mudmap.nrunno);
        for (int irun = 1; irun <= mudmap.nrunno; ++irun) {
            p.idwec(irun).assign(p.idvec.begin(), p.idvec.end());
            p.nannew(irun) = nanim;
        }
    }
    // Covariables, fixed effects, IDE, other random effects, means.
    void number_equations() {
        auto& e = mmequations;
        int at = 0;
        e.cv_start.allocate(19, numbers.nq);
        e.fx_start.allocate(29, numbers.nq);
        e.rn_start.allocate(numbers.krand);
        e.ieq_trait.allocate(numbers.nq);
        for (int iq = 1; iq <= numbers.nq; ++iq)
            for (int i = 1; i <= model.ncov(iq); ++i) {
                e.cv_start(i, iq) = at;
                const int nest = mudmap.cv_nestfix(i, iq);
                at += mudmap.cv_order(i, iq) * (nest > 0   ? levels.fx_nlev(nest, iq)
                                                : nest < 0 ? levels.ex_nlev(-nest, iq)
                                                           : 1);
            }
        for (int iq = 1; iq <= numbers.nq; ++iq)
            for (int i = 1; i <= model.nfix(iq); ++i) {
                e.fx_start(i, iq) = at;
                at += levels.fx_nlev(i, iq);
            }
        e.neqns = random_blocks(e.rn_start, at);
        for (int iq = 1; iq <= numbers.nq; ++iq)
            if (model.fitmean(iq) != 0) e.ieq_trait(iq) = ++e.neqns;
    }
    int random_blocks(array<int>& start, int at) {
        for (int round = 1; round <= 2; ++round)
            for (int irand = 1; irand <= numbers.krand; ++irand) {
                const covariance_kind kind = mudmap.kovrnd(irand);
                if (kind == covariance_kind::peq) start(irand) = -1;
                if (kind == covariance_kind::peq || (kind == covariance_kind::ide) != (round == 1)) continue;
                start(irand) = at;
                at += levels.rn_nlev(irand) * nfit(irand);
            }
        return at;
    }
    void recode() {
        data_scan1st();
        number_equations();
        data_recode(starts_of_equations());
    }
    // Equations of row k of the subject in hand.
    std::vector<int> row(int k) {
        std::vector<int> eq;
        for (int place : pass.record.ieqnr.column(k)) eq.push_back(place > 0 ? pass.record.jvec(place) : 0);
        return eq;
    }
    recdata_pass pass;
};

} // namespace tarvex
