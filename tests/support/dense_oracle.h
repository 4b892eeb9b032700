// The one dense oracle: relationship matrices, and REML by V, P and what follows from them, written without the
// equations of the program. Products, factors, inverses and eigenvalues are those of Eigen, which the program's own
// numerical core does not use.
#pragma once
#include <cstddef>
#include <vector>

namespace oracle {

using dense = std::vector<std::vector<double>>;
using vec = std::vector<double>;

dense zeros(std::size_t n, std::size_t m);
dense product(const dense& a, const dense& b);
dense transpose(const dense& a);
dense inverse(const dense& a);                               // of a symmetric positive definite matrix
double log_det(const dense& a);                              // the same; not a number where it is not positive definite
dense cholesky(const dense& a);                              // the same: L of A = LL', zero above the diagonal
vec eigenvalues(const dense& a);                             // of a symmetric matrix, ascending
dense eigenvectors(const dense& a);                          // by columns, in the same order
vec solve(const dense& a, const vec& b);                     // any square matrix; unknowns that others determine are 0
double distance_to_identity(const dense& a, const dense& b); // largest element of AB - I
double trace_of_product(const dense& a, const dense& b);
vec times(const dense& a, const vec& x);
double dot(const vec& a, const vec& b);

// Relationship matrix by the tabular method; parents 0 unknown, animals 1..n with parents first.
dense tabular(const std::vector<int>& sire, const std::vector<int>& dam);
// The same of sires with sire and maternal grandsire, whose other ancestors are unknown, without inbreeding. One bull
// as both is taken as the inverse has it: he passes on what a sire does.
dense related_sires(const std::vector<int>& sire, const std::vector<int>& grandsire);

// What an observation takes from a random effect: level (from 1) and weights of its components (kkfit).
struct term {
    int level = 0;
    vec z;
};

// Observation: design row of the fixed part, terms of each random effect, residual class and control value.
struct observation {
    int trait = 1, subject = 0, age = 0, iclass = 1;
    double y = 0.0;
    vec x;
    std::vector<std::vector<term>> terms;
};

struct analysis {
    bool randreg = false;
    std::vector<observation> obs;
    std::vector<dense> a; // relationship matrix of each random effect
};

// Covariance matrices: r by residual class (the sum of residual and repeat matrix where there is one), b between
// records of a subject, g of each random effect.
struct point {
    std::vector<dense> r;
    dense b;
    std::vector<dense> g;
};

dense variance(const analysis& m, const point& at);

struct reml {
    double logl = 0.0;
    dense vinv, p;
    vec py, beta;
};
reml evaluate(const analysis& m, const dense& v);
// -1/2 (log|V| + log|X'inv(V)X| + y'Py); X of full column rank, perhaps without columns.
double reml_logl(const dense& v, const dense& x, const vec& y);

double gradient(const reml& e, const dense& dv);                     // d log L
double information(const reml& e, const dense& dv, const dense& dw); // 0.5 y'P dV P dW P y
// Predictions of random effect k: levels x kkfit.
dense blup(const analysis& m, const point& at, const reml& e, std::size_t k);

} // namespace oracle
