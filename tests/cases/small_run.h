// Runs on a small population: one trait, herds, a covariable and animals, in a folder that is cleared between runs.
#pragma once
#include "case_run.h"
#include "population.h"

#include <filesystem>
#include <string>

namespace tarvex {

class small_run : public case_run {
protected:
    void SetUp() override {
        name_ = "model";
        p_ = make_population(40, 2, 1, 0.0, 81);
        fresh();
    }
    static constexpr const char* columns = " animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y1\n y2\n";
    static std::string uni(const std::string& effects = " FIX herd\n COV age(1,POL)\n RAN animal NRM\n",
                           const std::string& head = "PED ped.dat\n", const std::string& tail = "") {
        return head + "ANA UNI\nDAT data.dat\n" + columns + "END\nMOD\n" + effects +
               " TR y1 1 -999\nEND\nVAR animal 1\n 4.0\nVAR residual 1\n 6.0\n" + tail;
    }
    void fresh() {
        for (const auto& entry : std::filesystem::directory_iterator(".")) std::filesystem::remove_all(entry.path());
        write_file("ped.dat", p_.pedigree());
        write_file("data.dat", p_.all_traits_lines());
        write_file("model.par", uni());
    }
    static std::string replaced(std::string text, const std::string& what, const std::string& by) {
        const auto at = text.find(what);
        EXPECT_NE(at, std::string::npos) << what;
        return at == std::string::npos ? text : text.replace(at, what.size(), by);
    }
    population p_;
};

} // namespace tarvex
