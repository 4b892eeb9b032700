// Analyses that follow one another in one folder, and what they leave there beside what they would leave in a fresh
// one.
#pragma once
#include "case_run.h"
#include "population.h"

#include <filesystem>
#include <map>
#include <string>

namespace tarvex {

struct study {
    std::string pedigree, data, parameters, options;
};

class used_folder : public case_run {
protected:
    using reports = std::map<std::string, std::string>; // by file name; the status under "status"

    void SetUp() override { name_ = "model"; }
    static void bring_study(const study& s) {
        write_file("ped.dat", s.pedigree);
        write_file("data.dat", s.data);
        write_file("model.par", s.parameters);
    }
    // Everything that a user reads, without clocks.
    reports outcome(const study& s) {
        bring_study(s);
        for (const auto& entry : std::filesystem::directory_iterator("."))
            if (is_report(entry.path().filename())) std::filesystem::remove(entry.path());
        const auto result = run(s.options);
        told_ = result.output;
        reports all{{"status", std::to_string(result.status)}};
        for (const auto& entry : std::filesystem::directory_iterator("."))
            if (const std::string name = entry.path().filename(); is_report(name)) all[name] = without_clock(name);
        return all;
    }
    reports in_fresh_folder(const study& s) {
        const auto here = std::filesystem::current_path();
        const std::string name = "fresh" + std::to_string(++folders_);
        std::filesystem::create_directory(name);
        if (std::filesystem::exists("RandomSeeds")) std::filesystem::copy_file("RandomSeeds", name + "/RandomSeeds");
        std::filesystem::current_path(name);
        const reports all = outcome(s);
        std::filesystem::current_path(here);
        std::filesystem::remove_all(name);
        return all;
    }
    // The study after whatever has run here, to the byte of a fresh folder.
    void expect_as_fresh(const study& s, const std::string& what, const std::string& status = "0") {
        const reports truth = in_fresh_folder(s), found = outcome(s);
        EXPECT_EQ(truth.at("status"), status) << what << "\n" << told_;
        EXPECT_GT(truth.size(), 3u) << what;
        for (const auto& [name, text] : truth) {
            ASSERT_TRUE(found.contains(name)) << what << ": no " << name << "\n" << told_;
            EXPECT_EQ(found.at(name), text) << what << ": " << name;
        }
        EXPECT_EQ(found.size(), truth.size()) << what;
    }
    std::string told_; // screen of the last run

private:
    static bool is_report(const std::string& name) {
        for (const char* start : {"SumEst", "SumMod", "SumPed", "FixSol", "RnSoln", "Residuals", "BestPoint",
                                  "BestSoFar", "ListofCovs", "AvInfo", "SimData", "RanReg"})
            if (name.starts_with(start)) return true;
        return false;
    }
    static std::string without_clock(const std::string& name) {
        std::string text;
        for (const auto& line : lines_of(read_file(name)))
            if (line.find(" end of file ") == std::string::npos) text += line + "\n";
        return text;
    }
    int folders_ = 0;
};

} // namespace tarvex
