// Readers of what a run of the program leaves: the screen, the best point, reports, solutions and residuals. All files
// are those of the working directory.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace tarvex {

std::vector<std::string> lines_of(std::string_view text);
std::vector<std::string> words_of(std::string_view line);
double number_of(const std::string& word); // NaN where the word is no number

// The lines of iterates and rounds on the screen.
struct iterate {
    std::string kind; // "AI", "EM" or "PX"
    int round;
    double loglike;
};
std::vector<iterate> iterates_of(std::string_view output);
double loglike_at_start(std::string_view output); // of round 0; NaN where there is none

// File BestPoint.
struct best_point {
    double loglike = 0.0;
    int nparm = -1; // -1 where the file is missing or short
    std::vector<double> values;
};
best_point read_best_point();

// Lines of covariances with sampling errors in the estimates report.
struct estimate_line {
    int number;
    std::string name;
    double value, error;
    std::string what; // "corr", "vrat" or ""
    double ratio, ratio_error;
};
std::vector<estimate_line> read_estimates(const std::string& file = "SumEstimates.out");
double labelled(const std::string& file, const std::string& label); // first number behind the label in a report

// A triangle on file: log L, then row, column, value.
struct triangle {
    double loglike = 0.0;
    std::vector<std::vector<double>> rows; // symmetric
};
triangle read_triangle(const std::string& file);

// FixSolutions.out
struct covariable_line {
    int trait;
    std::string name;
    int curve, coefficient;
    double solution, error;
};
struct level_line {
    int trait;
    std::string effect;
    long code;
    int level;
    double solution, error;
    int records;
    double mean;
};
struct fixed_solutions {
    std::vector<covariable_line> covariables;
    std::vector<level_line> levels;
};
fixed_solutions read_fixed_solutions();

// RnSoln_<effect>.dat; errors are NaN where they are not written.
struct random_line {
    int level;
    long code; // of the level, on all its lines
    int iq;
    double solution, error, accuracy;
};
std::vector<random_line> read_random_solutions(const std::string& effect);

// Residuals.dat
struct residual_line {
    double observed, residual;
};
std::vector<residual_line> read_residuals();

} // namespace tarvex
