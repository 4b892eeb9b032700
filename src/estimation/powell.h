// Derivative-free maximisation by conjugate directions (Powell 1964, Computer Journal 7:155).
#pragma once
#include "support/array.h"

#include <functional>
#include <vector>

namespace tarvex {

// Maximises log L over the parameters with ispar, from parvec (all parameters, on their scale in hand) and in as many
// rounds as rounds_of_directions allows; parvec and xbest, its log L, are those of the best point on return. True: the
// search has come to an end. A starting point without log L stops the run.
bool powell(double& xbest, array<double>& parvec);

// Limit of rounds for so many parameters, or that of the user.
int rounds_of_directions(int nparm);
// By how much the steps of that search are multiplied: the number behind the option, of which 0.2 is the ordinary one.
double scale_of_directions();

// The search itself, of a function that is to fall (-2 log L; 1e36 where it has no value).
struct powell_search {
    static constexpr double no_value = 1.0e36;

    std::function<double(const std::vector<double>&)> value;
    std::vector<double> best;              // in: the point to start from; then the lowest point met
    std::vector<int> searched;             // by coordinate, 0: held
    double scale = 1.0;                    // of the steps
    double ffmin = no_value;               // value at best
    std::vector<std::vector<double>> dirs; // current directions
    std::vector<double> step;              // first step of each
    double ztol = 0.0;                     // accuracy of the values

    // Value at from + d * dir.
    double at(const std::vector<double>& from, const std::vector<double>& dir, double d);
    // The same at d, shortened until there is one; false: there is none.
    bool valid_point(const std::vector<double>& from, const std::vector<double>& dir, double& d, double& f);
    // Search along `dir` from the best point by parabolas through three points. The first step is at most `longest`,
    // later ones ten times the first. Moves best, ffmin to the lowest point met; returns the decrease of the value.
    // curvature: half the second difference of the last parabola, 0 if it has no minimum.
    double dflmin(const std::vector<double>& dir, double first, double longest, double& curvature);
};

// Rounds along all directions, at most so many, told on the screen, in Iterates and in "directions". A round is small
// that gains less than 0.002 or moves no coordinate by 1e-4 of itself. True where a small one along fresh directions
// has ended the search. A starting point without value stops the run.
bool search_by_directions(powell_search& s, int most_rounds);

} // namespace tarvex
