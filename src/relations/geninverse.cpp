#include "relations/geninverse.h"

#include "control/options.h"
#include "control/tvxroutines.h"
#include "control/warnings.h"
#include "data/levels.h"
#include "parfile/model.h"
#include "relations/nrminverse.h"
#include "support/edit_form.h"
#include "support/plain_text.h"
#include "support/record_file.h"
#include "support/stop.h"
#include "support/text.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace tarvex {

namespace {

struct text_lines {
    std::ifstream in;
    std::string line;
};

// Next line that is not blank, without tabs and carriage returns.
bool next_line(text_lines& text) {
    while (std::getline(text.in, text.line)) {
        std::replace_if(
            text.line.begin(), text.line.end(), [](char c) { return c == '\t' || c == '\r'; }, ' ');
        if (text.line.find_first_not_of(' ') != std::string::npos) return true;
    }
    return false;
}

void open_lines(text_lines& text, const std::string& name) {
    check_text_file(name);
    text.in.open(name);
    if (text.in) skip_mark(text.in);
}

bool get_int(list_reader& list, int& value) {
    long long v = 0;
    if (list.next(v) != list_read::value || v > INT_MAX || v < INT_MIN) return false;
    value = static_cast<int>(v);
    return true;
}

[[noreturn]] void read_error(const std::string& name, int nn) {
    screen().line("***** ERROR : Reading file \"" + name + "\"");
    print_list(screen(), "      Records processed so far :", nn);
    stoptarvex();
}

void check_element(int irand, const inverse_element& e, int nn) {
    if (!std::isfinite(e.value)) {
        print_list(screen(), "Element of the inverse is no finite number : record", nn, "column", e.col, "row", e.row);
        stoptarvex();
    }
    if (e.col > e.row) {
        print_list(screen(), "Column no. > row no.", e.col, e.row);
        print_list(screen(), "*** Generalised inverse should be given as lower ", "triangle ROW-wise !");
        stoptarvex();
    }
    if (e.col < 1) { // the row is not below the column: this test comes first for either of them
        print_list(screen(), "Invalid row no.", e.row);
        stoptarvex();
    }
    if (e.row == e.col && e.value < 0.0)
        print_list(screen(), model.krandom(irand), " - Negative diagonal element ?", e.row, e.value);
}

[[noreturn]] void code_error(const std::string& name, const char* what, int i, int code) {
    print_list(screen(), "***** ERROR : File \"" + name + "\" :", what, i, code);
    stop("error gin.codes");
}

void check_codes(const code_list& codes, const std::string& name) {
    // code and level
    std::vector<std::pair<std::int64_t, int>> sorted;
    for (int l = 1; l <= codes.size(); ++l) sorted.emplace_back(codes(l), l);
    std::sort(sorted.begin(), sorted.end());
    for (std::size_t k = 1; k < sorted.size(); ++k)
        if (sorted[k].first == sorted[k - 1].first)
            code_error(name, "one code for two levels", sorted[k].second, static_cast<int>(sorted[k].first));
}

void read_codes(int irand, const std::string& name, int nlmax) {
    code_list codes(nlmax);
    vector1<char> given(nlmax);
    text_lines text;
    open_lines(text, name);
    int n = 0, range_fault = 0;
    while (next_line(text)) {
        list_reader list(text.line);
        int i = 0, jj = 0;
        if (!get_int(list, i) || !get_int(list, jj)) stop("error gin.codes");
        ++n;
        // first all lines are counted: a wrong number of codes is told before a wrong one
        if (i < 1 || i > nlmax) {
            range_fault = range_fault ? range_fault : i;
            continue;
        }
        if (given(i)) code_error(name, "a level twice", i, jj);
        given(i) = 1;
        codes(i) = jj;
    }
    print_list(screen(), "Have read", n, " codes from \"" + name + "\"");
    if (n != nlmax) {
        screen().line("***** Error : No. of levels/codes disagree ");
        print_list(screen(), "      No. of codes read =", n);
        print_list(screen(), "      No. expected      =", nlmax);
        stoptarvex();
    }
    if (range_fault != 0) code_error(name, "level out of range", range_fault, nlmax);
    check_codes(codes, name);
    levels.rn_codes(irand) = codes;
}

// Widens the level table of an effect whose inverse has more levels than the data.
void gin_levels(int irand, int nlmax) {
    screen().line("***** Found more levels of RE in G-inverse than in data");
    print_list(screen(), "      No. of levels found in data         =", levels.rn_nlev(irand));
    print_list(screen(), "      Maximum row/column no. in G-inverse =", nlmax);
    if (nlmax > levels.rn_maxlev(irand)) {
        screen().line("***** Max. no. of random effects levels is too small");
        print_list(screen(), "      Allowed =", levels.rn_maxlev(irand), "  Need =", nlmax);
        stop_with("      Edit parameter file accordingly & try again !");
    }
    const std::string name = model.krandom(irand) + ".codes";
    if (options.verbose) screen().line("***** Must supply file with codes \"" + name + "\"");
    if (file_exists(name)) {
        read_codes(irand, name, nlmax);
    } else {
        print_list(screen(), "***** No file with additional codes !", name);
        print_list(screen(), "      Assume \"running order\" of 1 to", nlmax);
        screen().line("      -- If this is not true, program will crash later !");
        auto& codes = levels.rn_codes(irand);
        codes.resize(nlmax);
        for (int l = 1; l <= nlmax; ++l) codes(l) = l;
    }
    levels.rn_nlev(irand) = nlmax;
    print_list(screen(), "Max. number of levels for \"" + model.krandom(irand) + "\" set to", nlmax);
}

// An element is given once.
void check_places(const std::vector<inverse_element>& elements, const std::string& name) {
    std::vector<std::uint64_t> places;
    places.reserve(elements.size());
    bool ascending = true;
    for (const auto& e : elements) {
        // (row, column) in one word
        const std::uint64_t place = static_cast<std::uint64_t>(e.row) << 32 | static_cast<std::uint32_t>(e.col);
        ascending = ascending && (places.empty() || place > places.back());
        places.push_back(place);
    }
    // the usual file: no sort
    if (ascending) return;
    std::sort(places.begin(), places.end());
    const auto twice = std::adjacent_find(places.begin(), places.end());
    if (twice == places.end()) return;
    print_list(screen(), "Element of the inverse is given twice : column", static_cast<long long>(*twice & 0xFFFFFFFFu),
               "row", static_cast<long long>(*twice >> 32));
    stop_with("***** ERROR : Reading file \"" + name + "\"");
}

// Levels without a diagonal have no variance. A level of the data without any element is estimated as a fixed one;
// others cannot be estimated. in_data: codes that the data have.
void count_without(int irand, const std::string& name, const code_list& in_data) {
    const int nlev = levels.rn_nlev(irand);
    vector1<char> diagonal(nlev), named(nlev);
    for (const auto& e : gin_store.elements(irand)) {
        named(e.row) = named(e.col) = 1;
        if (e.col == e.row) diagonal(e.row) = 1;
    }
    int n = 0;
    for (int l = 1; l <= nlev; ++l) {
        if (diagonal(l)) continue;
        const auto code = levels.rn_codes(irand)(l);
        // reduced equations need a variance for each level
        const bool fixed = !named(l) && std::binary_search(in_data.begin(), in_data.end(), code);
        if (!fixed || options.principal) {
            print_list(screen(), "Level without a diagonal in the inverse :", l, " code", code);
            stop_with("***** ERROR : Reading file \"" + name + "\"");
        }
        warn("level without a diagonal in the inverse of \"" + model.krandom(irand) + "\", estimated as a fixed one",
             "level " + std::to_string(l) + " of \"" + model.krandom(irand) +
                 "\" has no diagonal in the inverse and is estimated as a fixed one, code " + std::to_string(code));
        ++n;
    }
    geninverse.nwithout(irand) = n;
    if (n > 0 && nlev - n < 2)
        warn("less than two levels with a diagonal in the inverse of \"" + model.krandom(irand) + "\"",
             std::to_string(nlev - n) + " of " + std::to_string(nlev) + " levels of \"" + model.krandom(irand) +
                 "\" with a diagonal in the inverse : its variance cannot be told from so few");
}

[[noreturn]] void no_ginfile(int irand, const std::string& name) {
    screen().line("**** ERROR : cannot locate generalised inverse");
    print_list(screen(), "     Random effect no.", irand, "  \"" + model.krandom(irand) + "\"");
    screen().line("     File with G-inverse expected : \"" + name + "\"");
    stoptarvex();
}

} // namespace

