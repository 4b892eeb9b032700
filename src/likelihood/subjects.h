// Streaming of the recoded subjects as local design rows: what assembly, gradient, average information, EM, and
// residuals have in common.
#pragma once
#include "data/recodedata.h"
#include "parameters/residualvars.h"
#include "support/vector1.h"

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace tarvex {

// Random effect of an observation: the entries entry..entry+nfit-1 (one entry in multivariate full-rank analyses) of
// its row.
struct design_effect {
    int irand = 0;
    int level = 0;
    int place = 0;               // place of the trait within the level's block (random regression: 0, see raw)
    int entry = 0;               // first entry
    const double* raw = nullptr; // random regression: kkfit basis values; null: weight 1 at `place`
};

// Design of one subject. Local equation l = 0..nl-1 has the number eq[l] in the order of the factorisation;
// equations that were taken out are left out. Row i = 0..nobs-1 (observation i+1 of the record) has the entries
// first[i]..first[i+1]-1.
struct subject_design {
    int nobs = 0;
    int nl = 0;
    std::vector<int> eq;
    std::vector<int> first;
    std::vector<int> local;
    std::vector<double> weight;
    // Random effects of row i: efirst[i]..efirst[i+1]-1. Only filled by a stream that was asked for them.
    std::vector<int> efirst;
    std::vector<design_effect> effects;
};

// Basis functions of the random regression blocks.
struct subject_tables {
    vector1<array<double, 2>> basis;   // (irand) values, (kkfit, levels of the control variable)
    vector1<array<double, 2>> weights; // (irand) weights, (nfit, levels); none at full rank
};

// Pass over all subjects in the order of the recoded file: recoded1.bin with recoded3.bin, or with recoded2.bin and
// numbers translated on the way where the equations have been ordered since. Several may go on at a time. It begins
// with the weights of the design at randomvars.zig (dvec_combs_muv) and takes the inverses of residualvars, so that
// rinverse and, where equations are those of the factor, g_inverse come first. Files that are not those of the run stop
// it, and a subject of random regression whose residual matrix is singular.
class subject_stream {
public:
    explicit subject_stream(bool with_effects = false);
    // Another pass beside `first`, at the same covariances: for a thread of its own.
    struct beside {};
    subject_stream(const subject_stream& first, beside);
    subject_stream(const subject_stream&) = delete;
    subject_stream& operator=(const subject_stream&) = delete;
    bool next(); // false at the end; fills record, design, rinv and ldet
    int isubj() const { return isubj_; }
    const subject_record& record() const { return pass_.record; }
    recdata_place place_of_next() const { return tarvex::place_of_next(pass_); }
    void go_to(const recdata_place& place, int subjects_before);
    const subject_design& design() const { return design_; }
    const pattern_matrix& rinv() const { return rinv_; }                           // R^-1 of the subject
    double rinv(int i, int j) const { return std::as_const(rinv_)(i + 1, j + 1); } // of records i, j = 0..nobs-1
    double ldet() const { return ldet_; }                                          // its log|R| (random regression)

private:
    void open_pass();
    void translate_list();
    void form_design();
    void form_rinv();
    int local_of_jvec(int p);
    int local_of_covariable(int icov);
    void add_entry(int l, double w);
    void add_random(int i, int iq, int j);

    recdata_pass pass_;
    subject_design design_;
    pattern_matrix rinv_;
    bool with_effects_ = false, old_numbers_ = false;
    double ldet_ = 0.0;
    int isubj_ = 0;
    std::vector<int> jlocal_; // local equation of each place in jvec, -1 taken out, -2 not met yet
    std::vector<int> clocal_; // the same by covariable
    std::vector<int> cmet_;   // covariables of the subject
    std::shared_ptr<const subject_tables> tables_;
};

// Observed less fitted values of the subject in the stream at solutions.solns: nobs values.
void subject_residuals(const subject_stream& stream, std::vector<double>& ehat);

// Independent parts of a subject. With a single trait whose records are independent every record may be a part of
// its own, which keeps the local matrices small; otherwise the subject is one part.
struct design_part {
    const subject_record* record = nullptr;
    const subject_design* design = nullptr;
    int obs = 0;               // record (from 0) of the subject that row 0 is
    const double* y = nullptr; // observations of the rows
    const double* r = nullptr; // their R^-1, full by columns or diagonal
    bool diagonal = false;
    double rinv(int i, int j) const {
        if (diagonal) return i == j ? r[i] : 0.0;
        return r[i + static_cast<std::ptrdiff_t>(j) * design->nobs];
    }
};
class part_splitter {
public:
    explicit part_splitter(const subject_stream& stream) : stream_(stream) {}
    void start(); // begins with the subject now in the stream
    bool next(design_part& part);

private:
    void cut_row(int i);
    const subject_stream& stream_;
    subject_design row_;
    bool rowwise_ = false;
    int at_ = 0;
};

} // namespace tarvex
