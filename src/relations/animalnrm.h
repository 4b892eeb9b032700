// Assembly of an inverse relationship matrix from the pedigree in the sparse row store.
//
// Henderson's rules put at most six elements an animal into the rows of the animal and its parents. They are formed in
// the order of the pedigree, sorted by row and column with equal ones summed in that order, and only then linked: every
// row is filled from the left, whatever the number of mates of a parent.
#pragma once
#include "control/limits.h"
#include "parfile/randasfix.h"

#include <vector>

namespace tarvex {

// One contribution to the lower triangle.
struct nrm_term {
    int row, col;
    double value;
};

// Links terms into the empty row store, row by row; the store has room for them (value pass) or ierr is 1 (counting
// pass).
void link_terms(const std::vector<nrm_term>& terms, int nan, bool addval, int& ierr);

// Counts the elements of the inverse of pedigree list jj in a store of capacity cap, without values: nrminverse.nnrm is
// the off-diagonal pattern and one diagonal an animal. ierr 1: the store is full.
void nnrm_count(int jj, int nanim, int cap, int& ierr);
// The same with a store that grows by a quarter until the count goes through; stops at `limit` elements.
void nnrm_count_growing(int jj, int nanim, int cap, int limit = maxelements);

// Henderson's rules for an animal model with the Mendelian sampling variances of nrmdiag, of which it leaves the
// reciprocals; pseudo-fixed animals (randasfix.asfix) get psfixfact on the diagonal and nrmdiag -1. Leaves the row
// store, nnrm and detl.
void animal_nrm(int jj, int nanim);

// Share of the variance that Mendelian sampling adds to an animal, and the parts that its parents pass on.
struct pedigree_rule {
    double share, by_sire, by_dam;
};
// That of a sire with sire s and maternal grandsire m (0: unknown), as its inverse has it: one bull as both counts as
// sire alone, with the sampling variance of both.
pedigree_rule sire_rule(int s, int m);

// The rules for sires: sire and maternal grandsire of a sire, without inbreeding. Leaves the store, nnrm, detl and the
// factors in nrmdiag.
void sire_nrm(int jj, int nanim);

void deall_store(); // gives back the row store

} // namespace tarvex