void check_ginverse(int irand) {
    const std::string name = model.krandom(irand) + ".gin";
    if (!file_exists(name)) no_ginfile(irand, name);
    text_lines text;
    // inverses are long: 64 kB at a time
    std::vector<char> buffer(std::size_t{1} << 16);
    text.in.rdbuf()->pubsetbuf(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    open_lines(text, name);
    double detg = 0.0;
    if (!next_line(text) || list_reader(text.line).next(detg) != list_read::value) read_error(name, 0);
    if (!std::isfinite(detg)) {
        print_list(screen(), "Log determinant is no finite number");
        read_error(name, 0);
    }
    if (gin_store.elements.size() < irand) gin_store.elements.resize(irand);
    auto& elements = gin_store.elements(irand);
    elements.clear();
    int nn = 0, nlmax = 0;
    while (next_line(text)) {
        list_reader list(text.line);
        inverse_element e{};
        if (!get_int(list, e.col) || !get_int(list, e.row) || list.next(e.value) != list_read::value || nn == INT_MAX)
            read_error(name, nn);
        if (++nn % 100000 == 0 && options.verbose) print_list(screen(), "Check \"" + name + "\"", nn);
        check_element(irand, e, nn);
        nlmax = std::max(nlmax, e.row);
        elements.push_back(e);
    }
    if (text.in.bad()) read_error(name, nn);
    geninverse.detginv(irand) = detg;
    geninverse.nnginv(irand) = nn;
    if (options.verbose) write(screen(), "(2x,3a,i8)", "File \"", name, "\"  No. records =", nn);
    check_places(elements, name);
    const code_list in_data = levels.rn_codes(irand); // ascending
    if (nlmax > levels.rn_nlev(irand))
        gin_levels(irand, nlmax);
    else if (const std::string codes = model.krandom(irand) + ".codes"; file_exists(codes))
        read_codes(irand, codes, levels.rn_nlev(irand));
    count_without(irand, name, in_data);
}

} // namespace tarvex
