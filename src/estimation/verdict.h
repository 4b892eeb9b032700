// Where a search has ended: at a maximum of the likelihood, at the border of the parameter space, on a flat part, or
// short of a maximum.
//
// The point is judged by what a quadratic model of log L promises from it: half the Newton decrement, 0.5 g'H^-1 g with
// gradient g and average information H on the scale of the covariances (the decrement does not depend on the scale).
// A covariance matrix near the edge of the positive semi-definite cone is taken apart by its eigenvectors: an
// eigenvalue e that has all but gone, and along which log L falls, is held there (Karush, Kuhn and Tucker; Nocedal and
// Wright, Numerical Optimization, chapter 12). What moving it to zero would still gain counts as promised, and
// directions between such an eigenvector and the others carry the curvature of the edge. Eigenvalues that are on their
// way to zero promise no more than the way that is left.
#pragma once
#include "support/vector1.h"

#include <string>
#include <utility>
#include <vector>

namespace tarvex {

enum class search_end { none, maximum, border, flat, not_maximum };

// A covariance matrix at the point to be judged.
struct judged_block {
    std::string name;          // of the effect
    vector1<std::string> rows; // names of its traits or coefficients
    int first = 1;             // parameter of its first element
    bool diagonal = false;     // variances only
    vector1<double> cov;       // packed upper triangle row by row (diagonal: the variances)
    vector1<double> scale;     // size against which the variance of each row is small or not
    vector1<int> fixed;        // by element, 1: held; empty: none
    int order() const { return static_cast<int>(rows.size()); }
};
// Parameters that are judged as they stand (elements of factors), with their names.
struct judged_parameter {
    int par = 0;
    double value = 0.0, scale = 1.0; // its size; a value below 0.01 of it is at the border
    std::string name;
};

struct judged_point {
    vector1<double> gradient;    // of log L, by parameter
    vector1<double> information; // packed upper triangle, positive
    std::vector<judged_block> blocks;
    std::vector<judged_parameter> others;
};

// A change of covariance parameters.
struct parameter_change {
    int par;
    double change;
};

struct search_verdict {
    search_end kind = search_end::none;
    double promised = 0.0;             // gain in log L that the quadratic model promises
    double gradient_norm = 0.0;        // in units of the scales
    double least = 0.0, largest = 0.0; // eigenvalues of the information, scaled to a unit diagonal
    std::vector<std::string> border;   // what is at the border, in words
    std::vector<std::string> flat;     // combinations of parameters without information
    // Steps away from the border along which log L rises, and all the way to it: a search by logarithms or factors
    // takes neither.
    std::vector<std::vector<parameter_change>> lifts;
    std::vector<int> void_errors; // covariance parameters (from 1) whose sampling errors mean nothing
    std::vector<std::string> void_names;
    // Of each covariance matrix in units of the scales, descending.
    std::vector<std::pair<std::string, std::vector<double>>> eigenvalues;
};

constexpr double verdict_limit = 0.001;        // promised gain below which a point counts as a maximum
constexpr double vanished_variance = 1.0e-4;   // of the phenotypic one
constexpr double vanished_correlation = 0.005; // distance of a correlation from 1
constexpr double vanished_element = 0.01;      // of a factor, against the standard deviation of its row
constexpr double flat_information = 1.0e-7;    // eigenvalue of the information, unit diagonal

// Judges a point from its gradient and information.
search_verdict judge(const judged_point& point);

// What the matrices alone show, where there is no gradient: all that is near the border counts as there. Fills border,
// void_errors and eigenvalues; the kind stays none.
search_verdict look_at_matrices(const judged_point& point);

} // namespace tarvex
