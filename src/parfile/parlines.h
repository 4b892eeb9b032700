// The lowest layer of the parameter file: how a line is taken, cut into tokens, and how an error in it is told.
//
// A line is left-adjusted text of plinelen columns; columns count from 1. A token is what stands between blanks. What
// is behind column plinelen of the file is lost without a message.
#pragma once
#include "control/limits.h"

#include <fstream>
#include <string>
#include <string_view>

namespace tarvex {

struct par_lines {
    std::ifstream in;
    std::string pline = std::string(plinelen, ' '); // current line
    int i1 = 1, i2 = 1;                             // first column of the current token, column behind its last
    int i3 = plinelen;         // last column in which tokens are looked for (end of the value part)
    int nline = 0;             // lines taken so far, comment lines not counted
    int iend = 0;              // not 0: end of the file
    bool ucase = true;         // letters among the first three characters go to upper case
    bool print_curline = true; // errors show the line
};

// Opens a text file and passes over its byte order mark; false where there is none that can be read (a directory opens,
// but cannot be read).
bool open_text(std::ifstream& in, const std::string& name);
// Takes the next line that counts; iend is set at the end of the file. Lines with "#" in column 1 and blank ones are
// passed over; tabs and carriage returns count as blanks. The first token becomes the current one.
void get_pline(par_lines& p);
// Next line of a list of values; the end of the file is an error.
void conti_line(par_lines& p);
// Moves on to the next token; false if there is no further one up to column i3, and the line is used up then.
bool next_var(par_lines& p);
// Next token as a whole number, read list-directed; faults are errors.
int next_digit(par_lines& p);
// The same for the current token.
int this_digit(const par_lines& p);
// The first value of `text` as a whole number, read list-directed; false if it cannot be read.
bool read_integer(std::string_view text, int& value);
// As above for a real, D or E exponents.
bool read_real(std::string_view text, double& value);
// Sets i3 in front of the last "#" at or behind column `from`, or to the end of the line.
void end_char(par_lines& p, int from);
// Column of ch from column 4 on, 0 if there is none.
int find_char(const par_lines& p, char ch);
// Takes n columns off the head of the line and left-adjusts the rest.
void drop_head(par_lines& p, int n);

int line_length(const par_lines& p);               // trimmed
std::string token(const par_lines& p);             // current token up to column i3, empty if none is left
std::string token(const par_lines& p, int length); // cut to `length` characters
std::string upper3(std::string_view text);         // first three characters in upper case, without trailing blanks

// "***** ERROR reading parameter file : ", the text and the current line; stops as stoptarvex.
[[noreturn]] void rdpar_err(const par_lines& p, std::string_view text);

inline constexpr int name_length = 20, file_length = 30, covname_length = 14;

} // namespace tarvex
