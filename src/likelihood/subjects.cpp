#include "likelihood/subjects.h"

#include "basis/phimatrix.h"
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/levels.h"
#include "data/rowlayout.h"
#include "equations/mmequations.h"
#include "equations/orders.h"
#include "likelihood/ddvecs.h"
#include "likelihood/solutions.h"
#include "parameters/randomvars.h"
#include "parameters/residualvars.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/stop.h"

#include <algorithm>
#include <cstdint>

namespace tarvex {

namespace {

// Table of basis functions of random regression block irand.
int basis_table(int irand) {
    // the block's first trait will do: tables of a block agree
    for (int iq = 1; iq <= numbers.nq; ++iq)
        for (int j = 1; j <= model.nrnd(iq); ++j)
            if (mudmap.rn_irand(j, iq) == irand) return phimat.kkphi(j, iq);
    stop("error phi");
}

// Its values by level of the control variable, kkfit values each.
array<double, 2> basis_rows(int irand) {
    const array<double, 2>& phi = phimat.phi(basis_table(irand));
    const int n = model.kkfit(irand), nage = static_cast<int>(phi.upper(1));
    array<double, 2> rows;
    rows.allocate(n, nage);
    for (int a = 1; a <= nage; ++a)
        for (int k = 1; k <= n; ++k) rows(k, a) = phi(a, k);
    return rows;
}

// Basis values times the factor of the block: krfit values for each level of the control variable.
array<double, 2> rotated_rows(int irand, const array<double, 2>& basis) {
    const int n = model.kkfit(irand), rank = model.krfit(irand), nage = static_cast<int>(basis.upper(2));
    array<double, 2> rows;
    rows.allocate(rank, nage);
    for (int a = 1; a <= nage; ++a)
        for (int c = 1; c <= rank; ++c)
            for (int k = 1; k <= n; ++k) rows(c, a) += basis(k, a) * randomvars.zig(k, c, irand);
    return rows;
}

// Level of block irand that an equation (new number) belongs to.
int level_of(int ieq, int irand) {
    const int old = ieq > 0 ? orders.ieqold(ieq) - mmequations.rn_start(irand) - 1 : -1, n = nfit(irand);
    if (old < 0 || old / n >= levels.rn_nlev(irand)) stop_with("Error reading recoded data !");
    return old / n + 1;
}

} // namespace

subject_stream::subject_stream(bool with_effects)
    : with_effects_(with_effects), old_numbers_(orders.nlisted != orders.nsymb) {
    open_pass();
    dvec_combs_muv();
    // covariables have equations of their own for all subjects, the rest is numbered within the record
    clocal_.assign(mmequations.neq_cov + 1, -2);
    auto tables = std::make_shared<subject_tables>();
    if (options.randreg) {
        tables->basis.resize(numbers.krand);
        tables->weights.resize(numbers.krand);
        for (int irand = 1; irand <= numbers.krand; ++irand) {
            if (mudmap.kovrnd(irand) == covariance_kind::peq) continue;
            auto& basis = tables->basis(irand);
            basis = basis_rows(irand);
            if (options.principal) tables->weights(irand) = rotated_rows(irand, basis);
        }
    }
    tables_ = tables;
}

subject_stream::subject_stream(const subject_stream& first, beside)
    : with_effects_(first.with_effects_), old_numbers_(first.old_numbers_), tables_(first.tables_) {
    open_pass(); // of its own over the files; the tables are in common
    clocal_.assign(first.clocal_.size(), -2);
}

void subject_stream::open_pass() { setup_recdata(pass_, old_numbers_ ? filenames.recdatfil2 : filenames.recdatfil3); }

// The equations of the record, listed before the last ordering, get the numbers in hand.
void subject_stream::translate_list() {
    subject_record& r = pass_.record;
    for (int& e : r.jvec.prefix(r.nr)) {
        if (e < 1 || e > mmequations.neqns) stop_with("Error reading recoded data !");
        e = orders.ieqnew(e);
    }
}

void subject_stream::go_to(const recdata_place& place, int subjects_before) {
    tarvex::go_to(pass_, place);
    isubj_ = subjects_before;
}

bool subject_stream::next() {
    if (!next_subject(pass_)) return false;
    if (old_numbers_) translate_list();
    ++isubj_;
    form_design();
    form_rinv();
    return true;
}

int subject_stream::local_of_jvec(int p) {
    int& l = jlocal_[p];
    if (l == -2) {
        const int e = record().jvec(p);
        // equations that were taken out have no place
        l = -1;
        if (e > 0) {
            l = design_.nl++;
            design_.eq.push_back(e);
        }
    }
    return l;
}

int subject_stream::local_of_covariable(int icov) {
    int& l = clocal_[icov];
    if (l == -2) {
        const int e = orders.ieqnew(numbers.lim1 + icov);
        cmet_.push_back(icov);
        l = -1;
        if (e > 0) {
            l = design_.nl++;
            design_.eq.push_back(e);
        }
    }
    return l;
}

void subject_stream::add_entry(int l, double w) {
    if (l < 0) return;
    design_.local.push_back(l);
    design_.weight.push_back(w);
}

// Random effect j of trait iq in the row of observation i+1.
void subject_stream::add_random(int i, int iq, int j) {
    const subject_record& r = record();
    const int irand = mudmap.rn_irand(j, iq);
    if (irand < 1 || mudmap.kovrnd(irand) == covariance_kind::peq) return;
    // positions from .. from+width-1 of ieqnr hold the equations of this effect; 0: the record lacks it
    const int from = ddvecs.kkst(j, iq), width = ddvecs.kkst(j + 1, iq) - from;
    if (width < 1 || r.ieqnr(from, i + 1) <= 0) return;
    const double* w = nullptr;
    design_effect effect{irand, 0, mudmap.rn_place(j, iq), static_cast<int>(design_.local.size()), nullptr};
    if (options.randreg) {
        // level of the control variable
        const int a = r.imeta(mudmap.irmeta(j, iq), i + 1);
        effect.place = 0;
        effect.raw = tables_->basis(irand).column(a).data();
        w = options.principal ? tables_->weights(irand).column(a).data() : effect.raw;
    }
    for (int k = 0; k < width; ++k)
        add_entry(local_of_jvec(r.ieqnr(from + k, i + 1)), w ? w[k] : ddvecs.dd(from + k, iq));
    if (!with_effects_) return;
    effect.level = level_of(r.jvec(r.ieqnr(from, i + 1)), irand);
    design_.effects.push_back(effect);
}

void subject_stream::form_design() {
    auto& d = design_;
    const subject_record& r = record();
    d.nobs = r.nobs;
    d.nl = 0;
    d.eq.clear();
    d.first.assign(1, 0);
    d.local.clear();
    d.weight.clear();
    d.efirst.assign(1, 0);
    d.effects.clear();
    // -2: not met in this subject, -1: taken out, else the local number
    jlocal_.assign(r.nr + 1, -2);
    // of the covariables only those that the last subject has met: the table is long
    for (int c : cmet_) clocal_[c] = -2;
    cmet_.clear();
    for (int i = 0; i < d.nobs; ++i) {
        const int iq = r.ynq(i + 1);
        for (int k = 1; k <= r.mcov; ++k)
            // a covariable that is 0 adds nothing
            if (const int c = r.icov(k, i + 1); c > 0 && r.xcov(k, i + 1) != 0.0)
                add_entry(local_of_covariable(c), r.xcov(k, i + 1));
        for (int k = 1; k <= lead_positions(iq); ++k)
            if (const int p = r.ieqnr(k, i + 1); p > 0) add_entry(local_of_jvec(p), 1.0);
        for (int j = 1; j <= model.nrnd(iq); ++j) add_random(i, iq, j);
        d.first.push_back(static_cast<int>(d.local.size()));
        d.efirst.push_back(static_cast<int>(d.effects.size()));
    }
}

void subject_stream::form_rinv() {
    if (options.randreg) {
        get_rinv_rreg(record(), isubj_, rinv_, ldet_);
        return;
    }
    rinv_ = residualvars.eei(record().icombi);
    ldet_ = residualvars.detres(record().icombi);
}

void subject_residuals(const subject_stream& stream, std::vector<double>& ehat) {
    const subject_design& d = stream.design();
    ehat.resize(d.nobs);
    for (int i = 0; i < d.nobs; ++i) {
        double e = stream.record().yvec(i + 1);
        for (int k = d.first[i]; k < d.first[i + 1]; ++k) e -= d.weight[k] * solutions.solns(d.eq[d.local[k]]);
        ehat[i] = e;
    }
}

void part_splitter::start() {
    at_ = 0;
    rowwise_ = false;
    if (numbers.nq > 1 || residualvars.ipeq > 0) return;
    const subject_design& d = stream_.design();
    std::int64_t pairs = 0;
    // elements formed record by record, against those of the whole square
    for (int i = 0; i < d.nobs; ++i) {
        const std::int64_t n = d.first[i + 1] - d.first[i];
        pairs += n * n;
    }
    rowwise_ = d.nobs > 1 && 2 * pairs < std::int64_t{d.nl} * d.nl;
}

void part_splitter::cut_row(int i) {
    const subject_design& d = stream_.design();
    row_.nobs = 1;
    row_.eq.clear();
    row_.local.clear();
    row_.weight.clear();
    row_.effects.clear();
    for (int k = d.first[i]; k < d.first[i + 1]; ++k) {
        const int e = d.eq[d.local[k]];
        // a row is short: looking through it is cheaper than a table
        const auto seen = std::find(row_.eq.begin(), row_.eq.end(), e);
        row_.local.push_back(static_cast<int>(seen - row_.eq.begin()));
        if (seen == row_.eq.end()) row_.eq.push_back(e);
        row_.weight.push_back(d.weight[k]);
    }
    row_.nl = static_cast<int>(row_.eq.size());
    row_.first = {0, static_cast<int>(row_.local.size())};
    for (int k = d.efirst[i]; k < d.efirst[i + 1]; ++k) {
        row_.effects.push_back(d.effects[k]);
        // entries count from the start of the row now
        row_.effects.back().entry -= d.first[i];
    }
    row_.efirst = {0, static_cast<int>(row_.effects.size())};
}

bool part_splitter::next(design_part& part) {
    const subject_design& d = stream_.design();
    if (at_ >= (rowwise_ ? d.nobs : 1)) return false;
    part.obs = at_;
    part.record = &stream_.record();
    part.y = part.record->yvec.data() + at_;
    part.diagonal = rowwise_ || stream_.rinv().diagonal;
    // A record of its own takes its diagonal element, also of an inverse that is held in full.
    part.r = stream_.rinv().v.data() + (stream_.rinv().diagonal ? at_ : at_ * (d.nobs + 1));
    part.design = &d;
    if (rowwise_) {
        cut_row(at_);
        part.design = &row_;
    }
    ++at_;
    return true;
}

} // namespace tarvex
