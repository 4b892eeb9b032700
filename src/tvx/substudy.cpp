#include "tvx/substudy.h"

#include "tvx/commands.h"
#include "tvx/jobs.h"
#include "tvx/parfile_edit.h"
#include "tvx/program.h"
#include "tvx/tables.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace tvx {

namespace fs = std::filesystem;

namespace {

// The traits of a part: their new numbers.
struct part {
    const study& from;
    const std::vector<int>& numbers;
    int number(int old) const {
        const auto at = std::find(numbers.begin(), numbers.end(), old);
        return at == numbers.end() ? 0 : static_cast<int>(at - numbers.begin()) + 1;
    }
    // Is this the column of a trait that is left out ?
    bool left_out(const std::string& column) const {
        return std::any_of(from.traits.begin(), from.traits.end(),
                           [&](const auto& t) { return t.column == column && number(t.number) == 0; });
    }
};

study part_of(const part& p, const std::string& folder) {
    study s = p.from;
    s.name = "analysis";
    s.folder = folder;
    s.command.clear();
    s.remarks.clear();
    s.dropped.clear();
    std::erase_if(s.traits, [&](const auto& t) { return p.number(t.number) == 0; });
    // one trait a line: the columns stay as they are
    std::erase_if(s.columns, [&](const auto& c) { return s.one_line && p.left_out(c); });
    for (auto& t : s.traits) t.number = p.number(t.number);
    for (auto& e : s.effects) {
        for (int& q : e.traits) q = p.number(q);
        std::erase(e.traits, 0);
    }
    std::erase_if(s.effects, [](const auto& e) { return e.traits.empty(); });
    return s;
}

// Column of the data file (from 0) with the animals whose records are counted, -1: none.
int column_of_animals(const study& s) {
    for (const auto& e : s.effects)
        if (by_pedigree(e.kind))
            if (const auto at = std::find(s.columns.begin(), s.columns.end(), e.column); at != s.columns.end())
                return static_cast<int>(at - s.columns.begin());
    return -1;
}

// Fields of a line that stay; empty if it has no record of these traits.
std::vector<std::string> kept_fields(const part& p, std::vector<std::string> f) {
    if (!p.from.one_line) {
        // the first field is the trait
        const int q = f.empty() ? 0 : p.number(std::atoi(f[0].c_str()));
        if (q == 0) return {};
        f[0] = std::to_string(q);
        return f;
    }
    // traits stand in the last columns
    const std::size_t first = f.size() - p.from.traits.size();
    std::vector<std::string> kept(f.begin(), f.begin() + static_cast<std::ptrdiff_t>(first));
    bool recorded = false;
    for (const auto& t : p.from.traits) {
        if (p.number(t.number) == 0) continue;
        const auto& value = f[first + t.number - 1];
        recorded = recorded || value != std::to_string(t.missing);
        kept.push_back(value);
    }
    return recorded ? kept : std::vector<std::string>();
}

// Data of the part; fills its lines and the records of its animals.
std::string part_data(const part& p, study& s) {
    const std::string text = read_text((fs::path(p.from.folder) / (p.from.name + ".dat")).string());
    const int animals = column_of_animals(s);
    for (auto& a : s.animals) a.records = 0;
    s.lines.clear();
    std::istringstream in(text);
    std::string out;
    std::size_t at = 0;
    for (std::string line; std::getline(in, line); ++at) {
        auto f = words_of(line);
        // a file changed by hand has lost its tie to the lines of the table
        if (f.size() != p.from.columns.size() || at >= p.from.lines.size())
            throw fault{"\"" + p.from.name + ".dat\" is not as tvx prep wrote it, at line " + std::to_string(at + 1)};
        f = kept_fields(p, std::move(f));
        if (f.empty()) continue;
        for (std::size_t i = 0; i < f.size(); ++i) out += (i > 0 ? " " : "") + f[i];
        out += '\n';
        s.lines.push_back({p.from.lines[at].line, p.number(p.from.lines[at].trait)});
        const int code = animals < 0 ? 0 : std::atoi(f[animals].c_str());
        if (code > 0 && static_cast<std::size_t>(code) <= s.animals.size()) ++s.animals[code - 1].records;
    }
    return out;
}

// A line of the model with the numbers of its traits behind; blank if none of them is left.
std::string model_line(const part& p, const std::string& line) {
    auto w = words_of(line);
    std::vector<int> traits;
    // numbers at the end of the line are its traits; none: all
    while (w.size() > 1 && w.back().find_first_not_of("0123456789") == std::string::npos) {
        traits.insert(traits.begin(), std::atoi(w.back().c_str()));
        w.pop_back();
    }
    std::string text = " ";
    for (const auto& word : w) text += " " + word;
    int left = 0;
    for (const int q : traits)
        if (const int number = p.number(q); number > 0) {
            text += " " + std::to_string(number);
            ++left;
        }
    return traits.empty() || left > 0 ? text : "";
}

std::string trait_line(const part& p, const std::string& line) {
    auto w = words_of(line);
    const int q = w.size() > 2 ? p.number(std::atoi(w[2].c_str())) : 0;
    if (q == 0) return "";
    std::string text = "  " + w[0] + " " + w[1] + " " + std::to_string(q);
    for (std::size_t i = 3; i < w.size(); ++i) text += " " + w[i];
    return text;
}

// Columns of the data block: one line a column, or groups of traits with the columns they share.
std::vector<std::string> data_block(const part& p, const std::vector<std::string>& lines) {
    // a group is written when the next one begins, if any of its traits is left
    std::vector<std::string> out, group;
    std::vector<int> traits;
    const auto end_group = [&] {
        if (!traits.empty()) out.insert(out.end(), group.begin(), group.end());
        group.clear();
        traits.clear();
    };
    for (const auto& line : lines) {
        const auto w = words_of(line);
        if (key_of(line) == "TRN") {
            end_group();
            group.push_back(" TRNOS");
            for (std::size_t i = 1; i < w.size(); ++i)
                if (const int q = p.number(std::atoi(w[i].c_str())); q > 0) {
                    traits.push_back(q);
                    group.back() += " " + w[i];
                }
            group.back() = " TRNOS";
            for (const int q : traits) group.back() += " " + std::to_string(q);
        } else if (key_of(line) == "NAM") {
            group.push_back("  NAMES");
            for (const int q : traits)
                // by the old numbers, for the names are those of the data file
                group.back() += " " + p.from.traits[p.numbers[q - 1] - 1].column;
        } else if (p.from.one_line && !w.empty() && p.left_out(w[0])) {
            continue;
        } else {
            (p.from.one_line ? out : group).push_back(line);
        }
    }
    end_group();
    return out;
}

// Rows of a block that stay: places from 0.
std::vector<std::size_t> kept_rows(const part& p, const std::string& block, std::size_t& rows) {
    std::vector<std::size_t> kept;
    rows = 0;
    const auto row = [&](int q) {
        if (p.number(q) > 0) kept.push_back(rows);
        ++rows;
    };
    if (block == "residual")
        for (const auto& t : p.from.traits) row(t.number);
    else
        for (const auto& e : p.from.effects)
            if (e.block == block)
                for (const int q : e.traits) row(q);
    return kept;
}

// A VAR block with the rows that stay; empty if there are none.
std::vector<std::string> var_block(const part& p, const std::vector<std::string>& lines) {
    auto w = words_of(lines[0]);
    std::vector<double> values;
    for (std::size_t i = 1; i < lines.size(); ++i)
        for (const auto& word : words_of(lines[i]))
            if (word != "+") values.push_back(std::strtod(word.c_str(), nullptr));
    std::size_t n = 0;
    const auto kept = kept_rows(p, w.at(1), n);
    if (values.size() != n * (n + 1) / 2)
        throw fault{"block \"" + w[1] + "\" of \"" + p.from.name + ".par\" is not as tvx prep wrote it"};
    if (kept.empty()) return {};
    w[2] = std::to_string(kept.size());
    // no rank above the order
    if (w.size() > 3 && std::isdigit(static_cast<unsigned char>(w[3][0])) != 0)
        w[3] = std::to_string(std::min<std::size_t>(kept.size(), std::strtoul(w[3].c_str(), nullptr, 10)));
    std::vector<std::string> out{w[0]};
    for (std::size_t i = 1; i < w.size(); ++i) out[0] += " " + w[i];
    for (std::size_t i = 0; i < kept.size(); ++i)
        for (std::size_t j = i; j < kept.size(); ++j) {
            const std::size_t a = kept[i], b = kept[j];
            char text[40];
            // element (a,b), from 0, of the packed upper triangle by rows
            *std::to_chars(text, text + 39, values[n * a - a * (a + 1) / 2 + b]).ptr = 0;
            out.push_back(std::string("   ") + text); // a value a line
        }
    return out;
}

using line_list = std::vector<std::string>;

// Lines from one that opens a block to END.
line_list block_lines(const line_list& lines, std::size_t& i) {
    line_list inner;
    for (++i; i < lines.size() && key_of(lines[i]) != "END"; ++i) inner.push_back(lines[i]);
    return inner;
}

void add(line_list& out, const line_list& more) { out.insert(out.end(), more.begin(), more.end()); }

line_list model_block(const part& p, const line_list& inner) {
    line_list out;
    for (const auto& line : inner) {
        const std::string key = key_of(line);
        const bool trait = key.starts_with("TR"), plain = key == "SUB" || key == "RRC" || key.empty() || key[0] == '#';
        const std::string text = trait ? trait_line(p, line) : plain ? line : model_line(p, line);
        if (!text.empty()) out.push_back(text);
    }
    return out;
}

bool starts_var(const std::string& line) { return key_of(line) == "VAR"; }

// Text of the parameter file of the part.
std::string part_parameters(const part& p, const study& s, const std::string& text) {
    line_list lines, out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    const bool related =
        std::any_of(s.effects.begin(), s.effects.end(), [](const auto& e) { return by_pedigree(e.kind); });
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string key = key_of(lines[i]);
        const auto w = words_of(lines[i]);
        if (key == "STA") throw fault{"starting values in a file of their own (STA): put them behind the VAR lines"};
        // its numbers are those of the covariances of all traits
        if (key == "SE+") {
            block_lines(lines, i);
        } else if (key == "ANA") {
            const std::string analysis = s.traits.size() > 1 ? "MUV" : "UNI";
            const bool pc = w.size() > 2 && key_of(w[2]) == "PC";
            out.push_back("ANA " + analysis + (pc ? " PC" : "") +
                          (analysis == "MUV" ? " " + std::to_string(s.traits.size()) : ""));
        } else if (key == "DAT") {
            out.push_back("DAT analysis.dat" + std::string(s.one_line ? "" : " GRP"));
            add(out, data_block(p, block_lines(lines, i)));
            out.push_back("END");
        } else if (key == "PED") {
            if (related) out.push_back("PED analysis.ped" + std::string(s.sire_model ? " SIR" : ""));
        } else if (key == "MOD") {
            out.push_back(lines[i]);
            add(out, model_block(p, block_lines(lines, i)));
            out.push_back("END");
        } else if (starts_var(lines[i])) {
            line_list block{lines[i]};
            // a VAR block has no END: it ends where something else begins
            for (; i + 1 < lines.size() && !lines[i + 1].starts_with("#") && key_of(lines[i + 1]) != "SE+" &&
                   key_of(lines[i + 1]) != "END" && !starts_var(lines[i + 1]);
                 ++i)
                block.push_back(lines[i + 1]);
            add(out, var_block(p, block));
        } else if (key == "ZER" || key == "PSE") {
            throw fault{key + " in \"" + p.from.name + ".par\": its codes belong to the analysis of all traits"};
        } else if (!lines[i].starts_with("#")) {
            out.push_back(lines[i]);
        }
    }
    std::string all;
    for (const auto& line : out) all += line + "\n";
    return all;
}

