#include "tvx/prep.h"

#include "tvx/children.h"
#include "tvx/commands.h"
#include "tvx/draft.h"
#include "tvx/jobs.h"
#include "tvx/progress.h"
#include "tvx/tables.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>

namespace tvx {

namespace fs = std::filesystem;

namespace {

pedigree_columns columns_of(const prep_request& request, const csv_table& table) {
    pedigree_columns c;
    c.hints = table.names;
    c.born = request.born;
    if (request.pedcols.empty()) return c;
    const auto names = word_list(request.pedcols);
    if (names.size() != 3) throw fault{"--pedcols takes three names: animal,sire,dam"};
    c.animal = names[0];
    c.sire = names[1];
    c.dam = names[2];
    return c;
}

// Do the terms ask for a pedigree of sires, and does its third column hold grandsires ?
bool grandsires_given(const prep_request& request) {
    if (request.pedcols.empty()) return false;
    const auto names = word_list(request.pedcols);
    return names.size() == 3 && (names[2] == "mgs" || names[2] == "grandsire" || names[2] == "maternal_grandsire");
}

study_input input_of(const csv_table& t) {
    return {t.file, t.sum, static_cast<std::int64_t>(t.rows), t.separator, t.decimal_comma};
}

void check_request(const prep_request& r) {
    if (r.pedigree.empty())
        for (const auto& [value, name] :
             {std::pair{&r.pedcols, "--pedcols"}, {&r.born, "--born"}, {&r.candidates, "--candidates"}})
            if (!value->empty()) throw fault{std::string(name) + " goes with a pedigree: -p FILE"};
    if (r.rank < 0) throw fault{"--rank takes a number above 0"};
    if (!r.start.empty() && !fs::exists(r.start))
        throw fault{"--start: \"" + r.start + "\" is neither a file of starting values nor a run"};
}

// Folder and stem of a study: --out, or the name of the table.
void name_study(const prep_request& r, study& s) {
    const fs::path out = r.out.empty() ? fs::path(r.data).stem() : fs::path(r.out);
    s.folder = out.string();
    while (s.folder.size() > 1 && s.folder.back() == '/') s.folder.pop_back();
    for (const char c : fs::path(s.folder).filename().string()) {
        const bool good =
            (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_';
        s.name += good ? c : '_';
    }
    // the program reads 30 letters of a file name, with its ending
    s.name = s.name.substr(0, 20);
    if (s.name.empty() || s.folder == "." || s.folder == "..") s.name = "study";
}

void check_folder(const prep_request& r, const study& s) {
    std::error_code ec;
    if (!fs::exists(s.folder, ec)) return;
    if (!fs::is_directory(s.folder, ec)) throw fault{"\"" + s.folder + "\" is a file: give another name with -o"};
    const bool empty = fs::is_empty(s.folder, ec);
    // an empty folder may have been made for the study
    if (r.force || empty) return;
    throw fault{"folder \"" + s.folder +
                "\" is there already: --force replaces the study in it, -o gives another name"};
}

void make_folder(const std::string& folder) {
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec) throw fault{"cannot make folder \"" + folder + "\": " + ec.message()};
}

// Moves a complete study over an earlier one, whose keys are no part of it; study.json comes last.
void replace_study(const std::string& part, const std::string& folder) {
    std::error_code ec;
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(part)) files.push_back(entry.path().filename());
    std::sort(files.begin(), files.end(),
              // study.json last: with it the folder is a study
              [](const auto& a, const auto& b) { return (a == "study.json") < (b == "study.json"); });
    // a stop within the exchange leaves no study, rather than a mixed one
    fs::remove(fs::path(folder) / "study.json", ec);
    std::vector<fs::path> old;
    for (const auto& entry : fs::directory_iterator(folder, ec)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with("key_") && name.ends_with(".tsv")) old.push_back(entry.path());
    }
    for (const auto& file : old) fs::remove(file, ec);
    for (const auto& file : files) {
        fs::rename(fs::path(part) / file, fs::path(folder) / file, ec);
        if (ec) throw fault{"cannot write \"" + (fs::path(folder) / file).string() + "\": " + ec.message()};
    }
    fs::remove_all(part, ec);
}

