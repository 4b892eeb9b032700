// Numbers that went wrong in corners: codes of interactions, control variables, spline tables, trait numbers, columns
// of reports, and the covariances of a repeat effect.
#include "case_run.h"

using namespace tarvex;

namespace {

class smaller_numbers : public case_run {
protected:
    void SetUp() override { name_ = "model"; }

    std::string output_;
    static double wave(int i) { return 10.0 + 3.0 * std::sin(1.7 * i) + std::cos(0.31 * i * i); }
    static std::string text(double x) { return std::to_string(x); }
};

// Codes of an interaction are products: 50000 times 100000, and the second code.
TEST_F(smaller_numbers, codes_of_interactions_beyond_31_bits) {
    std::string data;
    for (int i = 1; i <= 40; ++i)
        data += std::to_string(i % 8 + 1) + " " + std::to_string(50000 + i % 2) + " " + std::to_string(20201 + i % 3) +
                " " + text(wave(i)) + "\n";
    write_file("data.dat", data);
    const auto with = [](const std::string& zer) {
        write_file("model.par",
                   "ANA UNI\nDAT data.dat\n animal 9\n herd 99\n year 99\n y\nEND\nMOD\n FIX herd*year\n RAN animal "
                   "IDE\n TR y 1 -999\nEND\nVAR animal 1\n 1.0\nVAR residual 1\n 2.0\n" +
                       zer);
    };
    with("ZER\n herd*year 5000120202\nEND\n");
    finish("--blup");
    int levels = 0;
    for (const auto& line : read_fixed_solutions().levels) {
        ++levels;
        EXPECT_EQ(line.solution == 0.0, line.code == 5000120202) << line.code;
    }
    EXPECT_EQ(levels, 6);
    with("ZER\n herd*year 5000920202\nEND\n");
    EXPECT_EQ(run("--blup").status, 1);
    with("ZER\n herd*year 50001202021234567890\nEND\n");
    EXPECT_NE(run("--blup").output.find("\"Zero out\" code or trait no."), std::string::npos);
}

// Records of an animal on one day that differ in the second control variable are two records. With constant functions
// the model is that of repeated records.
TEST_F(smaller_numbers, records_count_as_the_same_only_if_all_controls_agree) {
    std::string data;
    for (int i = 0; i < 60; ++i)
        data += std::to_string(i / 6 + 1) + " " + std::to_string(i / 6 + 1) + " " + std::to_string(i % 3 + 1) + " " +
                std::to_string(5 + (i / 3) % 2) + " " + text(wave(i)) + "\n";
    write_file("data.dat", data);
    std::string pedigree;
    for (int i = 1; i <= 10; ++i) pedigree += std::to_string(i) + " 0 0\n";
    write_file("ped.dat", pedigree);
    const std::string head = "DAT data.dat\n animal 99\n pe 99\n day 9\n parity 9\n y\nEND\nMOD\n MEA\n";
    write_file("model.par", "PED ped.dat\nANA RR\n" + head +
                                " RAN animal(1,POL,day) NRM\n RAN pe(1,POL,parity) IDE\n RRC day\n RRC parity\n TR "
                                "y 1 -999\nEND\nVAR animal 1\n 1.5\nVAR pe 1\n 0.5\nVAR residual 1 HOM\n 2.0\n");
    const double regression = loglike_at_start(finish("--aireml1").output);
    std::filesystem::remove("BestPoint");
    write_file("model.par", "PED ped.dat\nANA UNI\n" + head +
                                " RAN animal NRM\n RAN pe IDE\n TR y 1 -999\nEND\nVAR animal 1\n 1.5\nVAR pe 1\n "
                                "0.5\nVAR residual 1\n 2.0\n");
    expect_relative(regression, loglike_at_start(finish("--aireml1").output), 1e-10, "log L");
    // the same in both: refused, as before
    write_file("model.par", "PED ped.dat\nANA RR\n" + head +
                                " RAN animal(1,POL,day) NRM\n RAN pe(1,POL,parity) IDE\n RRC day\n RRC parity\n TR "
                                "y 1 -999\nEND\nVAR animal 1\n 1.5\nVAR pe 1\n 0.5\nVAR residual 1 HOM\n 2.0\n");
    std::string sorted;
    for (const auto& line : lines_of(data)) sorted += line.empty() ? "" : line + "\n" + line + "\n";
    write_file("data.dat", sorted);
    EXPECT_NE(run("--aireml1").output.find("different records with the same"), std::string::npos);
}

TEST_F(smaller_numbers, splines_of_equal_order_and_other_degree_have_files_of_their_own) {
    std::string data;
    for (int i = 0; i < 60; ++i)
        data += std::to_string(i / 6 + 1) + " " + std::to_string(i / 6 + 1) + " " + std::to_string(2 * (i % 6)) + " " +
                text(wave(i)) + "\n";
    write_file("data.dat", data);
    write_file(
        "model.par",
        "ANA RR\nDAT data.dat\n animal 99\n pe 99\n day 99\n y\nEND\nMOD\n MEA\n RAN animal(4,BSPQ) IDE\n RAN "
        "pe(4,BSPC) IDE\n RRC day\n TR y 1 -999\nEND\nVAR animal 4\n 1 0 0 0\n 1 0 0\n 1 0\n 1\nVAR pe 4\n 1 0 0 "
        "0\n 1 0 0\n 1 0\n 1\nVAR residual 1 HOM\n 2.0\n");
    finish("--blup");
    // at the lowest value: of degree 2 halves of the first two functions, of degree 3 a sixth, two thirds, a sixth
    const auto first = [](const char* file) { return words_of(lines_of(read_file(file)).at(0)); };
    const auto quadratic = first("day_BSP4.baf"), cubic = first("day_BSP4C.baf");
    ASSERT_EQ(quadratic.size(), 5u);
    ASSERT_EQ(cubic.size(), 5u);
    const double want2[] = {0.0, 0.5, 0.5, 0.0, 0.0}, want3[] = {0.0, 1.0 / 6, 2.0 / 3, 1.0 / 6, 0.0};
    for (std::size_t k = 0; k < 5; ++k) {
        EXPECT_NEAR(number_of(quadratic[k]), want2[k], 1e-6);
        EXPECT_NEAR(number_of(cubic[k]), want3[k], 1e-6);
    }
}

TEST_F(smaller_numbers, the_only_trait_has_number_one) {
    write_file("data.dat", "1 1 5\n2 1 6\n3 2 7\n4 2 5\n");
    for (const auto& [line, status] : {std::pair{"TR y 1 999", 0},
                                       {"TR y 1", 0},
                                       {"TR y", 0},
                                       {"TR y -999", 0},
                                       {"TR y 999", 1},
                                       {"TR y 0", 1},
                                       {"TR y 2 -9", 1}}) {
        write_file(
            "model.par",
            std::string("ANA UNI\nDAT data.dat\n animal 9\n herd 9\n y\nEND\nMOD\n FIX herd\n RAN animal IDE\n ") +
                line + "\nEND\nVAR animal 1\n 1.0\nVAR residual 1\n 2.0\n");
        const auto result = run("--blup");
        EXPECT_EQ(result.status, status) << line << result.output;
        EXPECT_EQ(result.output.find("The only trait has number 1") != std::string::npos, status == 1) << line;
    }
}

// Dates stand apart from the running number in the files on control values.
TEST_F(smaller_numbers, long_control_values_in_reports) {
    for (const long base : {20240101L, 100L, -20240110L, -1000007L, -3L}) {
        std::string data;
        for (int i = 0; i < 60; ++i)
            data += std::to_string(i / 6 + 1) + " " + std::to_string(base + i % 6) + " " + text(wave(i)) + "\n";
        write_file("data.dat", data);
        write_file(
            "model.par",
            "ANA RR\nDAT data.dat\n animal 99\n day 99\n y\nEND\nMOD\n MEA\n RAN animal(2,LEG) IDE\n RRC day\n TR y "
            "1 -999\nEND\nVAR animal 2\n 1 0.1\n 1\nVAR residual 1 HOM\n 2.0\n");
        std::filesystem::remove("BestPoint");
        finish("--aireml1");
        for (const char* file : {"RanRegVariances.dat", "RanRegVarRatios.dat", "RanRegCorrels.dat"}) {
            int n = 0;
            for (const auto& line : lines_of(read_file(file))) {
                EXPECT_EQ(line.find("***"), std::string::npos) << file << line;
                const auto w = words_of(line);
                if (w.size() > 2 && w[0] == std::to_string(n % 6 + 1) && w[1] == std::to_string(base + n % 6)) ++n;
            }
            EXPECT_EQ(n, std::string(file) == "RanRegCorrels.dat" ? 36 : 6) << file << base;
        }
        const auto lines = lines_of(read_file("RanRegVariances.dat"));
        EXPECT_EQ(lines.at(2).starts_with("    1    100 "), base == 100) << lines.at(2); // as ever
    }
}

// A residual covariance given as 0 beside a repeat effect: matrices are used as given, and estimated.
TEST_F(smaller_numbers, residual_covariance_of_zero_beside_a_repeat_effect) {
    std::string data, pedigree;
    for (int i = 1; i <= 60; ++i) {
        pedigree += std::to_string(i) + " " +
                    (i > 20 ? std::to_string(i % 10 + 1) + " " + std::to_string(i % 7 + 11) : "0 0") + "\n";
        for (int r = 0; r < 2; ++r)
            data += std::to_string(i) + " " + std::to_string(i) + " " + std::to_string((i + r) % 3 + 1) + " " +
                    text(wave(i) + wave(70 * r + i)) + " " + text(wave(2 * i) + 0.4 * wave(i + 3 * r)) + "\n";
    }
    write_file("data.dat", data);
    write_file("ped.dat", pedigree);
    const auto with = [](const std::string& covariance) {
        write_file(
            "model.par",
            "PED ped.dat\nANA MUV 2\nDAT data.dat\n animal 99\n pe 99\n herd 9\n y1\n y2\nEND\nMOD EQ\n FIX herd\n RAN "
            "animal NRM\n RAN pe PEQ\n TR y1 1 -999\n TR y2 2 -999\nEND\nVAR animal 2\n 2 0.5\n 2\nVAR pe 2\n 2 0.6\n "
            "1.5\nVAR residual 2\n 8 " +
                covariance + "\n 6\n");
        std::filesystem::remove("BestPoint");
    };
    const auto solutions = [&](const std::string& covariance) {
        with(covariance);
        finish("--blup");
        std::vector<double> u;
        for (const auto& line : read_random_solutions("animal")) u.push_back(line.solution);
        return u;
    };
    const auto zero = solutions("0"), nearly = solutions("1e-7"), other = solutions("-0.6");
    ASSERT_EQ(zero.size(), nearly.size());
    double difference = 0.0;
    for (std::size_t k = 0; k < zero.size(); ++k) {
        EXPECT_NEAR(zero[k], nearly[k], 2e-5);
        difference = std::max(difference, std::fabs(zero[k] - other[k])); // what the sum set to 0 gave
    }
    EXPECT_GT(difference, 1e-2);
    with("0");
    const double at_zero = loglike_at_start(finish("--aireml10").output), end = read_best_point().loglike;
    with("1e-9");
    expect_relative(at_zero, loglike_at_start(finish("--aireml10").output), 1e-8, "log L");
    EXPECT_NEAR(read_best_point().loglike, end, 1e-3);
}

// By records a repeat effect is one of the subject: log L, estimates and errors are those of independent levels beside
// residuals of lines.
TEST_F(smaller_numbers, repeat_effects_by_record) {
    std::string data, pedigree;
    for (int i = 1; i <= 60; ++i) {
        pedigree += std::to_string(i) + " 0 0\n";
        for (int r = 0; r < 3; ++r)
            data += std::to_string(i) + " " + std::to_string(i) + " " + std::to_string((i + r) % 3 + 1) + " " +
                    text(wave(i) + wave(70 * r + i)) + " " + text(wave(2 * i) + 0.7 * wave(70 * r + i)) + "\n";
    }
    write_file("data.dat", data);
    write_file("ped.dat", pedigree);
    const auto estimates_of = [&](const std::string& effect, const std::string& line, const std::string& block,
                                  const std::string& residual, const std::string& values = "2 0.6\n 1.5") {
        write_file("model.par",
                   "PED ped.dat\nANA MUV 2\nDAT data.dat\n animal 99\n pe 99\n herd 9\n y1\n y2\nEND\nMOD EQ\n FIX "
                   "herd\n RAN animal NRM\n RAN pe " +
                       effect + line +
                       "\n TR y1 1 -999\n TR y2 2 -999\nEND\nVAR animal "
                       "2\n 0.5 0\n 0.5\nVAR pe " +
                       block + "\n " + values + "\nVAR residual 2\n 8 " + residual + "\n 6\n");
        std::filesystem::remove("BestPoint");
        output_ = finish("--aireml30,1e-9").output;
        return read_estimates();
    };
    const auto record = estimates_of("PEQ", "", "2 REC", "1");
    EXPECT_EQ(output_.find("withheld"), std::string::npos);
    const auto independent = estimates_of("IDE", "\n SUBject LINE", "2", "1");
    ASSERT_EQ(record.size(), independent.size());
    ASSERT_GE(record.size(), 9u);
    for (std::size_t k = 0; k < record.size(); ++k) {
        EXPECT_EQ(record[k].value, independent[k].value);
        EXPECT_EQ(record[k].error, independent[k].error);
    }
    // a diagonal matrix by records too, the words in either order
    const auto diagonal = [&](const std::string& effect, const std::string& line, const std::string& words) {
        return estimates_of(effect, line, words, "1", "2\n 1.5");
    };
    const auto apart = diagonal("IDE", "\n SUBject LINE", "2 DIA");
    EXPECT_EQ(apart.size() + 1, independent.size());
    for (const char* words : {"2 REC DIA", "2 DIA REC"}) {
        const auto found = diagonal("PEQ", "", words);
        ASSERT_EQ(found.size(), apart.size()) << words;
        for (std::size_t k = 0; k < apart.size(); ++k) EXPECT_EQ(found[k].value, apart[k].value) << words << k;
    }
    // the default form says what it cannot tell, and withholds the errors of that alone
    const auto sum = estimates_of("PEQ", "", "2", "1");
    EXPECT_NE(output_.find("errors of either are withheld"), std::string::npos) << output_;
    int told = 0;
    for (const auto& line : sum) told += line.error > 0.0 ? 1 : 0;
    for (const char* name : {"COVS Z 1 2", "COVS B 1 2", "COVS T 1 2"}) {
        const std::string report = read_file("SumEstimates.out");
        const auto at = report.find(name);
        ASSERT_NE(at, std::string::npos);
        EXPECT_NE(report.substr(at, report.find('\n', at) - at).find("failed"), std::string::npos) << name;
    }
    EXPECT_GE(told, 4);
}

} // namespace
