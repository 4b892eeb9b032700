// Reading of the pedigree file and the sorted list of all animals. Parents must have smaller codes than their
// offspring, so that every later step can walk the list in one direction.
#include "data/pedigrees.h"

#include "control/filenames.h"
#include "control/limits.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "control/warnings.h"
#include "data/nrmcodes.h"
#include "parfile/model.h"
#include "support/edit_form.h"
#include "support/plain_text.h"
#include "support/record_file.h"
#include "support/stop.h"
#include "support/text.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>
#include <vector>

namespace tarvex {

namespace {

using pedrec = std::array<int, 3>; // animal, sire, dam

// Codes met so far; all lie between 1 and maxan.
struct code_marks {
    std::vector<char> seen; // [code]
    int n = 0, largest = 0;
};

// held: the line that ended the comments is the first record
bool next_line(ped_reader& reader) {
    if (reader.held) {
        reader.held = false;
        return true;
    }
    if (!std::getline(reader.in, reader.line)) return false;
    ++reader.nlines;
    std::replace_if(
        reader.line.begin(), reader.line.end(), [](char c) { return c == '\t' || c == '\r'; }, ' ');
    return true;
}

void add_list(code_marks& marks, long long id) {
    if (id > maxan) print_list(screen(), "Code of an animal is above the largest one allowed :", id, maxan);
    if (id > maxan || id < 1) stop_with("Error reading pedigrees : invalid animal ID");
    marks.largest = std::max(marks.largest, static_cast<int>(id));
    const std::size_t code = id;
    // codes may be sparse, but are at most maxan: a flag each
    if (code >= marks.seen.size()) marks.seen.resize(std::max(2 * code, std::size_t{1024}));
    if (marks.seen[code] == 0) ++marks.n;
    marks.seen[code] = 1;
}

[[noreturn]] void pedigree_error(int nrecords) {
    print_list(screen(), "***** ERROR in pedigree file", nrecords);
    stoptarvex();
}

// Records of the user's file as they are read; the reduced one has each animal once.
struct ped_records {
    std::vector<pedrec> all;
    std::vector<int> lines;  // of each record
    std::vector<int> firsts; // [code] first record of an animal, 0: none yet
};

// An animal has one line. A second one with the same parents does no harm.
void check_repeat(ped_records& records, int line) {
    records.lines.push_back(line);
    const pedrec& r = records.all.back();
    const int n = static_cast<int>(records.all.size());
    const std::size_t code = r[0];
    if (code >= records.firsts.size()) records.firsts.resize(std::max(2 * code, std::size_t{1024}));
    int& first = records.firsts[code];
    if (first == 0) first = n;
    const std::size_t k = first - 1;
    // compared with the first line of the animal, which is this one when it is new
    if (records.all[k] == r) {
        if (options.allped && first < n) warn_repeat(r[0], records.lines[k], line); // else told by reducepeds
        return;
    }
    print_list(screen(), "Animal is in the pedigree twice, with other parents :", r[0], " lines", records.lines[k],
               "and", line);
    pedigree_error(n);
}

// Reads and checks all records; their codes go into the list.
std::vector<pedrec> read_pedigree(code_marks& marks) {
    const bool reduced = filenames.pedfile == filenames.newpedfile;
    ped_records records;
    ped_reader reader;
    open_pedfile(reader);
    long long ian = 0, idad = 0, imum = 0;
    int n = 0;
    while (const int status = next_pedrec(reader, ian, idad, imum)) {
        ++n;
        if (status < 0) pedigree_error(n);
        if (options.verbose && n % 10000 == 0) print_list(screen(), "Pedigree file : at record", n);
        if (const char* fault = pedrec_fault(ian, idad, imum)) {
            // a code is told only where it is what is wrong
            if (ian > 0 && std::min(idad, imum) >= 0 && std::max(idad, imum) > ian)
                print_list(screen(), fault, ian, idad, imum);
            else
                screen().line(fault);
            pedigree_error(n);
        }
        add_list(marks, ian);
        if (idad > 0) add_list(marks, idad);
        if (imum > 0) add_list(marks, imum);
        records.all.push_back({static_cast<int>(ian), static_cast<int>(idad), static_cast<int>(imum)});
        if (!reduced) check_repeat(records, reader.nlines);
    }
    if (n == 0 && !reduced) { // the reduced one is empty if no animal has records
        print_list(screen(), "Pedigree file without a record : \"" + filenames.pedfile + "\"");
        pedigree_error(n);
    }
    return std::move(records.all);
}

void make_idvec(const code_marks& marks) {
    pedigreelist.nanim = marks.n;
    allocate("alloc IDVEC", pedigreelist.idvec, marks.n);
    int n = 0;
    // flags in order of codes: the list is sorted as it is made
    for (int id = 1; id <= marks.largest; ++id)
        if (marks.seen[id] != 0) pedigreelist.idvec(++n) = id;
}

// Running number of a parent, and the test that it has not been met in the other role (1 sire, 2 dam).
int parent_number(int id, int role) {
    if (id < 1) return 0;
    const int j = find_anim(id);
    int& sex = pedigreelist.isex(j);
    if (sex == 0) sex = role;
    if (sex != role && !options.selfing && !options.siremodel) {
        print_list(screen(), "***** ERROR in pedigree : Parent occurs as both sire & dam", id);
        stoptarvex();
    }
    return j;
}

void make_jdvec(const std::vector<pedrec>& records) {
    allocate("alloc JDVEC", pedigreelist.jdvec, 2, pedigreelist.nanim);
    allocate("alloc isex", pedigreelist.isex, pedigreelist.nanim);
    for (const auto& [ian, idad, imum] : records) {
        const int i = find_anim(ian);
        // running numbers keep the order of codes: parents before offspring
        pedigreelist.jdvec(1, i) = parent_number(idad, 1);
        pedigreelist.jdvec(2, i) = parent_number(imum, 2);
    }
    pedigreelist.isex.deallocate();
}

} // namespace

void open_pedfile(ped_reader& reader) {
    const std::string& name = filenames.pedfile;
    if (!file_exists(name)) {
        screen().line("Looking for pedigree file : \"" + name + "\" ...");
        stop_with(" ... file doesn't seem to exist !");
    }
    check_text_file(name);
    reader.in.open(name);
    // a byte order mark is not part of the first code
    if (reader.in) skip_mark(reader.in);
    if (!reader.in) {
        screen().line("Trying to open pedigree file : \"" + name + "\"");
        stop_with(" ... cannot open file as specified !");
    }
    int n = 0;
    reader.held = false;
    reader.nlines = 0;
    while (next_line(reader)) {
        if (reader.line.empty() || reader.line[0] != comment_char) {
            reader.held = true;
            break;
        }
        ++n;
    }
    if (options.verbose) write(screen(), "(3a,i3,a)   ", "\"", name, "\" : skipping first", n, " lines");
}

int next_pedrec(ped_reader& reader, long long& ian, long long& idad, long long& imum) {
    while (next_line(reader)) {
        list_reader list(reader.line);
        if (list.at_end()) continue;
        for (long long* value : {&ian, &idad, &imum})
            if (list.next(*value) != list_read::value) return -1;
        return 1;
    }
    return reader.in.bad() ? -1 : 0;
}

const char* pedrec_fault(long long ian, long long idad, long long imum) {
    if (ian < 1) return "Invalid animal ID";
    if (idad < 0) return "Invalid sire ID  ";
    if (imum < 0) return "Invalid dam ID   ";
    if (idad > ian || imum > ian) return "Animal ID smaller than parent ID";
    if (options.siremodel) return nullptr;
    if (idad == ian) return "Animal and sire ID identical";
    if (imum == ian) return "Animal and dam ID identical ";
    if (!options.selfing && idad > 0 && imum == idad) return "Sire and dam ID identical  ";
    return nullptr;
}

void warn_repeat(long long ian, int line1, int line2) {
    warn("animal twice in the pedigree", "animal " + std::to_string(ian) + " is in the pedigree twice, lines " +
                                             std::to_string(line1) + " and " + std::to_string(line2) +
                                             ", with the same parents");
}

int find_anim(int id) {
    const auto first = pedigreelist.idvec.begin(), last = first + pedigreelist.nanim;
    // Codes are distinct whole numbers from 1: one stands no later than its value tells, and leaves no more places
    // behind it than there are numbers up to the last code.
    const long long n = pedigreelist.nanim, behind = n > 0 ? pedigreelist.idvec(n) - static_cast<long long>(id) : 0;
    // codes without gaps: the place is known and nothing is searched
    const long long from = std::clamp(n - 1 - behind, 0LL, n), to = std::clamp<long long>(id, from, n);
    const auto at = std::lower_bound(first + from, first + to, id);
    const int i = static_cast<int>(at - first) + 1;
    if (at != last && *at == id) return i;
    screen().line("Error in \"find_anim\" : animal/dam code not found !");
    print_list(screen(), "ID in data =", id);
    for (int j = std::max(1, i - 1); j <= std::min(i, pedigreelist.nanim); ++j)
        print_list(screen(), "pedigree list", j, pedigreelist.idvec(j));
    stoptarvex();
}

void pedigree_list() {
    constexpr edit_form fmt{"(1x,a,t45,1h=,i10)"};
    text_out out;
    if (!out.open(filenames.sumpedfile)) stop_with("Cannot open file \"" + filenames.sumpedfile + "\"");
    write_tvxtop(out, "Summary of Pedigree Information", options.wide);
    write_tvxfiles(out);
    code_marks marks;
    // animals of the data first, then those of the pedigree: the list holds both
    visit_nrm_codes([&](int, std::int64_t icode) { add_list(marks, icode); }, true);
    write(out, fmt, "No. of animal IDs in data file =", marks.n);
    if (options.details) print_list(screen(), "No. of animal IDs in data file =", marks.n);
    const std::vector<pedrec> records = read_pedigree(marks);
    make_idvec(marks);
    write(out, fmt, "No. of animal IDs in total     =", marks.n);
    if (options.details) print_list(screen(), "No. of animal IDs in total     =", marks.n);
    make_jdvec(records);
    print_list(screen(), "Pedigree file                  =   ", filenames.pedfile);
    print_list(screen(), "Total no. of animal IDs found  =", pedigreelist.nanim);
}

} // namespace tarvex
