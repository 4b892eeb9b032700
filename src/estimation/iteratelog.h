// The iterates and rounds of the run, and what ended the last search: kept for the results that other programs read.
#pragma once
#include <string>
#include <vector>

namespace tarvex {

struct iterate_record {
    std::string method; // "AI", "EM" or "PX"
    int round = 0;      // running number over the run, 0 the starting point
    double log_l = 0.0;
    double change = 0.0;           // in log L
    double gradient_norm = 0.0;    // in front of the step; 0 for EM
    double parameter_change = 0.0; // relative
    double promised = 0.0;         // half the slope: what the step's quadratic model promised, with a negative sign
    double step = 0.0;             // length of the step, or the exponent of the expansion
    double tau = 0.0;              // added to the diagonal of the information
    int seconds = 0;
    int evaluations = 0; // of the likelihood so far
};

struct iterate_log_module {
    std::vector<iterate_record> records;
    std::string ended; // why the last search ended; empty: there was none
};
inline iterate_log_module iterate_log;

} // namespace tarvex
