// Inverses of the residual covariance matrices: by pattern of records in multivariate analyses, by subject in random
// regression analyses.
#pragma once
#include "data/datavecs.h"
#include "support/array.h"
#include "support/vector1.h"

#include <cstddef>
#include <span>
#include <vector>

namespace tarvex {

// Symmetric matrix of the order of a pattern; a diagonal one is kept as its diagonal.
struct pattern_matrix {
    int n = 0;
    bool diagonal = false;
    std::vector<double> v; // n*n by columns, or n
    double operator()(int i, int j) const {
        if (diagonal) return i == j ? v[i - 1] : 0.0;
        return v[place(i, j)];
    }
    double& operator()(int i, int j) { return v[place(i, j)]; } // of one that is kept in full
    // Zeros, in the memory at hand where that suffices.
    void reset(int order, bool as_diagonal) {
        n = order;
        diagonal = as_diagonal;
        v.assign(diagonal ? n : std::ptrdiff_t{n} * n, 0.0);
    }

private:
    std::ptrdiff_t place(int i, int j) const { return std::ptrdiff_t{n} * (j - 1) + i - 1; }
};

struct residualvars_module {
    int ipeq = 0;                // block of the PEQ effect, 0 none
    bool peqsum = false;         // there is one: parvec's block 0 holds the sum of the residual and its matrix
    array<double> detres;        // (ncombi) log|R| of a pattern; random regression: element 1, summed over subjects
    vector1<pattern_matrix> eei; // (icombi) R^-1, records sorted by trait
    array<double, 2> sigres;     // (nq(nq+1)/2, rr_resteps) residual covariances in use, packed, by class
    array<double> sigpeq;        // (nq(nq+1)/2) PEQ covariances spread over all traits
    array<double> rpars;         // (nresparm) residual parameters on the natural scale, compared by loglike
    array<int> fixres;           // (nresparm as covariances: steps times triangle) 1: fixed at zero
    array<int> given_zero;    // (as fixres) 1: 0 in the parameter file, as opposed to a zero that a search has come to
    bool pivot_zeros = false; // pivots go in an order in which the factor keeps these zeros
    bool filled = false;      // there is none: the factor has elements in their places that follow from the others
    std::vector<double> formed; // covariances (residual, PEQ) that eei belongs to
};
inline residualvars_module residualvars;

// Stored covariances of the PEQ matrix (row i, column j of it), in their order, and the place of each in the packed
// triangle of the residual: the effect is fitted for some traits, in an order of its own. Empty without such an effect.
struct peq_place {
    int i, j, residual;
};
vector1<peq_place> peq_places();

// Residual inverses at parvec (which clamps may change). ifail 1: invalid point.
void rinverse(array<double>& parvec, int& ifail);

// Random regression: R^-1 of the subject in d (isubj is told in messages), diagonal where its records are independent,
// and log|R|. Two records of a trait at one value of the control variable stop the run.
void get_rinv_rreg(const subject_record& d, int isubj, pattern_matrix& inverse, double& ldet);

// Random regression: place along the control variables and residual class of the records of a subject. Records with one
// place agree in the control variable of the classes and in all others that every trait has.
void residual_classes(const subject_record& d, vector1<int>& age, vector1<int>& iclass);
// True if two records agree in all control variables that every trait has.
bool same_place(const subject_record& d, int i, int j);

// Prints the line with the number of records of each trait in a pattern.
void show_combination(int icombi);
// After a failed rinverse: tells the pattern of records whose matrix has failed. A positive definite residual matrix
// need not give one for the records of a subject: with n records of one trait and m of another, a covariance c takes
// c*c*n*m below the product of the variances.
void show_indefinite_pattern();

// Traits of the records of a pattern, in their order.
vector1<int> pattern_traits(int icombi);

// Covariances in the residual (and PEQ) block by the parameters of parvec's order, on the covariance scale.
//   same   k and l are one record
//   pars   numbers of the parameters whose derivative of R has a 1 at (k,l); components fixed at zero are left out
// Returns how many there are (at most 2).
int residual_pars(int iq, int jq, int iclass, bool same, int pars[2]);

// g(par) += sum over k,l of dR(k,l)/dpar * x(k,l) for a symmetric x of the records with these traits (and in random
// regression analyses these control values and classes). g: nrespeq values.
void add_residual_terms(const pattern_matrix& x, std::span<const int> traits, std::span<const int> age,
                        std::span<const int> iclass, double factor, vector1<double>& g);

} // namespace tarvex
