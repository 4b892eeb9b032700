// Reading of a user's table: separator, decimal comma, byte order mark and heading are found, cells are freed of the
// blanks around them.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tvx {

struct csv_table {
    std::string file;
    std::string sum; // 16 hexadecimal digits over its bytes
    char separator = ',';
    bool decimal_comma = false;
    bool heading = true;            // the first line names the columns
    std::vector<std::string> names; // "1", "2", .. without a heading
    std::size_t rows = 0;
    std::vector<std::string_view> cells; // row by row
    std::vector<std::int64_t> lines;     // line of each row in the file
    std::shared_ptr<std::string> text;   // holds the cells
    std::string_view at(std::size_t row, std::size_t col) const { return cells[row * names.size() + col]; }
};

// found: the first line names the columns if it holds a usual name (animal, sire, ..) or one of the hints, or text
// above a column of numbers; else it is a record.
enum class csv_heading { needed, found };

// Reads a table. Everything that makes it no table is a fault with its place: empty, heading only, two columns of one
// name, lines of other lengths, quotes that are not closed, bytes that are no UTF-8, with `needed` a heading of
// numbers.
csv_table read_csv(const std::string& file, csv_heading heading, const std::vector<std::string>& hints = {});

// Column of a name; none is a fault, with the nearest name as a hint. `what` says who asks: "formula", "--born".
std::size_t csv_column(const csv_table& t, const std::string& name, const std::string& what);
// As csv_column, but -1 if there is none.
int csv_find(const csv_table& t, std::string_view name);

// Texts of a missing value. Without a list: empty, NA, N/A, NaN, ., ?, NULL and their like.
struct na_texts {
    std::vector<std::string> more; // of --na, beside the usual ones
    bool missing(std::string_view cell) const;
};

// Number of a cell: plain decimals with or without exponent, decimal comma where the table has it.
bool csv_number(const csv_table& t, std::string_view cell, double& x);
// The same times 10^-power, rounded once.
bool csv_number(const csv_table& t, std::string_view cell, int power, double& x);

// Reads the words of a list parted by commas; blanks around them do not count.
std::vector<std::string> word_list(const std::string& text);
// The name of the list that a mistyped word probably means; blank if none is near.
std::string nearest_name(const std::string& word, const std::vector<std::string>& names);
// Text of a fault or remark: up to `most` lines, then how many more there are.
std::string few_lines(const std::vector<std::string>& lines, std::size_t most = 10);
// Text of a cell for a message: in quotes, cut behind 40 bytes.
std::string shown(std::string_view cell);

} // namespace tvx
