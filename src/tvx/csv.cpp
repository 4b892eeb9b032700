#include "tvx/csv.h"

#include "tvx/commands.h"
#include "tvx/tables.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <csv.h>
#include <unordered_map>

namespace tvx {

namespace {

// In the manner of FNV-1a, but eight bytes at a time. It finds files that were changed by mistake, not forgeries.
// study.json keeps it: it must stay as it is.
std::string sum_of(std::string_view text) {
    std::uint64_t h = 14695981039346656037ULL;
    std::size_t i = 0;
    for (; i + 8 <= text.size(); i += 8) {
        std::uint64_t word;
        std::memcpy(&word, text.data() + i, 8);
        h = (h ^ word) * 1099511628211ULL;
        h ^= h >> 29;
    }
    for (; i < text.size(); ++i) h = (h ^ static_cast<unsigned char>(text[i])) * 1099511628211ULL;
    h = (h ^ text.size()) * 1099511628211ULL;
    char hex[17];
    std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(h));
    return hex;
}

std::string_view trimmed(std::string_view s) {
    const auto blank = [](char c) { return c == ' ' || c == '\t'; };
    while (!s.empty() && blank(s.front())) s.remove_prefix(1);
    while (!s.empty() && blank(s.back())) s.remove_suffix(1);
    return s;
}

// Length of the UTF-8 character at i, 0 if it is none.
std::size_t utf8_length(std::string_view s, std::size_t i) {
    const auto byte = [&](std::size_t k) { return i + k < s.size() ? static_cast<unsigned char>(s[i + k]) : 0u; };
    const auto follows = [&](std::size_t k) { return (byte(k) & 0xC0u) == 0x80u; };
    const unsigned b = byte(0);
    if (b < 0x80) return 1;
    if (b >= 0xC2 && b < 0xE0) return follows(1) ? 2 : 0;
    // neither longer than need be, nor half of a pair
    if (b >= 0xE0 && b < 0xF0) {
        const bool shortest = b != 0xE0 || byte(1) >= 0xA0, no_surrogate = b != 0xED || byte(1) < 0xA0;
        return follows(1) && follows(2) && shortest && no_surrogate ? 3 : 0;
    }
    if (b >= 0xF0 && b < 0xF5) {
        const bool range = (b != 0xF0 || byte(1) >= 0x90) && (b != 0xF4 || byte(1) < 0x90);
        return range && follows(1) && follows(2) && follows(3) ? 4 : 0;
    }
    return 0;
}

void check_bytes(const std::string& file, std::string_view text) {
    if (text.starts_with("\xff\xfe") || text.starts_with("\xfe\xff"))
        throw fault{"\"" + file + "\" is written in UTF-16: save it as UTF-8 (iconv -f utf-16 -t utf-8)"};
    // a NUL is valid UTF-8, but no text: it is how a binary file shows itself
    std::int64_t line = 1;
    std::size_t start = 0;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t n = utf8_length(text, i);
        if (n == 0 || text[i] == '\0')
            throw fault{"\"" + file + "\", line " + std::to_string(line) + ", byte " + std::to_string(i - start + 1) +
                        ": no UTF-8 text: save the file as UTF-8 (iconv -f latin1 -t utf-8)"};
        if (text[i] == '\n') {
            ++line;
            start = i + 1;
        }
        i += n;
    }
}

// Next line of the text with its end; a carriage return alone also ends a line.
std::string_view take_line(std::string_view& rest) {
    std::size_t n = rest.find_first_of("\r\n");
    if (n == std::string_view::npos)
        n = rest.size();
    else
        n += rest[n] == '\r' && n + 1 < rest.size() && rest[n + 1] == '\n' ? 2 : 1;
    const auto line = rest.substr(0, n);
    rest.remove_prefix(n);
    return line;
}

std::string_view without_end(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    return line;
}

// Separators of a line outside quotes; runs of blanks count once.
std::size_t count_separators(std::string_view line, char sep) {
    std::size_t n = 0;
    bool quoted = false;
    line = trimmed(without_end(line));
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '"') quoted = !quoted;
        // the first blank of a row is the separator
        const bool run = sep == ' ' && i > 0 && line[i - 1] == ' ';
        if (!quoted && line[i] == sep && !run) ++n;
    }
    return n;
}

