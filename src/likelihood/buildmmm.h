// Assembly of the mixed model matrix in the compressed store.
#pragma once
#include "data/recodedata.h"
#include "support/array.h"
#include "support/vector1.h"

#include <cstddef>
#include <vector>

namespace tarvex {

// Places in xspars of the pairs of equations that a pass meets, in the order of the pass: found once for a symbolic
// structure and read off afterwards. 0: the structure has no such element.
struct place_store {
    int nsymb = -1;        // orders.nsymb of the structure
    bool complete = false; // one pass has gone through
    bool dropped = false;  // too many pairs to be kept: every pass searches
    std::vector<int> place;
    // Where every so many subjects (places.together) begin: in the recoded files and in `place`.
    struct mark {
        recdata_place files;
        std::size_t pairs;
    };
    bool marked = false; // one pass has gone through
    std::vector<mark> marks;
};
struct places_module {
    place_store subjects;           // pairs of the local equations of the subjects
    vector1<place_store> blocks;    // (irand) pairs of the elements of the inverse relationship matrix
    bool lenient = false;           // a missing element of a random effect asks for a new ordering, it is not fatal
    int together = 4096;            // subjects whose sums are formed together; those sums are added up in turn
    std::size_t most = 0;           // pairs kept by all stores together; 0: as the size of the factor allows
    std::size_t look_every = 65536; // pairs of a store between two looks whether they are too many
};
inline places_module places;

// Hands out the places of a pass. All passes over the same store must ask for the same pairs in the same order.
// `values` is the array (over places from 1) that the pass works on: elements are called into the cache some places
// ahead.
class place_cursor {
public:
    place_cursor(place_store& store, const array<double>& values);
    // One that only reads, from a mark of a store that has been marked.
    place_cursor(const place_store& store, const array<double>& values, const place_store::mark& from)
        : store_(store), values_(values.data()), at_(from.pairs), reading_(store.complete) {}
    int operator()(int a, int b) {
        if (!reading_ || at_ >= store_.place.size()) return find(a, b);
        const std::size_t next = at_ + ahead < store_.place.size() ? at_ + ahead : at_;
        __builtin_prefetch(values_ + store_.place[next]);
        return store_.place[at_++];
    }
    void mark(const recdata_place& files); // the next subject begins here
    void finish();                         // the pass has met all pairs

private:
    static constexpr std::size_t ahead = 24;
    int find(int a, int b);
    const place_store& store_;
    place_store* filling_ = nullptr;
    const double* values_;
    std::size_t at_ = 0;
    bool reading_ = false;
};

// Fills sparse.diag, xspars for the current eei (or residual classes) and zig, which rinverse and g_inverse have left;
// after setup4mmm. Element (i,nsrow) holds the right-hand side of equation i, diag(nsrow) y'R^-1 y. Sets
// randomvars.detl and, in random regression analyses, residualvars.detres(1). iflag 1: an element has no place in the
// structure, and the store counts as empty; of a random effect that is so under places.lenient, else it stops the run.
void build_mmm(int& iflag);

// Place in xspars of element (a,b) of two different rows (new numbering), 0 if the structure has none. Bisection.
int locate(int a, int b);

// True if only components of the same number are linked within a pair of levels of block irand.
bool links_diagonal(int irand);

} // namespace tarvex
