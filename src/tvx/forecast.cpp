// The program's forecast of memory and time: it sets the analysis up beside the inputs and stops before the search.
#include "tvx/check.h"
#include "tvx/commands.h"
#include "tvx/program.h"
#include "tvx/tables.h"

#include <filesystem>
#include <sstream>
#include <unistd.h>

namespace tvx {

namespace fs = std::filesystem;

namespace {

// Folder for a set-up, gone at the end.
class set_up_folder {
public:
    explicit set_up_folder(const std::string& file) {
        const std::string name = ".tvx-check-" + std::to_string(getpid());
        const fs::path own = fs::absolute(file).parent_path();
        std::error_code ec;
        path_ = own / name;
        // beside the inputs, unless that place is not for writing
        if (!fs::create_directory(path_, ec)) path_ = fs::temp_directory_path() / name;
        fs::create_directories(path_);
        auto files = files_of_analysis(file);
        if (fs::exists(own / "RunOptions")) files.emplace_back("RunOptions");
        // links: whatever the set-up writes stays in its own folder
        for (const auto& input : files) fs::create_symlink(own / input, path_ / input);
    }
    ~set_up_folder() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    set_up_folder(const set_up_folder&) = delete;
    set_up_folder& operator=(const set_up_folder&) = delete;
    std::string name() const { return path_.string(); }

private:
    fs::path path_;
};

} // namespace

std::string forecast_of(const std::string& file, const std::vector<std::string>& options,
                        std::vector<finding>& findings) {
    const set_up_folder folder(file);
    std::vector<std::string> args = options;
    args.insert(args.end(), {"--setup", fs::path(file).filename().string()});
    program_run run;
    try {
        run = run_program(folder.name(), args, "set-up.log");
    } catch (const interrupted&) {
        throw fault{"stopped by Ctrl-C", program_stopped};
    }
    const std::string log = folder.name() + "/set-up.log";
    if (run.status != 0) {
        add_case(findings, "P102", "the program stops at these inputs", "it says:\n" + last_lines(log, 4));
        return "";
    }
    std::istringstream in(read_text(log));
    for (std::string line; std::getline(in, line);)
        if (const auto at = line.find("Forecast : "); at != std::string::npos) return line.substr(at);
    return "";
}

} // namespace tvx
