// Relationship matrices of one's own: from a table, or from markers (VanRaden, J. Dairy Sci. 91 (2008) 4414, method 1).
#pragma once
#include <Eigen/Dense>
#include <string>
#include <vector>

namespace tvx {

struct relationship {
    std::vector<std::string> ids;
    Eigen::MatrixXd g;       // symmetric
    std::size_t markers = 0; // 0: from a table
    std::size_t fixed = 0;   // markers without variation, left out
};

// Square table with identifiers in its first column and heading, or lines id, id, value of a triangle.
relationship read_matrix(const std::string& file);
// Genotypes 0, 1, 2: a table with identifiers in its first column, or a PLINK file .bed with .bim and .fam beside it.
// A missing genotype counts as twice the allele's frequency.
relationship read_markers(const std::string& file);
// Either, by what the file holds.
relationship read_relationship(const std::string& file);

// (1 - share) G + share I.
void blend(relationship& r, double share);
// Identifiers in the order of `before`.
void sort_levels(relationship& r);

struct inverse_facts {
    double log_det = 0.0, smallest = 0.0; // of the matrix
    Eigen::Index rank = 0;
};
// Writes <stem>.gin and <stem>.codes. A matrix that is not positive definite is a fault, which tells its rank.
inverse_facts write_inverse(const relationship& r, const std::string& stem);

} // namespace tvx
