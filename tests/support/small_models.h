// Small analyses, written as parameter, data and pedigree file and, beside that, as a dense model of the same records.
//
// Data columns: animal pe dam herd age x y1 .. ynq; missing observations are -999.
#pragma once
#include "support/array.h"
#include "support/dense_oracle.h"

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace tarvex {

// Place in a vector that counts from 0.
inline std::size_t at(int i) { return static_cast<std::size_t>(i); }

struct small_effect {
    std::string name;        // animal, pe or dam; animal+dam: correlated effects
    std::string kov;         // NRM, IDE, PEQ, GIN
    int order = 1, rank = 0; // rank 0: as order
    std::vector<double> g;   // packed upper triangle; variances where diagonal
    bool diagonal = false;
    bool by_record = false; // a repeat effect of records (REC)
};

struct small_row {
    int animal = 1, pe = 1, dam = 1, herd = 1, age = 1;
    double x = 0.0;
    std::vector<double> y;
};

struct small_model {
    int nq = 1;
    bool randreg = false, principal = false;
    bool herd = true, covariable = false, mean = false;
    bool sires = false; // sire model: the second parent is the maternal grandsire
    std::vector<small_effect> random;
    std::vector<double> residual;  // packed; with classes one after the other
    std::vector<int> class_bounds; // HET: last control value of each class
    std::vector<small_row> rows;
    std::vector<int> sire, dam; // pedigree, animals 1..n, parents first
    std::string extra;          // lines at the end of the parameter file

    // Animals in n0 founders and the rest with random parents among the earlier ones (inbreeding occurs).
    void make_pedigree(int n, int founders, unsigned seed);
    // One row an animal from animal `from` on, `repeats` of them, with herds 1..nherd; a share of the observations
    // missing.
    void make_rows(int from, int repeats, int nherd, double missing, unsigned seed);

    std::string parameters() const;
    void write_files(const std::string& stem) const; // <stem>.par, model.dat, model.ped
    oracle::analysis dense() const;
};

// Animals with one record of one trait each, in three herds.
small_model one_trait_model();

// nq traits of related animals, `repeats` records each from the fourth on, in two herds; with several traits a fifth of
// the observations missing. g, r: packed covariances.
small_model traits_model(int nq, std::vector<double> g, std::vector<double> r, int repeats = 1, int animals = 24);

// A model with the matrices that it gives.
struct dense_model {
    oracle::analysis an;
    oracle::point at;
};
// lines: each line of the data is a subject.
dense_model as_given(const small_model& m, bool lines = false);
// The symmetric matrix of a packed upper triangle.
oracle::dense square(std::span<const double> packed, int n);

// Writes the files and runs the program's phases to the end of the stores of the likelihood; a stop is thrown.
void set_up(const small_model& m, const std::vector<std::string>& options = {"--aireml"});

// Covariance matrices that a parameter vector stands for. class 0 of R: the sum with a repeat matrix where there is
// one.
oracle::point point_at(const small_model& m, array<double> parvec);

// Dense log L at a parameter vector.
double dense_logl(const small_model& m, const array<double>& parvec);

// log L of the program; parvec is a copy.
double program_logl(array<double> parvec, int iopt = 0);

// Derivatives of log L by differences of program_logl, extrapolated from two step lengths.
std::vector<double> difference_gradient(const array<double>& parvec, double h = 1.0e-3);

} // namespace tarvex
