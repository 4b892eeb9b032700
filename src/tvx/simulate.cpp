#include "tvx/simulate.h"

#include "tvx/commands.h"
#include "tvx/jobs.h"
#include "tvx/parfile_edit.h"
#include "tvx/program.h"
#include "tvx/tables.h"

#include <filesystem>
#include <iterator>
#include <sstream>

namespace tvx {

namespace fs = std::filesystem;

namespace {

// A line of the simulating run: the fields of the data file and the simulated values behind them.
std::string with_simulated(const run_results& r, const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> f{std::istream_iterator<std::string>(in), {}};
    const auto& traits = r.estimates["traits"];
    const std::size_t values = r.estimates["run"]["one_line"] == true ? traits.size() : 1;
    if (f.size() <= values) throw fault{"a line of the simulated data is too short: " + line, program_stopped};
    // fields of the data, then the simulated values
    const std::size_t n = f.size() - values;
    for (std::size_t k = 0; k < values; ++k) {
        std::size_t column = traits[k]["column"].get<std::size_t>();
        // a line of one trait begins with its number
        if (values == 1)
            for (const auto& t : traits)
                if (t["number"].dump() == f[0]) column = t["column"].get<std::size_t>();
        if (column < 1 || column > n)
            throw fault{"the simulated data have another layout than the data", program_stopped};
        f[column - 1] = f[n + k];
    }
    std::string text;
    for (std::size_t i = 0; i < n; ++i) text += (i ? " " : "") + f[i];
    return text + "\n";
}

bool same_text(const std::string& file, const std::string& text) {
    std::error_code ec;
    return fs::is_regular_file(file, ec) && read_text(file) == text;
}

void link_or_copy(const fs::path& from, const fs::path& to) {
    std::error_code ec;
    fs::remove(to, ec);
    // many replicates share large files: no copies where links do
    fs::create_hard_link(fs::absolute(from), to, ec);
    if (ec) fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec);
    if (ec) throw fault{"cannot write \"" + to.string() + "\": " + ec.message()};
}

} // namespace

std::string par_file_of(const run_results& r) {
    return r.folder + "/" + r.estimates["run"]["parameter_file"].get<std::string>();
}

std::string at_estimates(const run_results& r, const std::string& par_text) {
    parfile_text par(par_text);
    for (const auto& b : r.estimates["blocks"]) {
        std::vector<double> values;
        for (const auto& e : r.estimates["estimates"])
            // in the order of the block's triangle, class after class
            if (e["block"] == b["number"]) values.push_back(number(e["estimate"]));
        par.set_values(b["number"] == 0 ? "residual" : b["name"].get<std::string>(), values);
    }
    return par.text();
}

void make_job(const run_results& r, const std::string& par_text, const std::string& data, const std::string& folder) {
    const std::string name = r.estimates["run"]["data_file"];
    if (same_text(folder + "/analysis.par", par_text) && same_text(folder + "/" + name, read_text(data))) return;
    fs::create_directories(folder);
    job_is_new(folder);
    for (const auto& file : files_of_analysis(par_file_of(r)))
        if (file != name && file != fs::path(par_file_of(r)).filename().string())
            link_or_copy(fs::path(r.folder) / file, fs::path(folder) / file);
    link_or_copy(data, fs::path(folder) / name);
    write_text(folder + "/analysis.par", par_text);
}

std::vector<std::string> simulate_data(const run_results& r, const std::string& folder, int n, unsigned seed) {
    if (n < 1 || n > 999) throw fault{"from 1 to 999 data sets can be simulated"};
    const std::string work = folder + "/simulation", out = folder + "/data";
    fs::create_directories(out);
    make_job(r, at_estimates(r, read_text(par_file_of(r))),
             r.folder + "/" + r.estimates["run"]["data_file"].get<std::string>(), work);
    // two seeds of the generator from one number
    write_text(work + "/RandomSeeds", std::to_string(12345 + seed) + " " + std::to_string(67890 + 7 * seed) + "\n");
    const program_run run = run_program(work, {"--simul" + std::to_string(n), "analysis.par"}, "tarvex.log");
    if (run.status != 0)
        throw fault{"the simulation stopped:\n" + last_lines(work + "/tarvex.log", 5), program_stopped};
    std::vector<std::string> files;
    for (int i = 1; i <= n; ++i) {
        char name[20];
        std::snprintf(name, sizeof name, "SimData%03d.dat", i);
        std::istringstream in(read_text(work + "/" + name));
        std::string text;
        for (std::string line; std::getline(in, line);)
            // back into the layout of the data file
            if (!line.empty()) text += with_simulated(r, line);
        files.push_back(out + "/" + std::to_string(i) + ".dat");
        write_text(files.back(), text);
    }
    fs::remove_all(work);
    return files;
}

} // namespace tvx
