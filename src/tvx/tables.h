// Tables of text with tabs between their columns, and files that are written whole or not at all.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace tvx {

// Whole text of a file; a file that cannot be read is a fault.
std::string read_text(const std::string& file);
// Writes a file under a temporary name and renames it when it is complete; a full disk is a fault.
void write_text(const std::string& file, std::string_view text);

// A field of a table: tab, line end and backslash are written as \t, \n, \r, \\ .
void put_field(std::string& out, std::string_view text);
std::string plain_field(std::string_view field);
// Lines of a table behind its heading, split at tabs; fields are not yet freed of their backslashes (plain_field). They
// are views into `text`, which has to outlive them; an empty line is one empty field.
std::vector<std::vector<std::string_view>> table_lines(std::string_view text);

} // namespace tvx