// The separator that parts the first lines most evenly: the one with most lines like the heading, then most columns.
char find_separator(std::string_view text) {
    std::vector<std::string_view> lines;
    while (lines.size() < 30 && !text.empty())
        if (const auto line = take_line(text); !trimmed(without_end(line)).empty()) lines.push_back(line);
    char best = ',';
    double best_score = 0.0;
    // of equal scores the earlier one wins: a comma may be a decimal sign, a semicolon hardly
    for (const char sep : {';', '\t', ',', '|', ' '}) {
        const std::size_t n = lines.empty() ? 0 : count_separators(lines[0], sep);
        if (n == 0) continue;
        const auto even =
            std::count_if(lines.begin(), lines.end(), [&](auto l) { return count_separators(l, sep) == n; });
        // blanks only if nothing else does as well
        const double score = static_cast<double>(even) / static_cast<double>(lines.size()) + (sep == ' ' ? 0.0 : 1e-3) +
                             1e-6 * static_cast<double>(n);
        if (score <= best_score) continue;
        best = sep;
        best_score = score;
    }
    return best;
}

// Blanks in a row part once: a line parted by blanks becomes one parted by tabs.
std::string tabs_for_blanks(std::string_view line) {
    std::string out;
    bool quoted = false;
    for (const char c : trimmed(without_end(line))) {
        if (c == '"') quoted = !quoted;
        if (c != ' ' || quoted)
            out += c;
        else if (out.empty() || out.back() != '\t')
            out += '\t';
    }
    return out + '\n';
}

struct row_reader {
    csv_table& t;
    std::vector<std::string_view> row;
    std::int64_t line = 0, first_line = 0;
    std::vector<std::string> ragged;
    bool have_names = false;
};

void end_of_field(void* text, std::size_t length, void* data) {
    auto& r = *static_cast<row_reader*>(data);
    std::string& store = *r.t.text;
    const std::size_t at = store.size();
    // a copy, as the parser's buffer is used again; quotes are taken off already
    store.append(static_cast<const char*>(text), length); // room for all was made before
    r.row.push_back(trimmed(std::string_view(store).substr(at, length)));
}

void end_of_row(int, void* data) {
    auto& r = *static_cast<row_reader*>(data);
    csv_table& t = r.t;
    const bool blank = std::all_of(r.row.begin(), r.row.end(), [](auto c) { return c.empty(); });
    if (!r.have_names) {
        if (blank) return r.row.clear();
        t.names.assign(r.row.begin(), r.row.end());
        r.have_names = true;
        t.lines.push_back(r.first_line);
    } else if (!blank) {
        // told together at the end; the row goes on with the right length
        if (r.row.size() != t.names.size()) {
            r.ragged.push_back("line " + std::to_string(r.first_line) + " has " + std::to_string(r.row.size()) +
                               " cells, the heading " + std::to_string(t.names.size()));
            r.row.resize(t.names.size());
        }
        t.cells.insert(t.cells.end(), r.row.begin(), r.row.end());
        t.lines.push_back(r.first_line);
        ++t.rows;
    }
    r.row.clear();
}

[[noreturn]] void quote_fault(const row_reader& r) {
    throw fault{"\"" + r.t.file + "\": the quotes of the record that begins in line " + std::to_string(r.first_line) +
                " are broken: a quote inside quotes is written twice"};
}

// Lines go to the parser one by one, so that each record knows its line.
void parse_lines(row_reader& r, std::string_view text) {
    csv_parser p;
    // strict: broken quotes are faults, not guessed at
    if (csv_init(&p, CSV_STRICT | CSV_STRICT_FINI) != 0) throw std::bad_alloc();
    const struct release {
        csv_parser& p;
        ~release() { csv_free(&p); }
    } at_end{p};
    csv_set_delim(&p, static_cast<unsigned char>(r.t.separator == ' ' ? '\t' : r.t.separator));
    while (!text.empty()) {
        std::string_view line = take_line(text);
        ++r.line;
        // a record may go on over several lines within quotes
        if (r.row.empty() && p.quoted == 0) r.first_line = r.line;
        std::string tabs;
        if (r.t.separator == ' ') line = tabs = tabs_for_blanks(line);
        if (csv_parse(&p, line.data(), line.size(), end_of_field, end_of_row, &r) != line.size()) quote_fault(r);
    }
    if (csv_fini(&p, end_of_field, end_of_row, &r) != 0) quote_fault(r);
}

bool plain_number(std::string_view s, char point) {
    double x = 0.0;
    std::string text(s);
    std::replace(text.begin(), text.end(), point, '.');
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), x);
    return error == std::errc() && end == text.data() + text.size() && std::isfinite(x);
}

bool is_decimal(std::string_view s, char point) {
    // one point, and a number with it
    return s.find(point) != std::string_view::npos && s.find(point) == s.rfind(point) && plain_number(s, point);
}

// A table has a decimal comma if more of its numbers have one than a point: single cells with the other sign are slips
// or identifiers. Where commas part the cells there is none. The first 100000 cells tell.
bool find_decimal_comma(const csv_table& t) {
    if (t.separator == ',') return false;
    std::size_t commas = 0, points = 0;
    for (std::size_t i = 0; i < std::min<std::size_t>(t.cells.size(), 100000); ++i) {
        commas += is_decimal(t.cells[i], ',') ? 1 : 0;
        points += is_decimal(t.cells[i], '.') ? 1 : 0;
    }
    return commas > points;
}

