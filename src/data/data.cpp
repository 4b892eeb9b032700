// Reading of the data file: one line a record, numbers taken straight from a large buffer, as the file is read several
// times in a run.
#include "data/data.h"

#include "control/filenames.h"
#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "control/warnings.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/edit_form.h"
#include "support/plain_text.h"
#include "support/record_file.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

namespace tarvex {

namespace {

constexpr std::size_t first_chunk = std::size_t{1} << 14, largest_chunk = std::size_t{1} << 18;

// Next line as [b, e), without its end; an unfinished last line counts. False at the end of the file.
bool next_line(data_reader& reader, const char*& b, const char*& e) {
    // looked: part of the line that has been searched already
    for (std::size_t looked = 0;;) {
        const std::size_t have = reader.end - reader.at;
        char* start = reader.buffer.data() + reader.at;
        if (void* nl = have > looked ? std::memchr(start + looked, '\n', have - looked) : nullptr) {
            b = start;
            e = static_cast<const char*>(nl);
            reader.at += e - b + 1;
            ++reader.nlines;
            return true;
        }
        looked = have;
        // what is left of a line goes to the head of the buffer
        if (have > 0 && reader.at > 0) std::memmove(reader.buffer.data(), start, have);
        reader.at = 0;
        reader.end = have;
        // the buffer doubles up to a limit, and goes on growing by that for a line that is longer still
        const std::size_t chunk = std::clamp(2 * reader.buffer.size(), first_chunk, largest_chunk);
        if (reader.buffer.size() < have + chunk) reader.buffer.resize(have + chunk);
        std::streamsize got = 0;
        if (reader.in) {
            reader.in.read(reader.buffer.data() + have, static_cast<std::streamsize>(chunk));
            got = reader.in.gcount();
        }
        if (reader.in.bad()) data_error(reader.ndatrec); // in this read or in the look for a byte order mark
        reader.end += got;
        // an unfinished last line
        if (got == 0) {
            if (have == 0) return false;
            b = reader.buffer.data();
            e = b + have;
            reader.at = reader.end;
            ++reader.nlines;
            return true;
        }
    }
}

bool blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// One token that the fast conversion does not take: a leading plus, a D exponent, a value out of range.
bool slow_number(const char* b, const char* e, double& x) {
    std::string text(b, e);
    for (char& c : text) {
        if (c == 'd' || c == 'D') c = 'e';
        if (!std::strchr("0123456789+-.eE", c)) return false;
    }
    char* last = nullptr;
    x = std::strtod(text.c_str(), &last);
    return !text.empty() && *last == '\0' && std::isfinite(x);
}

// Takes the next number of a line off [p, e). False if there is none or the token is no number.
bool take_number(const char*& p, const char* e, double& x) {
    while (p < e && blank(*p)) ++p;
    if (p == e) return false;
    const char* last = p;
    bool plain = false;
    // numbers as they usually are; everything else goes the slow way
    if ((*p >= '0' && *p <= '9') || *p == '-' || *p == '.') {
        const auto [end, fault] = std::from_chars(p, e, x);
        last = end;
        plain = fault == std::errc() && (end == e || blank(*end) || *end == ',') && std::isfinite(x);
    }
    if (!plain) {
        for (last = p; last < e && !blank(*last) && *last != ',';) ++last;
        if (!slow_number(p, last, x)) return false;
    }
    p = last;
    while (p < e && blank(*p)) ++p;
    if (p < e && *p == ',') ++p;
    return true;
}

// Opens without counting comment lines.
void open_stream(data_reader& reader) {
    const std::string& name = filenames.datfile;
    if (!file_exists(name)) {
        print_list(screen(), "Looking for data file : \"" + name + "\" ...");
        print_list(screen(), "***** ERROR : cannot find data file *****");
        stoptarvex();
    }
    // a second pass begins anew: flags of the first one's end go too
    reader.in.close();
    reader.in.clear();
    reader.in.open(name, std::ios::in | std::ios::binary);
    if (!reader.in) {
        print_list(screen(), "Trying to open  data file : \"" + name + "\" ...");
        print_list(screen(), "***** ERROR : opening data file *****");
        stoptarvex();
    }
    skip_mark(reader.in);
    reader.at = reader.end = 0;
    reader.ndatrec = reader.nlines = 0;
}

} // namespace

void open_datfile(data_reader& reader) {
    open_stream(reader);
    int& nskip_drecs = datalines.nskip_drecs;
    if (nskip_drecs < 0) check_text_file(filenames.datfile);
    const char *b = nullptr, *e = nullptr;
    if (nskip_drecs < 0) {
        int n = 0;
        // lines that begin with # at the head of the file; the stream begins anew behind the look at them
        while (next_line(reader, b, e) && b < e && *b == '#') ++n;
        nskip_drecs = n;
        if (options.verbose)
            print_list(screen(), "\"" + filenames.datfile + "\" : skipping first", nskip_drecs, " lines");
        open_stream(reader);
    }
    for (int i = 1; i <= nskip_drecs; ++i)
        if (!next_line(reader, b, e)) break;
}

void data_error(int ndatrec) {
    print_list(screen(), "***** ERROR : reading data file *****");
    write(screen(), "(a,i7)  ", "      No. of records read successfully =", ndatrec);
    stoptarvex();
}

bool is_missing(int iq, double y) { return y == static_cast<double>(datafile.missvalue[iq]); }

namespace {

// A comma between two digits is a decimal comma or parts two values: nobody can tell.
void check_commas(const data_reader& reader, const char* b, const char* e) {
    if (!std::memchr(b, ',', e - b)) return;
    const int column = comma_in_number(std::string_view(b, e - b));
    if (column == 0) return;
    print_list(screen(), "Comma between two digits : line", reader.nlines, "column", column);
    print_list(screen(), "      Write a point in numbers, and a blank behind a comma that parts them");
    data_error(reader.ndatrec);
}

// Lines of traits outside the analysis are passed over; those of traits that nobody has described are told.
void check_trait_number(const data_reader& reader, double number) {
    if (options.renumbered || datafile.grouped || !(std::fabs(number) < 1.0e15)) return;
    if (number >= 1.0 && number <= maxnq && datafile.ndatcol[static_cast<int>(number)] > 0) return;
    if (number >= 1.0 && number <= numbers.nq) return;
    if (reader.nlines <= datalines.told_to) return; // in an earlier pass
    datalines.told_to = reader.nlines;
    warn("record of a trait that the parameter file does not describe",
         "record passed over, trait number " + std::to_string(static_cast<long long>(number)) +
             " is not described in the parameter file : line " + std::to_string(reader.nlines));
}

} // namespace

bool getrec_dvec(data_reader& reader, array<double>& dvec, int& iq, bool& iskip) {
    const char *p = nullptr, *e = nullptr;
    do {
        if (!next_line(reader, p, e)) return false;
        check_commas(reader, p, e);
        while (p < e && blank(*p)) ++p;
    } while (p == e);
    iskip = false;
    iq = 0;
    int first = 1;
    // columns of a record, by the set of the trait
    int last = datafile.ndatcol[1];
    if (!mudmap.alltraits) {
        double number = 0.0;
        // the first column is the trait
        if (!take_number(p, e, number) || number != std::trunc(number)) data_error(reader.ndatrec);
        const bool known = number >= 1.0 && number <= 99.0;
        if (known) iq = datafile.iq_newno[static_cast<int>(number)];
        if (known && !options.renumbered) iq = static_cast<int>(number);
        if (iq < 1 || iq > numbers.nq) { // columns of a trait outside the analysis are not known
            check_trait_number(reader, number);
            iskip = true;
            ++reader.ndatrec;
            return true;
        }
        dvec(1) = iq;
        first = 2;
        last = datafile.ndatcol[column_set(iq)];
    }
    for (int i = first; i <= last; ++i)
        if (!take_number(p, e, dvec(i))) data_error(reader.ndatrec);
    ++reader.ndatrec;
    if (!mudmap.alltraits) {
        // a line without an observation
        iskip = is_missing(iq, dvec(mudmap.tr_dcolno(iq)));
        return true;
    }
    iskip = true;
    for (int jq = 1; jq <= numbers.nq; ++jq)
        if (!is_missing(jq, dvec(mudmap.tr_dcolno(jq)))) iskip = false;
    return true;
}

std::int64_t effect_code(const array<double>& dvec, int icol, int icol2, std::int64_t base) {
    constexpr double limit = 2147483648.0;
    const double x = dvec(icol);
    // not finite, or beyond 32 bits: no code
    if (!(std::fabs(x) < limit)) return -1;
    // decimals are cut off
    const auto icode = static_cast<std::int64_t>(x);
    if (icol2 <= 0) return icode;
    const double y = dvec(icol2);
    if (!(std::fabs(y) < limit)) return -1;
    const auto icode2 = static_cast<std::int64_t>(y);
    // the product must fit into 64 bits
    if (icode < 0 || icode2 < 0 || icode > (INT64_MAX - icode2) / base) return -1;
    return icode * base + icode2;
}

bool starts_subject(subject_run& run, const array<double>& dvec, int iq) {
    const int icol = mudmap.subj_dcolno(iq > 0 ? iq : 1);
    // every line a subject of its own
    const bool own = icol < 1 || (options.siremodel && mudmap.alltraits) || mudmap.subject == subject_rule::line;
    // subjects stand together in the file: a change of the code begins the next
    const std::int64_t icode = own ? 0 : effect_code(dvec, icol, 0, 1);
    const bool starts = own || !run.open || icode != run.icode;
    run.open = !own;
    run.icode = icode;
    return starts;
}

} // namespace tarvex
