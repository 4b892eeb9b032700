// Rank of a symmetric, positive semi-definite sparse system, with the dependent equations that elimination in natural
// order would meet: an equation is dependent if its column is a combination of columns in front of it.
#pragma once
#include "support/array.h"
#include "support/hash_map.h"

#include <cstdint>
#include <vector>

namespace tarvex {

// Sparse symmetric matrix while coefficients are summed into it; equations from 0.
struct normal_equations {
    explicit normal_equations(int n);
    void add(int i, int j, double x); // i != j; both triangles are one element
    int n;
    std::vector<double> diag, rhs;

    // Elements behind the diagonal, row by row, ascending; made by finish(), after which nothing is added.
    void finish();
    std::vector<std::int64_t> start; // (n+1)
    std::vector<int> col;
    std::vector<double> value;

private:
    hash_map<double> sums_; // by row and column
};

// A = U'D^-1U by rows in elimination order, from 1: row k holds its pivot and its elements x behind the diagonal, not
// divided.
struct row_factor {
    int n = 0;
    std::vector<int> eq; // (n+1) equation of each row
    array<int> ixvec1, ixvec2, ixsub;
    int maxlnz = 0, maxsub = 0;
    std::vector<double> x;     // (maxlnz)
    std::vector<double> pivot; // (n+1)
    std::vector<double> rhs;   // (n+1) reduced
    std::vector<int> out;      // (n+1) 1: pivot below the limit, row not used

    int sub(int row, int place) const { return ixsub(ixvec2(row) + place - ixvec1(row)); }
};

// The routines below take a matrix that is finished: one that is not stops the program. So does want of memory, with
// the name of what could not be had.

// Factor of a positive definite matrix in a fill-reducing order.
row_factor factor_of(const normal_equations& a);
// Standard normal x, by equation, become a draw from the distribution whose covariance matrix is the inverse of A.
void sample_inverse(const row_factor& f, std::vector<double>& x);

struct lsq_rank {
    struct dependency {
        int row;
        double pivot;
    };
    int rank = 0;
    std::vector<dependency> dependent; // ascending rows
    std::vector<double> xsol;          // (n) solutions, 0 for dependent equations and those taken out before
    std::int64_t elements = 0;         // behind the diagonal, fill-in included
    bool natural = false;              // decided by elimination in natural order
};

// Pivots below `limit`, or below 1e-11 of their diagonal, make an equation dependent; `out` marks equations taken out
// beforehand.

// Elimination in natural order, upper rows.
lsq_rank natural_rank(const normal_equations& a, const std::vector<int>& out, double limit);

// The same result through a fill-reducing order: null vectors of the vanishing pivots are brought to echelon form from
// the last equation upwards, and the equations in which they then end are the dependent ones. An equation whose
// pivot leaves doubt is decided by its pivot in natural order, so that the absolute limit keeps its meaning; where
// there are many of them all is done in that order.
lsq_rank fast_rank(const normal_equations& a, const std::vector<int>& out, double limit);

} // namespace tarvex
