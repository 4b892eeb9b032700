// Sums of a symmetric matrix X, known on the pattern of the factor, over the data and over the structure of the random
// effects: what gradients and EM steps take from the derivative of the factor or from the sparse inverse.
//
// X has the diagonal fd(1:nsrow) and the off-diagonal elements off * fo(k) at place k of the store. From autodiff_1
// (off 0.5): X = (C^-1 + x x')/2 for the equations, X(n,i) = -x(i)/2, X(n,n) = 1/2 for the row of right-hand sides,
// x being the solutions. From the sparse inverse (off 1, without y): X = C^-1.
#pragma once
#include "likelihood/subjects.h"
#include "parameters/residualvars.h"
#include "support/array.h"

#include <functional>
#include <vector>

namespace tarvex {

struct pattern_values {
    const array<double>& fd;
    const array<double>& fo;
    double off = 0.5;
    bool with_y = true; // rows of the design carry the observation against the row of right-hand sides
};

// T(i,j) = sum over levels a,b of A^-1(a,b) X((a,i),(b,j)), nfit x nfit, A the relationship matrix of block irand.
// For blocks whose components are not linked (links_diagonal) only the diagonal of T is formed.
void structure_sums(int irand, const pattern_values& x, array<double, 2>& t);

// Products of a part of a subject: p = X w_j by rows j, nl elements each, and m(i,j) = w_i' X w_j. With a single
// trait and independent records m is diagonal.
struct part_products {
    design_part part;
    std::vector<double> p;
    pattern_matrix m;
};
// Visits all parts of all subjects in one pass over the data: visit(chunk, products), chunk below subject_chunks()
// (subjectchunks.h). Subjects come in their order within a chunk; chunks may be visited at once by threads, so what a
// visit adds to belongs to its chunk.
using visitor = std::function<void(int, const part_products&)>;
void walk_products(const pattern_values& x, bool with_effects, const visitor& visit);

// Adds the m of a part to the sum of its pattern.
void add_products(const part_products& products, vector1<pattern_matrix>& sums);
// Adds the sums of a chunk to those of all.
void add_patterns(const vector1<pattern_matrix>& chunk, vector1<pattern_matrix>& sums);
void add_loads(const vector1<array<double, 2>>& chunk, vector1<array<double, 2>>& loads);

// Principal runs: loads(irand) (kkfit,krfit) += factor Z'R^-1 p over the records of a part, Z by places of the block
// and p by the components of the level. With X of autodiff_1, factor -2 gives E(z R^-1 e u_c) and 2 the derivatives of
// the half-sum log|C| + y'Py by the elements of the factor.
void add_loads(const part_products& products, double factor, vector1<array<double, 2>>& loads);

// R^-1 m R^-1.
pattern_matrix between_inverses(const pattern_matrix& rinv, const pattern_matrix& m);

} // namespace tarvex
