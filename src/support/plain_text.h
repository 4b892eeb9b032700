// Text files that users bring: what makes them unreadable as lines, and the byte order mark at their head.
#pragma once
#include <istream>
#include <string>
#include <string_view>

namespace tarvex {

// Why the file cannot be read as lines of text: UTF-16, or lines that end with a carriage return alone. Null for one
// that can be read, and for one that is not there.
const char* text_fault(const std::string& name);
// Passes over a UTF-8 byte order mark at the head of the stream.
void skip_mark(std::istream& in);
// First column (from 1) of a comma that stands between two digits, 0 if there is none: a decimal comma, or two values
// that nobody can tell from one.
int comma_in_number(std::string_view line);

} // namespace tarvex