// Writes the study: a folder gets its files when all are complete, so that a run that is stopped leaves none.
void write_folder(draft& d, const std::vector<start_block>& blocks) {
    std::error_code ec;
    const std::string folder = d.s.folder, part = folder + ".part";
    fs::remove_all(part, ec);
    d.s.folder = part;
    try {
        make_folder(part);
        write_analysis(d, blocks);
        // up to here the folder is as it was
        const stops_held whole; // no half of a study
        if (fs::exists(folder, ec)) {
            replace_study(part, folder);
        } else {
            fs::rename(part, folder, ec);
            if (ec) throw fault{"cannot make folder \"" + folder + "\": " + ec.message()};
        }
    } catch (...) {
        fs::remove_all(part, ec);
        throw;
    }
    d.s.folder = folder;
}

void finish_classes(draft& d) {
    for (auto& c : d.classes) {
        for (auto& f : d.effects)
            if (f.cls >= 0 && &d.classes[f.cls] == &c) f.e.key = c.key;
        // columns with animals share one key
        if (c.key != c.name) continue;
        study_class k{c.key, c.from, c.ids};
        if (c.animals)
            for (const auto& a : d.s.animals) k.ids.push_back(a.id);
        d.s.classes.push_back(k);
    }
    for (const auto& f : d.effects) d.s.effects.push_back(f.e);
    if (!d.s.one_line) d.s.columns.push_back("qno");
    for (const auto& c : d.classes) d.s.columns.push_back(c.name);
    for (const auto& n : d.numbers) d.s.columns.push_back(n.name);
    if (!d.s.one_line && !d.s.subject.empty()) d.s.columns.push_back(d.s.subject);
    // one trait a line: all stand in one column
    for (const auto& t : d.s.traits)
        if (d.s.one_line || t.number == 1) d.s.columns.push_back(t.column);
}

std::string plural(std::int64_t n, const std::string& what) {
    return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

} // namespace

void add_prep_options(CLI::App& app, prep_request& r) {
    app.add_option("DATA", r.data, "table of records: CSV, one record a line, names of columns in the first")
        ->required();
    app.add_option("FORMULA", r.formula, "\"weight ~ herd + lin(age) + nrm(animal)\"")->required();
    app.add_option("-p,--pedigree", r.pedigree, "pedigree: animal, sire, dam");
    app.add_option("-o,--out", r.out, "folder of the study (else the name of the table)");
    app.add_option("--pedcols", r.pedcols, "columns of the pedigree: animal,sire,dam (or animal,sire,mgs)");
    app.add_option("--na", r.na, "more texts for a missing value, parted by commas");
    app.add_option("--zero-is-missing", r.zero_missing, "columns in which 0 is a missing value");
    app.add_option("--born", r.born, "column of the pedigree with births");
    app.add_option("--rank", r.rank, "fit covariance matrices of random effects at this rank");
    app.add_option("--start", r.start, "starting values: a file with them, or a run whose estimates they are");
    app.add_option("--blend", r.blend, "share of the identity matrix in those of gin()");
    app.add_flag("--keep-units", r.keep_units, "do not scale traits by powers of ten");
    app.add_flag("--keep-codes", r.keep_codes, "-999 and its like are values");
    app.add_option("--candidates", r.candidates, "animals without records to keep: all, or a file of identifiers");
    app.add_flag("--force", r.force, "replace a study in the folder");
}

