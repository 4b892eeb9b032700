// Hard limits and constants of the program.
#pragma once

namespace tarvex {

inline constexpr int maxnq = 33;              // traits
inline constexpr int maxan = 399999;          // animals (and largest code of one)
inline constexpr int maxcov = 19;             // covariables a trait
inline constexpr int maxfix = 29;             // fixed effects a trait
inline constexpr int maxrand = 7;             // random effects a trait
inline constexpr int maxext = 9;              // extra effects a trait
inline constexpr int maxmeta = 3;             // random-regression control variables a trait
inline constexpr int maxobs = 499;            // observations a subject
inline constexpr int maxcombi = 999;          // combinations of records a subject
inline constexpr int maxage = 9999;           // values of a control variable
inline constexpr int maxcols = 49;            // columns of the data file
inline constexpr int maxeqns = 2222222;       // equations
inline constexpr int maxelements = 489999999; // elements of a linked list
inline constexpr int plinelen = 78;           // columns of a parameter-file line that are read

inline constexpr char comment_char = '#';
inline constexpr char plus_char = '+';
inline constexpr char star_char = '*';

inline constexpr double invalid_logl = -1.0e36; // log L of a point outside the parameter space

} // namespace tarvex
