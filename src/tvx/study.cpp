#include "tvx/study.h"

#include "support/digest.h"
#include "tvx/commands.h"
#include "tvx/tables.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace tvx {

namespace fs = std::filesystem;

// study.json has kinds as words; any other makes the file a damaged one.
inline void to_json(nlohmann::json& j, term_kind kind) { j = name_of(kind); }
inline void from_json(const nlohmann::json& j, term_kind& kind) { kind = term_named(j.get<std::string>()); }

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(study_trait, name, column, power, missing, number, records, mean, sd, own_mean)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(study_class, key, from)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(study_effect, term, name, column, block, place, kind, key, traits, basis, order,
                                   covariable, control)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(study_drop, reason, records)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(study_input, file, sum, lines, separator, decimal_comma)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(study_residual_class, from, to)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(study, name, command, formula, analysis, rank, sire_model, one_line, subject,
                                   run_options, data, pedigree, columns, traits, effects, classes, residuals, control,
                                   control_column, control_power, control_shift, dropped, remarks, born)

namespace {

// goes up with any change that makes older files read wrongly
constexpr int study_format = 1;

using fields = std::vector<std::string_view>;

std::string path(const study& s, const std::string& file) { return (fs::path(s.folder) / file).string(); }

std::string key_file(const study_class& c) { return "key_" + c.key + ".tsv"; }

[[noreturn]] void torn(const study& s, const std::string& file) {
    throw fault{"\"" + path(s, file) + "\" is damaged: make the study anew with tvx prep"};
}

template <class T> void take(const study& s, const std::string& file, const fields& f, std::size_t i, T& value) {
    if (i >= f.size()) torn(s, file);
    const auto [end, error] = std::from_chars(f[i].data(), f[i].data() + f[i].size(), value);
    if (error != std::errc() || end != f[i].data() + f[i].size()) torn(s, file);
}

void write_keys(const study& s) {
    for (const auto& c : s.classes) {
        std::string text = "code\tidentifier\n";
        for (std::size_t i = 0; i < c.ids.size(); ++i) {
            text += std::to_string(i + 1) + '\t';
            put_field(text, c.ids[i]);
            text += '\n';
        }
        write_text(path(s, key_file(c)), text);
    }
}

// Is there a table of animals, or must there be one ? A pedigree that no effect uses leaves none.
bool has_animals(const study& s) {
    std::error_code ec;
    return fs::is_regular_file(path(s, "pedigree.tsv"), ec) ||
           std::any_of(s.effects.begin(), s.effects.end(), [](const auto& e) { return by_pedigree(e.kind); });
}

void write_animals(const study& s) {
    std::string text = "code\tidentifier\tsire\tdam\tbirth\trecords\tline\n";
    for (std::size_t i = 0; i < s.animals.size(); ++i) {
        const auto& a = s.animals[i];
        text += std::to_string(i + 1) + '\t';
        put_field(text, a.id);
        text += '\t' + std::to_string(a.sire) + '\t' + std::to_string(a.dam) + '\t';
        put_field(text, a.birth);
        text += '\t' + std::to_string(a.records) + '\t' + std::to_string(a.line) + '\n';
    }
    write_text(path(s, "pedigree.tsv"), text);
}

void write_lines(const study& s) {
    std::string text = "line\ttrait\n";
    for (const auto& l : s.lines) text += std::to_string(l.line) + '\t' + std::to_string(l.trait) + '\n';
    write_text(path(s, "lines.tsv"), text);
}

void read_keys(study& s) {
    for (auto& c : s.classes) {
        const std::string text = read_text(path(s, key_file(c)));
        for (const auto& f : table_lines(text)) {
            if (f.size() != 2) torn(s, key_file(c));
            c.ids.push_back(plain_field(f[1]));
        }
    }
}

void read_animals(study& s) {
    const std::string file = "pedigree.tsv", text = read_text(path(s, file));
    for (const auto& f : table_lines(text)) {
        if (f.size() != 7) torn(s, file);
        study_animal a{plain_field(f[1]), 0, 0, plain_field(f[4]), 0, 0};
        take(s, file, f, 2, a.sire);
        take(s, file, f, 3, a.dam);
        take(s, file, f, 5, a.records);
        take(s, file, f, 6, a.line);
        s.animals.push_back(std::move(a));
    }
}

void read_lines(study& s) {
    const std::string file = "lines.tsv", text = read_text(path(s, file));
    for (const auto& f : table_lines(text)) {
        study_line l;
        take(s, file, f, 0, l.line);
        take(s, file, f, 1, l.trait);
        s.lines.push_back(l);
    }
}

// Folder of the study that `place` names.
fs::path study_folder(const std::string& place) {
    const fs::path p(place);
    std::error_code ec;
    if (fs::is_directory(p, ec)) return p;
    return p.has_parent_path() ? p.parent_path() : fs::path(".");
}

} // namespace