bool same_file(const std::string& file, const std::string& text) {
    std::error_code ec;
    return fs::is_regular_file(file, ec) && read_text(file) == text;
}

bool same_study(const std::string& folder, const study& s) {
    try {
        return has_study(folder) && sum_of_study(read_study(folder)) == sum_of_study(s);
    } catch (const fault&) { // damaged
        return false;
    }
}

} // namespace

void write_part(const study& from, const std::vector<int>& numbers, const std::string& folder) {
    const part p{from, numbers};
    study s = part_of(p, folder);
    fs::create_directories(folder);
    const std::string par_file = from.folder + "/" + from.name + ".par";
    bool changed = false;
    const auto put = [&](const std::string& name, const std::string& text) {
        if (same_file(folder + "/" + name, text)) return;
        // the mark of a finished job goes before the first file that is not the job's
        job_is_new(folder);
        write_text(folder + "/" + name, text);
        changed = true;
    };
    put("analysis.dat", part_data(p, s));
    for (const auto& name : files_of_analysis(par_file)) {
        if (name == from.name + ".dat" || name == from.name + ".par") continue;
        put(name == from.name + ".ped" ? "analysis.ped" : name, read_text(from.folder + "/" + name));
    }
    const std::string text = part_parameters(p, s, read_text(par_file));
    // a finished job of the same files stands: new times of files would make it run again
    if (!changed && same_file(folder + "/analysis.par", text) && same_study(folder, s)) return;
    // the parameter file comes last: a part that was cut short is not taken for a complete one
    job_is_new(folder);
    write_study(s);
    write_text(folder + "/analysis.par", text);
}

} // namespace tvx