void check_names(const csv_table& t) {
    std::unordered_map<std::string_view, std::size_t> seen;
    for (std::size_t i = 0; i < t.names.size(); ++i) {
        if (t.names[i].empty()) continue;
        const auto [at, fresh] = seen.emplace(t.names[i], i);
        if (!fresh)
            throw fault{"\"" + t.file + "\": columns " + std::to_string(at->second + 1) + " and " +
                        std::to_string(i + 1) + " are both called \"" + t.names[i] + "\": rename one"};
    }
}

bool looks_like_heading(const csv_table& t, const std::vector<std::string>& hints) {
    // names of pedigree columns only: records always have a heading
    static constexpr std::string_view usual[] = {"animal",  "id",     "anim", "individual", "ind",    "calf",
                                                 "progeny", "sire",   "dam",  "father",     "mother", "tier",
                                                 "vater",   "mutter", "mgs",  "code"};
    for (const auto& name : t.names) {
        std::string plain = name;
        std::transform(plain.begin(), plain.end(), plain.begin(), [](unsigned char c) { return std::tolower(c); });
        if (std::find(std::begin(usual), std::end(usual), plain) != std::end(usual)) return true;
        if (std::find(hints.begin(), hints.end(), name) != hints.end()) return true;
    }
    // a word above a column of numbers
    for (std::size_t col = 0; col < t.names.size(); ++col) {
        bool all = t.rows > 0 && !t.names[col].empty() && !plain_number(t.names[col], '.');
        for (std::size_t row = 0; all && row < t.rows; ++row) all = plain_number(t.at(row, col), '.');
        if (all) return true;
    }
    return false;
}

// Without a heading the line that was taken for it becomes the first record.
void set_heading(csv_table& t, csv_heading heading, const std::vector<std::string>& hints) {
    const bool numbers = std::all_of(t.names.begin(), t.names.end(), [](const auto& s) {
        return plain_number(s, '.') || plain_number(s, ',') || s.empty();
    });
    if (heading == csv_heading::needed) {
        if (numbers)
            throw fault{"\"" + t.file + "\": line " + std::to_string(t.lines.front()) +
                        " holds numbers where the names of the columns should be: add a heading"};
        // the heading is no record: line numbers belong to rows
        t.lines.erase(t.lines.begin());
        return;
    }
    t.heading = !numbers && looks_like_heading(t, hints);
    if (t.heading) {
        t.lines.erase(t.lines.begin());
        return;
    }
    std::vector<std::string_view> first;
    for (auto& n : t.names) {
        const std::size_t at = t.text->size();
        *t.text += n; // freed by the heading, of the same length
        first.push_back(std::string_view(*t.text).substr(at, n.size()));
    }
    t.cells.insert(t.cells.begin(), first.begin(), first.end());
    ++t.rows;
    // columns without names go by their numbers
    for (std::size_t i = 0; i < t.names.size(); ++i) t.names[i] = std::to_string(i + 1);
}

// Number with its exponent moved by -power, in one rounding.
bool moved_number(std::string_view cell, char point, int power, double& x) {
    std::array<char, 400> buffer;
    // with the exponent it has to fit into the buffer; no number is that long
    if (cell.empty() || cell.size() > 360) return false;
    if (cell.front() == '+') cell.remove_prefix(1);
    int exponent = 0;
    const auto e = cell.find_first_of("eE");
    if (e != std::string_view::npos) {
        auto digits = cell.substr(e + 1);
        if (digits.starts_with('+')) digits.remove_prefix(1);
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), exponent);
        if (error != std::errc() || end != digits.data() + digits.size()) return false;
        cell = cell.substr(0, e);
    }
    bool any = false;
    std::size_t n = 0, points = 0;
    for (const char c : cell) {
        const bool sign = c == '-' && n == 0;
        any = any || (c >= '0' && c <= '9');
        if (c == point) ++points;
        if (!(sign || (c >= '0' && c <= '9') || c == point)) return false;
        buffer[n++] = c == point ? '.' : c;
    }
    // digits with "e<exponent - power>" behind them: converted once
    if (!any || points > 1) return false;
    n += std::snprintf(buffer.data() + n, buffer.size() - n, "e%d", exponent - power);
    const auto [end, error] = std::from_chars(buffer.data(), buffer.data() + n, x);
    return error == std::errc() && end == buffer.data() + n && std::isfinite(x);
}

} // namespace

