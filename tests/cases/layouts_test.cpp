// Whole parameter files of many kinds, run on generated data: each finishes and leaves its reports.
#include "case_run.h"
#include "parfile/examples.h"

#include <map>
#include <random>
#include <sstream>

using namespace tarvex;

namespace {

struct data_column {
    std::string name;
    int levels;
};

class layouts : public case_run {
protected:
    void SetUp() override { name_ = "model"; }

    // Data and pedigree for the columns of the first trait; `numbers` at the head of lines that belong to one trait.
    static void put(const std::string& text, int repeats, const std::vector<int>& numbers = {}) {
        const auto columns = columns_of(text);
        std::mt19937 rng(5);
        const auto draw = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)) + 1; };
        std::ostringstream ped, data;
        for (int a = 1; a <= animals; ++a) {
            const int sire = a > 10 ? draw(5) : 0, dam = a > 10 ? 5 + draw(5) : 0;
            ped << a << " " << sire << " " << dam << "\n";
            if (a <= 10) continue;
            for (int k = 1; k <= repeats; ++k) {
                std::map<std::string, int> codes{{"animal", a}, {"cow", a}, {"cowpe", a}, {"pe", a}, {"dam", dam}};
                codes["age"] = (7 * a + 11 * k) % 40 + 1; // no age twice for an animal
                for (const auto& c : columns)
                    if (codes.count(c.name) == 0 && c.levels > 0) codes[c.name] = draw(std::min(c.levels, 5));
                if (numbers.empty()) data << line(columns, codes, 0, rng) << "\n";
                for (int number : numbers) data << line(columns, codes, number, rng) << "\n";
            }
        }
        const auto word = [&](const std::string& key) { // behind a keyword
            std::istringstream rest(text.substr(text.find(key) + key.size()));
            std::string s;
            rest >> s;
            return s;
        };
        write_file(word("DAT "), data.str());
        write_file(word("PED "), ped.str());
        write_file("model.par", text);
    }
    std::string report(const std::string& options) const {
        finish(options);
        return read_file("SumEstimates.out");
    }
    static constexpr int animals = 60;

private:
    static std::vector<data_column> columns_of(const std::string& text) {
        std::vector<data_column> columns;
        std::istringstream in(text.substr(text.find("DAT ")));
        std::string row;
        std::getline(in, row);
        while (std::getline(in, row)) {
            std::istringstream words(row.substr(0, row.find('#')));
            std::string name;
            int levels = 0;
            words >> name;
            if (name == "END" || name == "TR2") break;
            if (name == "TRN") continue;
            if (name == "TR1") words >> name;
            if (name == "NAM") words >> name;
            words >> levels;
            columns.push_back({name, levels});
        }
        return columns;
    }
    static std::string line(const std::vector<data_column>& columns, std::map<std::string, int>& codes, int number,
                            std::mt19937& rng) {
        std::ostringstream out;
        for (const auto& c : columns) {
            if (c.name == "qno")
                out << number << " ";
            else if (codes.count(c.name) > 0)
                out << codes[c.name] << " ";
            else // approximately normal, with the animal's own part
                out << 50.0 + 0.3 * codes["age"] + 0.01 * static_cast<double>(rng() % 1000 + rng() % 1000) +
                           static_cast<double>(codes.count("animal") > 0 ? codes["animal"] % 7 : codes["cow"] % 7)
                    << " ";
        }
        return out.str();
    }
};

TEST_F(layouts, one_trait) {
    put(examples::weaning, 1);
    const auto text = report("--aireml5");
    EXPECT_NE(text.find(" Weaning weight, animal model"), std::string::npos);
    EXPECT_NE(text.find("\"wean.dat\""), std::string::npos);
    EXPECT_NE(text.find("\"UNI\""), std::string::npos);
    EXPECT_EQ(labelled("SumEstimates.out", "No. of records"), 50.0);
}

TEST_F(layouts, repeated_records_with_all_extra_blocks) {
    put(examples::repeatability + examples::extras, 3);
    const auto text = report("--aireml5");
    EXPECT_EQ(labelled("SumEstimates.out", "No. of records"), 150.0);
    for (const char* name : {"phenvar", "half", "herit", "repeat_cow"})
        EXPECT_NE(text.find(name), std::string::npos) << name;
    EXPECT_NE(read_file("SumPedigree.out").find(" Levels treated as \"fixed\" "), std::string::npos);
}

TEST_F(layouts, two_traits_of_a_line) {
    put(examples::two_traits + "ZER\n herd 2 2\nEND\nSE+\n COR rg 5 4 6\nEND\n", 1);
    EXPECT_NE(report("--aireml5").find("rg"), std::string::npos);
    EXPECT_EQ(labelled("SumEstimates.out", "No. of records"), 100.0);
}

TEST_F(layouts, traits_of_a_file_that_holds_more) {
    put(examples::renumbered, 1, {3, 4, 5, 9});
    EXPECT_FALSE(report("--aireml5").empty());
    EXPECT_EQ(labelled("SumEstimates.out", "No. of records"), 100.0);
}

TEST_F(layouts, reduced_rank) {
    put(examples::four_pc, 1);
    EXPECT_NE(report("--aireml5").find("\"MUV PC 4\""), std::string::npos);
    EXPECT_NE(read_file("SumEstimates.out").find("Order & rank of fit  =       4       2"), std::string::npos);
}

TEST_F(layouts, random_regression) {
    put(examples::growth, 4);
    EXPECT_FALSE(report("--aireml5").empty());
    EXPECT_EQ(labelled("SumEstimates.out", "No. of records"), 200.0);
    const auto at = examples::growth.find("VAR residual");
    write_file("model.par", examples::growth.substr(0, at) + examples::growth_het);
    EXPECT_NE(report("--aireml5").find("No. of measurement error variance classes ="), std::string::npos);
}

TEST_F(layouts, grouped_columns) {
    put(examples::grouped, 1, {1, 2, 3});
    EXPECT_FALSE(report("--aireml5").empty());
    EXPECT_EQ(labelled("SumEstimates.out", "No. of records"), 150.0);
}

TEST_F(layouts, diagonal_block_of_a_supplied_inverse) {
    std::string text = examples::with(examples::two_traits, " herd 30\n", " herd 30\n litter 3\n");
    text = examples::with(text, " RAN animal NRM\n", " RAN animal NRM\n RAN litter GIN\n") + examples::diagonal;
    put(text, 1);
    write_file("litter.gin", "0.0\n1 1 1.0\n2 2 1.0\n3 3 1.0\n");
    EXPECT_NE(report("--aireml5").find("GIN"), std::string::npos);
    EXPECT_EQ(read_best_point().values.size(), 3u + 3u + 2u);
}

} // namespace
