// Runs of the real program on case folders: bundled ones, and reference data that lie beside the project.
#pragma once
#include "support/fixture.h"
#include "support/json_reader.h"
#include "support/reports.h"

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

namespace tarvex {

class case_run : public tarvex_test {
protected:
    // Folder of a case, empty where it is not at hand.
    static std::string case_folder(const std::string& name) {
        for (const std::string& place : {source_dir() + "/examples", data_dir()}) {
            const std::string folder = place + "/" + name;
            if (std::filesystem::exists(folder + "/" + name + ".par")) return folder;
        }
        return {};
    }
    // Copies the files of a case into the working directory. False: not at hand.
    bool bring(const std::string& name) {
        namespace fs = std::filesystem;
        const std::string folder = case_folder(name);
        if (folder.empty()) return false;
        for (const auto& entry : fs::directory_iterator(folder)) {
            fs::copy_file(entry.path(), entry.path().filename(), fs::copy_options::overwrite_existing);
            fs::permissions(entry.path().filename(), fs::perms::owner_write, fs::perm_options::add);
        }
        name_ = name;
        if (fs::exists("expected.json")) expected_ = read_json(read_file("expected.json"));
        return true;
    }
    // Runs the case with options parted by blanks.
    program_result run(const std::string& options) const {
        auto args = words_of(options);
        args.push_back(name_);
        return run_program(args);
    }
    // The same, expecting that the run finishes.
    program_result finish(const std::string& options) const {
        const auto result = run(options);
        EXPECT_EQ(result.status, 0) << "tarvex " << options << " " << name_ << "\n" << result.output;
        return result;
    }
    const json& expected() const { return expected_; }

    std::string name_;
    json expected_;
};

inline void expect_relative(double value, double expected, double tolerance, const std::string& what) {
    EXPECT_NEAR(value, expected, tolerance * std::fabs(expected)) << what;
}

// Best point on file close to another one, estimates relative to their size.
inline void expect_best(const best_point& truth, double in_loglike, double relative) {
    const auto found = read_best_point();
    EXPECT_NEAR(found.loglike, truth.loglike, in_loglike);
    ASSERT_EQ(found.values.size(), truth.values.size());
    for (std::size_t i = 0; i < truth.values.size(); ++i)
        EXPECT_NEAR(found.values[i], truth.values[i], relative * std::max(1.0, std::fabs(truth.values[i])))
            << "estimate " << i + 1;
}

} // namespace tarvex