study prepare(const prep_request& request) {
    draft d;
    d.request = request;
    check_request(request);
    // from what costs nothing to what costs most: faults come before long reading
    d.models = read_formula(request.formula);
    name_study(request, d.s);
    check_folder(request, d.s);
    if (!request.na.empty()) d.na.more = word_list(request.na);
    progress told("");
    d.table = read_csv(request.data, csv_heading::needed);
    d.has_ped = !request.pedigree.empty();
    told.note("reading the pedigree");
    if (d.has_ped)
        d.ped =
            read_pedigree(request.pedigree, columns_of(request, d.table), d.na, grandsires_given(request), d.s.remarks);
    d.s.formula = request.formula;
    d.s.command = request.command;
    d.s.born = request.born;
    d.s.data = input_of(d.table);
    if (d.has_ped) d.s.pedigree = input_of(d.ped.tables.front());
    // columns by the formula, then their cells, then codes: each step throws all its faults as one
    lay_out(d);
    told.note("reading cells");
    read_cells(d);
    told.note("codes of classes and animals");
    number_classes(d);
    told.note("ordering records");
    order_records(d);
    if (d.has_ped &&
        std::none_of(d.classes.begin(), d.classes.end(), [](const auto& c) { return c.animals || c.parent > 0; }))
        d.s.remarks.push_back("the pedigree is not used: no term of the formula is nrm(), sire() or mgs()");
    finish_classes(d);
    told.note("starting values");
    // from the data, then what the user has given in their place
    auto blocks = starting_values(d);
    take_given_values(d, blocks);
    told.note("writing the study");
    write_folder(d, blocks);
    return d.s;
}

std::string study_summary(const study& s) {
    std::string text = "Study \"" + s.name + "\" in " + s.folder + "/\n";
    text += "  " + plural(s.data.lines, "record") + " in \"" + s.data.file + "\"";
    for (const auto& drop : s.dropped) text += "; " + std::to_string(drop.records) + " left out: " + drop.reason;
    text += "\n";
    for (const auto& t : s.traits) {
        char line[160];
        std::snprintf(line, sizeof line, ": %lld records, mean %.6g, s.d. %.4g", static_cast<long long>(t.records),
                      t.mean, t.sd);
        text += "  " + t.name + line;
        if (t.power != 0) text += "; analysed in units of 10^" + std::to_string(t.power);
        if (t.own_mean) text += "; a mean is fitted";
        text += "\n";
    }
    for (const auto& c : s.classes) {
        text += "  ";
        for (std::size_t i = 0; i < c.from.size(); ++i) text += (i > 0 ? ":" : "") + c.from[i];
        text += ": " + plural(static_cast<std::int64_t>(c.ids.size()), "level") + "\n";
    }
    for (const auto& r : s.remarks) text += "  Note: " + r + "\n";
    return text;
}

namespace {

// Parameter file as a word of a command line.
std::string par_of(const study& s) {
    const std::string name = s.folder + "/" + s.name + ".par";
    // what a shell would take for something else
    return name.find_first_of(" \t'\"$`\\()&;|<>*?[]!#~") == std::string::npos ? name : shell_quoted(name);
}

std::string earlier_report(const study& s) {
    std::error_code ec;
    if (!fs::exists(s.folder + "/report/report.html", ec)) return "";
    return "  Note: " + s.folder + "/report/ is of the study that stood here before\n";
}

} // namespace

void register_prep(CLI::App& app, action& chosen) {
    auto request = std::make_shared<prep_request>();
    CLI::App* command =
        app.add_subcommand("prep", "make the files of an analysis from a table, a formula and a pedigree");
    add_prep_options(*command, *request);
    command->callback([&chosen, request] {
        chosen = [request] {
            const study s = prepare(*request);
            if (display.json)
                std::cout << nlohmann::json{{"study", s.folder},
                                            {"parameter_file", s.name + ".par"},
                                            {"remarks", s.remarks}}
                                 .dump()
                          << "\n";
            else if (!display.quiet)
                std::cout << study_summary(s) << earlier_report(s) << "Next: tvx check " << par_of(s) << ", or tvx run "
                          << par_of(s) << "\n";
            return static_cast<int>(fine);
        };
    });
}

} // namespace tvx
