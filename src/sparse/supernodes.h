// Supernodes of the factor: sets of columns that are worked on as one dense panel.
//
// Columns j and j' belong together where row j' is the first of column j and the rest of both columns agrees. A
// supernode is then merged into its parent in the elimination tree as long as the time gained (fewer, larger dense
// kernels) exceeds that of the zeros taken in (C. Ashcraft and R. Grimes, ACM TOMS 15:291, 1989). Columns need not be
// neighbours: the panels are worked on in a postorder of the tree, which leaves the factor as it is. The factor stays
// in its compressed store; only the columns at hand and the update matrices that wait for their parents are dense
// (multifrontal method, J. W. H. Liu, SIAM Review 34:82, 1992). Row nsrow is a supernode of its own, the last.
#pragma once
#include "sparse/dense_kernels.h"
#include "sparse/sparse.h"
#include "support/array.h"

#include <cstddef>
#include <vector>

namespace tarvex {

struct supernode_tree {
    std::vector<int> order;        // columns, supernode by supernode, ascending within each
    std::vector<int> start;        // (ns+1) place in order of the first column of each; children before their parents
    std::vector<int> parent;       // (ns) -1: root
    std::vector<int> child;        // (ns) first child, -1: none
    std::vector<int> sibling;      // (ns) next child of the same parent
    std::vector<int> level;        // (ns) distance from the root
    std::ptrdiff_t triangles[2]{}; // space for update matrices: even and odd levels
    std::ptrdiff_t inverse = 0;    // space for the inverse of the rows below a front
    int rows = 0, width = 0;       // of the largest front and the widest panel
    double operations = 0.0;       // multiplications of the factorisation, without the zeros taken in
};

// The partition for the structure in module sparse, kept until the structure changes.
const supernode_tree& supernodes();
void supernodes_drop();

// Rows below the supernode whose last column is j are those of this column.
inline int rows_below(int j) { return sparse.ixvec1(j + 1) - sparse.ixvec1(j); }
inline const int* row_list(int j) { return sparse.ixsub.data() + sparse.ixvec2(j) - 1; }

// A supernode of more than `wide` columns is worked on in pieces. A large front takes no update matrices: those of its
// children, and its own by blocks of columns, go straight to the columns of the store, so that they do not wait for
// each other. So do those for a front with no more than one row below.
constexpr int many_below = 1000;
inline bool large_front(int width, int below) { return width > wide || below > many_below; }
inline bool updates_at_once(const supernode_tree& tree, int s) {
    const int below = rows_below(tree.order[tree.start[s + 1] - 1]);
    return below <= 1 || large_front(tree.start[s + 1] - tree.start[s], below);
}

// Multiplications of the factorisation by columns.
double factor_operations();

// Factorisation as factorise_columns, forcepd true. Columns are not completed in ascending order, but the row returned
// is the first that fails in this order.
int factorise_supernodes(double& pivot);

// Sparse inverse of the factor in sparse.diag, sparse.xspars, into zdiag, zoff, which may be the same arrays.
//   x   nullptr: row n gets L(n,i)/L(i,i), zdiag(n) the last pivot, squared
//       else the solutions: the derivatives of the factorisation are formed in place of the inverse
// `word` heads the progress lines.
void inverse_supernodes(array<double>& zdiag, array<double>& zoff, const double* x, const char* word);

} // namespace tarvex
