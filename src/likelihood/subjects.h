// Streaming of the recoded subjects as local design rows: what assembly, gradient, average information, EM, and residuals
// have in common.
#pragma once
#include "data/recodedata.h"

#include <vector>

namespace tarvex {

// Design of one subject. Local equation l = 0..nl-1 has the number eq[l] in the order of the factorisation; equations that
// were taken out are left out. Row i = 0..nobs-1 (observation i+1 of datavecs) has the entries first[i]..first[i+1]-1.
struct subject_design {
    int nobs = 0;
    int nl = 0;
    std::vector<int> eq;
    std::vector<int> first;
    std::vector<int> local;
    std::vector<double> weight;
};

// Pass over all subjects in the order of the recoded file: recoded1.bin with recoded3.bin.
class subject_stream {
public:
    subject_stream();
    ~subject_stream();
    bool next();                   // false at the end; fills datavecs, design and rinv
    int isubj() const { return isubj_; }
    const subject_design& design() const { return design_; }
    // R^-1 of the subject, nobs x nobs by columns (multivariate: copied from eei; random regression: formed).
    const std::vector<double>& rinv() const { return rinv_; }
    bool rinv_diagonal() const { return diagonal_; } // only the diagonal of rinv is filled
    double ldet() const { return ldet_; }            // its log|R| (random regression)
    void rewind();

private:
    recdata_pass pass_;
    subject_design design_;
    std::vector<double> rinv_;
    bool diagonal_ = false;
    double ldet_ = 0.0;
    int isubj_ = 0;
};

} // namespace tarvex