csv_table read_csv(const std::string& file, csv_heading heading, const std::vector<std::string>& hints) {
    csv_table t;
    t.file = file;
    const std::string bytes = read_text(file);
    std::string_view text = bytes;
    t.sum = sum_of(text);
    check_bytes(file, text);
    if (text.starts_with("\xef\xbb\xbf")) text.remove_prefix(3);
    if (text.find_first_not_of(" \t\r\n") == std::string_view::npos) throw fault{"\"" + file + "\" is empty"};
    t.separator = find_separator(text);
    t.text = std::make_shared<std::string>();
    // cells are views into it: it must not move (tabs for blanks, a heading that becomes a record)
    t.text->reserve(2 * text.size() + 64);
    row_reader r{t, {}, 0, 0, {}};
    parse_lines(r, text);
    if (!r.ragged.empty())
        throw fault{"\"" + file + "\" is no table (separator " + shown(std::string(1, t.separator)) + "):\n" +
                    few_lines(r.ragged, 3)};
    set_heading(t, heading, hints);
    if (t.rows == 0) throw fault{"\"" + file + "\" has a heading and no records"};
    if (t.heading) check_names(t);
    t.decimal_comma = find_decimal_comma(t);
    return t;
}

int csv_find(const csv_table& t, std::string_view name) {
    const auto at = std::find(t.names.begin(), t.names.end(), name);
    return at == t.names.end() ? -1 : static_cast<int>(at - t.names.begin());
}

// The names of the first columns, for a message.
std::string first_names(const std::vector<std::string>& names) {
    constexpr std::size_t most = 12;
    std::string text;
    for (std::size_t i = 0; i < std::min(most, names.size()); ++i) text += (i > 0 ? ", " : "") + shown(names[i]);
    return text + (names.size() > most ? " and " + std::to_string(names.size() - most) + " more" : "");
}

std::size_t csv_column(const csv_table& t, const std::string& name, const std::string& what) {
    if (const int i = csv_find(t, name); i >= 0) return i;
    std::string text = what + ": \"" + t.file + "\" has no column \"" + name + "\"";
    if (const auto near = nearest_name(name, t.names); !near.empty())
        text += "; did you mean \"" + near + "\"?";
    else
        text += "; its columns are " + first_names(t.names);
    throw fault{text};
}

bool na_texts::missing(std::string_view cell) const {
    static constexpr std::string_view usual[] = {"",    "NA",   "na",   "N/A", "n/a", "NaN", "nan",
                                                 "NAN", "NULL", "null", ".",   "?",   "#N/A"};
    if (std::find(std::begin(usual), std::end(usual), cell) != std::end(usual)) return true;
    return std::find(more.begin(), more.end(), cell) != more.end();
}

bool csv_number(const csv_table& t, std::string_view cell, int power, double& x) {
    return moved_number(cell, t.decimal_comma ? ',' : '.', power, x);
}

bool csv_number(const csv_table& t, std::string_view cell, double& x) { return csv_number(t, cell, 0, x); }

std::vector<std::string> word_list(const std::string& text) {
    std::vector<std::string> words;
    for (std::size_t from = 0; from <= text.size();) {
        const auto to = std::min(text.find(',', from), text.size());
        words.emplace_back(trimmed(std::string_view(text).substr(from, to - from)));
        from = to + 1;
    }
    return words;
}

std::string nearest_name(const std::string& word, const std::vector<std::string>& names) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    std::string best;
    // a third of the word may differ
    std::size_t least = std::max<std::size_t>(1, word.size() / 3) + 1;
    for (const auto& name : names) { // Levenshtein distance, letters without case
        if (name.size() > word.size() + least || name.empty()) continue;
        std::vector<std::size_t> d(name.size() + 1);
        for (std::size_t j = 0; j <= name.size(); ++j) d[j] = j;
        for (std::size_t i = 1; i <= word.size(); ++i) {
            std::size_t corner = d[0]++;
            for (std::size_t j = 1; j <= name.size(); ++j) {
                const std::size_t change = corner + (lower(word[i - 1]) == lower(name[j - 1]) ? 0 : 1);
                corner = d[j];
                d[j] = std::min({change, d[j] + 1, d[j - 1] + 1});
            }
        }
        if (d.back() >= least) continue;
        least = d.back();
        best = name;
    }
    return best;
}

std::string few_lines(const std::vector<std::string>& lines, std::size_t most) {
    std::string text;
    for (std::size_t i = 0; i < std::min(most, lines.size()); ++i) text += (i > 0 ? "\n  " : "  ") + lines[i];
    if (lines.size() > most) text += "\n  ... and " + std::to_string(lines.size() - most) + " more";
    return text;
}

std::string shown(std::string_view cell) {
    if (cell == "\t") return "tab";
    std::string text = "\"";
    for (const char c : cell.substr(0, 40)) text += c == '\n' || c == '\r' || c == '\t' ? ' ' : c;
    return text + (cell.size() > 40 ? "...\"" : "\"");
}

} // namespace tvx
