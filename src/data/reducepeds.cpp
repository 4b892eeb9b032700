// Closure of the animals with data under "is a parent of". Codes get running numbers in the order in which they are
// met, in the data first and then in the pedigree; the marks walk from the animals with data to all their ancestors
// over a stack.
#include "data/reducepeds.h"

#include "control/filenames.h"
#include "control/limits.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/nrmcodes.h"
#include "data/pedigrees.h"
#include "parfile/randasfix.h"
#include "support/edit_form.h"
#include "support/hash_map.h"
#include "support/stop.h"

#include <algorithm>
#include <array>
#include <new>
#include <vector>

namespace tarvex {

namespace {

constexpr int maxhash = 524827; // distinct codes that can be held

struct hash_tables {
    std::vector<int> number;                  // [code] running number of a code up to maxan, 0: not met
    hash_map<int> large;                      // those of larger codes, which pedigree_list will refuse
    std::vector<std::array<long long, 3>> id; // [number-1] codes of animal, sire, dam; last record of an animal
    std::vector<int> listed;                  // [number-1] line of the animal's first record, 0: none yet
    int nlevels[2] = {};                      // codes in the data, in total
};

void more_room(hash_tables& tables) {
    const std::size_t n = std::clamp(2 * tables.id.size(), std::size_t{1024}, std::size_t{maxhash});
    try {
        tables.id.reserve(n);
    } catch (const std::bad_alloc&) {
        stop("alloc hashtabs");
    }
}

// Place for the running number of a code.
int& number_of(hash_tables& tables, long long code) {
    // a table by code would be too long
    if (code > maxan) return tables.large[static_cast<std::uint64_t>(code)];
    auto& number = tables.number;
    const std::size_t c = code;
    if (c >= number.size()) number.resize(std::max(2 * c, std::size_t{1024}));
    return number[c];
}

int hash_code(hash_tables& tables, long long code) {
    int& number = number_of(tables, code);
    if (number != 0) return number;
    if (tables.id.size() == maxhash) stop("HASH : increase size");
    if (tables.id.size() == tables.id.capacity()) more_room(tables);
    tables.id.push_back({code, 0, 0});
    return number = static_cast<int>(tables.id.size());
}

// Enters all records; false if one of them is faulty, which pedigree_list then has to tell.
bool read_records(hash_tables& tables) {
    bool sound = true;
    ped_reader reader;
    open_pedfile(reader);
    long long ian = 0, idad = 0, imum = 0;
    while (const int status = next_pedrec(reader, ian, idad, imum)) {
        if (status < 0 && reader.in.bad()) stop_with("Error reading file \"" + filenames.pedfile + "\"");
        if (status < 0) return false;
        // faults are not told here: that the list does, with the line
        if (pedrec_fault(ian, idad, imum) != nullptr || ian > maxan) sound = false;
        if (ian > 0) {
            const int i = hash_code(tables, ian);
            auto& id = tables.id[i - 1];
            if (tables.listed.size() < tables.id.size()) tables.listed.resize(2 * tables.id.size());
            int& line = tables.listed[i - 1];
            if (line > 0 && (id[1] != idad || id[2] != imum))
                sound = false;
            else if (line > 0)
                warn_repeat(ian, line, reader.nlines);
            if (line == 0) line = reader.nlines;
            // the last line counts; unsound pedigrees are not reduced
            id = {ian, idad, imum};
        }
        if (idad > 0) hash_code(tables, idad);
        if (imum > 0) hash_code(tables, imum);
    }
    return sound;
}

// Animals that the user treats as fixed stay, with or without records.
void mark_pseudofixed(hash_tables& tables, std::vector<char>& mm) {
    for (const int code : randasfix.psfixcode) {
        if (code < 1) continue;
        const int number = number_of(tables, code);
        if (number > 0) mm[number - 1] = 1;
    }
}

// Carries the marks up to all ancestors; returns the number of marks. nback: parents visited.
int mark_ancestors(hash_tables& tables, std::vector<char>& mm, int& nback) {
    std::vector<int> todo;
    int n = 0;
    for (std::size_t i = 0; i < mm.size(); ++i)
        if (mm[i] != 0) {
            todo.push_back(static_cast<int>(i));
            ++n;
        }
    while (!todo.empty()) {
        const int i = todo.back();
        todo.pop_back();
        for (int j = 1; j <= 2; ++j) {
            const long long code = tables.id[i][j];
            if (code < 1) continue;
            ++nback;
            const int k = number_of(tables, code) - 1;
            // each animal is put on the stack once
            if (mm[k] != 0) continue;
            mm[k] = 1;
            ++n;
            todo.push_back(k);
        }
    }
    return n;
}

void write_newped(const hash_tables& tables, const std::vector<char>& mm) {
    text_out out;
    const std::string& name = filenames.newpedfile;
    if (!out.open(name)) stop_with("Cannot open file \"" + name + "\"");
    for (std::size_t i = 0; i < mm.size(); ++i)
        if (mm[i] != 0) write(out, "(3i16)  ", tables.id[i][0], tables.id[i][1], tables.id[i][2]);
    if (!out.close()) stop_with("Error writing file \"" + name + "\"");
    screen().line("Found redundant animals in pedigree");
    screen().line(" ... wrote file \"" + name + "\"");
    filenames.pedfile = name;
}

} // namespace

void reducepeds() {
    hash_tables tables;
    visit_nrm_codes([&](int, std::int64_t icode) {
        if (icode > 0) hash_code(tables, icode);
    });
    // codes 1..nlevels[0] are those of the data
    tables.nlevels[0] = static_cast<int>(tables.id.size());
    if (options.verbose) print_list(screen(), "No. of animal IDs in data =", tables.nlevels[0]);
    const bool sound = read_records(tables);
    tables.nlevels[1] = static_cast<int>(tables.id.size());
    std::vector<char> mm(tables.id.size());
    std::fill(mm.begin(), mm.begin() + tables.nlevels[0], char{1});
    if (options.pseudofix) mark_pseudofixed(tables, mm);
    int nback = 0;
    // a faulty pedigree goes on as it is, to be told by pedigree_list
    const int nmark = sound ? mark_ancestors(tables, mm, nback) : tables.nlevels[1];
    if (options.details) {
        print_list(screen(), "ReducePeds : no. of animals =", tables.nlevels[0], nmark, 1, nback);
        print_list(screen(), "No. of animal IDs  =", nmark);
    }
    if (options.verbose) print_list(screen(), "Total no. of animal IDs  =", tables.nlevels[1]);
    // nothing to leave out: the user's own file is read
    if (nmark < tables.nlevels[1]) write_newped(tables, mm);
}

} // namespace tarvex
