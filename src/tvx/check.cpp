#include "tvx/check.h"

#include "control/filenames.h"
#include "control/options.h"
#include "parfile/mudmap_build.h"
#include "parfile/readparfile.h"
#include "support/screen.h"
#include "support/stop.h"
#include "tvx/commands.h"
#include "tvx/program.h"
#include "tvx/study.h"
#include "tvx/tables.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace tvx {

namespace fs = std::filesystem;

namespace {

// The program's readers speak to the screen and wait for an answer after words of caution: both are kept from the user.
class silent_reading {
public:
    silent_reading() : answers_(std::cin.rdbuf(none_.rdbuf())) { tarvex::screen().redirect(told_); }
    ~silent_reading() {
        tarvex::screen().redirect(std::cout);
        std::cin.rdbuf(answers_);
    }
    silent_reading(const silent_reading&) = delete;
    silent_reading& operator=(const silent_reading&) = delete;
    std::string told() const { return told_.str(); }

private:
    std::istringstream none_;
    std::ostringstream told_;
    std::streambuf* answers_;
};

// Names of files in a parameter file are relative to its folder.
class folder_change {
public:
    explicit folder_change(const fs::path& to) : back_(fs::current_path()) {
        if (!to.empty()) fs::current_path(to);
    }
    ~folder_change() {
        std::error_code ec;
        fs::current_path(back_, ec);
    }
    folder_change(const folder_change&) = delete;
    folder_change& operator=(const folder_change&) = delete;

private:
    fs::path back_;
};

struct par_text {
    std::string name;
    std::vector<std::string> lines;
};

par_text read_lines(const std::string& name) {
    par_text p{name, {}};
    std::istringstream in(read_text(name));
    for (std::string line; std::getline(in, line);) p.lines.push_back(line);
    return p;
}

std::string plain(std::string text) {
    for (char& c : text)
        c = c == '\t' || c == '\r' ? ' ' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    const auto from = text.find_first_not_of(' ');
    if (from == std::string::npos) return "";
    return text.substr(from, text.find_last_not_of(' ') - from + 1);
}

// What the program says of a parameter file it cannot read: its message, and the line it had in hand.
struct par_fault {
    std::string message, line;
};

par_fault fault_in(const std::string& told) {
    par_fault f;
    std::istringstream in(told);
    for (std::string line; std::getline(in, line);) {
        const std::string head = "Current line : \"";
        if (line.starts_with(head))
            f.line = line.substr(head.size(), line.rfind('"') - head.size());
        else if (!line.starts_with("exit \"") && !line.empty())
            f.message += (f.message.empty() ? "" : " | ") + line;
    }
    return f;
}

// Reads the file as it now stands; false with the fault.
bool read_once(const par_text& p, par_fault& fault) {
    // a copy beside the file: names of other files in it stay good
    const std::string part = p.name + ".check";
    std::string text;
    for (const auto& l : p.lines) text += l + "\n";
    write_text(part, text);
    const struct removal {
        std::string file;
        ~removal() { std::remove(file.c_str()); }
    } at_end{part};
    silent_reading reading;
    tarvex::options = {};
    tarvex::filenames = {};
    tarvex::filenames.parfile = part;
    try {
        tarvex::read_parfile();
        tarvex::model2mudmap();
    } catch (const tarvex::program_stop& stopped) {
        fault = fault_in(reading.told());
        if (fault.message.empty()) fault.message = stopped.text;
        return false;
    }
    return true;
}

// A line that can be left out so that the rest is read too: not one that opens or closes a block.
bool can_go(const std::string& line) {
    for (const char* word : {"DAT", "MOD", "ANA", "VAR", "ZER", "PSE", "SE+", "END", "STA"})
        if (line.starts_with(word)) return false;
    return true;
}

// Takes each faulty line out and reads on, so that all are told.
bool read_parameters(std::vector<finding>& findings, const std::string& name) {
    par_text p = read_lines(name);
    bool sound = true;
    // each round takes one line out; faults without a line, or of a block's head, end it
    for (int round = 0; round < 30; ++round) {
        par_fault fault;
        if (read_once(p, fault)) return sound;
        sound = false;
        std::string place;
        const auto at = std::find_if(p.lines.begin(), p.lines.end(), [&](const auto& l) {
            // the program cuts lines behind 78 characters and puts its word in capitals
            return !fault.line.empty() && l.substr(0, 1) != "#" && plain(l.substr(0, 78)) == plain(fault.line);
        });
        if (at != p.lines.end()) place = "line " + std::to_string(at - p.lines.begin() + 1) + ": " + *at + ": ";
        add_case(findings, "P101", "the parameter file cannot be read", name + ", " + place + fault.message);
        if (at == p.lines.end() || !can_go(plain(*at))) return false;
        // one that is needed shows as a further fault in the next round
        // a remark in its place keeps the numbers of lines
        *at = "#";
    }
    return false;
}

void check_surroundings(std::vector<finding>& findings) {
    if (fs::exists("RunOptions"))
        add_case(findings, "W415", "the folder has a file RunOptions, whose options go into each run", "RunOptions");
    std::error_code ec;
    fs::file_time_type newest = fs::file_time_type::min();
    for (const auto& file : {tarvex::filenames.datfile, tarvex::filenames.pedfile})
        if (!file.empty() && fs::exists(file, ec)) newest = std::max(newest, fs::last_write_time(file, ec));
    for (const auto& entry : fs::directory_iterator(".", ec))
        if (entry.path().extension() == ".bin" && fs::last_write_time(entry.path(), ec) < newest)
            add_case(findings, "W414",
                     "scratch files are older than data or pedigree: a run knows by their sums which still fit",
                     entry.path().filename().string());
}

} // namespace

