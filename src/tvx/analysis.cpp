// Files of the analysis: data, pedigree, and a parameter file that a person can read and go on with.
#include "tvx/commands.h"
#include "tvx/draft.h"
#include "tvx/tables.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <filesystem>

namespace tvx {

namespace {

// shortest text that reads back equal
void put(std::string& out, double x) {
    char buffer[64];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, x).ptr;
    out.append(buffer, end);
}

void put(std::string& out, long long x) {
    char buffer[32];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, x).ptr;
    out.append(buffer, end);
}

// Classes and numbers of a row; what the row lacks is of no trait that it holds, and written as 0.
void put_row(const draft& d, std::size_t row, std::string& out) {
    for (const auto& c : d.classes) {
        put(out, static_cast<long long>(c.code[row]));
        out += ' ';
    }
    for (const auto& n : d.numbers) {
        put(out, std::isnan(n.value[row]) ? 0.0 : n.value[row]);
        out += ' ';
    }
}

std::string data_in_lines(draft& d) {
    std::string out;
    for (const std::size_t row : d.order) {
        put_row(d, row, out);
        for (std::size_t iq = 0; iq < d.y.size(); ++iq) {
            if (iq > 0) out += ' ';
            // a trait without a record has the code of a missing one
            put(out, std::isnan(d.y[iq][row]) ? d.s.traits[iq].missing : d.y[iq][row]);
        }
        out += '\n';
        d.s.lines.push_back({d.table.lines[row], 0});
    }
    return out;
}

// One trait a line; the lines of a record follow each other.
std::string data_by_trait(draft& d) {
    std::string out;
    // number of the line of the table: subjects of several traits are told by it
    long long record = 0;
    for (const std::size_t row : d.order) {
        ++record;
        for (std::size_t iq = 0; iq < d.y.size(); ++iq) {
            if (std::isnan(d.y[iq][row])) continue;
            // the trait's number comes first
            put(out, static_cast<long long>(iq) + 1);
            out += ' ';
            put_row(d, row, out);
            if (!d.s.subject.empty()) {
                put(out, record);
                out += ' ';
            }
            put(out, d.y[iq][row]);
            out += '\n';
            d.s.lines.push_back({d.table.lines[row], static_cast<int>(iq) + 1});
        }
    }
    return out;
}

std::string pedigree_text(const draft& d) {
    std::string out;
    // codes follow the generations: parents have smaller ones
    for (std::size_t i = 0; i < d.s.animals.size(); ++i) {
        put(out, static_cast<long long>(i) + 1);
        out += ' ';
        put(out, static_cast<long long>(d.s.animals[i].sire));
        out += ' ';
        put(out, static_cast<long long>(d.s.animals[i].dam));
        out += '\n';
    }
    return out;
}

// A text for a remark: one line of plain letters, without the sign that begins remarks.
std::string remark_text(std::string text, std::size_t length) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '#' || (c >= 0 && c < ' '); }, '_');
    if (text.size() <= length) return text;
    while (length > 0 && (text[length] & '\xc0') == '\x80') --length; // no half letter
    return text.substr(0, length);
}

void add_remarks(std::string& out, const std::string& text) {
    std::string rest = text;
    while (!rest.empty()) {
        // 74 columns and the four in front are the 78 of a line that the program reads
        // cut at a blank where there is one
        std::size_t n = rest.size() <= 74 ? rest.size() : rest.rfind(' ', 74);
        if (n == std::string::npos || n == 0) n = std::min<std::size_t>(rest.size(), 74);
        out += "#   " + remark_text(rest.substr(0, n), 74) + "\n";
        rest = rest.substr(std::min(rest.size(), n + (n < rest.size() && rest[n] == ' ' ? 1 : 0)));
    }
}

void add_column(std::string& out, const std::string& name, int levels, const std::string& user) {
    std::string line = "  " + name;
    // largest code: the program wants a limit
    if (levels > 0) line += " " + std::to_string(levels);
    if (user != name) {
        if (line.size() < 28) line.resize(28, ' ');
        line += " # " + remark_text(user, 40);
    }
    out += line + "\n";
}

std::string from_text(const std::vector<std::string>& from) {
    std::string text;
    for (const auto& f : from) text += (text.empty() ? "" : ":") + f;
    return text;
}

void add_columns(const draft& d, std::string& out) {
    for (const auto& c : d.classes) add_column(out, c.name, c.levels, c.prefix + from_text(c.from));
    for (const auto& n : d.numbers) add_column(out, n.name, n.levels, n.from);
}

// Groups of traits whose names fit on a line.
std::vector<std::vector<int>> trait_groups(const draft& d) {
    std::vector<std::vector<int>> groups(1);
    // lines of the parameter file hold 78 characters
    std::size_t length = 8;
    for (const auto& t : d.s.traits) {
        if (length + t.column.size() + 1 > 74) {
            groups.emplace_back();
            length = 8;
        }
        length += t.column.size() + 1;
        groups.back().push_back(t.number);
    }
    return groups;
}

