// Effects of the fixed part of a trait's model that cannot be told apart, taken together: an effect that lies in the
// span of several others, levels that are not connected.
#pragma once
#include "parfile/basiskinds.h"
#include "tvx/check.h"

#include <string>
#include <vector>

namespace tvx {

// Columns of the data, one value a record of the trait.
struct fixed_class {
    std::string name;
    int column = 0; // of the data file
    std::vector<long long> code;
};
struct fixed_covariable {
    std::string name;
    tarvex::basis_kind type = tarvex::basis_kind::pol;
    int order = 0, degree = 0;
    std::vector<double> value;
    std::vector<long long> level; // of the class it is nested in; empty: none
};
struct fixed_part {
    std::string trait;
    bool mean = false;
    std::vector<fixed_class> classes;
    std::vector<fixed_covariable> covariables;
};

// Adds W418 for each effect with columns that depend on those of the effects in front of it, with the fewest of these
// that hold them. What every model has is no finding: the sum of the levels of a class, or of the functions of a
// spline, is the mean. Pairs of classes of which one tells the other are W411's. W419: memory does not suffice.
void check_rank(std::vector<finding>& findings, const fixed_part& part);

} // namespace tvx
