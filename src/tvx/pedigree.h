// A user's pedigree: read with any identifiers in any order, checked for all its faults at once, and numbered so that
// parents come before their offspring.
#pragma once
#include "tvx/csv.h"

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tvx {

// Animals in the order in which they were met; parents are places in these arrays, -1 unknown.
struct pedigree {
    std::vector<std::string_view> ids;
    std::vector<int> sire, dam;
    std::vector<std::int64_t> line; // of the animal's own record, 0: it has none
    std::vector<std::string_view> birth;
    std::unordered_map<std::string_view, int> place;
    std::string animal_name, sire_name, dam_name; // of the columns
    bool grandsires = false;                      // the third column holds maternal grandsires
    std::vector<csv_table> tables;                // hold the texts
};

struct pedigree_columns {
    std::string animal, sire, dam, born; // names; blank: found, or the first three
    std::vector<std::string> hints;      // names that a heading may have
};

// Place of an identifier, which is added if it is new.
int pedigree_place(pedigree& p, std::string_view id);

// Reads the pedigree and checks it. Faults, all of them, with their lines: animals without identifier, own parent, used
// as both sexes, two parentages, loops as chains 12 -> 40 -> 7 -> 12, parents born after their offspring.
// remarks: what a user should know but need not change.
pedigree read_pedigree(const std::string& file, const pedigree_columns& columns, const na_texts& na, bool grandsires,
                       std::vector<std::string>& remarks);

// Codes from 1 for the animals marked in `keep`, in the order of generations, within them of identifiers; 0 for others.
// The pedigree has no loop.
std::vector<int> pedigree_codes(const pedigree& p, const std::vector<char>& keep);
// Marks all ancestors of the animals marked.
void mark_ancestors(const pedigree& p, std::vector<char>& keep);

// Pedigree of sires: for each animal its sire and the sire of its dam.
pedigree sire_pedigree(const pedigree& p);

// Order of identifiers: numbers within them by value, so that A9 comes before A10.
bool before(std::string_view a, std::string_view b);
// Identifiers that differ in case, blanks or leading zeros only, as pairs "A1" and "a1".
std::vector<std::string> near_twins(const std::vector<std::string_view>& ids);

} // namespace tvx