void add_data_block(const draft& d, std::string& out) {
    if (d.s.one_line) {
        out += "DAT " + d.s.name + ".dat\n";
        add_columns(d, out);
        for (const auto& t : d.s.traits) add_column(out, t.column, 0, t.name);
        out += "END\n";
        return;
    }
    // grouped: each line holds one trait, its number first
    out += "DAT " + d.s.name + ".dat GRP\n";
    for (const auto& group : trait_groups(d)) {
        out += " TRNOS";
        for (const int q : group) out += " " + std::to_string(q);
        out += "\n  qno                       # number of the trait\n";
        add_columns(d, out);
        // records of one line of the table are one subject: a column with the number of the line joins them
        if (!d.s.subject.empty()) add_column(out, d.s.subject, static_cast<int>(d.order.size()), "line of the table");
        out += "  NAMES";
        for (const int q : group) out += " " + d.s.traits[q - 1].column;
        out += "\n";
    }
    out += "END\n";
}

// A line of the model, once for all traits or for each ten of those that have it.
void add_model_line(const draft& d, std::string& out, const std::string& text, const std::vector<int>& traits) {
    // without numbers behind it a line holds for all traits
    if (d.s.one_line || traits.size() == d.s.traits.size()) {
        out += "  " + text + "\n";
        return;
    }
    for (std::size_t from = 0; from < traits.size(); from += 10) {
        out += "  " + text;
        for (std::size_t i = from; i < std::min(from + 10, traits.size()); ++i) out += " " + std::to_string(traits[i]);
        out += "\n";
    }
}

std::string regression(const study_effect& e) { return "(" + std::to_string(e.order) + "," + e.basis + ")"; }

const char* structure(const study_effect& e) {
    if (e.kind == term_kind::gin) return "GIN";
    return by_pedigree(e.kind) ? "NRM" : "IDE";
}

void add_effect(const draft& d, const draft_effect& f, std::string& out) {
    const auto& e = f.e;
    if (e.kind == term_kind::fixed) return add_model_line(d, out, "FIX " + e.column, e.traits);
    if (e.kind == term_kind::covariable) {
        const std::string nest = f.cls < 0 ? "" : "*" + d.classes[f.cls].name;
        return add_model_line(d, out, "COV " + e.column + nest + regression(e), e.traits);
    }
    const std::string name = e.column + (e.basis.empty() ? "" : regression(e));
    add_model_line(d, out, "RAN " + name + " " + structure(e), e.traits);
}

bool fits(const draft_effect& f, int number) { return std::count(f.e.traits.begin(), f.e.traits.end(), number) > 0; }

// Classes in which covariables are nested have to be known to the model, at least as extra effects.
void add_nesting(const draft& d, std::string& out) {
    std::vector<int> done;
    for (const auto& f : d.effects) {
        if (f.e.kind != term_kind::covariable || f.cls < 0 || std::count(done.begin(), done.end(), f.cls) > 0) continue;
        done.push_back(f.cls);
        std::vector<int> traits;
        for (const auto& t : d.s.traits) {
            const auto has = [&](term_kind kind) {
                return std::any_of(d.effects.begin(), d.effects.end(), [&](const auto& g) {
                    return g.e.kind == kind && g.cls == f.cls && fits(g, t.number);
                });
            };
            // a class that is fitted for the trait is known by that
            if (has(term_kind::covariable) && !has(term_kind::fixed)) traits.push_back(t.number);
        }
        if (!traits.empty()) add_model_line(d, out, "EXT " + d.classes[f.cls].name, traits);
    }
}

void add_means(draft& d, std::string& out) {
    std::vector<int> traits;
    for (auto& t : d.s.traits) {
        const bool held = std::any_of(d.effects.begin(), d.effects.end(),
                                      [&](const auto& f) { return f.e.kind == term_kind::fixed && fits(f, t.number); });
        // a fixed class holds the mean
        t.own_mean = !held;
        if (!held) traits.push_back(t.number);
    }
    if (!traits.empty()) add_model_line(d, out, "MEA", traits);
}

void add_model(draft& d, std::string& out) {
    out += d.s.traits.size() > 1 && d.s.one_line ? "MOD EQ\n" : "MOD\n";
    if (!d.s.subject.empty()) out += "  SUBject " + d.s.subject + "\n";
    add_means(d, out);
    for (const auto& f : d.effects)
        if (f.e.kind == term_kind::fixed || f.e.kind == term_kind::covariable) add_effect(d, f, out);
    add_nesting(d, out);
    for (const auto& f : d.effects)
        if (!f.e.block.empty()) add_effect(d, f, out);
    if (d.randreg) out += "  RRC " + d.s.control_column + "\n";
    for (const auto& t : d.s.traits)
        out += "  TRAIT " + t.column + " " + std::to_string(t.number) + " " + std::to_string(t.missing) + "\n";
    out += "END\n";
}