void write_study(const study& s) {
    write_keys(s);
    if (!s.animals.empty()) write_animals(s);
    write_lines(s);
    // the format comes first
    nlohmann::ordered_json j{{"format", study_format}};
    const nlohmann::json body = s;
    for (const auto& [name, value] : body.items()) j[name] = value;
    write_text(path(s, "study.json"), j.dump(1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

study read_study(const std::string& place, bool tables) {
    if (!has_study(place)) throw fault{"no study in \"" + place + "\": tvx prep makes one"};
    study s;
    const std::string folder = study_folder(place).string();
    const std::string text = read_text((study_folder(place) / "study.json").string());
    try {
        // the format before all else: another one may lack the members
        const auto j = nlohmann::json::parse(text);
        if (j.at("format").get<int>() != study_format)
            throw fault{"the study in \"" + place + "\" was made by another version: make it anew with tvx prep"};
        s = j.get<study>();
        s.folder = folder;
    } catch (const nlohmann::json::exception&) {
        s.folder = folder;
        torn(s, "study.json");
    } catch (const std::invalid_argument&) {
        s.folder = folder;
        torn(s, "study.json");
    }
    if (!tables) return s;
    read_keys(s);
    if (!s.pedigree.file.empty() && has_animals(s)) read_animals(s);
    read_lines(s);
    return s;
}

bool has_study(const std::string& place) {
    std::error_code ec;
    return fs::is_regular_file(study_folder(place) / "study.json", ec);
}

std::string sum_of_study(const study& s) {
    study bare = s;
    // what was made counts, not how: the same study from a table elsewhere has the same sum
    bare.command = bare.data.file = bare.pedigree.file = "";
    bare.remarks.clear();
    tarvex::digest_maker sum;
    sum.add(nlohmann::json(bare).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    for (const auto& c : s.classes)
        for (const auto& id : c.ids) sum.add(id);
    for (const auto& a : s.animals) {
        sum.add(a.id);
        sum.add(a.birth);
        for (const auto n : {static_cast<std::int64_t>(a.sire), static_cast<std::int64_t>(a.dam),
                             static_cast<std::int64_t>(a.records), a.line})
            sum.add(n);
    }
    for (const auto& l : s.lines) {
        sum.add(l.line);
        sum.add(l.trait);
    }
    return tarvex::hex(sum.value());
}

void copy_study(const study& s, const std::string& folder) {
    std::error_code ec;
    fs::create_directories(folder, ec);
    std::vector<std::string> files{"lines.tsv"};
    for (const auto& c : s.classes) files.push_back(key_file(c));
    if (!s.animals.empty()) files.emplace_back("pedigree.tsv");
    files.emplace_back("study.json"); // last: where it stands the others do
    for (const auto& name : files) {
        if (!ec) fs::copy_file(path(s, name), fs::path(folder) / name, fs::copy_options::overwrite_existing, ec);
        if (ec) throw fault{"cannot copy \"" + path(s, name) + "\" to \"" + folder + "\": " + ec.message()};
    }
}

const study_class* find_class(const study& s, const std::string& key) {
    const auto c = std::find_if(s.classes.begin(), s.classes.end(), [&](const auto& x) { return x.key == key; });
    return c == s.classes.end() ? nullptr : &*c;
}

const study_trait* find_trait(const study& s, int number) {
    const auto t = std::find_if(s.traits.begin(), s.traits.end(), [&](const auto& x) { return x.number == number; });
    return t == s.traits.end() ? nullptr : &*t;
}

} // namespace tvx
