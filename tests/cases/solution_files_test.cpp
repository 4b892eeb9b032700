// Files of solutions have the columns that the guide to files names, as wide as it says.
#include "small_run.h"
#include "support/paths.h"

#include <cctype>

using namespace tarvex;

namespace {

class solution_files : public small_run {
protected:
    // What the guide says of the columns of a file.
    static std::string columns_cell(const std::string& file) {
        for (const auto& line : lines_of(read_file(source_dir() + "/docs/files.md"))) {
            if (line.find("| `" + file + "`") != 0) continue;
            const std::size_t from = line.find('|', line.find('|', 1) + 1);
            return line.substr(from + 1, line.rfind('|', line.rfind('|') - 1) - from - 1);
        }
        ADD_FAILURE() << "the guide has no line for " << file;
        return {};
    }
    static std::vector<std::size_t> widths_in(const std::string& text) {
        std::vector<std::size_t> widths;
        for (std::size_t at = text.find('('); at != std::string::npos; at = text.find('(', at + 1))
            if (std::isdigit(static_cast<unsigned char>(text[at + 1])))
                widths.push_back(std::stoul(text.substr(at + 1)));
        return widths;
    }
    // Of tables of random regressions: what each line begins with, then the same for each of n items.
    static std::vector<std::size_t> table_widths(const std::string& file, bool errors, int n) {
        const std::string cell = columns_cell(file), without = "in runs without errors";
        const std::size_t each = cell.rfind("then for each"), other = cell.find(without);
        if (each == std::string::npos || other == std::string::npos) {
            ADD_FAILURE() << file << ": " << cell;
            return {};
        }
        std::vector<std::size_t> widths = widths_in(cell.substr(0, each));
        const auto item = widths_in(errors ? cell.substr(each, other - each) : cell.substr(other));
        EXPECT_EQ(item.size(), errors ? 2u : 1u) << cell;
        for (int k = 0; k < n; ++k) widths.insert(widths.end(), item.begin(), item.end());
        return widths;
    }
    // Widths of the columns that the guide names for a file, those of runs without standard errors or all.
    static std::vector<std::size_t> guided(const std::string& file, bool errors) {
        for (const auto& line : lines_of(read_file(source_dir() + "/docs/files.md"))) {
            if (line.find("| `" + file + "`") != 0) continue;
            std::size_t at = line.find('|', line.find('|', 1) + 1); // behind the cells of the name and of the writer
            const std::size_t end = errors ? line.rfind('|', line.rfind('|') - 1) : line.find("with `--blup`", at);
            std::vector<std::size_t> widths;
            for (at = line.find('(', at); at < end; at = line.find('(', at + 1))
                widths.push_back(std::stoul(line.substr(at + 1)));
            return widths;
        }
        ADD_FAILURE() << "the guide has no line for " << file;
        return {};
    }
    // A line is as wide as its columns, each of which holds one word at most and cuts none.
    static void expect_columns(const std::string& line, const std::vector<std::size_t>& widths) {
        std::size_t at = 0, words = 0;
        for (const std::size_t width : widths) {
            ASSERT_LE(at + width, line.size()) << line;
            const std::size_t here = words_of(line.substr(at, width)).size();
            EXPECT_LE(here, 1u) << line << " from " << at;
            words += here;
            at += width;
        }
        EXPECT_EQ(at, line.size()) << line;
        EXPECT_EQ(words, words_of(line).size()) << line;
    }
    static void expect_file(const std::string& file, const std::vector<std::size_t>& widths, std::size_t heading) {
        const auto lines = lines_of(read_file(file));
        ASSERT_GT(lines.size(), heading + 2) << file;
        for (std::size_t k = heading; k < lines.size(); ++k)
            if (!words_of(lines[k]).empty()) expect_columns(lines[k], widths);
    }
};

TEST_F(solution_files, have_the_columns_of_the_guide) {
    for (const bool errors : {false, true}) {
        fresh();
        finish(errors ? "--blup" : "--aireml3");
        expect_file("RnSoln_animal.dat", guided("RnSoln_<effect>.dat", errors), 0);
        expect_file("Curve_age.dat", guided("Curve_<covariable>.dat", true), 0);
        for (const auto& line : lines_of(read_file("Residuals.dat")))
            EXPECT_EQ(words_of(line).size(), 2u) << "record, residual";
    }
}

// The one column without a width is the name of the effect.
TEST_F(solution_files, of_fixed_effects_have_the_columns_of_the_guide) {
    finish("--blup");
    const auto widths = guided("FixSolutions.out", true);
    ASSERT_EQ(widths.size(), 8u);
    int levels = 0;
    for (const auto& line : lines_of(read_file("FixSolutions.out"))) {
        const auto w = words_of(line);
        if (w.size() != 9 || w[1] != "herd") continue;
        std::vector<std::size_t> all = widths;
        std::size_t sum = 0;
        for (const std::size_t width : widths) sum += width;
        ASSERT_GT(line.size(), sum);
        all.insert(all.begin() + 1, line.size() - sum);
        expect_columns(line, all);
        ++levels;
    }
    EXPECT_GT(levels, 1);
}

TEST_F(solution_files, of_nested_curves_have_the_columns_of_the_guide) {
    write_file("model.par", uni(" FIX herd\n COV age*herd(2,POL)\n RAN animal NRM\n"));
    finish("--aireml3");
    const auto widths = widths_in(columns_cell("Curve_<covariable>.dat`, `Curve_<covariable>_<effect>.dat"));
    int curves = 0, values = 0;
    for (const auto& line : lines_of(read_file("Curve_age_herd.dat"))) {
        const bool heading = line.find("Nested curve no. =") == 0;
        if (!heading) expect_columns(line, widths);
        ++(heading ? curves : values);
    }
    EXPECT_GT(curves, 1);
    EXPECT_GT(values, curves);
}

TEST_F(solution_files, of_random_regressions_have_the_columns_of_the_guide) {
    p_ = make_population(60, 1, 3, 0.0, 72);
    for (std::size_t i = 0; i < p_.records.size(); ++i) p_.records[i].age = 20.0 + static_cast<double>(i % 6);
    for (const bool errors : {false, true}) {
        fresh();
        write_file("model.par", "PED ped.dat\nANA RR\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n"
                                " parity 3\n age 40\n y1\nEND\nMOD\n FIX herd\n RAN animal(2,LEG) NRM\n"
                                " RAN perm(1,LEG) IDE\n RRC age\n TR y1 1 -999\nEND\nVAR animal 2\n 8.0 1.0 2.0\n"
                                "VAR perm 1\n 2.0\nVAR residual 1 HOM\n 4.0\n");
        finish(errors ? "--aireml60" : "--emalg3");
        const auto lines_at = [&](const char* file, int items, const char* heading) {
            const auto widths = table_widths(file, errors, items);
            std::size_t values = 0;
            for (const auto& line : lines_of(read_file(file))) {
                const auto w = words_of(line);
                // headings begin with a word, or have the names of the effects
                if (w.empty()) continue;
                if (std::isnan(number_of(w[0]))) {
                    EXPECT_TRUE(line.find(heading) == 0 || line.find("for level no.") != std::string::npos ||
                                w[0] == "Level" || w[0] == "animal")
                        << line;
                    continue;
                }
                expect_columns(line, widths);
                ++values;
            }
            return values;
        };
        EXPECT_EQ(lines_at("RanRegVariances.dat", 4, "Variance components"), 6u);
        EXPECT_EQ(lines_at("RanRegVarRatios.dat", 3, "Variance ratios"), 6u);
        EXPECT_EQ(lines_at("RanRegCorrels.dat", 2, "Selected correlations"), 36u);
    }
}

TEST_F(solution_files, of_breeding_values_name_their_columns) {
    std::string text = replaced(uni(" FIX herd\n RAN animal NRM\n"), "ANA UNI", "ANA MUV PC 2");
    text = replaced(replaced(text, "MOD\n", "MOD EQ\n"), " TR y1 1 -999\n", " TR y1 1 -999\n TR y2 2 -999\n");
    text = replaced(text, "VAR animal 1\n 4.0\n", "VAR animal 2 1\n 4.0 2.4 1.9\n");
    write_file("model.par", replaced(text, "VAR residual 1\n 6.0\n", "VAR residual 2\n 5.0 1.0 3.0\n"));
    finish("--blup");
    const auto widths = guided("EBV_<effect>.dat", true);
    expect_file("EBV_animal.dat", widths, 1);
    expect_file("RnSoln_animal.dat", guided("RnSoln_<effect>.dat", true), 0);
    const auto heading = words_of(lines_of(read_file("EBV_animal.dat")).at(0));
    EXPECT_EQ(heading, (std::vector<std::string>{"Level", "Org.code", "No", "B.Valu", "S.Erro", "Accur."}));
}

} // namespace
