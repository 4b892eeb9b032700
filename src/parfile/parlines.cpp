#include "parfile/parlines.h"

#include "control/options.h"
#include "control/tvxroutines.h"
#include "support/edit_form.h"
#include "support/plain_text.h"
#include "support/text.h"

#include <algorithm>
#include <limits>

namespace tarvex {

namespace {

char at(const par_lines& p, int column) { return p.pline[column - 1]; }

// Left-adjusts to plinelen columns and makes the first token the current one.
void set_line(par_lines& p, std::string_view text) {
    p.pline = trim(text);
    // of full length, so that readers may look at any column without asking for the end
    p.pline.resize(plinelen, ' ');
    p.i1 = 1;
    // i1 to i2-1: the current token; i3: last column that counts
    p.i3 = plinelen;
    p.i2 = 1;
    while (p.i2 <= plinelen && at(p, p.i2) != ' ') ++p.i2;
}

} // namespace

bool open_text(std::ifstream& in, const std::string& name) {
    in.open(name);
    if (in) skip_mark(in);
    // a folder opens, but cannot be read
    if (in) in.peek();
    return in.is_open() && !in.bad();
}

void get_pline(par_lines& p) {
    std::string record;
    while (true) {
        if (!std::getline(p.in, record)) {
            if (p.in.bad()) rdpar_err(p, "File cannot be read to its end");
            p.iend = -1;
            return;
        }
        for (char& c : record)
            if (c == '\t' || c == '\r') c = ' ';
        // the rest of a long line is lost, as the echo shows
        if (record.size() > plinelen) record.resize(plinelen);
        if (!record.empty() && record.front() != comment_char && !trim_right(record).empty()) break;
    }
    set_line(p, record);
    ++p.nline;
    p.iend = 0;
    if (options.verbose) write(screen(), "(2h**,a,2h**)   ", p.pline);
    // key words count in either case; blocks of names switch that off
    if (p.ucase) capitalise(p.pline, 3);
}

void conti_line(par_lines& p) {
    get_pline(p);
    if (p.iend != 0) rdpar_err(p, "Reading covariances failed !");
}

bool next_var(par_lines& p) {
    int j = p.i2;
    // past the current token, past blanks, to the end of the next one
    while (j <= p.i3 && at(p, j) != ' ') ++j;
    while (j <= p.i3 && at(p, j) == ' ') ++j;
    p.i1 = j;
    // no token left: the line stays used up
    p.i2 = plinelen + 1;
    if (j > p.i3) return false;
    while (j <= p.i3 && at(p, j) != ' ') ++j;
    p.i2 = j;
    return true;
}

int next_digit(par_lines& p) {
    if (!next_var(p)) rdpar_err(p, "Missing number !");
    return this_digit(p);
}

int this_digit(const par_lines& p) {
    if (!is_digit(at(p, p.i1))) rdpar_err(p, "Expect digit !");
    int ii = 0;
    if (!read_integer(token(p), ii)) rdpar_err(p, "Something wrong parsing line !");
    return ii;
}

bool read_integer(std::string_view text, int& value) {
    long long v = 0;
    if (list_reader(text).next(v) != list_read::value) return false;
    // unreadable, rather than cut to 32 bits: a code would become another one
    if (v > std::numeric_limits<int>::max() || v < std::numeric_limits<int>::min()) return false;
    value = static_cast<int>(v);
    return true;
}

bool read_real(std::string_view text, double& value) { return list_reader(text).next(value) == list_read::value; }

void end_char(par_lines& p, int from) {
    p.i3 = line_length(p);
    // the last comment sign of the line
    for (int j = p.i3; j >= from; --j)
        if (at(p, j) == comment_char) {
            p.i3 = j - 1;
            return;
        }
}

int find_char(const par_lines& p, char ch) {
    // behind the key word
    const auto j = trim_right(p.pline).find(ch, 3);
    return j == std::string_view::npos ? 0 : static_cast<int>(j) + 1;
}

void drop_head(par_lines& p, int n) { set_line(p, std::string_view(p.pline).substr(std::min(n, plinelen))); }

int line_length(const par_lines& p) { return static_cast<int>(trim_right(p.pline).size()); }

std::string token(const par_lines& p) {
    const int last = std::min(p.i2 - 1, p.i3);
    if (p.i1 > last) return {};
    return p.pline.substr(p.i1 - 1, last - p.i1 + 1);
}

std::string token(const par_lines& p, int length) { return token(p).substr(0, length); }

std::string upper3(std::string_view text) {
    std::string s(text.substr(0, 3));
    capitalise(s, 3);
    return std::string(trim_right(s));
}

void rdpar_err(const par_lines& p, std::string_view text) {
    print_list(screen(), "***** ERROR reading parameter file : ", text);
    if (p.print_curline) print_list(screen(), "Current line : \"", trim(p.pline), "\"");
    stoptarvex();
}

} // namespace tarvex
