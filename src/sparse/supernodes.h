// Supernodes of the factor: sets of columns that are worked on as one dense panel.
//
// Columns j and j' belong together where row j' is the first of column j and the rest of both columns agrees. A
// supernode is then merged into its parent in the elimination tree as long as the time gained (fewer, larger dense
// kernels) exceeds that of the zeros taken in (C. Ashcraft and R. Grimes, ACM TOMS 15:291, 1989). Columns need not be
// neighbours: the panels are worked on in a postorder of the tree, which leaves the factor as it is. The factor stays
// in its compressed store; only the columns at hand and the update matrices that wait for their parents are dense
// (multifrontal method, J. W. H. Liu, SIAM Review 34:82, 1992). Row n is a supernode of its own, the last.
#pragma once
#include "sparse/dense_kernels.h"
#include "sparse/sparse.h"
#include "support/array.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tarvex {

struct supernode_tree {
    std::vector<int> order;   // columns, supernode by supernode, ascending within each
    std::vector<int> start;   // (ns+1) place in order of the first column of each; children before their parents
    std::vector<int> parent;  // (ns) -1: root
    std::vector<int> child;   // (ns) first child, -1: none
    std::vector<int> sibling; // (ns) next child of the same parent
    std::vector<int> level;   // (ns) distance from the root
    // The order of the work: supernodes at the top of the tree one by one, and pieces, consecutive whole subtrees below
    // them that do not depend on each other.
    struct step {
        int first, end; // supernodes
        bool piece;
    };
    std::vector<step> steps;
    std::vector<char> in_piece;       // (ns)
    std::ptrdiff_t inverse = 0;       // space for the inverse of the rows below a front
    int rows = 0, width = 0;          // of the largest front and the widest panel
    std::ptrdiff_t piece_inverse = 0; // the same of fronts in pieces
    int piece_rows = 0, piece_width = 0;
    std::ptrdiff_t triangles[2]{}; // space for update matrices of a piece: even and odd levels
    double operations = 0.0;       // multiplications of the factorisation, without the zeros taken in
    std::uint64_t structure = 0;   // fingerprint of the structure that all this belongs to, 0: none
};

struct sparse_work; // workspace.h

// The partition for the structure of s, kept in w.tree until the structure changes. The rows below a supernode are
// those below its last column.
const supernode_tree& supernodes(const sparse_store& s, sparse_work& w);

// A supernode of more than `wide` columns is worked on in pieces. A large front takes no update matrices: those of its
// children, and its own by blocks of columns, go straight to the columns of the store, so that they do not wait for
// each other. So do those for a front with no more than one row below.
constexpr int many_below = 1000;
inline bool large_front(int width, int below) { return width > wide || below > many_below; }
inline int below_of(const sparse_store& m, const supernode_tree& tree, int s) {
    return rows_below(m, tree.order[tree.start[s + 1] - 1]);
}
inline bool updates_at_once(const sparse_store& m, const supernode_tree& tree, int s) {
    const int below = below_of(m, tree, s);
    return below <= 1 || large_front(tree.start[s + 1] - tree.start[s], below);
}

// True for the root of a piece whose update matrix waits for its turn at the top; that of one whose only row below is
// row n goes there at once.
inline bool leaves_piece(const supernode_tree& tree, int s) {
    const int p = tree.parent[s];
    return p >= 0 && !tree.in_piece[p] && p + 1 < static_cast<int>(tree.parent.size());
}

// Replaces the assembled matrix by its factor. Returns 0, or the first row in ascending order whose pivot is below
// `limit`: `pivot` is its value, diag of that row is as assembled, and the store counts as empty. Columns are not
// completed in ascending order.
int factorise_supernodes(sparse_store& m, sparse_work& w, double limit, double& pivot, const progress& tell);

// Sparse inverse of the factor in m into zdiag (n) and zoff (maxlnz), as takahashi.h has it. They are allocated, and
// may be the arrays of m; the state of m stays `factor` then too, for the caller to set. tell: columns left to do.
//   x   nullptr: row n gets L(n,i)/L(i,i), zdiag(n) the last pivot, squared
//       else the solutions (n): the derivatives of the factorisation are formed in place of the inverse
void inverse_supernodes(const sparse_store& m, sparse_work& w, array<double>& zdiag, array<double>& zoff,
                        const double* x, const progress& tell);

} // namespace tarvex