void add_case(std::vector<finding>& findings, const std::string& code, const std::string& text,
              const std::string& example) {
    auto f =
        std::find_if(findings.begin(), findings.end(), [&](const auto& x) { return x.code == code && x.text == text; });
    if (f == findings.end()) f = findings.insert(findings.end(), finding{code, text, {}, 0});
    if (++f->count <= 3) f->examples.push_back(example);
}

std::vector<finding> check_analysis(const std::string& place) {
    fs::path file(place);
    if (fs::is_directory(file) && has_study(place)) file = parameter_file(place);
    if (fs::is_directory(file)) throw fault{"\"" + place + "\" is a folder: name the parameter file"};
    if (file.extension() != ".par") file += ".par";
    if (!fs::exists(file)) throw fault{"there is no parameter file \"" + file.string() + "\""};
    const folder_change in(file.parent_path());
    const std::string name = file.filename().string();
    std::vector<finding> findings;
    // data and pedigree are read as the model says: without it there is nothing to hold them against
    if (!read_parameters(findings, name)) return findings;
    check_model(findings, name);
    // animals that the pedigree lists; the data are held against them last
    std::unordered_set<long long> listed;
    if (!tarvex::filenames.pedfile.empty()) check_pedigree(findings, listed);
    check_data(findings);
    if (!listed.empty()) check_strangers(findings, listed);
    check_surroundings(findings);
    std::stable_sort(findings.begin(), findings.end(), [](const auto& a, const auto& b) { return a.code < b.code; });
    return findings;
}

std::string findings_text(const std::vector<finding>& findings) {
    std::string text;
    for (const auto& f : findings) {
        text += f.code + " " + f.text;
        if (f.count > 1) text += " (" + std::to_string(f.count) + " cases)";
        text += "\n";
        for (const auto& e : f.examples) text += "     " + e + "\n";
        if (f.count > static_cast<std::int64_t>(f.examples.size()) && !f.examples.empty())
            text +=
                "     ... and " + std::to_string(f.count - static_cast<std::int64_t>(f.examples.size())) + " more\n";
    }
    return text;
}

namespace {

std::int64_t count_faults(const std::vector<finding>& findings) {
    return std::count_if(findings.begin(), findings.end(), [](const auto& f) { return f.fault(); });
}

// Forecast of a sound analysis. It needs the program itself.
std::string forecast_at(const std::string& place, std::vector<finding>& findings) {
    const std::string file = parameter_file(place);
    std::string folder = fs::path(file).parent_path().string();
    if (folder.empty()) folder = ".";
    std::vector<std::string> options;
    if (has_study(folder)) options = read_study(folder, false).run_options;
    try {
        return forecast_of(file, options, findings);
    } catch (const fs::filesystem_error& e) {
        return std::string("No forecast: ") + e.what();
    }
}

int check_command(const std::string& place, bool quick) {
    auto findings = check_analysis(place);
    // the forecast sets the analysis up, which a faulty one would not survive
    const std::string forecast = quick || count_faults(findings) > 0 ? "" : forecast_at(place, findings);
    const auto faults = count_faults(findings);
    if (display.json) {
        auto list = nlohmann::json::array();
        for (const auto& f : findings)
            list.push_back({{"code", f.code},
                            {"text", f.text},
                            {"fault", f.fault()},
                            {"count", f.count},
                            {"examples", f.examples}});
        std::cout << nlohmann::json{{"faults", faults}, {"findings", list}, {"forecast", forecast}}.dump() << "\n";
    } else {
        std::cout << findings_text(findings);
        if (faults == 0 && !display.quiet)
            std::cout << (findings.empty() ? "Nothing found: the analysis can be run.\n"
                                           : "No faults: the analysis can be run; see the remarks above.\n");
        if (!forecast.empty() && !display.quiet) std::cout << forecast << "\n";
        if (faults > 0) std::cout << "tvx explain CODE tells more of a finding.\n";
    }
    return faults > 0 ? input_fault : fine;
}

} // namespace

void register_check(CLI::App& app, action& chosen) {
    auto place = std::make_shared<std::string>();
    auto quick = std::make_shared<bool>(false);
    CLI::App* command = app.add_subcommand("check", "find all faults of an analysis, and what nobody would want");
    command->add_option("NAME.par", *place, "parameter file")->required();
    command->add_flag("--quick", *quick, "no forecast, for which the program sets the analysis up");
    command->callback([&chosen, place, quick] { chosen = [place, quick] { return check_command(*place, *quick); }; });
}

} // namespace tvx