std::string value_text(double x, bool exact) {
    char buffer[40];
    // starting values made from the data need no more digits
    if (!exact) {
        std::snprintf(buffer, sizeof buffer, " %.5g", x);
        return buffer;
    }
    return " " + std::string(buffer, std::to_chars(buffer, buffer + sizeof buffer, x).ptr);
}

// Upper triangle, a row a line (two where a row is long).
void add_triangle(std::string& out, const start_block& b) {
    std::size_t at = 0;
    for (int i = 0; i < b.order; ++i) {
        std::string line = "  ";
        for (int j = i; j < b.order; ++j) {
            const std::string value = value_text(b.values[at++], b.exact);
            // what stands beyond column 78 would be lost without a message; lists of values go on in the next line
            if (line.size() + value.size() > 76) {
                out += line + "\n";
                line = "  ";
            }
            line += value;
        }
        out += line + "\n";
    }
}

void add_residual_classes(const draft& d, const start_block& b, std::string& out) {
    if (d.s.residuals.empty()) return add_triangle(out, b);
    const double factor = std::pow(10.0, d.s.control_power);
    for (std::size_t k = 0; k < d.s.residuals.size(); ++k) {
        const auto& r = d.s.residuals[k];
        char line[96];
        std::snprintf(line, sizeof line, "   %lld %lld",
                      // bounds in the whole numbers of the data file: inwards, so that classes do not meet
                      static_cast<long long>(std::ceil(r.from * factor - 1e-9) - d.s.control_shift),
                      static_cast<long long>(std::floor(r.to * factor + 1e-9) - d.s.control_shift));
        out += line + value_text(b.values.size() > 1 ? b.values[k] : b.values[0], b.exact) + "\n";
    }
}

std::string block_line(const draft& d, const start_block& b) {
    if (b.name != "residual")
        // name, order and, with components, rank
        return b.name + " " + std::to_string(b.order) +
               (d.s.rank > 0 ? " " + std::to_string(std::min(d.s.rank, b.order)) : "");
    if (!d.randreg) return b.name + " " + std::to_string(b.order);
    // one variance at all values of the control variable, or one for each interval
    if (d.s.residuals.empty()) return "residual 1 HOM";
    return "residual 1 HET " + std::to_string(d.s.residuals.size()) + " " + d.s.control_column;
}

void add_blocks(const draft& d, const std::vector<start_block>& blocks, std::string& out) {
    for (const auto& b : blocks) {
        out += "VAR " + block_line(d, b) + "\n";
        if (b.name == "residual" && d.randreg)
            add_residual_classes(d, b, out);
        else
            add_triangle(out, b);
    }
}

void add_heading(const draft& d, std::string& out) {
    out += "# Parameter file of an analysis by Tarvex, written by tvx prep.\n# Table: ";
    out += remark_text(d.s.data.file, 68) + "\n# Formula:\n";
    add_remarks(out, d.s.formula);
    for (const auto& t : d.s.traits)
        if (t.power != 0)
            add_remarks(out, "Trait " + t.column + " is the table's " + t.name + " times 10 to the power " +
                                 std::to_string(-t.power) + ".");
    out += "# Columns of the data file: name, largest code; behind \"#\" the table's name.\n"
           "# Identifiers of the codes stand in key_*.tsv and pedigree.tsv.\n";
    std::string names;
    for (const auto& t : d.s.traits) names += (names.empty() ? "" : ", ") + t.name;
    out += "COM " + remark_text(names, 70) + "\n";
}

std::string parameter_file(draft& d, const std::vector<start_block>& blocks) {
    std::string out;
    add_heading(d, out);
    // PC: components instead of covariances
    out += "ANA " + d.s.analysis + (d.s.rank > 0 ? " PC" : "");
    if (d.s.analysis == "MUV") out += " " + std::to_string(d.s.traits.size());
    out += "\n";
    add_data_block(d, out);
    if (!d.s.animals.empty()) out += "PED " + d.s.name + ".ped" + (d.s.sire_model ? " SIR" : "") + "\n";
    add_model(d, out);
    if (d.request.start.empty())
        out += "# Starting values from the data: variances within the classes of the fixed effects, shared\n"
               "# between the random effects and the residual.\n";
    else
        add_remarks(out, "Starting values from " + d.request.start);
    add_blocks(d, blocks, out);
    return out;
}

} // namespace

void write_analysis(draft& d, const std::vector<start_block>& blocks) {
    const auto file = [&](const char* end) { return (std::filesystem::path(d.s.folder) / (d.s.name + end)).string(); };
    // The order matters: writing the data notes the line of each record in the study, writing the parameter file which
    // traits have a mean of their own. So the study comes last.
    write_text(file(".dat"), d.s.one_line ? data_in_lines(d) : data_by_trait(d));
    if (!d.s.animals.empty()) write_text(file(".ped"), pedigree_text(d));
    for (const auto& c : d.classes)
        if (c.matrix) write_inverse(*c.matrix, (std::filesystem::path(d.s.folder) / c.name).string());
    write_text(file(".par"), parameter_file(d, blocks));
    write_study(d.s);
}

} // namespace tvx
