// The last point of a search, looked at as a maximum: gradient and average information, what Newton's method would
// still gain, directions without information, and estimates at the border of the parameter space.
//
// Derivatives are those of the covariances in the order of the parameter vector; at reduced rank those of the factors
// of the random blocks.
#pragma once
#include "support/array.h"

#include <string>
#include <vector>

namespace tarvex {

// An estimate at the border: a variance below 1e-4 of the phenotypic one ("variance"), a correlation beyond 0.995
// ("correlation"), or a correlation matrix with an eigenvalue below 1e-4 ("eigenvalue").
struct border_item {
    int irand = 0, step = 1;
    std::string kind;
    int row = 0, column = 0; // 0 with an eigenvalue
    double value = 0.0;      // part of the phenotypic variance, correlation, eigenvalue
};

// A combination of estimates that the records say nothing about: names and weights, the largest 1.
struct flat_item {
    std::string name;
    double weight;
};

struct final_point_module {
    bool available = false; // derivatives were formed
    std::vector<std::string> names;
    std::vector<double> gradient;    // (nparm) of log L
    std::vector<double> information; // (nparm x nparm) average information, by columns
    double half_decrement = 0.0;     // gain that the quadratic model promises within the parameter space
    double gradient_norm = 0.0;      // on the scale of the parameters in use
    int estimated = 0;               // parameters with information of their own
    int rank = 0;                    // of the information among them
    std::vector<std::vector<flat_item>> flat;
    std::vector<border_item> border;
};
inline final_point_module final_point;

// Forms the derivatives at the best point, judges it and fills final_point. Called behind all reports: estimates.parvec
// and the derivatives are not kept. Without a usable point `available` stays false and only the border is looked at.
void look_at_final_point();

} // namespace tarvex
